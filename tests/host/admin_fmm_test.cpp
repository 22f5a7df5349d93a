// What the admin door answers about the FMM events, asked without a socket; the host's FMM side is the test's own.
#include "admin/routes.h"
#include "admin_node.h"
#include "fmm/fmm.h"
#include "fmm/policy_runner.h"
#include "notify/events.h"

#include <gmock/gmock.h>
#include <nasctrl/shard_view.h>
#include <nlohmann/json.hpp>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct Fmm {
    host::FmmState state;
    std::vector<std::string> announced;
};
Fmm g_fmm;

void tell(const std::string &module, const std::string &event, uint64_t data = 0)
{
    host::recordEvent({.module = module, .name = event, .data = data});
}

} // namespace

namespace host {

FmmState fmmState()
{
    return g_fmm.state;
}
bool announceShardChange()
{
    g_fmm.announced.emplace_back("shard change");
    tell("FMM", "SHARD_CHG");
    return g_fmm.state.subscribed;
}
void announceProcessFault(uint32_t lsId)
{
    g_fmm.announced.push_back("fault " + std::to_string(lsId));
    g_fmm.state.faulty.push_back({lsId, std::chrono::milliseconds(0)});
}
void announceProcessRecovery(uint32_t lsId)
{
    g_fmm.announced.push_back("recovery " + std::to_string(lsId));
    tell("FMM", "NODE_RECOVER");
}
void announceMove(FmmMove move, std::chrono::milliseconds /*patience*/)
{
    constexpr const char *kNames[] = {"VNODE_MOVEIN", "VNODE_MOVEOUT", "SCALE_IN", "SCALE_OUT"};
    g_fmm.announced.push_back("move " + std::to_string(static_cast<int>(move)));
    tell("DLG", kNames[static_cast<int>(move)]);
    tell("FMM", kNames[static_cast<int>(move)]);
}

} // namespace host

