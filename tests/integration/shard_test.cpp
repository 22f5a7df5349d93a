// The shards of a running node, moved and watched as an operator does it.
#include "node.h"

#include <csignal>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>
#include <unistd.h>

namespace {

using integration::Node;
using integration::Outcome;
using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::IsSubsetOf;
using testing::SizeIs;
using testing::UnorderedElementsAre;

// A node that is LS 1 of the three that its example configuration names, with the FSPs 0 to 11 in its index.
class Shards : public testing::Test {
protected:
    static constexpr uint32_t kFsps = 12;

    void SetUp() override
    {
        ASSERT_TRUE(node_.start()) << node_.startOutput();
        for (uint32_t fsp = 0; fsp < kFsps; ++fsp) {
            node_.json({"shard", "fsp", std::to_string(fsp), "--place"});
        }
    }

    // The FSPs that the index has on an LS.
    std::vector<uint32_t> on(uint32_t ls) const
    {
        std::vector<uint32_t> fsps;
        const json index = node_.json({"shard", "show"});
        for (const json &each : index["fsps"]) {
            if (each["ls"] == ls) {
                fsps.push_back(each["fsp"]);
            }
        }
        return fsps;
    }
    // "STATUS TAKEOVER" of each shard.
    std::vector<std::string> statuses() const
    {
        std::vector<std::string> found;
        const json listed = node_.json({"shard", "ls"});
        for (const json &shard : listed["shards"]) {
            found.push_back(shard["status"].get<std::string>() +
                            (shard["takeover_ls"].is_null() ? "" : " " + shard["takeover_ls"].dump()));
        }
        return found;
    }
    static std::vector<uint32_t> movedOf(const json &answer)
    {
        std::vector<uint32_t> fsps;
        for (const json &each : answer["moved"]) {
            fsps.push_back(each["fsp"]);
        }
        return fsps;
    }
    static std::string lineOf(const json &event)
    {
        return event["module"].get<std::string>() + " " + event["event"].get<std::string>() + " " +
               event["data"].get<std::string>();
    }
    static std::vector<std::string> toldOf(const json &answer)
    {
        std::vector<std::string> lines;
        for (const json &event : answer["told"]) {
            lines.push_back(lineOf(event));
        }
        return lines;
    }
    // DLG is told of an event before FMM is.
    static void expectDlgFirst(const json &answer, const std::string &event)
    {
        const auto lines = toldOf(answer);
        const auto dlg = std::ranges::find(lines, "DLG " + event);
        const auto fmm = std::ranges::find(lines, "FMM " + event);
        EXPECT_TRUE(dlg < fmm && fmm != lines.end()) << event << " in " << answer["told"].dump();
    }
    // Of the stream, the event of that number.
    json event(const json &number) const
    {
        const Outcome outcome = node_.ctl({"events", "--json", "--after", std::to_string(number.get<uint64_t>() - 1)});
        return json::parse(outcome.out.substr(0, outcome.out.find('\n')));
    }

