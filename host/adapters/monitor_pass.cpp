// The record of the monitor's latest pass and of the addresses it was told, under a lock of its own, a leaf.

#include "adapters/monitor_pass.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <nasctrl/host/adapters.h>
#include <utility>

namespace host {
namespace {

constexpr uint32_t kShortSleepSeconds = 5;

std::mutex s_lock;
std::optional<MonitorPass> s_last;
std::vector<NodeAddress> s_addresses;

std::vector<NodeAddress> addressesOf(const node_ip_list &list)
{
    std::vector<NodeAddress> addresses;
    addresses.reserve(list.count);
    for (const node_ip_entry *entry = list.entries; entry != list.entries + list.count; ++entry) {
        addresses.push_back(
            {{entry->addr, strnlen(entry->addr, sizeof entry->addr)}, entry->proto_type, IsIpWork(entry) != 0});
    }
    return addresses;
}

} // namespace

std::optional<MonitorPass> lastMonitorPass()
{
    const std::lock_guard hold(s_lock);
    return s_last;
}

void beginMonitorPass()
{
    const bool hurried = std::atomic_ref(g_needRetry).load() != 0;
    const uint32_t period = std::atomic_ref(g_periodLength).load();
    const std::lock_guard hold(s_lock);
    s_last = {!s_last, hurried, hurried ? kShortSleepSeconds : period, std::nullopt};
}

std::vector<NodeAddress> nodeAddresses()
{
    const std::lock_guard hold(s_lock);
    return s_addresses;
}

void noteMonitorQuery(int32_t result, const node_ip_list *list)
{
    std::vector<NodeAddress> addresses;
    if (result == 0 && list != nullptr) {
        addresses = addressesOf(*list);
    }
    const std::lock_guard hold(s_lock);
    if (s_last) {
        s_last->queryResult = result;
    }
    if (result == 0) {
        s_addresses = std::move(addresses);
    }
}

} // namespace host
