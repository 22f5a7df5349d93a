// Work queues: which jobs run, how many at once, and what happens to those for which there is no room.
#include "lwt_fixture.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <deque>
#include <fstream>
#include <latch>
#include <lwt/waiter.h>
#include <memory>
#include <mutex>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

// A job that calls a function; owned by the test, unless the function frees it.
struct Job {
    explicit Job(std::function<void()> body) : body_(std::move(body))
    {
        work.link = {&work.link, &work.link};
        work.owner = this;
        work.func = [](void *own) { static_cast<Job *>(own)->body_(); };
        work.minus_one = -1;
    }
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;
    // Instead of the plain function: the job is gone before its body runs.
    static void freeAndRun(void *own)
    {
        std::unique_ptr<Job> job(static_cast<Job *>(own));
        const std::function<void()> body = std::move(job->body_);
        job.reset();
        body();
    }
    [[nodiscard]] bool unlinked() const { return work.link.next == &work.link && work.link.prev == &work.link; }

    lwt_work_t work{};

private:
    std::function<void()> body_;
};

using Jobs = std::vector<std::unique_ptr<Job>>;

int32_t enqueue(void *queue, Job &job)
{
    return lwt_work_enqueue(queue, &job.work);
}

// Holds jobs, in their workers' places, until it is opened.
class Gate {
public:
    void pass()
    {
        host::Waiter waiter;
        const bool open = standAt(waiter);
        begun_.fetch_add(1);
        begun_.notify_all();
        if (!open) {
            waiter.wait();
        }
    }
    void open()
    {
        const std::scoped_lock lock(lock_);
        open_ = true;
        for (host::Waiter *waiter : waiting_) {
            waiter->wake();
        }
        waiting_.clear();
    }
    // Until so many jobs stand at the gate.
    void waitForBegun(uint32_t jobs)
    {
        for (uint32_t seen = begun_.load(); seen < jobs; seen = begun_.load()) {
            begun_.wait(seen);
        }
    }
    uint32_t begun() const { return begun_.load(); }

private:
    // Whether there is nothing to wait for.
    bool standAt(host::Waiter &waiter)
    {
        const std::scoped_lock lock(lock_);
        if (!open_) {
            waiting_.push_back(&waiter);
        }
        return open_;
    }

    std::mutex lock_;
    std::vector<host::Waiter *> waiting_;
    bool open_ = false;
    std::atomic<uint32_t> begun_ = 0;
};

class WorkQueues : public lwt::Lwt {
protected:
    static void *create(uint32_t minimum, uint32_t maximum, uint32_t waiting)
    {
        void *queue = lwt_workqueue_create("test", minimum, maximum, waiting);
        EXPECT_NE(queue, nullptr);
        return queue;
    }
};

INSTANTIATE_TEST_SUITE_P(Backends, WorkQueues, lwt::kBackends, lwt::backendName);

TEST_P(WorkQueues, RunAJobOnceOnALightWeightThreadAndLeaveItUnlinked)
{
    void *queue = create(1, 1, 1);
    std::atomic<int> runs = 0;
    int32_t onLwt = 0;
    bool unlinked = false;
    std::latch done(1);
    Job *self = nullptr;
    Job job([&] {
        ++runs;
        onLwt = kvlwt_is_lwtcontext(666, "work_queue_test");
        unlinked = self->unlinked();
        done.count_down();
    });
    self = &job;
    ASSERT_EQ(enqueue(queue, job), 0);
    done.wait();
    std::latch afterwards(1);
    Job next([&] { afterwards.count_down(); });
    ASSERT_EQ(enqueue(queue, next), 0);
    afterwards.wait();
    EXPECT_EQ(runs, 1);
    EXPECT_NE(onLwt, 0);
    EXPECT_TRUE(unlinked);
}

