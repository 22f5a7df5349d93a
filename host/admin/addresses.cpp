#include "admin/addresses.h"

#include <cstddef>
#include <cstring>
#include <ctime>
#include <memory>
#include <nasctrl/ip_manager.h>
#include <pthread.h>

namespace host::admin {

namespace {

constexpr long kMaxWaitNs = 50'000'000;
constexpr long kSecondNs = 1'000'000'000;

static_assert(offsetof(NasIpListNode, link) == 0, "a link of the list is its record");

timespec deadline(clockid_t clock)
{
    timespec time{};
    clock_gettime(clock, &time);
    time.tv_nsec += kMaxWaitNs;
    time.tv_sec += time.tv_nsec / kSecondNs;
    time.tv_nsec %= kSecondNs;
    return time;
}

// The monotonic clock, so that a step of the wall clock cannot make a status call wait. The thread sanitizer does not
// know pthread_mutex_clocklock and would report each later unlock.
int lockInTime(pthread_mutex_t *mutex)
{
#ifdef __SANITIZE_THREAD__
    const timespec until = deadline(CLOCK_REALTIME);
    return pthread_mutex_timedlock(mutex, &until);
#else
    const timespec until = deadline(CLOCK_MONOTONIC);
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

struct Unlock {
    void operator()(pthread_mutex_t *mutex) const { pthread_mutex_unlock(mutex); }
};

ServiceAddress copyOf(const NasIpListNode &node)
{
    return {std::string(node.addr, strnlen(node.addr, sizeof(node.addr))), node.protoType, node.status};
}

} // namespace

std::optional<std::vector<ServiceAddress>> readAddresses()
{
    if (lockInTime(&g_ipListMutex) != 0) {
        return std::nullopt;
    }
    const std::unique_ptr<pthread_mutex_t, Unlock> guard(&g_ipListMutex);
    std::vector<ServiceAddress> addresses;
    for (const void *at = g_iplistHead.next; at != &g_iplistHead; at = static_cast<const list_link *>(at)->next) {
        addresses.push_back(copyOf(*static_cast<const NasIpListNode *>(at)));
    }
    return addresses;
}

} // namespace host::admin