    Node node_;
};

TEST_F(Shards, AreListedAsTheConfigurationNamesThem)
{
    const json listed = node_.json({"shard", "ls"});
    EXPECT_EQ(listed["local_ls"], 1);
    ASSERT_THAT(listed["shards"], SizeIs(3));
    EXPECT_EQ(listed["shards"][1]["ls"], 2);
    EXPECT_EQ(listed["shards"][1]["address"], "127.0.0.2");
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
    EXPECT_EQ(on(1).size() + on(2).size() + on(3).size(), kFsps);
    EXPECT_THAT(node_.ctl({"shard", "ls"}).out, HasSubstr("this node"));
}

TEST_F(Shards, AreLookedAtWithoutPlacingAnFsp)
{
    const json answer = node_.json({"shard", "fsp", "5000"});
    EXPECT_EQ(answer["known"], false);
    EXPECT_TRUE(answer["version"].is_null());
    EXPECT_THAT(node_.json({"shard", "show"})["fsps"], SizeIs(kFsps));
    const json placed = node_.json({"shard", "fsp", "5000", "--place"});
    EXPECT_EQ(placed["ls"], answer["ls"]) << "where it was said to come";
    EXPECT_EQ(placed["next_ls"], placed["ls"] == 3 ? 1 : placed["ls"].get<int>() + 1);
    EXPECT_THAT(node_.json({"shard", "show"})["fsps"], SizeIs(kFsps + 1));
}

TEST_F(Shards, OfThisNodeMoveOutWhenItsLsFailsAndInWhenItReturns)
{
    const std::vector<uint32_t> own = on(1);
    const std::vector<uint32_t> next = on(2);
    ASSERT_THAT(own, testing::Not(IsEmpty()));

    const json out = node_.json({"shard", "migrate", "1"});
    EXPECT_EQ(out["to"], 2);
    EXPECT_EQ(movedOf(out), own);
    EXPECT_THAT(toldOf(out), UnorderedElementsAre("DLG VNODE_MOVEOUT 0", "FMM VNODE_MOVEOUT 0", "DLG NODE_FAULT 1",
                                                  "FMM NODE_FAULT 1", "FMM SHARD_CHG 0"));
    expectDlgFirst(out, "VNODE_MOVEOUT 0");
    expectDlgFirst(out, "NODE_FAULT 1");
    EXPECT_THAT(statuses(), ElementsAre("FAULT 2", "NORMAL", "NORMAL"));
    EXPECT_THAT(on(1), IsEmpty());
    EXPECT_THAT(own, IsSubsetOf(on(2)));

    const json in = node_.json({"shard", "failback", "1"});
    EXPECT_EQ(in["from"], 2);
    EXPECT_THAT(movedOf(in), testing::SizeIs(own.size() + next.size())) << "those that LS 2 had before come along";
    EXPECT_THAT(toldOf(in), UnorderedElementsAre("DLG VNODE_MOVEIN 0", "FMM VNODE_MOVEIN 0", "DLG NODE_RECOVER 1",
                                                 "FMM NODE_RECOVER 1", "FMM SHARD_CHG 0"));
    expectDlgFirst(in, "VNODE_MOVEIN 0");
    expectDlgFirst(in, "NODE_RECOVER 1");
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
    EXPECT_THAT(own, IsSubsetOf(on(1)));
    EXPECT_EQ(node_.json({"shard", "fsp", std::to_string(own[0])})["version"], 2);
}

TEST_F(Shards, OfOtherNodesMoveWithoutMoveOutOrMoveInHere)
{
    const json answer = node_.json({"shard", "migrate", "2", "--to", "3"});
    EXPECT_THAT(toldOf(answer), UnorderedElementsAre("DLG NODE_FAULT 2", "FMM NODE_FAULT 2", "FMM SHARD_CHG 0"));
}

TEST_F(Shards, MoveInHereWhenThisNodeTakesOver)
{
    const std::vector<uint32_t> third = on(3);
    ASSERT_THAT(third, testing::Not(IsEmpty()));
    const json answer = node_.json({"shard", "migrate", "3"});
    EXPECT_EQ(answer["to"], 1);
    EXPECT_EQ(movedOf(answer), third);
    expectDlgFirst(answer, "VNODE_MOVEIN 0");
    EXPECT_THAT(toldOf(answer), testing::Not(Contains("DLG VNODE_MOVEOUT 0")));
}

TEST_F(Shards, AreMovedWithTheirRecordsInTheEventStream)
{
    const std::vector<uint32_t> own = on(1);
    const json answer = node_.json({"shard", "migrate", "1", "--to", "3"});
    unsigned moveOuts = 0;
    for (const json &told : answer["told"]) {
        const json seen = event(told["number"]);
        EXPECT_EQ(lineOf(seen), lineOf(told));
        if (seen["event"] == "VNODE_MOVEOUT") {
            ++moveOuts;
            EXPECT_EQ(seen["move_count"], own.size());
            EXPECT_EQ(seen["moves"][0], (json{{"fsp", own[0]}, {"shard", 2}, {"from", 1}, {"to", 3}}));
        }
    }
    EXPECT_EQ(moveOuts, 2U) << "DLG and FMM";
}

TEST_F(Shards, AreExplainedByTheOutputOfAMigration)
{
    const std::string count = std::to_string(on(1).size());
    const Outcome outcome = node_.ctl({"shard", "migrate", "1"});
    EXPECT_EQ(outcome.exitCode, 0) << outcome.err;
    EXPECT_THAT(outcome.out, AllOf(HasSubstr("LS 1 to LS 2: " + count + " FSP"), HasSubstr("FROM SHARD"),
                                   HasSubstr("VNODE_MOVEOUT"), HasSubstr("NODE_FAULT"), HasSubstr(" ms")));
}

TEST_F(Shards, MoveOneFspThereAndBack)
{
    const uint32_t fsp = on(1).at(0);
    const std::string id = std::to_string(fsp);
    for (int round = 0; round < 10; ++round) {
        const json out = node_.json({"shard", "move-fsp", id, "--to", "3"});
        EXPECT_EQ(movedOf(out), std::vector<uint32_t>{fsp});
        expectDlgFirst(out, "VNODE_MOVEOUT 0");
        const json in = node_.json({"shard", "move-fsp", id, "--to", "1"});
        expectDlgFirst(in, "VNODE_MOVEIN 0");
    }
    EXPECT_EQ(node_.json({"shard", "fsp", id})["version"], 20);
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
    const json same = node_.json({"shard", "move-fsp", id, "--to", "1"});
    EXPECT_THAT(same["told"], IsEmpty());
    EXPECT_EQ(same["placement"]["version"], 20);
}

TEST_F(Shards, KeepWhatIsRefused)
{
    const json before = node_.json({"shard", "show"});
    const struct {
        std::vector<std::string> words;
        int code;
        const char *error;
    } kRows[] = {
        {{"shard", "migrate", "9"}, 1, "no shard belongs to LS 9"},
        {{"shard", "migrate", "65537"}, 1, "no shard belongs to LS 65537"},
        {{"shard", "migrate", "1", "--to", "65538"}, 1, "no shard belongs to LS 65538"},
        {{"shard", "migrate", "1", "--to", "1"}, 1, "to: must be another LS than LS 1"},
        {{"shard", "failback", "1"}, 1, "the shard of LS 1 is not FAULT"},
        {{"shard", "failback", "99"}, 1, "no shard belongs to LS 99"},
        {{"shard", "move-fsp", "1", "--to", "99"}, 1, "no shard belongs to LS 99"},
        {{"shard", "move-fsp", "4294967295", "--to", "2"}, 2, "is not a number from 0 to 4294967294"},
        {{"shard", "migrate", "1x"}, 2, "LS: \"1x\" is not a number"},
        {{"shard", "migrate"}, 2, "LS is required"},
        {{"shard", "move-fsp", "1"}, 2, "--to is required"},
        {{"fmm", "node-fault", ""}, 2, "LS: \"\" is not a number"},
    };
    for (const auto &row : kRows) {
        const Outcome outcome = node_.ctl(row.words);
        EXPECT_EQ(outcome.exitCode, row.code) << row.error;
        EXPECT_THAT(outcome.err, HasSubstr(row.error));
    }
    EXPECT_EQ(node_.json({"shard", "show"}), before);
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
}

// ---- the policy

// The text of the first event of module POLICY with that name, once it is there.
std::string policyEvent(const Node &node, const std::string &name)
{
    std::string text;
    Node::eventually([&] {
        std::istringstream lines(node.ctl({"events", "--json"}).out);
        for (std::string line; std::getline(lines, line);) {
            const json event = json::parse(line);
            if (event["module"] == "POLICY" && event["event"] == name) {
                text = event["text"];
                return true;
            }
        }
        return false;
    });
    return text;
}

TEST_F(Shards, OfALsThatIsReportedFaultyAreMovedByThePolicyAndBackOnceItIsSteady)
{
    node_.json({"shard", "policy", "on", "--steady", "1"});
    EXPECT_THAT(toldOf(node_.json({"fmm", "node-fault", "2"})), ElementsAre("FMM NODE_FAULT 2"));
    EXPECT_THAT(policyEvent(node_, "MIGRATE"), HasSubstr("from LS 2 to LS 3: LS 2 is faulty"));
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "FAULT 3", "NORMAL"));
    EXPECT_THAT(on(2), IsEmpty());
    EXPECT_THAT(toldOf(node_.json({"fmm", "node-recover", "2"})), ElementsAre("FMM NODE_RECOVER 0"));
    EXPECT_THAT(policyEvent(node_, "FAIL_BACK"), HasSubstr("from LS 3 to LS 2: LS 2 is back, and steady for"));
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
}