TEST_P(WorkQueues, OfOneWorkerRunJobsInTheOrderOfTheirCalls)
{
    constexpr int kJobs = 100;
    void *queue = create(1, 1, kJobs);
    Gate gate;
    Job first([&] { gate.pass(); });
    std::vector<int> order; // one worker, one job at a time
    std::vector<int> expected;
    std::latch done(kJobs);
    Jobs jobs;
    ASSERT_EQ(enqueue(queue, first), 0);
    for (int n = 0; n < kJobs; ++n) {
        expected.push_back(n);
        jobs.push_back(std::make_unique<Job>([&, n] {
            order.push_back(n);
            done.count_down();
        }));
        ASSERT_EQ(enqueue(queue, *jobs.back()), 0);
    }
    gate.open();
    done.wait();
    EXPECT_EQ(order, expected);
}

TEST_P(WorkQueues, RunAsManyJobsAtOnceAsTheyHaveWorkersAndNoMore)
{
    constexpr uint32_t kWorkers = 8;
    constexpr uint32_t kJobs = 50;
    void *queue = create(kWorkers, kWorkers, kJobs);
    Gate gate;
    std::latch done(kJobs);
    std::atomic<int> inside = 0;
    std::atomic<int> tooMany = 0;
    Jobs jobs;
    for (uint32_t n = 0; n < kJobs; ++n) {
        jobs.push_back(std::make_unique<Job>([&] {
            tooMany += ++inside > static_cast<int>(kWorkers);
            gate.pass();
            --inside;
            done.count_down();
        }));
        ASSERT_EQ(enqueue(queue, *jobs.back()), 0);
    }
    gate.waitForBegun(kWorkers);
    EXPECT_EQ(gate.begun(), kWorkers);
    gate.open();
    done.wait();
    EXPECT_EQ(tooMany, 0);
}

// As the library asks for it: 8 workers, 1000 waiting.
TEST_P(WorkQueues, RefuseAJobWhenTheyAreFullAndTakeItLater)
{
    constexpr uint32_t kRoom = 8 + 1000;
    void *queue = create(8, 8, 1000);
    Gate gate;
    std::atomic<int> finished = 0;
    std::latch done(kRoom);
    Jobs jobs;
    for (uint32_t n = 0; n < kRoom; ++n) {
        jobs.push_back(std::make_unique<Job>([&] {
            gate.pass();
            ++finished;
            done.count_down();
        }));
        ASSERT_EQ(enqueue(queue, *jobs.back()), 0) << n;
    }
    std::latch surplusDone(1);
    Job surplus([&] {
        ++finished;
        surplusDone.count_down();
    });
    EXPECT_EQ(enqueue(queue, surplus), EAGAIN);
    EXPECT_TRUE(surplus.unlinked());
    gate.waitForBegun(8);
    EXPECT_EQ(enqueue(queue, surplus), EAGAIN) << "workers that are busy make no room";
    gate.open();
    done.wait();
    EXPECT_EQ(finished, static_cast<int>(kRoom)) << "a refused job does not run";
    EXPECT_EQ(enqueue(queue, surplus), 0);
    surplusDone.wait();
}

TEST_P(WorkQueues, ThatLetNobodyWaitTakeAJobForEachWorker)
{
    void *queue = create(2, 2, 0);
    Gate gate;
    std::latch done(2);
    const auto body = [&] {
        gate.pass();
        done.count_down();
    };
    Job first(body);
    Job second(body);
    Job third(body);
    EXPECT_EQ(enqueue(queue, first), 0);
    EXPECT_EQ(enqueue(queue, second), 0);
    EXPECT_EQ(enqueue(queue, third), EAGAIN);
    gate.open();
    done.wait();
}

