/*
 * One job of a work queue, enqueue to done, beside a bare fiber and beside a new thread for each job; done is a
 * semaphore that its caller waits on. From a plain thread a wake-up of an OS thread is part of each, there and back;
 * from a fiber, a change of fibers is.
 */
#include "lwt/lwt.h"
#include "platform/log.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <boost/fiber/fiber.hpp>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

constexpr int kJobs = 20000;
constexpr unsigned kWorkers = 1; // one worker, so that jobs of a fiber stay on its OS thread as a bare fiber does

// Calls job so often and reports the median, which a scheduling hiccup does not move.
void measure(benchmark::State &state, const std::function<void()> &job)
{
    std::vector<double> microseconds;
    microseconds.reserve(kJobs);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        job();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        microseconds.push_back(took.count() * 1e6);
    }
    auto middle = microseconds.begin() + static_cast<std::ptrdiff_t>(microseconds.size() / 2);
    std::nth_element(microseconds.begin(), middle, microseconds.end());
    state.counters["median_us"] = *middle;
}

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
    onFiber([&] { measure(state, [work] { queueJob(work); }); });
}
BENCHMARK(jobFromAFiber)->UseManualTime()->Iterations(kJobs);

void bareFiberFromAFiber(benchmark::State &state)
{
    queue();
    onFiber([&] { measure(state, bareFiber); });
}
BENCHMARK(bareFiberFromAFiber)->UseManualTime()->Iterations(kJobs);

void jobFromAThread(benchmark::State &state)
{
    void *work = queue();
    measure(state, [work] { queueJob(work); });
}
BENCHMARK(jobFromAThread)->UseManualTime()->Iterations(kJobs);

void newThreadFromAThread(benchmark::State &state)
{
    queue();
    measure(state, newThread);
}
BENCHMARK(newThreadFromAThread)->UseManualTime()->Iterations(kJobs);

} // namespace