TEST_F(Shards, OfALsWhoseClientFailsInTheViewAreMovedByThePolicy)
{
    node_.json({"shard", "policy", "on"});
    const pid_t client = support::spawn({NASCTL, "--root", node_.root(), "dpc", "join", "2"},
                                        {.out = STDERR_FILENO, .err = STDERR_FILENO});
    EXPECT_TRUE(Node::eventually([this] {
        return node_.json({"dpc", "ls"}).dump().find("\"ls\":2") != std::string::npos;
    }));
    EXPECT_EQ(node_.ctl({"dpc", "fault", "2"}).exitCode, 0);
    EXPECT_THAT(policyEvent(node_, "MIGRATE"), HasSubstr("from LS 2 to LS 3: LS 2 is faulty"));
    kill(client, SIGTERM);
    support::exitCodeOf(client);
}

TEST_F(Shards, StayInADryRunWhichTellsWhatWouldMove)
{
    node_.json({"shard", "policy", "on", "--dry-run"});
    node_.json({"fmm", "node-fault", "2"});
    EXPECT_THAT(policyEvent(node_, "WOULD_MIGRATE"), HasSubstr("would move from LS 2 to LS 3: LS 2 is faulty"));
    EXPECT_THAT(node_.ctl({"shard", "policy", "--dry-run"}).out,
                AllOf(HasSubstr("policy dry-run"), HasSubstr("LS 2 is faulty, and LS 3 is the next that runs")));
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
}

