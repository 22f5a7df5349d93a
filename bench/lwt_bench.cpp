/*
 * One job of a work queue, enqueue to done, beside a bare fiber and beside a new thread for each job; done is a
 * semaphore that its caller waits on. From a plain thread a wake-up of an OS thread is part of each, there and back;
 * from a fiber, a change of fibers is.
 */
#include "lwt/lwt.h"
#include "percentile.h"
#include "platform/log.h"

#include <benchmark/benchmark.h>
#include <boost/fiber/fiber.hpp>
#include <functional>
#include <stdexcept>
#include <thread>

namespace {

constexpr int kJobs = 20000;
constexpr unsigned kWorkers = 1; // one worker, so that jobs of a fiber stay on its OS thread as a bare fiber does

// A semaphore that a job raises.
struct Done {
    kvlwt_task_sem_t sem{};
    Done() { kvlwt_task_sem_init(&sem, 1); }
    ~Done() { kvlwt_task_sem_destroy(&sem); }
    Done(const Done &) = delete;
    Done &operator=(const Done &) = delete;
    void raise() { kvlwt_task_sem_up(&sem, 0, __func__); }
    void wait() { kvlwt_task_sem_down(&sem, 0, __func__); }
};

void raiseDone(void *done)
{
    static_cast<Done *>(done)->raise();
}

// As the library makes its queue; once for all benchmarks.
void *queue()
{
    static void *const made = [] {
        host::LogSettings log;
        log.console = false;
        host::openLog(log);
        host::startLwt(host::LwtBackend::fibers, kWorkers);
        return lwt_workqueue_create("bench", 8, 8, 1000);
    }();
    if (made == nullptr) {
        throw std::runtime_error("lwt_workqueue_create");
    }
    return made;
}

void queueJob(void *work)
{
    Done done;
    lwt_work_t job{};
    job.link = {&job.link, &job.link};
    job.owner = &done;
    job.func = raiseDone;
    job.minus_one = -1;
    if (lwt_work_enqueue(work, &job) != 0) {
        throw std::runtime_error("lwt_work_enqueue");
    }
    done.wait();
}

// Runs a whole measurement on a light-weight thread.
void onFiber(std::function<void()> measurement)
{
    struct Measurement {
        std::function<void()> body;
        Done done;
    } whole{std::move(measurement), {}};
    const auto body = [](void *arg) {
        auto *own = static_cast<Measurement *>(arg);
        own->body();
        own->done.raise();
    };
    void *handle = nullptr;
    if (lwt_create_default(&handle, body, &whole, 1, 0xFFFFFFFF) != 0) {
        throw std::runtime_error("lwt_create_default");
    }
    whole.done.wait();
}

void bareFiber()
{
    boost::fibers::fiber([] {}).join();
}

void newThread()
{
    std::thread([] {}).join();
}

void jobFromAFiber(benchmark::State &state)
{
    void *work = queue();
    onFiber([&] { bench::measureMedian(state, [work] { queueJob(work); }); });
}
BENCHMARK(jobFromAFiber)->UseManualTime()->Iterations(kJobs);

void bareFiberFromAFiber(benchmark::State &state)
{
    queue();
    onFiber([&] { bench::measureMedian(state, bareFiber); });
}
BENCHMARK(bareFiberFromAFiber)->UseManualTime()->Iterations(kJobs);

void jobFromAThread(benchmark::State &state)
{
    void *work = queue();
    bench::measureMedian(state, [work] { queueJob(work); });
}
BENCHMARK(jobFromAThread)->UseManualTime()->Iterations(kJobs);

void newThreadFromAThread(benchmark::State &state)
{
    queue();
    bench::measureMedian(state, newThread);
}
BENCHMARK(newThreadFromAThread)->UseManualTime()->Iterations(kJobs);

} // namespace
