#include "nas_ctrl_dpc_tasks.h"

#include <cluster.h>
#include <events.h>
#include <fake_host.h>

#include <algorithm>
#include <cstring>
#include <gmock/gmock.h>
#include <set>
#include <thread>

using dpc::queuedTasks;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

using Texts = std::vector<std::string>;

namespace {

constexpr int32_t kProcessFault = 2;
constexpr int32_t kHeartBreak = 3;

cm_ls_entry entry(uint32_t lsId, int32_t rs = 0, uint64_t sessionId = 0)
{
    cm_ls_entry made = {};
    made.lsId = lsId;
    made.rs = rs;
    made.sessionId = sessionId;
    return made;
}

std::vector<cm_ls_entry> entries(std::initializer_list<uint32_t> lsIds)
{
    std::vector<cm_ls_entry> made;
    for (const uint32_t lsId : lsIds) {
        made.push_back(entry(lsId, 1, 100 + lsId));
    }
    return made;
}

dpc_view viewOf(std::vector<cm_ls_entry> &ls)
{
    dpc_view view = {};
    view.lsNum = static_cast<uint32_t>(ls.size());
    view.ls = ls.data();
    return view;
}

std::string notice(uint32_t module, uint32_t event, uint32_t lsId)
{
    return "notifyCall(" + std::to_string(module) + ", " + std::to_string(event) + ", " + std::to_string(lsId) + ")";
}

// The notices of one event of one LS: DLG's (module 2), then FMM's (module 1).
Texts both(uint32_t event, uint32_t lsId)
{
    return {notice(2, event, lsId), notice(1, event, lsId)};
}

// The ids whose tasks wait.
std::vector<uint32_t> taskIds()
{
    std::vector<uint32_t> ids;
    for (const dpc_event_task &task : queuedTasks()) {
        ids.push_back(task.lsid);
    }
    return ids;
}

class DpcState : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        ASSERT_EQ(NasCtrlDpcClusterInit(), 0U);
        fake::reset();
        g_nasDpcClientId = 0;
    }
    void TearDown() override
    {
        EXPECT_EQ(fake::locksHeld(), 0);
        EXPECT_THAT(fake::callsUnderSpinLock(), IsEmpty());
    }
};

// ---- one LS, before and after

TEST_F(DpcState, AFailedProcessIsToldToDlgThenFmmAndQueuesATask)
{
    const cm_ls_entry before = entry(4000000000U, 0, 11);
    const cm_ls_entry after = entry(4000000000U, 1, ~uint64_t{0});
    fake::setClock(77);
    fake::answer("CM_getLsFaultReason", {kProcessFault});
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_THAT(fake::calls(), ElementsAre("CM_getLsFaultReason(4000000000)", "notifyCall(2, 5, 4000000000)",
                                           "notifyCall(1, 5, 4000000000)"));
    ASSERT_EQ(queuedTasks().size(), 1U);
    EXPECT_EQ(queuedTasks()[0].lsid, 4000000000U);
    EXPECT_EQ(queuedTasks()[0].faultTime, 77U);
    EXPECT_EQ(queuedTasks()[0].sessionId, ~uint64_t{0});
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: DPC [ls:4000000000] run state [0]-->[1], sessionId "
                            "[11]-->[18446744073709551615] ",
                            "class 1 PROTOCOL: [DPC_PROCESS_FAULT]Add dpc process fault event task lsid[4000000000], "
                            "sessionId(18446744073709551615).",
                            "class 0 PROTOCOL: Add dpc event task list lsid[4000000000] faultTime[77] "
                            "sessionId[18446744073709551615]."));
    EXPECT_THAT(fake::logFuncs(),
                ElementsAre("NasCtrlHandleDpcState", "NasCtrlHandleDpcProcessFault", "AddDpcEventTask"));
}

