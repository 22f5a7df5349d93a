/*
 * Host service: threads, sleep, time, locks, number helpers.
 *
 * The library never creates a thread, sleeps, reads a clock or takes a spin or reader-writer lock except through these.
 */
#ifndef NASCTRL_HOST_PLATFORM_H
#define NASCTRL_HOST_PLATFORM_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* A spin lock: the host locks and unlocks it, the library initialises it field by field. All zero is unlocked too. */
typedef struct {
    uint64_t lock;      /* 0 = unlocked */
    uint32_t magic;     /* 0xDEAD4EAD */
    uint32_t owner_cpu; /* 0xFFFFFFFF = none */
    uint64_t owner;     /* all ones = none */
} kvos_spinlock_t;

/* A reader-writer lock: any number of readers or one writer. */
typedef struct {
    uint64_t word; /* 0 = unlocked */
} kvos_rwlock_t;

/*
 * Starts a detached thread that runs body(arg). On success returns 0 and stores the thread's id through thread_id;
 * otherwise returns a non-zero code and body never runs.
 */
NASCTRL_API int32_t kvos_thrd_create(void *(*body)(void *), void *arg, unsigned long *thread_id);

/* Sleep the calling thread: milliseconds, and units of 10 milliseconds. */
NASCTRL_API void kvos_msleep(uint32_t ms);
NASCTRL_API void kvos_10msleep(uint32_t units_of_10_ms);

/* Monotonic milliseconds; and a monotonic time in a unit of the host's choice, of which only the order is used. */
NASCTRL_API uint64_t kvos_time_getmillisec(void);
NASCTRL_API uint64_t kvos_time_gettime(void);

/* Not recursive. Held for a few instructions only; the library makes no blocking call under one. */
NASCTRL_API void do_kvos_spinlock_lock(kvos_spinlock_t *lock);
NASCTRL_API void do_kvos_spinlock_unlock(kvos_spinlock_t *lock);

/* Not recursive, no upgrade. Held while the library allocates, logs and calls adapters, so waiters should sleep. */
NASCTRL_API void kvos_rwlock_read_lock(kvos_rwlock_t *lock);
NASCTRL_API void kvos_rwlock_read_unlock(kvos_rwlock_t *lock);
NASCTRL_API void kvos_rwlock_write_lock(kvos_rwlock_t *lock);
NASCTRL_API void kvos_rwlock_write_unlock(kvos_rwlock_t *lock);

/* The unsigned decimal number that text begins with; 0 when it begins with none. */
NASCTRL_API uint64_t kvos_str_tou64(const char *text);

/* A hash of value reduced below modulus; 0 for modulus 0. The same for the same arguments on every node. */
NASCTRL_API uint32_t hash_u64_id(uint64_t value, uint32_t modulus);

NASCTRL_END_DECLS

#endif
