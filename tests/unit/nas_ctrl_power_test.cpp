#include <fake_host.h>

#include <cerrno>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Routine {
    int32_t result = 0;
    int calls = 0;
    void *a = nullptr;
    void *b = nullptr;
    uint32_t stateDuring = 99;
    bool reportsSuccess = false;
};
Routine g_start;
Routine g_stop;

int32_t run(Routine &routine, void *a, void *b)
{
    ++routine.calls;
    routine.a = a;
    routine.b = b;
    routine.stateDuring = GetNasPowerOnStatus();
    if (routine.reportsSuccess) {
        nas_ctrl_power_on_success();
    }
    return routine.result;
}
int32_t start(void *a, void *b)
{
    return run(g_start, a, b);
}
int32_t stop(void *a, void *b)
{
    return run(g_stop, a, b);
}

class Power : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_start = {};
        g_stop = {};
        g_nas_power_mgr = {};
    }
    static void registered(uint32_t state)
    {
        ASSERT_EQ(nas_ctrl_power_reg(start, stop), 0);
        g_nas_power_mgr.state = state;
    }
};

TEST_F(Power, RegistrationStoresBothRoutinesAndResetsTheState)
{
    g_nas_power_mgr.state = NAS_POWER_ON;
    EXPECT_EQ(nas_ctrl_power_reg(start, stop), 0);
    EXPECT_EQ(g_nas_power_mgr.start, start);
    EXPECT_EQ(g_nas_power_mgr.stop, stop);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_OFF);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Power, RegistrationWithoutOneRoutineIsRefusedAndChangesNothing)
{
    registered(NAS_POWER_ON);
    EXPECT_EQ(nas_ctrl_power_reg(nullptr, nullptr), -EINVAL);
    EXPECT_EQ(nas_ctrl_power_reg(start, nullptr), -EINVAL);
    EXPECT_EQ(nas_ctrl_power_reg(nullptr, stop), -EINVAL);
    EXPECT_EQ(g_nas_power_mgr.start, start);
    EXPECT_EQ(g_nas_power_mgr.stop, stop);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_ON);
    ASSERT_EQ(fake::log().size(), 3U);
    EXPECT_EQ(fake::log()[0], "3 PROTOCOL: start (nil) stop (nil)");
    EXPECT_THAT(fake::log()[1], testing::MatchesRegex("3 PROTOCOL: start 0x[0-9a-f]+ stop \\(nil\\)"));
    EXPECT_THAT(fake::log()[2], testing::MatchesRegex("3 PROTOCOL: start \\(nil\\) stop 0x[0-9a-f]+"));
}

TEST_F(Power, PowerOnWithoutAStartRoutineFails)
{
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: g_nas_power_mgr.start is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(Power, PowerOffWithoutAStopRoutineFails)
{
    EXPECT_EQ(nas_ctrl_power_off(nullptr, nullptr), 1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: g_nas_power_mgr.stop is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(Power, PowerOnStaysGoingOnUntilTheHostReportsSuccess)
{
    int a = 0;
    int b = 0;
    registered(NAS_POWER_OFF);
    EXPECT_EQ(nas_ctrl_power_on(&a, &b), 0);
    EXPECT_EQ(g_start.stateDuring, NAS_POWER_GOING_ON);
    EXPECT_EQ(g_start.a, &a);
    EXPECT_EQ(g_start.b, &b);
    EXPECT_EQ(NasCtrlIsPoweredOn(), 1U);
    EXPECT_EQ(NasCtrlIsPowerOnComplete(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: power on success"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_ctrl_power_on"));

    nas_ctrl_power_on_success();
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_ON);
    EXPECT_EQ(NasCtrlIsPowerOnComplete(), 1U);
}

TEST_F(Power, AStartThatReportsSuccessItselfLeavesTheServiceOn)
{
    registered(NAS_POWER_OFF);
    g_start.reportsSuccess = true;
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 0);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_ON);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: power on success"));
    EXPECT_EQ(fake::logLines().front().file, "nas_ctrl_power.cpp");
}

TEST_F(Power, AStartThatReportsSuccessAndThenFailsLeavesTheServiceOff)
{
    registered(NAS_POWER_OFF);
    g_start.reportsSuccess = true;
    g_start.result = -5;
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 1);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_OFF);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: start protocol failed -5"));
}