TEST_F(DpcState, ABrokenHeartBeatIsToldToDlgThenFmmAndReleasesTheLocks)
{
    const cm_ls_entry before = entry(7, 0, 11);
    const cm_ls_entry after = entry(7, 1, 11);
    fake::answer("CM_getLsFaultReason", {kHeartBreak});
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_THAT(fake::calls(), ElementsAre("CM_getLsFaultReason(7)", "notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)",
                                           "lwt_create_default(1, 4294967295)"));
    EXPECT_THAT(queuedTasks(), IsEmpty());
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: DPC [ls:7] run state [0]-->[1], sessionId [11]-->[11] ",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[7]."));
    fake::runThread(0);
    EXPECT_THAT(fake::calls("NlmE_NodeFaultEvent"), ElementsAre("NlmE_NodeFaultEvent(7)"));
}

TEST_F(DpcState, ARecoveryIsToldToDlgThenFmm)
{
    const cm_ls_entry before = entry(7, 1, 11);
    const cm_ls_entry after = entry(7, 0, 12);
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 6, 7)", "notifyCall(1, 6, 7)"));
    EXPECT_THAT(queuedTasks(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: DPC [ls:7] run state [1]-->[0], sessionId [11]-->[12] "));
}

TEST_F(DpcState, OfEveryKindIsAnsweredByItsRow)
{
    struct Row {
        const char *name;
        int32_t oldRs, newRs, reason;
        uint64_t newSession; // 11 before
        std::string logged;  // the states and the new session
        Texts calls;
    };
    const std::string restarted = "[0]-->[0], sessionId [11]-->[12] ";
    const Texts asked = {"CM_getLsFaultReason(7)"};
    const Row rows[] = {
        {"normal, same session", 0, 0, 2, 11, "", {}},
        {"normal, new session", 0, 0, 2, 12, restarted, {}},
        {"faulty still, same session", 1, 1, 2, 11, "", {}},
        {"faulty still, new session", 1, 1, 2, 12, "", {}},
        {"unknown state still, new session", -3, -3, 2, 12, "", {}},
        {"fault of reason 0", 0, 1, 0, 11, "[0]-->[1], sessionId [11]-->[11] ", asked},
        {"fault of reason 1", 0, 1, 1, 11, "[0]-->[1], sessionId [11]-->[11] ", asked},
        {"fault of reason 4", 0, 1, 4, 11, "[0]-->[1], sessionId [11]-->[11] ", asked},
        {"fault of reason -2", 0, 1, -2, 11, "[0]-->[1], sessionId [11]-->[11] ", asked},
        {"unknown state", 0, 2, 2, 11, "[0]-->[2], sessionId [11]-->[11] ", {}},
        {"unknown negative state", 1, -1, 2, 12, "[1]-->[-1], sessionId [11]-->[12] ", {}},
        {"back from unknown", 2, 0, 2, 11, "[2]-->[0], sessionId [11]-->[11] ", both(6, 7)},
    };
    for (const Row &row : rows) {
        fake::reset();
        fake::answerAlways("CM_getLsFaultReason", row.reason);
        const cm_ls_entry before = entry(7, row.oldRs, 11);
        const cm_ls_entry after = entry(7, row.newRs, row.newSession);
        NasCtrlHandleDpcState(&before, &after);
        const Texts logged =
            row.logged.empty() ? Texts{} : Texts{"class 1 PROTOCOL: DPC [ls:7] run state " + row.logged};
        EXPECT_EQ(fake::log(), logged) << row.name;
        EXPECT_EQ(fake::calls(), row.calls) << row.name;
        EXPECT_THAT(queuedTasks(), IsEmpty()) << row.name;
    }
}

TEST_F(DpcState, AFaultOfAnUnknownStateIsToldToo)
{
    const cm_ls_entry before = entry(7, 5, 11);
    const cm_ls_entry after = entry(7, 1, 12);
    fake::answer("CM_getLsFaultReason", {kProcessFault});
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_EQ(fake::calls("notifyCall"), both(5, 7));
    EXPECT_THAT(taskIds(), ElementsAre(7));
}

TEST_F(DpcState, TheIdIsTheOldEntrysAndTheReasonTheNewOnes)
{
    const cm_ls_entry before = entry(7, 0, 11);
    const cm_ls_entry after = entry(8, 1, 12);
    fake::answer("CM_getLsFaultReason", {kProcessFault});
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_THAT(fake::calls(), ElementsAre("CM_getLsFaultReason(8)", "notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)"));
    ASSERT_THAT(taskIds(), ElementsAre(7));
    EXPECT_EQ(queuedTasks()[0].sessionId, 12U);
}

TEST_F(DpcState, TheModulesArgumentIsTheIdAndZeros)
{
    const cm_ls_entry before = entry(0x01020304, 1);
    const cm_ls_entry after = entry(0x01020304, 0);
    std::string argument(72, '\0');
    memcpy(argument.data(), "\x04\x03\x02\x01", 4);
    NasCtrlHandleDpcState(&before, &after);
    ASSERT_EQ(fake::notices().size(), 2U);
    EXPECT_EQ(fake::notices()[0].argument, argument);
    EXPECT_EQ(fake::notices()[1].argument, argument);
}

TEST_F(DpcState, WhatModulesAnswerDoesNotStopTheFollowUp)
{
    const cm_ls_entry before = entry(7, 0);
    const cm_ls_entry after = entry(7, 1);
    fake::answerAlways("notifyCall", 9);
    fake::answer("CM_getLsFaultReason", {kProcessFault});
    NasCtrlHandleDpcState(&before, &after);
    EXPECT_EQ(fake::calls("notifyCall"), both(5, 7));
    EXPECT_THAT(taskIds(), ElementsAre(7));
    EXPECT_EQ(fake::log().size(), 3U);
}

TEST_F(DpcState, IsNotJudgedWithoutBothEntries)
{
    const cm_ls_entry ls = entry(7, 1);
    NasCtrlHandleDpcState(nullptr, &ls);
    NasCtrlHandleDpcState(&ls, nullptr);
    NasCtrlHandleDpcState(nullptr, nullptr);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: oldLs is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: newLs is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: oldLs is NULL, return !!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), Each("NasCtrlHandleDpcState"));
}

