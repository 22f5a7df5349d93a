// The values that the control core's globals have when the library is loaded: this program changes none of them.
#include <gmock/gmock.h>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/power.h>

TEST(ControlInitially, ThereIsNoConsumerAndNoClientAndNoName)
{
    for (const cm_ops &consumer : g_nasCtrlCmOps) {
        EXPECT_EQ(consumer.client_id, nullptr);
        EXPECT_EQ(consumer.event, nullptr);
        EXPECT_EQ(consumer.command, nullptr);
        EXPECT_EQ(consumer.status, nullptr);
    }
    EXPECT_EQ(g_nasCtrlCMClientId, 0U);
    EXPECT_EQ(sizeof g_nasEdsDsName, 64U);
    EXPECT_THAT(g_nasEdsDsName, testing::Each('\0'));
}

TEST(ControlInitially, TheServiceIsOffWithoutRoutines)
{
    EXPECT_EQ(g_nas_power_mgr.start, nullptr);
    EXPECT_EQ(g_nas_power_mgr.stop, nullptr);
    EXPECT_EQ(g_nas_power_mgr.state, NAS_POWER_OFF);
    EXPECT_EQ(GetNasPowerOnStatus(), 0U);
}

TEST(ControlInitially, TheDpcSwitchIsOff)
{
    EXPECT_EQ(g_dpcSwitch, 0);
    EXPECT_EQ(GetDpcSwitch(), 0U);
}
