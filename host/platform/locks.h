/*
 * Reader-writer locks with an end to the waiting, for those who look at the library's tables from outside: a hold that
 * is never given back must not take them with it.
 */
#pragma once

#include <chrono>
#include <nasctrl/host/platform.h>

namespace host {

// True when the lock was taken, false when it could not be had within limit. Given back with the unlock of the kind.
// Waiting takes no place in the lock's order, so a crowd may pass by.
bool readLockInTime(kvos_rwlock_t *lock, std::chrono::nanoseconds limit);
bool writeLockInTime(kvos_rwlock_t *lock, std::chrono::nanoseconds limit);

// A reader's hold, if it could be had in time, that ends with its scope.
class TimedReadHold {
public:
    TimedReadHold(kvos_rwlock_t *lock, std::chrono::nanoseconds limit) : lock_(lock), held_(readLockInTime(lock, limit))
    {
    }
    ~TimedReadHold()
    {
        if (held_) {
            kvos_rwlock_read_unlock(lock_);
        }
    }
    TimedReadHold(const TimedReadHold &) = delete;
    TimedReadHold &operator=(const TimedReadHold &) = delete;
    [[nodiscard]] bool held() const { return held_; }

private:
    kvos_rwlock_t *lock_;
    bool held_;
};

} // namespace host