namespace {

class AdminFmm : public testing::Test {
protected:
    void SetUp() override
    {
        g_fmm = {};
        resetNode();
        g_shardviewTbl.number_of_shards = 1;
        g_shardviewTbl.entries[0].lsId = 70000;
        g_node.commands = {{"nas_fmm", "node_fault", "", nullptr}};
        g_node.run = [](const std::optional<std::string> &value) {
            g_fmm.announced.push_back("command " + value.value());
            tell("FMM", "NODE_FAULT", std::stoull(*value));
            return host::CommandAnswer{0, ""};
        };
    }
    static std::vector<std::string> told(const std::string &body)
    {
        std::vector<std::string> lines;
        const auto answer = nlohmann::json::parse(ask("POST", body).body);
        for (const auto &each : answer.at("told")) {
            lines.push_back(each.at("module").get<std::string>() + " " + each.at("event").get<std::string>() + " " +
                            each.at("data").get<std::string>());
        }
        return lines;
    }
    static std::map<uint32_t, host::StorageReport> reports() { return host::policyView().reports; }
    static host::admin::Answer ask(const std::string &method, const std::string &body = "")
    {
        return host::admin::answerRequest({method, "/v1/fmm", body});
    }
};

TEST_F(AdminFmm, ShowsTheSubscriptionAndTheProcessesOnRecord)
{
    using std::chrono::milliseconds;
    g_fmm.state = {true, 3, 1, {{7, milliseconds(1500)}, {12, milliseconds(0)}}};
    EXPECT_EQ(ask("GET").body, R"({"shard_changes":{"subscribed":true,"announced":3},)"
                               R"("faulty_processes":[{"ls":7,"age_ms":1500},{"ls":12,"age_ms":0}],"recoveries":1})");
}

TEST_F(AdminFmm, AnnouncesEventsByTheirNames)
{
    struct Row {
        const char *body;
        const char *announced;
    };
    constexpr Row kRows[] = {
        {R"({"event":"shard-change"})", "shard change"},
        {R"({"event":"vnode-move-in"})", "move 0"},
        {R"({"event":"vnode-move-out"})", "move 1"},
        {R"({"event":"shard-move-in"})", "move 2"},
        {R"({"event":"shard-move-out"})", "move 3"},
        {R"({"event":"process-fault","ls":12})", "fault 12"},
        {R"({"event":"process-recover","ls":4294967295})", "recovery 4294967295"},
    };
    for (const Row &row : kRows) {
        g_fmm = {};
        g_fmm.state.subscribed = true;
        EXPECT_EQ(ask("POST", row.body).status, 200U) << row.body;
        EXPECT_THAT(g_fmm.announced, ElementsAre(row.announced)) << row.body;
    }
}

TEST_F(AdminFmm, AnswersTheStateAfterTheEvent)
{
    EXPECT_EQ(
        ask("POST", R"({"event":"process-fault","ls":12})").body,
        R"({"shard_changes":{"subscribed":false,"announced":0},)"
        R"("faulty_processes":[{"ls":12,"age_ms":0}],"recoveries":0,"told":[],"untold":[],"serves_shard":false})");
}

TEST_F(AdminFmm, AnswersWhoWasTold)
{
    g_fmm.state.subscribed = true;
    EXPECT_THAT(told(R"({"event":"shard-change"})"), ElementsAre("FMM SHARD_CHG 0"));
    EXPECT_THAT(told(R"({"event":"vnode-move-in"})"), ElementsAre("DLG VNODE_MOVEIN 0", "FMM VNODE_MOVEIN 0"));
    EXPECT_THAT(told(R"({"event":"shard-move-out"})"), ElementsAre("DLG SCALE_OUT 0", "FMM SCALE_OUT 0"));
    EXPECT_THAT(told(R"({"event":"process-recover","ls":12})"), ElementsAre("FMM NODE_RECOVER 0"));
}

TEST_F(AdminFmm, TellsFmmAndThePolicyOfAStorageNodeThatFailsAndReturns)
{
    EXPECT_THAT(told(R"({"event":"node-fault","ls":70000})"), ElementsAre("FMM NODE_FAULT 70000"));
    EXPECT_THAT(g_fmm.announced, ElementsAre("fault 70000", "command 70000"));
    EXPECT_TRUE(reports().at(70000).faulty);
    EXPECT_THAT(told(R"({"event":"node-recover","ls":70000})"), ElementsAre("FMM NODE_RECOVER 0"));
    EXPECT_EQ(g_fmm.announced.back(), "recovery 70000");
    EXPECT_FALSE(reports().at(70000).faulty);
}

TEST_F(AdminFmm, DoesNotTellThePolicyOfANodeThatServesNoShard)
{
    EXPECT_THAT(told(R"({"event":"node-fault","ls":5})"), ElementsAre("FMM NODE_FAULT 5"));
    EXPECT_FALSE(reports().contains(5));
}

TEST_F(AdminFmm, FailsANodeFaultWhoseCommandFails)
{
    g_node.run = [](const std::optional<std::string> &) { return host::CommandAnswer{1, ""}; };
    EXPECT_EQ(ask("POST", R"({"event":"node-fault","ls":70000})").body,
              R"({"error":"the library's command node_fault failed"})");
    EXPECT_TRUE(!reports().contains(70000) || !reports().at(70000).faulty);
}

TEST_F(AdminFmm, RefusesWhatIsNoEvent)
{
    for (const char *body : {"", "{}", R"({"event":"storm"})", R"({"event":5})", R"({"event":"process-fault"})",
                             R"({"event":"node-fault"})", R"({"event":"process-fault","ls":-1})",
                             R"({"event":"process-fault","ls":4294967296})", R"({"event":"shard-change","ls":1})",
                             R"({"event":"shard-change","more":1})"}) {
        EXPECT_EQ(ask("POST", body).status, 400U) << body;
    }
    EXPECT_THAT(g_fmm.announced, IsEmpty());
}

TEST_F(AdminFmm, NamesTheEventsThatThereAre)
{
    EXPECT_THAT(ask("POST", R"({"event":"storm"})").body,
                testing::HasSubstr("event: must be one of shard-change, vnode-move-in, vnode-move-out, "
                                   "shard-move-in, shard-move-out, process-fault, process-recover, "
                                   "node-fault, node-recover"));
}

TEST_F(AdminFmm, FailsAShardChangeThatNobodySubscribedTo)
{
    EXPECT_EQ(ask("POST", R"({"event":"shard-change"})").status, 500U);
}

} // namespace