TEST_F(Power, PowerOnOfAServiceThatIsOnOrGoingOnStartsNothing)
{
    for (const uint32_t state : {NAS_POWER_ON, NAS_POWER_GOING_ON}) {
        fake::reset();
        registered(state);
        EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 0);
        EXPECT_EQ(g_start.calls, 0);
        EXPECT_EQ(GetNasPowerOnStatus(), state);
        EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: already power on or powering"));
    }
}

TEST_F(Power, AServiceThatIsStillGoingOffMayBePoweredOn)
{
    registered(NAS_POWER_GOING_OFF);
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 0);
    EXPECT_EQ(g_start.calls, 1);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_GOING_ON);
}

TEST_F(Power, AFailedStartLeavesTheServiceOff)
{
    registered(NAS_POWER_OFF);
    g_start.result = -5;
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 1);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_OFF);
    EXPECT_EQ(NasCtrlIsNotPoweredOff(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: start protocol failed -5"));
}

TEST_F(Power, PowerOffOfAServiceThatIsOffStopsNothing)
{
    registered(NAS_POWER_OFF);
    EXPECT_EQ(nas_ctrl_power_off(nullptr, nullptr), 0);
    EXPECT_EQ(g_stop.calls, 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: already power off"));
}

TEST_F(Power, PowerOffStopsAServiceInEveryOtherState)
{
    int a = 0;
    int b = 0;
    for (const uint32_t state : {NAS_POWER_ON, NAS_POWER_GOING_OFF, NAS_POWER_GOING_ON}) {
        fake::reset();
        registered(state);
        EXPECT_EQ(nas_ctrl_power_off(&a, &b), 0);
        EXPECT_EQ(g_stop.stateDuring, NAS_POWER_GOING_OFF);
        EXPECT_EQ(g_stop.a, &a);
        EXPECT_EQ(g_stop.b, &b);
        EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_OFF);
        EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: power off success"));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_ctrl_power_off"));
    }
    EXPECT_EQ(g_stop.calls, 3);
}

TEST_F(Power, AFailedStopIsNotRolledBack)
{
    registered(NAS_POWER_ON);
    g_stop.result = 7;
    EXPECT_EQ(nas_ctrl_power_off(nullptr, nullptr), 1);
    EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_GOING_OFF);
    EXPECT_EQ(NasCtrlIsPoweringOffOrPowerOFf(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: stop failed 7"));
    EXPECT_EQ(nas_ctrl_power_on(nullptr, nullptr), 0);
}

TEST_F(Power, SuccessIsTakenInEveryState)
{
    for (const uint32_t state : {NAS_POWER_OFF, NAS_POWER_ON, NAS_POWER_GOING_OFF, NAS_POWER_GOING_ON}) {
        g_nas_power_mgr.state = state;
        nas_ctrl_power_on_success();
        EXPECT_EQ(GetNasPowerOnStatus(), NAS_POWER_ON) << "from state " << state;
    }
}

TEST_F(Power, PredicatesTestBitsOfTheState)
{
    struct Row {
        uint32_t state;
        uint32_t poweredOn;
        uint32_t offOrGoingOff;
        uint32_t notOff;
        uint32_t complete;
    };
    const Row rows[] = {
        {NAS_POWER_OFF, 0, 1, 0, 0},
        {NAS_POWER_ON, 1, 0, 1, 1},
        {NAS_POWER_GOING_OFF, 0, 1, 1, 0},
        {NAS_POWER_GOING_ON, 1, 0, 1, 0},
        {5, 0, 0, 1, 0}, // no state of the service: a further bit makes it neither on nor off
    };
    for (const Row &row : rows) {
        g_nas_power_mgr.state = row.state;
        EXPECT_EQ(GetNasPowerOnStatus(), row.state);
        EXPECT_EQ(NasCtrlIsPoweredOn(), row.poweredOn) << "state " << row.state;
        EXPECT_EQ(NasCtrlIsPoweringOffOrPowerOFf(), row.offOrGoingOff) << "state " << row.state;
        EXPECT_EQ(NasCtrlIsNotPoweredOff(), row.notOff) << "state " << row.state;
        EXPECT_EQ(NasCtrlIsPowerOnComplete(), row.complete) << "state " << row.state;
    }
}

TEST_F(Power, TheRpcEntryPointIsEmpty)
{
    EXPECT_EQ(nas_ctrl_rpc_init(), 0);
    EXPECT_THAT(fake::log(), IsEmpty());
}

} // namespace
