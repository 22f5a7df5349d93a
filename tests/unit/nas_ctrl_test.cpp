#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kCmList[] = "10.1.0.1:4096,10.1.0.2:4096";

// What the consumers were told, in order.
std::vector<std::string> g_told;

void tell(const std::string &what)
{
    g_told.push_back(what);
    EXPECT_EQ(fake::locksHeld(), 0) << what;
}

template <int Entry>
void onClientId(uint32_t id)
{
    tell("client_id " + std::to_string(Entry) + " " + std::to_string(id));
}
template <int Entry>
void onEvent(void *event)
{
    tell("event " + std::to_string(Entry) + " " + std::to_string(*static_cast<int32_t *>(event)));
}
template <int Entry>
uint32_t onCommand(void *cmd)
{
    tell("command " + std::to_string(Entry) + " " + std::to_string(*static_cast<int32_t *>(cmd)));
    return 1;
}
template <int Entry>
void onStatus()
{
    tell("status " + std::to_string(Entry));
}
template <int Entry>
cm_ops consumer()
{
    return {onClientId<Entry>, onEvent<Entry>, onCommand<Entry>, onStatus<Entry>};
}

class Control : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_told.clear();
        memset(g_nasCtrlCmOps, 0, sizeof g_nasCtrlCmOps);
        g_nasCtrlCMClientId = 0;
        g_nasDpcClientId = 0;
        fake::setConfig("dpc.conf", "GLOBAL", "cm_ip_list", kCmList);
        fake::setConfig("dpc.conf", "OSK_MID_DPC", "dpc_data_ip", "eth0:10.0.0.1");
        fake::during("kvlog", [] { EXPECT_EQ(fake::locksHeld(), 0) << fake::log().back(); });
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), 0); }

    static void registerAt(uint32_t index, const cm_ops &ops) { NasCtrlRegisterCMClient(index, &ops); }
};

// ---- start-up

TEST_F(Control, InitRegistersModule18ThenRunsTheHostsAdapter)
{
    fake::answer("NasCtrlInitAdpater", {7});
    EXPECT_EQ(nas_ctrl_init(), 7U);
    EXPECT_THAT(fake::calls(), ElementsAre("svr_regist_module(18, 1)", "NasCtrlInitAdpater()"));
}

TEST_F(Control, HandlerRegistrationTakesModule3)
{
    EXPECT_EQ(nas_ctrl_handler_reg(), 0);
    EXPECT_THAT(fake::calls(), ElementsAre("svr_regist_module(3, 1)"));
    EXPECT_NE(fake::handlerOf(3), nullptr);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Control, ARefusedHandlerRegistrationIsLoggedAndSucceeds)
{
    fake::answer("svr_regist_module", {-1});
    EXPECT_EQ(nas_ctrl_handler_reg(), 0);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: regist module error"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_ctrl_handler_reg"));
}

TEST_F(Control, ClusterInitRunsItsStepsInOrder)
{
    fake::setClientId(31);
    EXPECT_EQ(NasCtrlClusterInit(), 0U);
    EXPECT_THAT(fake::calls(), ElementsAre("lwt_create_default(1, 4294967295)", "NasCtrlAppdataClusterInitAdapter()",
                                           "NasCtrlInitEdsDSNameAdapter()", "NasCtrInitClusterEdsViewAdapter()",
                                           R"(kvos_cfg_getItemValue("GLOBAL", "cm_ip_list", 832))",
                                           R"(kvos_cfg_getItemValue("OSK_MID_DPC", "dpc_data_ip", 256))",
                                           R"(NasCrtlOpenCmClientAdapter("10.1.0.1:4096,10.1.0.2:4096", "10.0.0.1"))"));
    EXPECT_EQ(g_nasCtrlCMClientId, 31U);
    EXPECT_EQ(g_nasCtrlCmOps[1].client_id, NasCtrlSetCmClientId);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Control, ClusterInitEndsAtTheFirstStepThatFails)
{
    struct Row {
        const char *step;
        int64_t code;
        uint32_t result;
        std::vector<std::string> log;
        size_t calls; // the failed one included
    };
    const Row rows[] = {
        {"lwt_create_default",
         5,
         5,
         {"3 PROTOCOL: Create lwt thread for DPC event.", "class 3 PROTOCOL: nas ctrl init DPC cluster failed 5"},
         1},
        {"NasCtrlAppdataClusterInitAdapter",
         -6,
         0xFFFFFFFAU,
         {"class 3 PROTOCOL: nas ctrl init app_data cluster failed -6"},
         2},
        {"NasCtrInitClusterEdsViewAdapter", 8, 8, {"3 PROTOCOL: ret is failed, return ret!!!!!!!!!!!!"}, 4},
        {"kvos_cfg_getItemValue",
         9,
         9,
         {"3 PROTOCOL: ret is failed, return ret!!!!!!!!!!!!",
          "class 3 PROTOCOL: nas ctrl get cm server IpList failed:9."},
         5},
        {"NasCrtlOpenCmClientAdapter",
         10,
         10,
         {"class 3 PROTOCOL: Init cm client(10.1.0.1:4096,10.1.0.2:4096 10.0.0.1 44) for NAS protocol cluster "
          "failed:10."},
         8}, // with the question for the local LS id
    };
    for (const Row &row : rows) {
        SetUp();
        fake::answerAlways("CgwGetInitLocalLsId", 44);
        fake::answer(row.step, {row.code});
        EXPECT_EQ(NasCtrlClusterInit(), row.result) << row.step;
        EXPECT_EQ(fake::log(), row.log) << row.step;
        EXPECT_EQ(fake::logFuncs().back(), "NasCtrlClusterInit") << row.step;
        EXPECT_EQ(fake::calls().size(), row.calls) << row.step;
    }
}

