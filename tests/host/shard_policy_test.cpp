// What the policy decides, with reports and times of the test's own.
#include "fmm/shard_policy.h"

#include <gmock/gmock.h>

namespace {

using host::IndexedFsp;
using host::PolicyMode;
using host::PolicyStep;
using host::Shard;
using host::ShardPolicy;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

class Policy : public testing::Test {
protected:
    ShardPolicy::Time at(int second) const { return begin_ + seconds(second); }

    // "ACTION LS: FROM to TO, COUNT, at DUE: WHY" of the plan.
    std::vector<std::string> plan(int second) const
    {
        std::vector<std::string> lines;
        for (const PolicyStep &step : policy_.plan(shards_, fsps_, at(second))) {
            lines.push_back(lineOf(step));
        }
        return lines;
    }
    std::string next(int second) const
    {
        const auto step = policy_.next(shards_, fsps_, at(second));
        return step ? lineOf(*step) : "";
    }
    // What a node does with the next step.
    void take(int second)
    {
        const PolicyStep step = policy_.next(shards_, fsps_, at(second)).value();
        const Shard from = *host::shardOf(shards_, step.from);
        const Shard to = *host::shardOf(shards_, step.to);
        for (IndexedFsp &each : fsps_) {
            if (each.shard == from.number) {
                each.shard = to.number;
            }
        }
        if (step.action == PolicyStep::Action::migrate) {
            shards_[from.number].faulty = true;
            shards_[from.number].takeoverLs = to.lsId;
        } else {
            shards_[to.number].faulty = false;
        }
        policy_.moved(step);
    }

    ShardPolicy policy_;
    std::vector<Shard> shards_ = {{0, 11, "a", false, 0}, {1, 22, "b", false, 0}, {2, 33, "c", false, 0}};
    std::vector<IndexedFsp> fsps_ = {{1, 0, 11, 0}, {2, 1, 22, 0}, {3, 1, 22, 0}, {4, 2, 33, 0}};

private:
    std::string lineOf(const PolicyStep &step) const
    {
        const bool away = step.action == PolicyStep::Action::migrate;
        const std::string due =
            step.due ? std::to_string(std::chrono::duration_cast<seconds>(*step.due - begin_).count()) : "-";
        return std::string(away ? "migrate " : "failback ") + std::to_string(step.lsId) + ": " +
               std::to_string(step.from) + " to " + std::to_string(step.to) + ", " + std::to_string(step.fsps) +
               ", at " + due + ": " + step.why;
    }

