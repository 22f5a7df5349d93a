// What a call led to. The stream lives as long as the process; a watch begins at its newest event.
#include "notify/told.h"

#include <gmock/gmock.h>
#include <thread>

namespace {

using host::Expected;
using host::recordEvent;
using host::TellingOutcome;
using host::TellingWatch;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> names(const TellingOutcome &outcome)
{
    std::vector<std::string> lines;
    for (const host::Told &each : outcome.told) {
        lines.push_back(each.event->details.module + " " + each.event->details.name);
    }
    return lines;
}

TEST(Telling, OfWhatIsExpectedIsCollectedInTheOrderOfTheStream)
{
    recordEvent({.module = "DLG", .name = "NODE_FAULT", .data = 7});
    const TellingWatch watch;
    recordEvent({.module = "NLM", .name = "LOCKS_RELEASED"});
    recordEvent({.module = "DLG", .name = "NODE_FAULT", .data = 8});
    recordEvent({.module = "FMM", .name = "NODE_FAULT", .data = 8});
    const TellingOutcome outcome =
        watch.wait({{"FMM", "NODE_FAULT", 8}, {"DLG", "NODE_FAULT", 8}, {"DLG", "NODE_FAULT", 7}}, milliseconds(0));
    EXPECT_THAT(names(outcome), ElementsAre("DLG NODE_FAULT", "FMM NODE_FAULT"));
    EXPECT_THAT(outcome.untold, ElementsAre(Expected{"DLG", "NODE_FAULT", 7}));
    EXPECT_LE(outcome.told[0].after, outcome.told[1].after);
}

TEST(Telling, OfTheSameTwiceNeedsTwoEvents)
{
    const TellingWatch watch;
    recordEvent({.module = "FMM", .name = "SHARD_CHG"});
    const TellingOutcome outcome = watch.wait({{"FMM", "SHARD_CHG"}, {"FMM", "SHARD_CHG"}}, milliseconds(0));
    EXPECT_EQ(outcome.told.size(), 1U);
    EXPECT_EQ(outcome.untold.size(), 1U);
}

TEST(Telling, IsWaitedFor)
{
    const TellingWatch watch;
    const std::jthread teller([] {
        recordEvent({.module = "DLG", .name = "SCALE_IN"});
        recordEvent({.module = "FMM", .name = "SCALE_IN"});
    });
    const TellingOutcome outcome = watch.wait({{"DLG", "SCALE_IN"}, {"FMM", "SCALE_IN"}}, std::chrono::hours(1));
    EXPECT_THAT(names(outcome), ElementsAre("DLG SCALE_IN", "FMM SCALE_IN"));
    EXPECT_THAT(outcome.untold, IsEmpty());
}

TEST(Telling, OfNothingIsNotWaitedFor)
{
    EXPECT_THAT(TellingWatch().wait({}, std::chrono::hours(1)).told, IsEmpty());
}

} // namespace