TEST_F(Control, ClusterInitEndsWithoutALocalAddress)
{
    fake::answer("kvos_cfg_getItemValue", {0, -3});
    EXPECT_EQ(NasCtrlClusterInit(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ret != 0 is failed, return NAS_ERROR!!!!!!!!!!!!",
                                         "class 3 PROTOCOL: nas ctrl get local IP address failed:1."));
    EXPECT_THAT(fake::calls("NasCrtlOpenCmClientAdapter"), IsEmpty());
}

TEST_F(Control, ClusterInitGoesOnWithoutAnEdsName)
{
    fake::answer("NasCtrlInitEdsDSNameAdapter", {1});
    EXPECT_EQ(NasCtrlClusterInit(), 0U);
    EXPECT_THAT(fake::calls("NasCrtlOpenCmClientAdapter"), testing::SizeIs(1));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Control, StartUpSurvivesTheFailureOfEveryHostCall)
{
    for (const auto fail : {fake::failCall, fake::failAllocation}) {
        uint64_t n = 0;
        uint64_t failable = 0;
        do {
            SetUp();
            fail(++n);
            nas_ctrl_init();
            EXPECT_EQ(nas_ctrl_handler_reg(), 0) << "failure " << n;
            NasCtrlClusterInit();
            failable = fake::failableCalls();
            EXPECT_EQ(fake::locksHeld(), 0) << "failure " << n;
            EXPECT_EQ(fake::liveBlocks(), 0U) << "failure " << n;
            EXPECT_THAT(fake::callsUnderSpinLock(), IsEmpty()) << "failure " << n;
        } while (n <= failable);
        EXPECT_EQ(failable, 10U);
        EXPECT_THAT(fake::log(), IsEmpty());
    }
}

// ---- the dispatcher of module 3

class Requests : public Control {
protected:
    void SetUp() override
    {
        Control::SetUp();
        ASSERT_EQ(nas_ctrl_handler_reg(), 0);
    }

    // Hands over a message in a block of exactly its size, so that a sanitizer sees a step outside.
    static uint32_t send(const std::string &bytes)
    {
        const auto buffer = std::make_unique<char[]>(bytes.size());
        memcpy(buffer.get(), bytes.data(), bytes.size());
        svr_msg_t record = {buffer.get(), static_cast<uint32_t>(bytes.size()), 3, 999, {}, 41, 0};
        return fake::handlerOf(3)(&record);
    }
    static uint32_t sendOpcode(uint32_t opcode)
    {
        return send(std::string(reinterpret_cast<const char *>(&opcode), sizeof opcode));
    }
};

TEST_F(Requests, WithoutARecordAreRefused)
{
    EXPECT_EQ(fake::handlerOf(3)(nullptr), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: arg is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_sysctrl_dispatch"));
}

TEST_F(Requests, TooShortForAnOpcodeAreRefused)
{
    EXPECT_EQ(send("abc"), 1U);
    svr_msg_t record = {nullptr, 4, 3, 10, {}, 0, 0};
    EXPECT_EQ(fake::handlerOf(3)(&record), 1U);
    ASSERT_EQ(fake::log().size(), 2U);
    EXPECT_THAT(fake::log()[0], testing::MatchesRegex("3 PROTOCOL: invalid param, msgbuf 0x[0-9a-f]+ len 3"));
    EXPECT_EQ(fake::log()[1], "3 PROTOCOL: invalid param, msgbuf (nil) len 4");
    EXPECT_EQ(fake::replies(), 0U);
}

TEST_F(Requests, Opcode10IsAnsweredWithEightZeroBytes)
{
    EXPECT_EQ(sendOpcode(10), 0U);
    EXPECT_EQ(fake::lastReply(), std::string(8, '\0'));
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: opcode 10 ret 0"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_sysctrl_dispatch"));
    EXPECT_EQ(fake::logLines().front().file, "nas_ctrl.cpp");
}

