/*
 * One thread that waits to be woken by another, once; each of the two a light-weight or a plain one.
 */
#pragma once

#include "lwt/light_threads.h"

#include <semaphore.h>

namespace host {

// Made by the thread that waits, most often on its own stack: it may end as soon as wait returned, because wake does
// not look at it any more then.
class Waiter {
public:
    Waiter();
    ~Waiter();
    Waiter(const Waiter &) = delete;
    Waiter &operator=(const Waiter &) = delete;

    // Returns after wake, whichever comes first. A fiber lets the other fibers of its OS thread run meanwhile.
    void wait();
    void wake();

private:
    LightThreads *threads_; // null on a plain thread
    void *fiber_;           // null = the OS thread sleeps
    sem_t posted_{};        // without a fiber
};

} // namespace host