// ---- many LS

TEST_F(DpcState, ClientsThatLeftAreToldAsFaultsAndLoseTheirLocks)
{
    const auto ls = entries({7, 9, 7});
    NasCtrlHandleDpcStateShrink(ls.data(), 3);
    EXPECT_THAT(fake::calls(),
                ElementsAre("notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)", "lwt_create_default(1, 4294967295)",
                            "notifyCall(2, 5, 9)", "notifyCall(1, 5, 9)", "lwt_create_default(1, 4294967295)",
                            "notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)", "lwt_create_default(1, 4294967295)"));
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: Handle shrink (count:3).",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[7].",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[9].",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[7]."));
    EXPECT_EQ(fake::logFuncs()[0], "NasCtrlHandleDpcStateShrink");
    EXPECT_EQ(fake::logLines()[0].file, "nas_ctrl_dpc_cluster_state.cpp");
    for (size_t i = 0; i < 3; ++i) {
        fake::runThread(i);
    }
    EXPECT_THAT(fake::calls("NlmE_NodeFaultEvent"),
                ElementsAre("NlmE_NodeFaultEvent(7)", "NlmE_NodeFaultEvent(9)", "NlmE_NodeFaultEvent(7)"));
}

TEST_F(DpcState, AShrinkDoesNotLookAtWhatModulesAnswer)
{
    const auto ls = entries({7, 9});
    fake::answerAlways("notifyCall", 9);
    NasCtrlHandleDpcStateShrink(ls.data(), 2);
    EXPECT_EQ(fake::calls("notifyCall").size(), 4U);
    EXPECT_EQ(fake::calls("lwt_create_default").size(), 2U);
    EXPECT_EQ(fake::log().size(), 3U);
}

