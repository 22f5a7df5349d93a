#include "platform/timed_hold.h"

#include <ctime>

namespace host {

namespace {

timespec deadline(clockid_t clock, std::chrono::milliseconds patience)
{
    constexpr long kSecondNs = 1'000'000'000;
    timespec time{};
    clock_gettime(clock, &time);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
    time.tv_sec += seconds.count();
    time.tv_nsec += std::chrono::nanoseconds(patience - seconds).count();
    if (time.tv_nsec >= kSecondNs) {
        time.tv_nsec -= kSecondNs;
        ++time.tv_sec;
    }
    return time;
}

// The monotonic clock, so that a step of the wall clock cannot make anyone wait. The thread sanitizer does not know
// pthread_mutex_clocklock and would report each later unlock.
int lockInTime(pthread_mutex_t *mutex, std::chrono::milliseconds patience)
{
#ifdef __SANITIZE_THREAD__
    const timespec until = deadline(CLOCK_REALTIME, patience);
    return pthread_mutex_timedlock(mutex, &until);
#else
    const timespec until = deadline(CLOCK_MONOTONIC, patience);
    return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &until);
#endif
}

} // namespace

TimedHold::TimedHold(pthread_mutex_t &mutex, std::chrono::milliseconds patience)
    : mutex_(mutex), held_(lockInTime(&mutex, patience) == 0)
{
}

TimedHold::~TimedHold()
{
    if (held_) {
        pthread_mutex_unlock(&mutex_);
    }
}

} // namespace host
