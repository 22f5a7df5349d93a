/*
 * The semaphores of the contract, over its opaque words. Callable from every thread, light-weight or plain.
 *
 * The locks stand outside of the semaphores: the up that ends a wait has let go of the semaphore before its waiter is
 * woken, so the waiter may free the semaphore at once. A lock is held for a few instructions, with a line of the log
 * for what is no semaphore, and never while a thread waits or is woken.
 */
#include "lwt/waiter.h"
#include "lwt/work_queue.h"
#include "platform/log.h"

#include <array>
#include <mutex>
#include <nasctrl/host/lwt.h>
#include <new>

namespace {

// A down that waits, on its own stack; in order of arrival.
struct Pending {
    host::Waiter waiter;
    Pending *next = nullptr;
};

constexpr uint32_t kAlive = 0x5E3A9F01;

struct Semaphore {
    uint32_t alive; // kAlive from init to destroy
    uint32_t count; // ups that end a down
    uint64_t ups;   // that no down has used
    Pending *first;
    Pending *last;
};
static_assert(sizeof(Semaphore) == sizeof(kvlwt_task_sem_t));
static_assert(alignof(Semaphore) <= alignof(kvlwt_task_sem_t));

constexpr size_t kLocks = 16;

std::mutex &lockOf(const kvlwt_task_sem_t *sem)
{
    static std::array<std::mutex, kLocks> locks;
    return locks[reinterpret_cast<uintptr_t>(sem) / sizeof *sem % kLocks];
}

// Null, with a line in the log, for what is no semaphore. Under its lock.
Semaphore *alive(kvlwt_task_sem_t *sem, const char *call, uint32_t module, const char *func)
{
    auto *semaphore = reinterpret_cast<Semaphore *>(sem);
    if (semaphore != nullptr && semaphore->alive == kAlive) {
        return semaphore;
    }
    HOST_LOG(NASCTRL_LOG_ERROR, "light-weight threads: %s of no semaphore by %s of module %u", call,
             func != nullptr ? func : "(null)", module);
    return nullptr;
}

// The oldest down, when the ups are enough for it; uses them up and takes it off. Null when none may go on.
Pending *takePending(Semaphore &semaphore)
{
    Pending *oldest = semaphore.first;
    if (oldest == nullptr || semaphore.ups < semaphore.count) {
        return nullptr;
    }
    semaphore.ups -= semaphore.count;
    semaphore.first = oldest->next;
    if (semaphore.first == nullptr) {
        semaphore.last = nullptr;
    }
    return oldest;
}

void addPending(Semaphore &semaphore, Pending &down)
{
    (semaphore.last != nullptr ? semaphore.last->next : semaphore.first) = &down;
    semaphore.last = &down;
}

} // namespace

void kvlwt_task_sem_init(kvlwt_task_sem_t *sem, uint32_t count)
{
    if (sem != nullptr) {
        const std::lock_guard lock(lockOf(sem));
        new (sem) Semaphore{kAlive, count, 0, nullptr, nullptr};
    }
}

void kvlwt_task_sem_down(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    std::unique_lock lock(lockOf(sem));
    Semaphore *semaphore = alive(sem, "down", module, func);
    if (semaphore == nullptr) {
        return;
    }
    // Whoever waits is short of ups, so there is no one to overtake.
    if (semaphore->first == nullptr && semaphore->ups >= semaphore->count) {
        semaphore->ups -= semaphore->count;
        return;
    }
    Pending down;
    addPending(*semaphore, down);
    lock.unlock();
    const host::LentPlace meanwhile;
    down.waiter.wait();
}

void kvlwt_task_sem_up(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    std::unique_lock lock(lockOf(sem));
    Semaphore *semaphore = alive(sem, "up", module, func);
    if (semaphore == nullptr) {
        return;
    }
    ++semaphore->ups;
    Pending *down = takePending(*semaphore);
    lock.unlock();
    if (down != nullptr) {
        down->waiter.wake();
    }
}

void kvlwt_task_sem_destroy(kvlwt_task_sem_t *sem)
{
    if (sem != nullptr) {
        const std::lock_guard lock(lockOf(sem));
        reinterpret_cast<Semaphore *>(sem)->alive = 0;
    }
}
