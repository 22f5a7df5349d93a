// The node's service addresses, as the library's monitor asks for them.

#include "adapters/adapters.h"

#include "adapters/monitor_pass.h"
#include "platform/log.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>

namespace {

constexpr long kListWaitMs = 100;
constexpr long kNsPerMs = 1000000;
constexpr long kNsPerSecond = 1000000000;
constexpr uint32_t kWorking = 1;

// The list's lock, waited for a bounded time: the monitor can do without one answer, but must not stop.
class ListHold {
public:
    ListHold()
    {
        timespec until{};
        clock_gettime(CLOCK_MONOTONIC, &until);
        until.tv_nsec += kListWaitMs * kNsPerMs;
        until.tv_sec += until.tv_nsec / kNsPerSecond;
        until.tv_nsec %= kNsPerSecond;
        m_held = pthread_mutex_clocklock(&g_ipListMutex, CLOCK_MONOTONIC, &until) == 0;
    }
    ~ListHold()
    {
        if (m_held) {
            pthread_mutex_unlock(&g_ipListMutex);
        }
    }
    ListHold(const ListHold &) = delete;
    ListHold &operator=(const ListHold &) = delete;
    [[nodiscard]] bool held() const { return m_held; }

private:
    bool m_held = false;
};

// NasIpListNode begins with its link.
const NasIpListNode *nextNode(const void *link)
{
    const void *next = static_cast<const list_link *>(link)->next;
    return next == &g_iplistHead ? nullptr : static_cast<const NasIpListNode *>(next);
}

uint32_t countNodes()
{
    uint32_t count = 0;
    for (const NasIpListNode *node = nextNode(&g_iplistHead); node != nullptr; node = nextNode(node)) {
        ++count;
    }
    return count;
}

void fill(node_ip_list &list)
{
    node_ip_entry *entry = list.entries;
    for (const NasIpListNode *node = nextNode(&g_iplistHead); node != nullptr; node = nextNode(node), ++entry) {
        entry->proto_type = node->protoType;
        memcpy(entry->addr, node->addr, strnlen(node->addr, sizeof(node->addr) - 1));
        SetDefaultIpWorkstatus(entry);
    }
}

// Without a storage-side service the node's addresses are those it was sent notices of: the library's own list, so
// that a pass keeps them and tries the modules again that refused one.
int32_t listOwnAddresses(node_ip_list **list)
{
    const ListHold hold;
    if (!hold.held()) {
        HOST_LOG(NASCTRL_LOG_ERROR, "adapters: the address list stayed locked for %ld ms", kListWaitMs);
        return -EBUSY;
    }
    const uint32_t count = countNodes();
    const size_t size = sizeof(node_ip_list) + count * sizeof(node_ip_entry);
    auto *answer = static_cast<node_ip_list *>(nas_mem_comm_zalloc(size, __func__, __LINE__));
    if (answer == nullptr) {
        return -ENOMEM;
    }
    answer->count = count;
    fill(*answer);
    *list = answer;
    return 0;
}

} // namespace

int32_t GetCurNodeIpListAdapter(node_ip_list **list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    host::beginMonitorPass();
    const int32_t code = host::adapterSettings().hasStorage ? GetCurNodeIpList(list) : listOwnAddresses(list);
    // A list that reports a failure of its own is as little of use to the monitor as none.
    host::noteMonitorQuery(code == 0 && *list != nullptr ? (*list)->result : code);
    return code;
}

uint32_t IsIpWork(const node_ip_entry *entry)
{
    return entry != nullptr && entry->work_status == kWorking ? 1 : 0;
}

void SetDefaultIpWorkstatus(node_ip_entry *entry)
{
    if (entry != nullptr) {
        entry->work_status = kWorking;
    }
}
