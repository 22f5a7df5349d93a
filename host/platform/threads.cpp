/*
 * Threads of the library: detached, named "nas-1", "nas-2", ... in the order of their creation.
 * Callable from every thread; nothing is locked.
 */
#include "platform/thread_id.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <nasctrl/host/platform.h>
#include <new>
#include <pthread.h>
#include <type_traits>
#include <unistd.h>

namespace {

static_assert(std::is_same_v<pthread_t, unsigned long>, "the contract's thread id is a pthread_t");

struct Start {
    void *(*body)(void *);
    void *arg;
    uint32_t number;
};

constinit std::atomic<uint32_t> g_started{0};

// Small enough for libc to keep the stacks of a whole group of addition threads for the next one, which it does up to
// 40 MiB; mapping new ones would take longer than starting the threads.
constexpr size_t kStackSize = size_t{1024} * 1024;

void *runNamed(void *start)
{
    const std::unique_ptr<Start> own(static_cast<Start *>(start));
    char name[16]; // the kernel's limit
    std::snprintf(name, sizeof name, "nas-%u", own->number);
    pthread_setname_np(pthread_self(), name);
    return own->body(own->arg);
}

class ThreadAttributes {
public:
    ThreadAttributes()
    {
        pthread_attr_init(&attributes_);
        pthread_attr_setdetachstate(&attributes_, PTHREAD_CREATE_DETACHED);
        pthread_attr_setstacksize(&attributes_, kStackSize);
    }
    ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }
    ThreadAttributes(const ThreadAttributes &) = delete;
    ThreadAttributes &operator=(const ThreadAttributes &) = delete;
    const pthread_attr_t *get() const { return &attributes_; }

private:
    pthread_attr_t attributes_;
};

} // namespace

uint32_t host::osThreadId()
{
    thread_local const auto id = static_cast<uint32_t>(gettid());
    return id;
}

int32_t kvos_thrd_create(void *(*body)(void *), void *arg, unsigned long *thread_id)
{
    if (body == nullptr || thread_id == nullptr) {
        return EINVAL;
    }
    std::unique_ptr<Start> start(new (std::nothrow) Start{body, arg, ++g_started});
    if (start == nullptr) {
        return ENOMEM;
    }
    // glibc stores the id before it lets the thread run; storing it here afterwards could come after the body's end.
    const int result = pthread_create(thread_id, ThreadAttributes().get(), runNamed, start.get());
    if (result == 0) {
        static_cast<void>(start.release()); // runNamed owns it now
    }
    return result;
}
