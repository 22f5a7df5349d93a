/*
 * A hold of a POSIX mutex that is given up when it cannot be had in time.
 */
#pragma once

#include <chrono>
#include <pthread.h>

namespace host {

class TimedHold {
public:
    TimedHold(pthread_mutex_t &mutex, std::chrono::milliseconds patience);
    ~TimedHold();
    TimedHold(const TimedHold &) = delete;
    TimedHold &operator=(const TimedHold &) = delete;
    [[nodiscard]] bool held() const { return held_; }

private:
    pthread_mutex_t &mutex_;
    bool held_;
};

} // namespace host
