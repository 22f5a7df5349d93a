/*
 * Threads of the library: detached, named "nas-1", "nas-2", ... in the order of their starts. A thread whose body has
 * ended waits for the next one, because the library starts addition threads in groups of 25 and a waiting thread is
 * sooner at work than a new one.
 *
 * Callable from every thread. g_idleLock guards the list of waiting threads and is held for nothing else.
 */
#include "platform/thread_id.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <nasctrl/host/platform.h>
#include <new>
#include <pthread.h>
#include <semaphore.h>
#include <type_traits>
#include <unistd.h>

namespace {

static_assert(std::is_same_v<pthread_t, unsigned long>, "the contract's thread id is a pthread_t");

struct Start {
    void *(*body)(void *);
    void *arg;
    uint32_t number;
};

// On the stack of its thread. A semaphore may end as soon as its wait has returned, whatever the post is still doing.
struct Worker {
    Start start;
    pthread_t thread;
    sem_t handedOver;
};

constexpr size_t kStackSize = size_t{1024} * 1024;
// A group of addition threads, and some that are still on their way out when the next group starts.
constexpr size_t kMostIdle = 32;

constinit std::atomic<uint32_t> g_started{0};
constinit std::mutex g_idleLock;
constinit std::array<Worker *, kMostIdle> g_idle{};
constinit size_t g_idleCount = 0;

// The one that ran last, whose stack is still in the cache; null when none waits.
Worker *takeIdle()
{
    const std::lock_guard hold(g_idleLock);
    return g_idleCount == 0 ? nullptr : g_idle[--g_idleCount];
}

// False when enough others wait.
bool becomeIdle(Worker *self)
{
    const std::lock_guard hold(g_idleLock);
    if (g_idleCount == kMostIdle) {
        return false;
    }
    g_idle[g_idleCount++] = self;
    return true;
}

void run(const Start &start)
{
    char name[16]; // the kernel's limit
    std::snprintf(name, sizeof name, "nas-%u", start.number);
    pthread_setname_np(pthread_self(), name);
    start.body(start.arg);
}

void *runOneAfterTheOther(void *firstStart)
{
    Worker self{};
    self.start = *std::unique_ptr<Start>(static_cast<Start *>(firstStart));
    self.thread = pthread_self();
    sem_init(&self.handedOver, 0, 0);
    run(self.start);
    while (becomeIdle(&self)) {
        while (sem_wait(&self.handedOver) != 0) { // a signal came
        }
        run(self.start);
    }
    sem_destroy(&self.handedOver);
    return nullptr;
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

int startNew(const Start &start, pthread_t *id)
{
    std::unique_ptr<Start> own(new (std::nothrow) Start(start));
    if (own == nullptr) {
        return ENOMEM;
    }
    // glibc stores the id before it lets the thread run; storing it here afterwards could come after the body's end.
    const int result = pthread_create(id, ThreadAttributes().get(), runOneAfterTheOther, own.get());
    if (result == 0) {
        static_cast<void>(own.release()); // the thread owns it
    }
    return result;
}

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
    const Start start{body, arg, ++g_started};
    Worker *const idle = takeIdle();
    if (idle == nullptr) {
        return startNew(start, thread_id);
    }
    idle->start = start;
    *thread_id = idle->thread;
    sem_post(&idle->handedOver);
    return 0;
}