TEST_F(DpcState, FaultsAreToldAndHandledByTheirReasons)
{
    const auto ls = entries({7, 8, 9});
    fake::answer("CM_getLsFaultReason", {kProcessFault, 1, kHeartBreak});
    NasCtrlHandleDpcStateFault(ls.data(), 3);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)", "CM_getLsFaultReason(7)",
                                           "notifyCall(2, 5, 8)", "notifyCall(1, 5, 8)", "CM_getLsFaultReason(8)",
                                           "notifyCall(2, 5, 9)", "notifyCall(1, 5, 9)", "CM_getLsFaultReason(9)",
                                           "lwt_create_default(1, 4294967295)"));
    ASSERT_THAT(taskIds(), ElementsAre(7));
    EXPECT_EQ(queuedTasks()[0].sessionId, 107U);
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 1 PROTOCOL: [DPC_PROCESS_FAULT] Handle Fault, count:3).",
                    "class 1 PROTOCOL: [DPC_PROCESS_FAULT]Add dpc process fault event task lsid[7], sessionId(107).",
                    "class 0 PROTOCOL: Add dpc event task list lsid[7] faultTime[0] sessionId[107].",
                    "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[9]."));
}

TEST_F(DpcState, AFaultThatModulesRefuseIsLoggedAsDlgsRecoveryAndHandledAllTheSame)
{
    const auto ls = entries({7, 9});
    fake::answer("notifyCall", {-4, 5, 6, 0});
    fake::answerAlways("CM_getLsFaultReason", kHeartBreak);
    NasCtrlHandleDpcStateFault(ls.data(), 2);
    EXPECT_EQ(fake::calls("notifyCall").size(), 4U);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: [DPC_PROCESS_FAULT] Handle Fault, count:2).",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_DLG/NAS_FMM_EVENT_NODE_RECOVER] fail(-4).",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_DLG/NAS_FMM_EVENT_NODE_RECOVER] fail(5).",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[7].",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_DLG/NAS_FMM_EVENT_NODE_RECOVER] fail(6).",
                            "class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[9]."));
    EXPECT_THAT(fake::logFuncs(),
                ElementsAre("NasCtrlHandleDpcStateFault", "NasCtrlHandleDpcStateFault", "NasCtrlHandleDpcStateFault",
                            "NasCtrlHandleDpcHeartBreak", "NasCtrlHandleDpcStateFault", "NasCtrlHandleDpcHeartBreak"));
}

TEST_F(DpcState, RecoveriesAreTold)
{
    const auto ls = entries({7, 9});
    NasCtrlHandleDpcStateRecover(ls.data(), 2);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 6, 7)", "notifyCall(1, 6, 7)", "notifyCall(2, 6, 9)",
                                           "notifyCall(1, 6, 9)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: [DPC_RECOVER] handle recover count(2).",
                                         "class 1 PROTOCOL: [DPC_RECOVER] Dpc process recover lsid[7].",
                                         "class 1 PROTOCOL: [DPC_RECOVER] Dpc process recover lsid[9]."));
    EXPECT_THAT(fake::logFuncs(), Each("NasCtrlHandleDpcStateRecover"));
}

TEST_F(DpcState, ARecoveryThatAModuleRefusesIsLoggedWithItsName)
{
    const auto ls = entries({7, 9});
    fake::answer("notifyCall", {-4, 5, 0, 6});
    NasCtrlHandleDpcStateRecover(ls.data(), 2);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: [DPC_RECOVER] handle recover count(2).",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_DLG/NAS_FMM_EVENT_NODE_RECOVER] fail(-4).",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_FMM/NAS_FMM_EVENT_NODE_RECOVER] fail(5).",
                            "class 1 PROTOCOL: [DPC_RECOVER] Dpc process recover lsid[7].",
                            "class 3 PROTOCOL: nofiy call [NOTIFY_MODULE_FMM/NAS_FMM_EVENT_NODE_RECOVER] fail(6).",
                            "class 1 PROTOCOL: [DPC_RECOVER] Dpc process recover lsid[9]."));
    EXPECT_THAT(fake::logFuncs(), Each("NasCtrlHandleDpcStateRecover"));
}