    const ShardPolicy::Time begin_{};
};

TEST_F(Policy, IsOffAndWaitsAMinuteUnlessToldOtherwise)
{
    EXPECT_EQ(policy_.mode(), PolicyMode::off);
    EXPECT_EQ(policy_.steady(), seconds(60));
    EXPECT_THAT(plan(0), IsEmpty());
}

TEST_F(Policy, MovesTheFspsOfAFaultyLsToTheNextLs)
{
    policy_.report(22, true, at(5));
    EXPECT_THAT(plan(9),
                ElementsAre("migrate 22: 22 to 33, 2, at 5: LS 22 is faulty, and LS 33 is the next that runs"));
    take(9);
    EXPECT_THAT(plan(9), IsEmpty());
    EXPECT_TRUE(policy_.reports().at(22).moved);
}

TEST_F(Policy, GoesRoundFromTheLastLsToTheFirst)
{
    policy_.report(33, true, at(0));
    EXPECT_THAT(plan(0),
                ElementsAre("migrate 33: 33 to 11, 1, at 0: LS 33 is faulty, and LS 11 is the next that runs"));
}

TEST_F(Policy, PassesOverAnLsThatIsFaultyOrAway)
{
    policy_.report(22, true, at(0));
    policy_.report(33, true, at(0));
    EXPECT_THAT(plan(0),
                ElementsAre("migrate 22: 22 to 11, 2, at 0: LS 22 is faulty, and LS 11 is the next that runs",
                            "migrate 33: 33 to 11, 1, at 0: LS 33 is faulty, and LS 11 is the next that runs"));
    policy_.report(33, false, at(0));
    shards_[2].faulty = true; // by an operator's hand
    shards_[2].takeoverLs = 11;
    EXPECT_EQ(next(0), "migrate 22: 22 to 11, 2, at 0: LS 22 is faulty, and LS 11 is the next that runs");
}

TEST_F(Policy, PassesOverAnEmptyShard)
{
    shards_[2] = {2, 0, "", false, 0};
    policy_.report(22, true, at(0));
    EXPECT_EQ(next(0), "migrate 22: 22 to 11, 2, at 0: LS 22 is faulty, and LS 11 is the next that runs");
}

TEST_F(Policy, HasNowhereToGoWhenNoOtherLsRuns)
{
    for (const uint32_t lsId : {11U, 22U, 33U}) {
        policy_.report(lsId, true, at(0));
    }
    EXPECT_EQ(plan(0).front(), "migrate 11: 11 to 11, 1, at -: LS 11 is faulty, and no other LS is there to take over");
    EXPECT_EQ(next(100), "");
}

TEST_F(Policy, KeepsNoRecordOfAnLsThatNeverFailed)
{
    policy_.report(22, false, at(0));
    EXPECT_THAT(policy_.reports(), IsEmpty());
}

TEST_F(Policy, LeavesAnLsAloneThatServesNoShard)
{
    policy_.report(99, true, at(0));
    EXPECT_THAT(plan(0), IsEmpty());
}

TEST_F(Policy, HasNothingToDoWithAnEmptyIndex)
{
    fsps_.clear();
    policy_.report(22, true, at(0));
    EXPECT_THAT(plan(0), IsEmpty());
}

TEST_F(Policy, MovesFspsThatComeToAFaultyLsToWhereTheOthersWent)
{
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(11, true, at(1));
    policy_.report(11, false, at(1));
    fsps_.push_back({9, 1, 22, 0});
    EXPECT_EQ(next(1), "migrate 22: 22 to 33, 1, at 0: LS 22 is faulty, and LS 33 is the next that runs");
}

TEST_F(Policy, MovesOnWhatAnLsTookOverWhenItFailsToo)
{
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(33, true, at(1));
    EXPECT_EQ(next(1), "migrate 33: 33 to 11, 3, at 1: LS 33 is faulty, and LS 11 is the next that runs");
}

TEST_F(Policy, MovesBackOnceTheLsHasRunLongEnough)
{
    policy_.setSteady(seconds(30));
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(22, false, at(10));
    EXPECT_THAT(plan(39),
                ElementsAre("failback 22: 33 to 22, 3, at 40: LS 22 is back, but has run for 29 s of 30 s only"));
    EXPECT_EQ(next(39), "");
    EXPECT_EQ(next(40), "failback 22: 33 to 22, 3, at 40: LS 22 is back, and steady for 30 s");
    take(40);
    EXPECT_THAT(plan(41), IsEmpty());
    EXPECT_FALSE(policy_.reports().at(22).moved);
}

TEST_F(Policy, BeginsToCountAnewWhenTheLsFailsAgain)
{
    policy_.setSteady(seconds(30));
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(22, false, at(10));
    policy_.report(22, true, at(20));
    EXPECT_EQ(next(60), "");
    policy_.report(22, false, at(61));
    EXPECT_EQ(next(90), "");
    EXPECT_NE(next(91), "");
}

TEST_F(Policy, DoesNotCountAnewWhenItHearsTheSameAgain)
{
    policy_.setSteady(seconds(30));
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(22, false, at(10));
    policy_.report(22, false, at(39));
    EXPECT_NE(next(40), "");
}

TEST_F(Policy, LeavesFspsThatAnOperatorMoved)
{
    shards_[1].faulty = true;
    shards_[1].takeoverLs = 33;
    policy_.report(22, false, at(0));
    EXPECT_THAT(plan(1000), IsEmpty());
    shards_[1].faulty = false;
    policy_.report(22, true, at(1000));
    take(1000);
    policy_.movedByHand(22);
    policy_.movedByHand(99); // that nobody reported
    policy_.report(22, false, at(1001));
    EXPECT_THAT(plan(5000), IsEmpty());
}

TEST_F(Policy, WaitsToMoveBackWhileTheLsThatTookOverIsAwayItself)
{
    policy_.setSteady(seconds(1));
    policy_.report(22, true, at(0));
    take(0);
    policy_.report(33, true, at(1));
    take(1);
    policy_.report(22, false, at(2));
    EXPECT_THAT(
        plan(10),
        ElementsAre("failback 22: 33 to 22, 0, at -: LS 22 is back, but LS 33, which took over, is away itself"));
    policy_.report(33, false, at(11));
    EXPECT_EQ(next(12), "failback 33: 11 to 33, 4, at 12: LS 33 is back, and steady for 1 s");
    take(12);
    EXPECT_EQ(next(12), "failback 22: 33 to 22, 4, at 3: LS 22 is back, and steady for 10 s");
}

TEST_F(Policy, TriesAFailedStepAgainLater)
{
    policy_.report(22, true, at(0));
    policy_.failed(policy_.next(shards_, fsps_, at(0)).value(), at(3));
    EXPECT_EQ(next(7), "");
    EXPECT_NE(next(8), "");
}

TEST_F(Policy, AnnouncesAStepOnceUntilTheReportOrTheModeChanges)
{
    policy_.setMode(PolicyMode::dryRun);
    policy_.report(22, true, at(0));
    policy_.announced(policy_.next(shards_, fsps_, at(0)).value());
    EXPECT_EQ(next(100), "");
    EXPECT_EQ(plan(100).size(), 1U) << "it stays in the plan";
    policy_.setMode(PolicyMode::on);
    EXPECT_NE(next(100), "");
    policy_.announced(policy_.next(shards_, fsps_, at(100)).value());
    policy_.report(22, false, at(101));
    policy_.report(22, true, at(102));
    EXPECT_NE(next(102), "");
}

} // namespace
