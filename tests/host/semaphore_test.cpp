// Semaphores between light-weight and plain threads, in every pairing.
#include "lwt_fixture.h"

#include <atomic>
#include <cstring>
#include <latch>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using Semaphore = kvlwt_task_sem_t;

void up(Semaphore &sem)
{
    kvlwt_task_sem_up(&sem, 666, "semaphore_test");
}

void down(Semaphore &sem)
{
    kvlwt_task_sem_down(&sem, 666, "semaphore_test");
}

class LiveSemaphore {
public:
    explicit LiveSemaphore(uint32_t count) { kvlwt_task_sem_init(&sem_, count); }
    ~LiveSemaphore() { kvlwt_task_sem_destroy(&sem_); }
    LiveSemaphore(const LiveSemaphore &) = delete;
    LiveSemaphore &operator=(const LiveSemaphore &) = delete;
    operator Semaphore &() { return sem_; }

private:
    Semaphore sem_{};
};

enum class Kind { light, plain };

// A body on a thread of a kind; its end is waited for.
class Runner {
public:
    Runner(Kind kind, std::function<void()> body) : body_(std::move(body))
    {
        whole_ = [this] {
            body_();
            done_.count_down();
        };
        if (kind == Kind::plain) {
            plain_ = std::thread(whole_);
        } else {
            EXPECT_EQ(lwt::start(whole_), 0);
        }
    }
    ~Runner()
    {
        done_.wait();
        if (plain_.joinable()) {
            plain_.join();
        }
    }
    Runner(const Runner &) = delete;
    Runner &operator=(const Runner &) = delete;

private:
    std::function<void()> body_;
    std::function<void()> whole_;
    std::latch done_{1};
    std::thread plain_;
};

using Pairing = std::tuple<host::LwtBackend, Kind, Kind>; // back end, who waits, who wakes

class Semaphores : public testing::TestWithParam<Pairing> {
protected:
    void SetUp() override { host::startLwt(std::get<0>(GetParam()), lwt::kWorkers); }
    void TearDown() override { host::stopLwt(); }
    static Kind waiter() { return std::get<1>(GetParam()); }
    static Kind waker() { return std::get<2>(GetParam()); }
};

std::string pairingName(const testing::TestParamInfo<Pairing> &row)
{
    const auto name = [](Kind kind) { return kind == Kind::light ? "Light" : "Plain"; };
    const auto [backend, waiter, waker] = row.param;
    return std::string(backend == host::LwtBackend::fibers ? "Fibers" : "Threads") + name(waiter) + "WokenBy" +
           name(waker);
}

INSTANTIATE_TEST_SUITE_P(Pairings, Semaphores,
                         testing::Combine(lwt::kBackends, testing::Values(Kind::light, Kind::plain),
                                          testing::Values(Kind::light, Kind::plain)),
                         pairingName);

TEST_P(Semaphores, ReturnFromADownAfterAsManyUpsAsInitNamed)
{
    constexpr int kUps = 3;
    LiveSemaphore sem(kUps);
    std::atomic<int> given = 0;
    int givenAtReturn = 0;
    {
        const Runner waiting(waiter(), [&] {
            down(sem);
            givenAtReturn = given;
        });
        const Runner waking(waker(), [&] {
            for (int n = 0; n < kUps; ++n) {
                ++given;
                up(sem);
            }
        });
    }
    EXPECT_EQ(givenAtReturn, kUps);
}

TEST_P(Semaphores, KeepUpsForTheDownsThatComeLater)
{
    LiveSemaphore sem(2);
    {
        const Runner waking(waker(), [&] {
            for (int n = 0; n < 6; ++n) {
                up(sem);
            }
        });
    }
    const Runner waiting(waiter(), [&] {
        for (int n = 0; n < 3; ++n) {
            down(sem);
        }
    });
}

TEST_P(Semaphores, LetEveryWaiterGoOnWithUpsOfItsOwn)
{
    constexpr int kWaiters = 10;
    LiveSemaphore sem(2);
    std::atomic<int> given = 0;
    std::atomic<int> early = 0;
    std::atomic<int> returned = 0;
    std::vector<std::unique_ptr<Runner>> waiting;
    for (int n = 0; n < kWaiters; ++n) {
        waiting.push_back(std::make_unique<Runner>(waiter(), [&] {
            down(sem);
            const int mine = ++returned;
            early += given < 2 * mine;
        }));
    }
    const Runner waking(waker(), [&] {
        for (int n = 0; n < 2 * kWaiters; ++n) {
            ++given;
            up(sem);
        }
    });
    waiting.clear();
    EXPECT_EQ(returned, kWaiters);
    EXPECT_EQ(early, 0);
}

