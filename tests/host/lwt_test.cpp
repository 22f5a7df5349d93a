#include "lwt_fixture.h"
#include "platform/thread_id.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <latch>
#include <mutex>
#include <nasctrl/host/platform.h>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using lwt::call;
using lwt::kWorkers;
using lwt::Lwt;
using lwt::sleep;
using lwt::start;

INSTANTIATE_TEST_SUITE_P(Backends, Lwt, lwt::kBackends, lwt::backendName);

TEST_P(Lwt, RunsABodyWithItsArgumentOnAnotherThread)
{
    struct Seen {
        std::latch done{1};
        uint32_t thread = 0;
    } seen;
    const auto body = [](void *arg) {
        auto *own = static_cast<Seen *>(arg);
        own->thread = host::osThreadId();
        own->done.count_down();
    };
    void *handle = nullptr;
    ASSERT_EQ(lwt_create_default(&handle, body, &seen, 1, 0xFFFFFFFF), 0);
    seen.done.wait();
    EXPECT_NE(handle, nullptr);
    EXPECT_NE(seen.thread, host::osThreadId());
}

TEST_P(Lwt, GivesEachLightWeightThreadAHandleOfItsOwn)
{
    std::latch done(10);
    std::function<void()> body = [&] { done.count_down(); };
    std::set<void *> handles;
    for (int index = 0; index < 10; index++) {
        void *handle = nullptr;
        ASSERT_EQ(lwt_create_default(&handle, call, &body, 1, 0xFFFFFFFF), 0);
        handles.insert(handle);
    }
    done.wait();
    EXPECT_EQ(handles.size(), 10U);
    EXPECT_FALSE(handles.contains(nullptr));
}

TEST_P(Lwt, RefusesANullBodyOrHandle)
{
    void *handle = &handle;
    EXPECT_NE(lwt_create_default(&handle, nullptr, nullptr, 1, 0xFFFFFFFF), 0);
    EXPECT_EQ(handle, &handle);
    EXPECT_NE(lwt_create_default(nullptr, call, nullptr, 1, 0xFFFFFFFF), 0);
}

TEST_P(Lwt, RefusesASecondStart)
{
    EXPECT_THROW(host::startLwt(GetParam(), kWorkers), std::logic_error);
}

TEST_P(Lwt, LetsOthersRunWhileOneSleeps)
{
    constexpr int kThreads = 100;
    std::atomic<int> begun = 0;
    std::latch done(kThreads);
    std::function<void()> body = [&] {
        begun++;
        while (begun < kThreads) { // ends only when all have begun, on two workers only by taking turns
            sleep(1);
        }
        done.count_down();
    };
    for (int index = 0; index < kThreads; index++) {
        ASSERT_EQ(start(body), 0);
    }
    done.wait();
    EXPECT_EQ(begun, kThreads);
}

TEST_P(Lwt, KeepsALightWeightThreadOnItsOsThread)
{
    constexpr int kThreads = 20;
    std::atomic<int> moved = 0;
    std::mutex mutex;
    std::set<uint32_t> threads;
    std::latch done(kThreads);
    std::function<void()> body = [&] {
        // Asked from the kernel each time, because a cached id would move along.
        const pid_t home = gettid();
        for (int turn = 0; turn < 5; turn++) {
            sleep(turn % 2 == 0 ? 0 : 1);
            moved += gettid() != home;
        }
        {
            const std::scoped_lock lock(mutex);
            threads.insert(static_cast<uint32_t>(home));
        }
        done.count_down();
    };
    for (int index = 0; index < kThreads; index++) {
        ASSERT_EQ(start(body), 0);
    }
    done.wait();
    EXPECT_EQ(moved, 0);
    if (GetParam() == host::LwtBackend::fibers) {
        EXPECT_EQ(threads.size(), kWorkers);
    }
}