TEST_F(Requests, AFailedReplyIsTheResult)
{
    fake::answer("SvrSendResponse", {-5});
    EXPECT_EQ(sendOpcode(10), 0xFFFFFFFBU);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: opcode 10 ret -5"));
}

TEST_F(Requests, OtherOpcodesGoToTheHostsAdapters)
{
    struct Row {
        uint32_t opcode;
        const char *adapter;
    };
    const Row rows[] = {
        {40, "NasCtrlGetLifInfoAdapter"},
        {44, "NasCtrlGetControllerInfoAdapter"},
        {47, "NasCtrlGetTenantNameByTenantID"},
    };
    for (const Row &row : rows) {
        SetUp();
        fake::answer(row.adapter, {0, 6});
        EXPECT_EQ(sendOpcode(row.opcode), 0U);
        EXPECT_EQ(sendOpcode(row.opcode), 6U);
        EXPECT_THAT(fake::calls(row.adapter),
                    ElementsAre(std::string(row.adapter) + "(41)", std::string(row.adapter) + "(41)"));
        EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: opcode " + std::to_string(row.opcode) + " ret 0",
                                             "3 PROTOCOL: opcode " + std::to_string(row.opcode) + " ret 6"));
        EXPECT_EQ(fake::replies(), 0U);
    }
}

