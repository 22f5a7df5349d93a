/*
 * Scope guards over the host's locks and POSIX mutexes, and the initialisation of a host spin lock.
 */
#ifndef NASCTRL_INTERNAL_LOCKS_H
#define NASCTRL_INTERNAL_LOCKS_H

#include <nasctrl/host/platform.h>
#include <pthread.h>

namespace nas {

/* Locks in its constructor, unlocks in its destructor. */
template <typename Lock, auto Acquire, auto Release>
class Guard {
public:
    explicit Guard(Lock *lock) : lock_(lock) { Acquire(lock_); }
    ~Guard() { Release(lock_); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;

private:
    Lock *lock_;
};

using SpinGuard = Guard<kvos_spinlock_t, do_kvos_spinlock_lock, do_kvos_spinlock_unlock>;
using ReadGuard = Guard<kvos_rwlock_t, kvos_rwlock_read_lock, kvos_rwlock_read_unlock>;
using WriteGuard = Guard<kvos_rwlock_t, kvos_rwlock_write_lock, kvos_rwlock_write_unlock>;
using MutexGuard = Guard<pthread_mutex_t, pthread_mutex_lock, pthread_mutex_unlock>;

inline void spinlockInit(kvos_spinlock_t *lock)
{
    lock->lock = 0;
    lock->magic = 0xDEAD4EADU;
    lock->owner_cpu = 0xFFFFFFFFU;
    lock->owner = ~uint64_t{0};
}

} // namespace nas

#endif
