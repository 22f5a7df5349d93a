/*
 * The back end on fibers: a fixed number of worker threads, each with a round-robin scheduler of its own. A new fiber
 * is queued for one worker after the other and stays with its worker for ever.
 *
 * Each worker's queue has a mutex that is held for a few instructions and never across a change of fibers. Only fibers
 * of workers are ever suspended: whoever wakes a fiber still looks at the scheduler of its OS thread afterwards, and a
 * worker never ends, as another thread might. The pool's mutex guards the count of parked workers.
 */
#include "lwt/light_threads.h"
#include "platform/log.h"

#include <atomic>
#include <boost/fiber/context.hpp>
#include <boost/fiber/fiber.hpp>
#include <boost/fiber/operations.hpp>
#include <boost/fiber/protected_fixedsize_stack.hpp>
#include <boost/fiber/scheduler.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <thread>
#include <utility>
#include <vector>

namespace host {
namespace {

// Room for the library's largest local buffers, several calls deep. Pages are taken only as they are touched.
constexpr size_t kStackSize = 512UL * 1024;
// How long stopLwt waits for a worker whose fiber is busy or blocked.
constexpr std::chrono::seconds kStopPatience{2};

// A stack taken when the fiber is asked for, not when its worker comes to it: so its creator learns of a failure.
class TakenStack {
public:
    TakenStack() : stack_(boost::fibers::protected_fixedsize_stack(kStackSize).allocate()) {}
    boost::context::stack_context allocate() { return stack_; }
    static void deallocate(boost::context::stack_context &stack) noexcept
    {
        boost::fibers::protected_fixedsize_stack(kStackSize).deallocate(stack);
    }
    void giveBack() noexcept { deallocate(stack_); }

private:
    boost::context::stack_context stack_;
};

struct Launch {
    LightThreads::Start start;
    TakenStack stack;
};

using Fiber = boost::fibers::context;

// A wake that comes before the suspension waits in the scheduler's queue, which the OS thread reads only once the fiber
// is suspended.
void suspendFiber()
{
    Fiber::active()->suspend();
}

// A thread that runs no fibers would become a scheduler of its own by Fiber::active().
void wakeFiber(Fiber *fiber)
{
    if (LightThreads::current() != nullptr) {
        Fiber::active()->schedule(fiber);
    } else {
        fiber->get_scheduler()->schedule_from_remote(fiber);
    }
}

class Worker {
public:
    void push(const Launch &launch)
    {
        std::unique_lock lock(mutex_);
        launches_.push_back(launch);
        wakeLauncher(lock);
    }

    void stop()
    {
        std::unique_lock lock(mutex_);
        stopped_ = true;
        wakeLauncher(lock);
    }

    // Launches fibers on the calling thread until the stop.
    void run()
    {
        while (std::optional<Launch> launch = next()) {
            boost::fibers::fiber(std::allocator_arg, launch->stack, launch->start.body, launch->start.arg).detach();
        }
    }

private:
    // Nothing after the stop.
    std::optional<Launch> next()
    {
        std::unique_lock lock(mutex_);
        while (!stopped_ && launches_.empty()) {
            idleLauncher_ = Fiber::active();
            lock.unlock();
            suspendFiber();
            lock.lock();
        }
        if (stopped_) {
            return std::nullopt;
        }
        const Launch launch = launches_.front();
        launches_.pop_front();
        return launch;
    }

    void wakeLauncher(std::unique_lock<std::mutex> &lock)
    {
        Fiber *sleeper = std::exchange(idleLauncher_, nullptr);
        lock.unlock();
        if (sleeper != nullptr) {
            wakeFiber(sleeper);
        }
    }

    std::mutex mutex_;
    std::deque<Launch> launches_;
    Fiber *idleLauncher_ = nullptr; // suspended, or about to be
    bool stopped_ = false;
};

class FiberThreads final : public LightThreads {
public:
    explicit FiberThreads(unsigned workers) : workers_(workers) {}

    void startWorkers()
    {
        for (size_t index = 0; index < workers_.size(); index++) {
            std::thread([this, index] { runWorker(index); }).detach();
        }
    }

    int32_t start(const Start &start) override
    {
        try {
            push({start, TakenStack()});
            return 0;
        } catch (const std::bad_alloc &) {
            return ENOMEM;
        }
    }

    void sleep(uint32_t ms) override { boost::this_fiber::sleep_for(std::chrono::milliseconds(ms)); }

    void *fiber() override { return Fiber::active(); }
    void suspend() override { suspendFiber(); }
    void wake(void *fiber) override { wakeFiber(static_cast<Fiber *>(fiber)); }
    void goOn() override {}

    void stop() override
    {
        for (Worker &worker : workers_) {
            worker.stop();
        }
        std::unique_lock lock(mutex_);
        const auto allParked = [this] { return parked_ == workers_.size(); };
        if (!changed_.wait_for(lock, kStopPatience, allParked)) {
            HOST_LOG(NASCTRL_LOG_ERROR, "light-weight threads: %zu of %zu workers are still busy and are left so",
                     workers_.size() - parked_, workers_.size());
        }
    }

private:
    void push(Launch launch)
    {
        try {
            workers_[next_++ % workers_.size()].push(launch);
        } catch (...) {
            launch.stack.giveBack();
            throw;
        }
    }

    void runWorker(size_t index)
    {
        char name[16];
        std::snprintf(name, sizeof name, "nas-fiber-%zu", index);
        pthread_setname_np(pthread_self(), name);
        adoptThread();
        workers_[index].run();
        {
            const std::scoped_lock lock(mutex_);
            parked_++;
            changed_.notify_all();
        }
        // Returning would wait for every fiber of this thread to end, and some never do.
        park();
    }

    std::vector<Worker> workers_;
    std::atomic<size_t> next_{0};
    std::mutex mutex_;
    std::condition_variable changed_;
    size_t parked_ = 0;
};

} // namespace

LightThreads *makeFiberThreads(unsigned workers)
{
    // When a worker cannot be had, those that run already keep the object.
    auto *fibers = new FiberThreads(workers);
    fibers->startWorkers();
    return fibers;
}

} // namespace host