TEST_F(Requests, OfAnUnknownOpcodeFail)
{
    EXPECT_EQ(sendOpcode(11), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: opcode 11 ret 1"));
    EXPECT_EQ(fake::replies(), 0U);
}

TEST_F(Requests, TakeNoLock)
{
    sendOpcode(10);
    sendOpcode(40);
    sendOpcode(11);
    send("abc");
    EXPECT_THAT(fake::log(), testing::SizeIs(4));
    EXPECT_EQ(fake::lastSpinLock(), nullptr);
}

// ---- CM traffic

TEST_F(Control, CmTrafficTakesNoLock)
{
    int32_t record = 0;
    registerAt(1, consumer<1>());
    NasCtrlHandleClusterEvent(&record);
    NasCtrlHandleCmCommand(&record);
    NasCtrlHandleCmStatus();
    EXPECT_THAT(g_told, ElementsAre("client_id 1 77", "event 1 0", "command 1 0", "status 1"));
    EXPECT_THAT(fake::log(), testing::SizeIs(4));
    EXPECT_EQ(fake::lastSpinLock(), nullptr);
}

TEST_F(Control, AnEventOfANewClientAsksForTheIdOnceForEachConsumer)
{
    int32_t event = 0;
    fake::setClientId(91);
    registerAt(0, consumer<0>());
    registerAt(3, consumer<3>());
    NasCtrlHandleClusterEvent(&event);
    EXPECT_THAT(g_told, ElementsAre("client_id 0 91", "event 0 0", "client_id 3 91", "event 3 0"));
    EXPECT_THAT(fake::calls(), ElementsAre("CM_getEventInfo(1)", "CM_getEventInfo(1)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: CM EVENT: Nas ctrl recieve cm event(0), clientid:0.",
                                         "6 PROTOCOL: CM EVENT: Nas ctrl get clientID(91) ret(0)",
                                         "6 PROTOCOL: CM EVENT: Nas ctrl get clientID(91) ret(0)"));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlHandleClusterEvent"));
    EXPECT_EQ(fake::logLines().front().file, "nas_ctrl.cpp");
}

TEST_F(Control, AConsumerIsToldIdZeroWhenTheLookupFails)
{
    int32_t event = 0;
    fake::setClientId(91);
    fake::answer("CM_getEventInfo", {0, -4});
    registerAt(0, consumer<0>());
    registerAt(1, consumer<1>());
    NasCtrlHandleClusterEvent(&event);
    EXPECT_THAT(g_told, ElementsAre("client_id 0 91", "event 0 0", "client_id 1 0", "event 1 0"));
    EXPECT_EQ(fake::log().back(), "6 PROTOCOL: CM EVENT: Nas ctrl get clientID(0) ret(-4)");
}

TEST_F(Control, AnyOtherEventBringsTheIdOfTheOpenedClient)
{
    int32_t event = -2;
    g_nasCtrlCMClientId = 0xFFFFFFFFU;
    registerAt(2, consumer<2>());
    NasCtrlHandleClusterEvent(&event);
    EXPECT_THAT(g_told, ElementsAre("client_id 2 4294967295", "event 2 -2"));
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: CM EVENT: Nas ctrl recieve cm event(-2), clientid:-1."));
}

TEST_F(Control, EmptySlotsAreSkipped)
{
    int32_t event = 0;
    registerAt(0, {nullptr, onEvent<0>, nullptr, nullptr});
    registerAt(1, {onClientId<1>, nullptr, nullptr, nullptr});
    NasCtrlHandleClusterEvent(&event);
    EXPECT_EQ(NasCtrlHandleCmCommand(&event), 0U);
    NasCtrlHandleCmStatus();
    EXPECT_THAT(g_told, ElementsAre("event 0 0", "client_id 1 77"));
    EXPECT_THAT(fake::calls(), ElementsAre("CM_getEventInfo(1)"));
}

TEST_F(Control, ACommandReachesEveryConsumerAndSucceeds)
{
    int32_t command = 6;
    registerAt(0, consumer<0>());
    registerAt(2, consumer<2>());
    registerAt(3, consumer<3>());
    EXPECT_EQ(NasCtrlHandleCmCommand(&command), 0U);
    EXPECT_THAT(g_told, ElementsAre("command 0 6", "command 2 6", "command 3 6"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: CM EVENT: Nas ctrl recieve cm command(6)"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleCmCommand"));
}

TEST_F(Control, AStatusReportReachesEveryConsumer)
{
    registerAt(1, consumer<1>());
    registerAt(3, consumer<3>());
    NasCtrlHandleCmStatus();
    EXPECT_THAT(g_told, ElementsAre("status 1", "status 3"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: CM EVENT:  Nas ctrl recieve cm status"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleCmStatus"));
}

TEST_F(Control, MissingRecordsAreLoggedAndReachNobody)
{
    registerAt(0, consumer<0>());
    NasCtrlHandleClusterEvent(nullptr);
    EXPECT_EQ(NasCtrlHandleCmCommand(nullptr), 1U);
    NasCtrlRegisterCMClient(0, nullptr);
    NasCtrlTpFail(nullptr, nullptr);
    EXPECT_THAT(g_told, IsEmpty());
    EXPECT_EQ(g_nasCtrlCmOps[0].event, onEvent<0>);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: event is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: cmd is NULL, return NAS_ERROR(1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: ops is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: fail is NULL, return !!!!!!!!!!!!"));
}

TEST_F(Control, RegistrationCopiesAllFourSlotsAndReplacesThem)
{
    registerAt(2, consumer<0>());
    registerAt(2, {nullptr, onEvent<1>, nullptr, onStatus<1>});
    EXPECT_EQ(g_nasCtrlCmOps[2].client_id, nullptr);
    EXPECT_EQ(g_nasCtrlCmOps[2].event, onEvent<1>);
    EXPECT_EQ(g_nasCtrlCmOps[2].command, nullptr);
    EXPECT_EQ(g_nasCtrlCmOps[2].status, onStatus<1>);
}

// ---- ids and names

TEST_F(Control, TheCmClientIdGoesToTheDpcView)
{
    NasCtrlSetCmClientId(12);
    EXPECT_EQ(g_nasDpcClientId, 12U);
    EXPECT_EQ(g_nasCtrlCMClientId, 0U);
}

TEST_F(Control, TheEdsNameIsTheBufferThatTheHostFills)
{
    fake::during("NasCtrlInitEdsDSNameAdapter", [] { strcpy(g_nasEdsDsName, "eds_a"); });
    fake::answer("NasCtrlInitEdsDSNameAdapter", {3});
    EXPECT_EQ(NasCtrlInitEdsDSName(), 3U);
    EXPECT_EQ(NasCtrlGetEdsDSName(), g_nasEdsDsName);
    EXPECT_STREQ(NasCtrlGetEdsDSName(), "eds_a");
}

TEST_F(Control, TheTracePointForcesAFailure)
{
    uint32_t fail = 0;
    NasCtrlTpFail(nullptr, &fail);
    EXPECT_EQ(fail, 1U);
    NasCtrlRegTracePoint();
    EXPECT_THAT(fake::log(), IsEmpty());
}

} // namespace
