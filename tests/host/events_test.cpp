// The event stream. It lives as long as the process, so each test begins at the number of the newest event.
#include "notify/events.h"

#include <future>
#include <gmock/gmock.h>
#include <thread>

namespace {

using host::allowEventWaits;
using host::EventDetails;
using host::EventPage;
using host::kMaxEvents;
using host::Move;
using host::readEvents;
using host::recordEvent;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using namespace std::chrono_literals;

constexpr std::chrono::hours kLong{1};

uint64_t newest()
{
    return readEvents(UINT64_MAX, 0).newest;
}

uint64_t record(uint64_t data)
{
    return recordEvent({.module = "TEST", .name = "NUMBERED", .data = data});
}

std::vector<uint64_t> dataOf(const EventPage &page)
{
    std::vector<uint64_t> data;
    for (const auto &event : page.events) {
        data.push_back(event->details.data);
    }
    return data;
}

uint64_t countOf(const std::string &module, const std::string &name)
{
    for (const auto &row : host::eventCounts()) {
        if (row.module == module && row.name == name) {
            return row.count;
        }
    }
    return 0;
}

TEST(Events, AreNumberedAndTimedInTheOrderOfTheirComing)
{
    const uint64_t before = newest();
    const auto begin = std::chrono::system_clock::now();
    EXPECT_EQ(record(7), before + 1);
    EXPECT_EQ(record(8), before + 2);
    const EventPage page = readEvents(before, 10);
    ASSERT_THAT(page.events, SizeIs(2));
    EXPECT_THAT(dataOf(page), ElementsAre(7, 8));
    EXPECT_EQ(page.events[0]->number, before + 1);
    EXPECT_EQ(page.events[1]->number, before + 2);
    EXPECT_EQ(page.newest, before + 2);
    EXPECT_EQ(page.missed, 0U);
    EXPECT_LE(begin, page.events[0]->time);
    EXPECT_LE(page.events[0]->time, page.events[1]->time);
}

TEST(Events, KeepWhatTheirComponentTells)
{
    const uint64_t before = newest();
    recordEvent({.module = "FMM", .name = "VNODE_MOVEIN", .data = 5, .text = "why", .moves = {{1, 2, 3, 4}}});
    const EventDetails kept = readEvents(before, 1).events.at(0)->details;
    EXPECT_EQ(kept.module, "FMM");
    EXPECT_EQ(kept.name, "VNODE_MOVEIN");
    EXPECT_EQ(kept.data, 5U);
    EXPECT_EQ(kept.text, "why");
    EXPECT_THAT(kept.moves, ElementsAre(Move{1, 2, 3, 4}));
    EXPECT_EQ(kept.moveCount, 1U);
}

TEST(Events, AreBoundedInEachPart)
{
    const uint64_t before = newest();
    const std::string name(host::kMaxEventName + 1, 'n');
    recordEvent({.module = "TEST",
                 .name = name,
                 .text = std::string(host::kMaxEventText + 1, 't'),
                 .moves = std::vector<Move>(host::kMaxEventMoves + 1),
                 .moveCount = 5000});
    const EventDetails kept = readEvents(before, 1).events.at(0)->details;
    EXPECT_THAT(kept.name, SizeIs(host::kMaxEventName));
    EXPECT_THAT(kept.text, SizeIs(host::kMaxEventText));
    EXPECT_THAT(kept.moves, SizeIs(host::kMaxEventMoves));
    EXPECT_EQ(kept.moveCount, 5000U);
}

TEST(Events, AreReadPageByPage)
{
    const uint64_t before = newest();
    for (uint64_t i = 0; i < 5; ++i) {
        record(i);
    }
    EXPECT_THAT(dataOf(readEvents(before, 2)), ElementsAre(0, 1));
    EXPECT_THAT(dataOf(readEvents(before + 2, 2)), ElementsAre(2, 3));
    EXPECT_THAT(dataOf(readEvents(before + 4, 2)), ElementsAre(4));
    EXPECT_THAT(dataOf(readEvents(before + 5, 2)), IsEmpty());
    EXPECT_THAT(dataOf(readEvents(before, 0)), IsEmpty());
}

TEST(Events, AreKeptUpToALimitAndASlowReaderIsToldHowManyItMissed)
{
    const uint64_t before = newest();
    for (uint64_t i = 0; i < kMaxEvents + 3; ++i) {
        record(i);
    }
    const EventPage slow = readEvents(before, 1);
    EXPECT_EQ(slow.missed, 3U);
    EXPECT_THAT(dataOf(slow), ElementsAre(3));
    EXPECT_EQ(readEvents(before + 2, 1).missed, 1U);
    EXPECT_EQ(readEvents(before + 3, 1).missed, 0U);
    EXPECT_THAT(readEvents(0, SIZE_MAX).events, SizeIs(kMaxEvents));
    EXPECT_EQ(readEvents(0, 0).missed, before + 3);
}

TEST(Events, BeyondTheNewestAreNoneAndAreNotWaitedFor)
{
    const uint64_t number = record(1);
    const EventPage page = readEvents(number + 1, 10, kLong);
    EXPECT_THAT(page.events, IsEmpty());
    EXPECT_EQ(page.missed, 0U);
    EXPECT_EQ(page.newest, number);
}

TEST(Events, WakeAReaderThatWaits)
{
    const uint64_t before = newest();
    auto page = std::async(std::launch::async, [before] { return readEvents(before, 10, kLong); });
    record(42);
    EXPECT_THAT(dataOf(page.get()), ElementsAre(42));
}

TEST(Events, DoNotKeepAReaderLongerThanItsWait)
{
    EXPECT_THAT(readEvents(newest(), 10, 1ms).events, IsEmpty());
}

TEST(Events, LetReadersGoWhenWaitingIsNoLongerAllowed)
{
    const uint64_t before = newest();
    auto waiting = std::async(std::launch::async, [before] { return readEvents(before, 10, kLong); });
    allowEventWaits(false);
    EXPECT_THAT(waiting.get().events, IsEmpty());
    EXPECT_THAT(readEvents(before, 10, kLong).events, IsEmpty());
    allowEventWaits(true);
}

TEST(Events, AreCountedByModuleAndName)
{
    recordEvent({.module = "TEST", .name = "B"});
    recordEvent({.module = "TEST", .name = "A"});
    recordEvent({.module = "TEST", .name = "B"});
    EXPECT_EQ(countOf("TEST", "A"), 1U);
    EXPECT_EQ(countOf("TEST", "B"), 2U);
}

TEST(Events, OfAFollowerAreAllThereOnceAndInOrderWhileManyThreadsRecord)
{
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kEach = 500;
    const uint64_t before = newest();
    auto follower = std::async(std::launch::async, [before] {
        std::vector<uint64_t> numbers;
        for (uint64_t after = before; numbers.size() < kThreads * kEach;) {
            for (const auto &event : readEvents(after, 100, kLong).events) {
                after = event->number;
                numbers.push_back(after);
            }
        }
        return numbers;
    });
    std::vector<std::jthread> writers;
    for (uint64_t i = 0; i < kThreads; ++i) {
        writers.emplace_back([i] {
            for (uint64_t k = 0; k < kEach; ++k) {
                record(i);
            }
        });
    }
    const std::vector<uint64_t> numbers = follower.get();
    for (uint64_t i = 0; i < numbers.size(); ++i) {
        ASSERT_EQ(numbers[i], before + 1 + i);
    }
}

// The last test of this program: it uses up the kinds.
TEST(EventsAtTheEnd, OfTooManyKindsAreCountedAsOther)
{
    for (size_t i = 0; i < host::kMaxEventKinds; ++i) {
        recordEvent({.module = "MANY", .name = std::to_string(i)});
    }
    const uint64_t other = countOf("other", "other");
    recordEvent({.module = "MANY", .name = "one more"});
    recordEvent({.module = "MANY", .name = "0"});
    EXPECT_EQ(countOf("other", "other"), other + 1);
    EXPECT_EQ(countOf("MANY", "one more"), 0U);
    EXPECT_EQ(countOf("MANY", "0"), 2U);
    EXPECT_THAT(host::eventCounts(), SizeIs(host::kMaxEventKinds + 1));
}

} // namespace