TEST_P(Lwt, StartsLightWeightThreadsFromLightWeightThreads)
{
    std::latch done(10 + 1);
    std::function<void()> child = [&] { done.count_down(); };
    std::atomic<int32_t> failures = 0;
    std::function<void()> parent = [&] {
        for (int index = 0; index < 10; index++) {
            failures += start(child) != 0;
        }
        done.count_down();
    };
    ASSERT_EQ(start(parent), 0);
    done.wait();
    EXPECT_EQ(failures, 0);
}

TEST_P(Lwt, StartsFromManyThreadsAtOnce)
{
    constexpr ptrdiff_t kStarters = 4;
    constexpr ptrdiff_t kEach = 50;
    std::latch done(kStarters * kEach);
    std::function<void()> body = [&] { done.count_down(); };
    {
        std::vector<std::jthread> starters;
        starters.reserve(kStarters);
        for (int index = 0; index < kStarters; index++) {
            starters.emplace_back([&] {
                for (int turn = 0; turn < kEach; turn++) {
                    EXPECT_EQ(start(body), 0);
                }
            });
        }
    }
    done.wait();
}

TEST_P(Lwt, HasRoomForLargeLocalBuffers)
{
    std::latch done(1);
    std::function<void()> body = [&] {
        volatile char buffer[200 * 1024];
        for (size_t index = 0; index < sizeof buffer; index += 1024) {
            buffer[index] = 1;
        }
        done.count_down();
    };
    ASSERT_EQ(start(body), 0);
    done.wait();
}

TEST_P(Lwt, SleepsAtLeastAsLongAsAskedOnLightWeightAndPlainThreads)
{
    const auto measure = [] {
        const uint64_t begin = kvos_time_gettime();
        sleep(5);
        EXPECT_GE(kvos_time_gettime() - begin, 5'000'000U);
    };
    std::latch done(1);
    std::function<void()> body = [&] {
        measure();
        done.count_down();
    };
    ASSERT_EQ(start(body), 0);
    measure();
    done.wait();
}

TEST_P(Lwt, KnowsWhetherItRunsOnALightWeightThread)
{
    std::atomic<int32_t> inside = 0;
    std::latch done(1);
    std::function<void()> body = [&] {
        inside = kvlwt_is_lwtcontext(666, "lwt_test");
        done.count_down();
    };
    ASSERT_EQ(start(body), 0);
    done.wait();
    EXPECT_NE(inside, 0);
    EXPECT_EQ(kvlwt_is_lwtcontext(666, "lwt_test"), 0);
}

TEST_P(Lwt, AbandonsWhoSleepsAtTheStop)
{
    // Never destroyed, as the light-weight thread that uses it never ends.
    struct Loop {
        std::latch begun{1};
        std::atomic<bool> stopped = false;
        std::atomic<bool> wentOn = false;
        std::function<void()> body;
    };
    static std::vector<Loop *> kept;
    kept.push_back(new Loop);
    Loop &loop = *kept.back();
    loop.body = [&loop] {
        loop.begun.count_down();
        while (true) {
            const bool before = loop.stopped;
            sleep(1);
            loop.wentOn = loop.wentOn || before;
        }
    };
    ASSERT_EQ(start(loop.body), 0);
    loop.begun.wait();
    host::stopLwt();
    loop.stopped = true;
    kvos_msleep(20); // enough for several turns of the loop, if there were any
    EXPECT_FALSE(loop.wentOn);
}

TEST_P(Lwt, RefusesCreationAfterTheStopAndTakesItAfterAnotherStart)
{
    std::latch done(1);
    std::function<void()> body = [&] { done.count_down(); };
    host::stopLwt();
    EXPECT_NE(start(body), 0);
    host::startLwt(GetParam(), kWorkers);
    EXPECT_EQ(start(body), 0);
    done.wait();
}

TEST(LwtBeforeItsStart, RefusesCreationAndSleepsAsAPlainThread)
{
    std::function<void()> body = [] { ADD_FAILURE() << "the body ran"; };
    EXPECT_NE(start(body), 0);
    sleep(1);
    EXPECT_EQ(kvlwt_is_lwtcontext(666, "lwt_test"), 0);
}

TEST(LwtBeforeItsStart, HasNothingToStop)
{
    host::stopLwt();
}

} // namespace
