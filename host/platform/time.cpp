/*
 * Sleep and the monotonic clock. Callable from every thread; no state.
 */
#include <cerrno>
#include <ctime>
#include <nasctrl/host/platform.h>

namespace {

constexpr uint64_t kNanosPerSecond = 1'000'000'000;
constexpr uint64_t kNanosPerMilli = 1'000'000;
constexpr uint64_t kMillisPerSleepUnit = 10;

uint64_t monotonicNanos()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNanosPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

// Until a fixed end, so that signals neither shorten nor lengthen the sleep.
void sleepMillis(uint64_t ms)
{
    const uint64_t end = monotonicNanos() + ms * kNanosPerMilli;
    const timespec until = {static_cast<time_t>(end / kNanosPerSecond), static_cast<long>(end % kNanosPerSecond)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &until, nullptr) == EINTR) {
    }
}

} // namespace

void kvos_msleep(uint32_t ms)
{
    sleepMillis(ms);
}

void kvos_10msleep(uint32_t units_of_10_ms)
{
    sleepMillis(units_of_10_ms * kMillisPerSleepUnit);
}

uint64_t kvos_time_getmillisec(void)
{
    return monotonicNanos() / kNanosPerMilli;
}

// In nanoseconds.
uint64_t kvos_time_gettime(void)
{
    return monotonicNanos();
}