TEST_P(WorkQueues, StartWorkersUpToTheirMaximumAndLetThemGoAgain)
{
    void *queue = create(0, 3, 10);
    for (int round = 0; round < 3; ++round) {
        Gate gate;
        std::latch done(5);
        Jobs jobs;
        for (int n = 0; n < 5; ++n) {
            jobs.push_back(std::make_unique<Job>([&] {
                gate.pass();
                done.count_down();
            }));
            ASSERT_EQ(enqueue(queue, *jobs.back()), 0);
        }
        gate.waitForBegun(3);
        EXPECT_EQ(gate.begun(), 3U);
        gate.open();
        done.wait();
    }
}

TEST_P(WorkQueues, TakeJobsFromTheirOwnJobs)
{
    constexpr int kChildren = 20;
    void *queue = create(2, 2, kChildren);
    std::latch done(kChildren + 1);
    std::atomic<int> refused = 0;
    Jobs children;
    for (int n = 0; n < kChildren; ++n) {
        children.push_back(std::make_unique<Job>([&] { done.count_down(); }));
    }
    Job parent([&] {
        for (const auto &child : children) {
            refused += enqueue(queue, *child) != 0;
        }
        done.count_down();
    });
    ASSERT_EQ(enqueue(queue, parent), 0);
    done.wait();
    EXPECT_EQ(refused, 0);
}

// A job that puts another into its own queue and waits for it.
class Parent {
public:
    Parent(void *queue, std::latch &done)
        : child_([this] { kvlwt_task_sem_up(&sem_, 666, "work_queue_test"); }), job_([this, queue, &done] {
              kvlwt_task_sem_init(&sem_, 1);
              EXPECT_EQ(::enqueue(queue, child_), 0);
              kvlwt_task_sem_down(&sem_, 666, "work_queue_test");
              kvlwt_task_sem_destroy(&sem_);
              done.count_down();
          })
    {
    }
    int32_t enqueue(void *queue) { return ::enqueue(queue, job_); }

private:
    kvlwt_task_sem_t sem_{};
    Job child_;
    Job job_;
};

TEST_P(WorkQueues, LetEveryWorkersJobWaitForOneThatIsQueuedBehindThemAll)
{
    constexpr uint32_t kWorkers = 8;
    constexpr uint32_t kParents = 50;
    void *queue = create(kWorkers, kWorkers, 2 * kParents);
    Gate gate;
    Jobs holders;
    std::latch held(kWorkers);
    for (uint32_t n = 0; n < kWorkers; ++n) {
        holders.push_back(std::make_unique<Job>([&] {
            gate.pass();
            held.count_down();
        }));
        ASSERT_EQ(enqueue(queue, *holders.back()), 0);
    }
    std::latch done(kParents);
    std::deque<Parent> parents;
    for (uint32_t n = 0; n < kParents; ++n) {
        ASSERT_EQ(parents.emplace_back(queue, done).enqueue(queue), 0);
    }
    gate.open();
    held.wait();
    done.wait();
}

TEST_P(WorkQueues, TakeTheirPlacesBackAfterTheWait)
{
    void *queue = create(1, 2, 50);
    std::latch waited(10);
    std::deque<Parent> parents;
    for (int n = 0; n < 10; ++n) {
        ASSERT_EQ(parents.emplace_back(queue, waited).enqueue(queue), 0);
    }
    waited.wait();
    std::latch done(40);
    std::atomic<int> inside = 0;
    std::atomic<int> tooMany = 0;
    Jobs jobs;
    for (int n = 0; n < 40; ++n) {
        jobs.push_back(std::make_unique<Job>([&] {
            tooMany += ++inside > 2;
            std::this_thread::yield();
            --inside;
            done.count_down();
        }));
        ASSERT_EQ(enqueue(queue, *jobs.back()), 0);
    }
    done.wait();
    EXPECT_EQ(tooMany, 0);
}