TEST_F(Shards, AreLeftAloneByAPolicyThatIsOff)
{
    node_.json({"fmm", "node-fault", "2"});
    const json policy = node_.json({"shard", "policy"});
    EXPECT_EQ(policy["mode"], "off");
    EXPECT_THAT(policy["plan"], SizeIs(1));
    EXPECT_THAT(statuses(), ElementsAre("NORMAL", "NORMAL", "NORMAL"));
}

// ---- events by hand

TEST_F(Shards, EventsByHandAreTold)
{
    EXPECT_THAT(toldOf(node_.json({"fmm", "shard-change"})), ElementsAre("FMM SHARD_CHG 0"));
    EXPECT_THAT(toldOf(node_.json({"fmm", "vnode-move-in"})), ElementsAre("DLG VNODE_MOVEIN 0", "FMM VNODE_MOVEIN 0"));
    EXPECT_THAT(toldOf(node_.json({"fmm", "vnode-move-out"})),
                ElementsAre("DLG VNODE_MOVEOUT 0", "FMM VNODE_MOVEOUT 0"));
    EXPECT_THAT(node_.ctl({"fmm", "node-fault", "70000"}).out, HasSubstr("LS 70000 serves no shard"));
    EXPECT_EQ(node_.json({"fmm", "status"})["faulty_processes"][0]["ls"], 70000);
}

} // namespace