struct Many {
    void (*handle)(const cm_ls_entry *ls, int32_t count);
    std::string before, after; // the first line, around its count
};
const Many kMany[] = {
    {NasCtrlHandleDpcStateShrink, "class 1 PROTOCOL: Handle shrink (count:", ")."},
    {NasCtrlHandleDpcStateFault, "class 1 PROTOCOL: [DPC_PROCESS_FAULT] Handle Fault, count:", ")."},
    {NasCtrlHandleDpcStateRecover, "class 1 PROTOCOL: [DPC_RECOVER] handle recover count(", ")."},
};

TEST_F(DpcState, NoEntriesAreOnlyCounted)
{
    const auto ls = entries({7});
    for (const Many &many : kMany) {
        for (const int32_t count : {0, -1, INT32_MIN}) {
            fake::reset();
            many.handle(ls.data(), count);
            many.handle(nullptr, count);
            EXPECT_THAT(fake::log(),
                        testing::AllOf(testing::SizeIs(2), Each(many.before + std::to_string(count) + many.after)));
            EXPECT_THAT(fake::calls(), IsEmpty());
        }
    }
}

TEST_F(DpcState, ACountWithoutEntriesIsLogged)
{
    for (const Many &many : kMany) {
        fake::reset();
        many.handle(nullptr, 3);
        EXPECT_THAT(fake::log(),
                    ElementsAre(many.before + "3" + many.after, "3 PROTOCOL: lsArray is NULL, return !!!!!!!!!!!!"));
        EXPECT_THAT(fake::calls(), IsEmpty());
    }
}

// ---- a view that lost entries

TEST_F(DpcState, EntriesThatLeftTheViewAreToldInTheirOrder)
{
    auto before = entries({9, 7, 8, 1});
    auto after = entries({1, 8, 5});
    const dpc_view previousView = viewOf(before);
    const dpc_view newView = viewOf(after);
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, &newView), 0U);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 5, 9)", "notifyCall(1, 5, 9)", "notifyCall(2, 5, 7)",
                                           "notifyCall(1, 5, 7)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: DPC CM EVENT: Successfully cleaned up the view(lsId: 9).",
                                         "class 1 PROTOCOL: DPC CM EVENT: Successfully cleaned up the view(lsId: 7)."));
    EXPECT_THAT(fake::logFuncs(), Each("ScaleDownNotifyDlgAndFmm"));
    EXPECT_EQ(fake::notices()[0].argument, std::string(1, 9) + std::string(71, '\0'));
}

TEST_F(DpcState, AViewThatLostNothingIsNotTold)
{
    auto before = entries({9, 7, 7});
    auto after = entries({1, 7, 9});
    const dpc_view previousView = viewOf(before);
    const dpc_view newView = viewOf(after);
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, &newView), 0U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(DpcState, AnIdThatStoodTwiceInTheViewIsToldTwice)
{
    auto before = entries({7, 9, 7});
    auto after = entries({9});
    const dpc_view previousView = viewOf(before);
    const dpc_view newView = viewOf(after);
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, &newView), 0U);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)", "notifyCall(2, 5, 7)",
                                           "notifyCall(1, 5, 7)"));
}

TEST_F(DpcState, AnEmptyNewViewLostEverything)
{
    auto before = entries({7});
    std::vector<cm_ls_entry> none;
    const dpc_view previousView = viewOf(before);
    const dpc_view empty = viewOf(none);
    dpc_view withoutArray = {};
    withoutArray.lsNum = 5;
    const std::initializer_list<const dpc_view *> newViews = {&empty, &withoutArray, nullptr};
    for (const dpc_view *newView : newViews) {
        fake::reset();
        EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, newView), 0U);
        EXPECT_EQ(fake::calls(), both(5, 7));
        EXPECT_EQ(fake::log().size(), 1U);
    }
}