// Each job frees itself, so a queue that looked at one afterwards would be seen by a sanitizer.
TEST_P(WorkQueues, RunEveryJobOfManyThreadsOnceAndLookAtNoneAfterwards)
{
    constexpr int kCallers = 4;
    constexpr int kEach = 500;
    void *queue = create(8, 8, kCallers * kEach);
    std::array<std::atomic<int>, kCallers * kEach> runs{};
    std::latch done(kCallers * kEach);
    {
        std::vector<std::jthread> callers;
        callers.reserve(kCallers);
        for (int caller = 0; caller < kCallers; ++caller) {
            callers.emplace_back([&, caller] {
                for (int n = 0; n < kEach; ++n) {
                    auto *job = new Job([&runs, &done, index = static_cast<size_t>(caller * kEach + n)] {
                        ++runs.at(index);
                        done.count_down();
                    });
                    job->work.func = Job::freeAndRun;
                    EXPECT_EQ(enqueue(queue, *job), 0);
                }
            });
        }
    }
    done.wait();
    for (const auto &count : runs) {
        EXPECT_EQ(count, 1);
    }
}

TEST_P(WorkQueues, RefuseWhatIsNoJob)
{
    void *queue = create(1, 1, 1);
    Job job([] {});
    job.work.func = nullptr;
    EXPECT_EQ(enqueue(queue, job), EINVAL);
    EXPECT_EQ(lwt_work_enqueue(queue, nullptr), EINVAL);
    Job good([] {});
    EXPECT_EQ(enqueue(nullptr, good), EINVAL);
}

TEST_P(WorkQueues, RefuseAJobThatWaitsAlready)
{
    void *queue = create(1, 1, 2);
    Gate gate;
    std::latch done(1);
    Job first([&] { gate.pass(); });
    Job waiting([&] { done.count_down(); });
    ASSERT_EQ(enqueue(queue, first), 0);
    ASSERT_EQ(enqueue(queue, waiting), 0);
    EXPECT_EQ(enqueue(queue, waiting), EINVAL);
    gate.open();
    done.wait();
}

TEST_P(WorkQueues, CannotBeHadWithBoundsThatContradictEachOther)
{
    EXPECT_EQ(lwt_workqueue_create("test", 0, 0, 10), nullptr);
    EXPECT_EQ(lwt_workqueue_create("test", 9, 8, 10), nullptr);
    EXPECT_EQ(lwt_workqueue_create(nullptr, 2, 1, 10), nullptr);
}

TEST_P(WorkQueues, TakeNoJobsAfterTheStop)
{
    void *queue = create(1, 1, 1);
    Job job([] { ADD_FAILURE() << "the job ran"; });
    host::stopLwt();
    EXPECT_EQ(enqueue(queue, job), ESRCH);
    EXPECT_EQ(lwt_workqueue_create("test", 1, 1, 1), nullptr);
    host::startLwt(GetParam(), lwt::kWorkers);
    EXPECT_EQ(enqueue(queue, job), ESRCH) << "its workers are gone for good";
}

// The bytes of address space that the process has taken.
rlim_t addressSpace()
{
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE));
}

TEST_P(WorkQueues, CannotBeHadWithoutMemoryForTheirWorkers)
{
    if (lwt::kSanitized) {
        GTEST_SKIP() << "a sanitizer needs address space of its own";
    }
    constexpr uint32_t kMany = 1000;
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_AS, &before), 0);
    const rlimit tight = {addressSpace() + (rlim_t{40} << 20U), before.rlim_max}; // room for some of them
    ASSERT_EQ(setrlimit(RLIMIT_AS, &tight), 0);
    void *queue = lwt_workqueue_create("test", kMany, kMany, 1);
    ASSERT_EQ(setrlimit(RLIMIT_AS, &before), 0);
    EXPECT_EQ(queue, nullptr);
    std::latch done(1);
    Job job([&] { done.count_down(); });
    ASSERT_EQ(enqueue(create(1, 1, 1), job), 0) << "the next one can be had";
    done.wait();
}

TEST(WorkQueuesBeforeTheStart, CannotBeHad)
{
    EXPECT_EQ(lwt_workqueue_create("test", 1, 1, 1), nullptr);
}

} // namespace
