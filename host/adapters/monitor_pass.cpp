// The record of the monitor's latest pass, under a lock of its own, a leaf.

#include "adapters/monitor_pass.h"

#include <atomic>
#include <mutex>
#include <nasctrl/ip_manager.h>

namespace host {
namespace {

constexpr uint32_t kShortSleepSeconds = 5;

std::mutex s_lock;
std::optional<MonitorPass> s_last;

} // namespace

std::optional<MonitorPass> lastMonitorPass()
{
    const std::lock_guard hold(s_lock);
    return s_last;
}

void beginMonitorPass()
{
    const bool afterFailure = std::atomic_ref(g_needRetry).load() != 0;
    const uint32_t period = std::atomic_ref(g_periodLength).load();
    const std::lock_guard hold(s_lock);
    s_last = {!s_last, afterFailure, afterFailure ? kShortSleepSeconds : period, std::nullopt};
}

void noteMonitorQuery(int32_t result)
{
    const std::lock_guard hold(s_lock);
    if (s_last) {
        s_last->queryResult = result;
    }
}

} // namespace host