TEST_F(DpcState, AnEmptyPreviousViewLostNothing)
{
    auto some = entries({7});
    dpc_view previousView = viewOf(some);
    previousView.lsNum = 0;
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, nullptr), 0U);
    previousView = {};
    previousView.lsNum = 5; // beside no array
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, nullptr), 0U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(DpcState, ALossNeedsAPreviousView)
{
    auto some = entries({7});
    const dpc_view newView = viewOf(some);
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(nullptr, &newView), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: previousView is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(DpcState, ALossThatDlgRefusesEndsTheTelling)
{
    auto before = entries({7, 8, 9});
    const dpc_view previousView = viewOf(before);
    fake::answer("notifyCall", {0, 0, -17});
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, nullptr), static_cast<uint32_t>(-17));
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(2, 5, 7)", "notifyCall(1, 5, 7)", "notifyCall(2, 5, 8)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: DPC CM EVENT: Successfully cleaned up the view(lsId: 7).",
                                         "3 PROTOCOL: (ret != RETURN_OK) is failed, return ret!!!!!!!!!!!!"));
}

TEST_F(DpcState, ALossThatFmmRefusesEndsTheTelling)
{
    auto before = entries({7, 8});
    const dpc_view previousView = viewOf(before);
    fake::answer("notifyCall", {0, 3});
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, nullptr), 3U);
    EXPECT_EQ(fake::calls(), both(5, 7));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: (ret != RETURN_OK) is failed, return ret!!!!!!!!!!!!"));
}

TEST_F(DpcState, AViewOf5000EntriesIsComparedWhole)
{
    std::vector<cm_ls_entry> before(5000);
    std::vector<cm_ls_entry> after(5000);
    Texts expected;
    for (uint32_t i = 0; i < 5000; ++i) {
        before[i].lsId = i;
        after[i].lsId = i % 1000 == 0 ? 100000 + i : i;
        if (i % 1000 == 0) {
            const Texts notices = both(5, i);
            expected.insert(expected.end(), notices.begin(), notices.end());
        }
    }
    const dpc_view previousView = viewOf(before);
    const dpc_view newView = viewOf(after);
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&previousView, &newView), 0U);
    EXPECT_EQ(fake::calls(), expected);
}

// ---- the report of a removal

constexpr const char *kStartLine = "class 3 PROTOCOL: DPC CM EVENT: report Ds Business Status success start.";
constexpr const char *kDoneLine = "class 3 PROTOCOL: DPC CM EVENT: report Ds Business Status success, error code(0).";
constexpr const char *kRetryLine = "class 3 PROTOCOL: DPC CM EVENT: report Ds Business Status retry.";

TEST_F(DpcState, ARemovalIsReportedAsOneStatusRecord)
{
    g_nasDpcClientId = 55;
    NasReportRemovDpcStatustoCM();
    std::string record(292, '\0');
    record.replace(0, 13, "dsk_delete_ds");
    record[32] = 2;
    record[36] = '0';
    EXPECT_THAT(fake::calls(), ElementsAre("CM_reportDsBusinessStatusAsyn(55, 1)"));
    ASSERT_EQ(fake::reports().size(), 1U);
    EXPECT_EQ(fake::reports()[0].records, record);
    EXPECT_EQ(fake::reports()[0].context, nullptr);
    EXPECT_THAT(fake::log(), ElementsAre(kStartLine, kDoneLine));
    EXPECT_THAT(fake::logFuncs(), Each("NasReportRemovDpcStatustoCM"));
}

TEST_F(DpcState, ARemovalThatCmTookIsNotReportedAgain)
{
    NasReportRemovDpcStatustoCM();
    EXPECT_TRUE(fake::runCallback());
    EXPECT_EQ(fake::reports().size(), 1U);
    EXPECT_EQ(fake::log().size(), 2U);
}

TEST_F(DpcState, ARemovalIsReportedAgainForEveryFailedAnswer)
{
    fake::answer("cm_report_cb", {-1, 6, 0x188004});
    NasReportRemovDpcStatustoCM();
    while (fake::runCallback()) {
    }
    EXPECT_EQ(fake::reports().size(), 4U);
    EXPECT_EQ(fake::reports()[3].records, fake::reports()[0].records);
    EXPECT_THAT(fake::log(), ElementsAre(kStartLine, kDoneLine, kRetryLine, kStartLine, kDoneLine, kRetryLine,
                                         kStartLine, kDoneLine, kRetryLine, kStartLine, kDoneLine));
    EXPECT_EQ(fake::logFuncs()[2], "NasRemovDpcClusterCallBack");
    EXPECT_THAT(fake::calls("kvos_msleep"), IsEmpty());
}

