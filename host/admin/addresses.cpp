#include "admin/addresses.h"

#include "platform/timed_hold.h"

#include <cstddef>
#include <cstring>
#include <nasctrl/ip_manager.h>

namespace host::admin {

namespace {

constexpr std::chrono::milliseconds kPatience{50};

static_assert(offsetof(NasIpListNode, link) == 0, "a link of the list is its record");

ServiceAddress copyOf(const NasIpListNode &node)
{
    return {std::string(node.addr, strnlen(node.addr, sizeof(node.addr))), node.protoType, node.status};
}

} // namespace

std::optional<std::vector<ServiceAddress>> readAddresses()
{
    const TimedHold hold(g_ipListMutex, kPatience);
    if (!hold.held()) {
        return std::nullopt;
    }
    std::vector<ServiceAddress> addresses;
    for (const void *at = g_iplistHead.next; at != &g_iplistHead; at = static_cast<const list_link *>(at)->next) {
        addresses.push_back(copyOf(*static_cast<const NasIpListNode *>(at)));
    }
    return addresses;
}

} // namespace host::admin