// The last up may still be on its way out when the waiter ends the semaphore and gives its memory back.
TEST_P(Semaphores, MayBeFreedAsSoonAsTheDownReturned)
{
    constexpr int kTurns = 2000;
    std::atomic<Semaphore *> offered = nullptr;
    const Runner waking(waker(), [&] {
        for (int n = 0; n < kTurns; ++n) {
            Semaphore *sem = nullptr;
            while ((sem = offered.exchange(nullptr)) == nullptr) {
                lwt::sleep(0);
            }
            up(*sem);
        }
    });
    const Runner waiting(waiter(), [&] {
        for (int n = 0; n < kTurns; ++n) {
            auto sem = std::make_unique<Semaphore>();
            kvlwt_task_sem_init(sem.get(), 1);
            offered = sem.get();
            down(*sem);
            kvlwt_task_sem_destroy(sem.get());
            memset(sem.get(), 0xA5, sizeof *sem);
        }
    });
}

TEST_P(Semaphores, PassControlToAndFroManyTimes)
{
    constexpr int kTurns = 5000;
    LiveSemaphore there(1);
    LiveSemaphore back(1);
    int turns = 0; // guarded by whose turn it is
    {
        const Runner first(waiter(), [&] {
            for (int n = 0; n < kTurns; ++n) {
                ++turns;
                up(there);
                down(back);
            }
        });
        const Runner second(waker(), [&] {
            for (int n = 0; n < kTurns; ++n) {
                down(there);
                ++turns;
                up(back);
            }
        });
    }
    EXPECT_EQ(turns, 2 * kTurns);
}

class SemaphoresOfABackend : public lwt::Lwt {};

INSTANTIATE_TEST_SUITE_P(Backends, SemaphoresOfABackend, lwt::kBackends, lwt::backendName);

// More waiters than OS threads of the pool, woken by one that starts last.
TEST_P(SemaphoresOfABackend, HoldUpNobodyButTheLightWeightThreadThatWaits)
{
    constexpr int kWaiters = 20;
    LiveSemaphore sem(1);
    std::vector<std::unique_ptr<Runner>> waiting;
    for (int n = 0; n < kWaiters; ++n) {
        waiting.push_back(std::make_unique<Runner>(Kind::light, [&] { down(sem); }));
    }
    const Runner waking(Kind::light, [&] {
        for (int n = 0; n < kWaiters; ++n) {
            up(sem);
        }
    });
    waiting.clear();
}

TEST_P(SemaphoresOfABackend, AreWokenByManyThreadsAtOnce)
{
    constexpr int kWakers = 8;
    constexpr int kEach = 500;
    LiveSemaphore sem(kWakers * kEach);
    std::vector<std::unique_ptr<Runner>> waking;
    for (int n = 0; n < kWakers; ++n) {
        waking.push_back(std::make_unique<Runner>(n % 2 == 0 ? Kind::light : Kind::plain, [&] {
            for (int turn = 0; turn < kEach; ++turn) {
                up(sem);
            }
        }));
    }
    const Runner waiting(Kind::light, [&] { down(sem); });
}

TEST(SemaphoresOfPlainThreads, NeedNoBackEnd)
{
    LiveSemaphore sem(1);
    const Runner waiting(Kind::plain, [&] { down(sem); });
    up(sem);
}

TEST(SemaphoresOfPlainThreads, ReturnAtOnceFromTheDownOfACountOfZero)
{
    LiveSemaphore sem(0);
    down(sem);
    down(sem);
}

TEST(SemaphoresOfPlainThreads, IgnoreAnUpAndADownThatComeAfterTheEnd)
{
    Semaphore sem;
    kvlwt_task_sem_init(&sem, 1);
    kvlwt_task_sem_destroy(&sem);
    up(sem);
    down(sem);
    kvlwt_task_sem_init(&sem, 1);
    up(sem);
    down(sem); // the up before the second init does not count, this one does
    kvlwt_task_sem_destroy(&sem);
}

TEST(SemaphoresOfPlainThreads, IgnoreNull)
{
    kvlwt_task_sem_init(nullptr, 1);
    kvlwt_task_sem_up(nullptr, 666, nullptr);
    kvlwt_task_sem_down(nullptr, 666, nullptr);
    kvlwt_task_sem_destroy(nullptr);
}

} // namespace