TEST_F(DpcState, ARemovalThatCmRefusesAtOnceIsNotReportedAgain)
{
    fake::answer("CM_reportDsBusinessStatusAsyn", {-8});
    NasReportRemovDpcStatustoCM();
    EXPECT_EQ(fake::heldCallbacks(), 0U);
    EXPECT_THAT(
        fake::log(),
        ElementsAre(kStartLine, "class 3 PROTOCOL: DPC CM EVENT: report Ds Business Status failed, error code(-8)."));
}

TEST_F(DpcState, ARetryThatCmRefusesEndsTheReports)
{
    fake::answer("CM_reportDsBusinessStatusAsyn", {0, 0, 4});
    fake::answerAlways("cm_report_cb", 1);
    fake::setCallbacks(fake::Callbacks::real);
    NasReportRemovDpcStatustoCM();
    fake::joinCallbacks();
    EXPECT_EQ(fake::reports().size(), 3U);
    // An answer may come before the report that it answers has returned.
    EXPECT_THAT(fake::log(), UnorderedElementsAre(
                                 kStartLine, kDoneLine, kRetryLine, kStartLine, kDoneLine, kRetryLine, kStartLine,
                                 "class 3 PROTOCOL: DPC CM EVENT: report Ds Business Status failed, error code(4)."));
}

// ---- failures, and many threads

// Every transition at once.
void transitions()
{
    const cm_ls_entry normal = entry(1, 0, 11);
    const cm_ls_entry faulty = entry(1, 1, 12);
    auto ls = entries({2, 3});
    const dpc_view view = viewOf(ls);
    NasCtrlHandleDpcState(&normal, &faulty);
    NasCtrlHandleDpcState(&faulty, &normal);
    NasCtrlHandleDpcStateShrink(ls.data(), 2);
    NasCtrlHandleDpcStateFault(ls.data(), 2);
    NasCtrlHandleDpcStateRecover(ls.data(), 2);
    ScaleDownNotifyDlgAndFmm(&view, nullptr);
    NasReportRemovDpcStatustoCM();
}

TEST_F(DpcState, SurvivesAnySingleFailureOfTheHost)
{
    for (uint64_t nth = 1;; ++nth) {
        fake::reset();
        ASSERT_EQ(NasCtrlDpcClusterInit(), 0U);
        fake::answerAlways("CM_getLsFaultReason", kProcessFault);
        fake::failCall(nth);
        transitions();
        if (fake::failableCalls() < nth) {
            EXPECT_GT(nth, 25U);
            break;
        }
        // A refused task is gone, a job without its thread stays.
        EXPECT_EQ(fake::liveBlocks("AddDpcEventTask"), queuedTasks().size()) << nth;
        EXPECT_LE(fake::liveBlocks("NasCtrlHandleDpcHeartBreak"), 2U) << nth;
        EXPECT_EQ(fake::locksHeld(), 0) << nth;
        EXPECT_GE(fake::calls("notifyCall").size(), 17U) << nth;
    }
}

TEST_F(DpcState, IsHandledOnManyThreadsAtOnce)
{
    constexpr uint32_t kThreads = 4;
    constexpr uint32_t kFaultsEach = 50;
    fake::answerAlways("CM_getLsFaultReason", kProcessFault);
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([=] {
            for (uint32_t i = 0; i < kFaultsEach; ++i) {
                const cm_ls_entry before = entry(thread * kFaultsEach + i, 0, 1);
                const cm_ls_entry after = entry(thread * kFaultsEach + i, 1, 2);
                NasCtrlHandleDpcState(&before, &after);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    const auto ids = taskIds();
    EXPECT_EQ(ids.size(), kThreads * kFaultsEach);
    EXPECT_EQ(std::set<uint32_t>(ids.begin(), ids.end()).size(), kThreads * kFaultsEach);
    EXPECT_EQ(fake::notices().size(), 2 * kThreads * kFaultsEach);
}

} // namespace
