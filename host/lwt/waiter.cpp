// Owns no state. A POSIX semaphore may be destroyed as soon as its wait returned, even if the post has not.

#include "lwt/waiter.h"

namespace host {

Waiter::Waiter() : threads_(LightThreads::current()), fiber_(threads_ != nullptr ? threads_->fiber() : nullptr)
{
    if (fiber_ == nullptr) {
        sem_init(&posted_, 0, 0);
    }
}

Waiter::~Waiter()
{
    if (fiber_ == nullptr) {
        sem_destroy(&posted_);
    }
}

void Waiter::wait()
{
    if (fiber_ != nullptr) {
        threads_->suspend();
        return;
    }
    while (sem_wait(&posted_) != 0) {
        // a signal came in between
    }
    if (threads_ != nullptr) {
        threads_->goOn();
    }
}

void Waiter::wake()
{
    if (fiber_ != nullptr) {
        threads_->wake(fiber_);
    } else {
        sem_post(&posted_);
    }
}

} // namespace host
