// The values that the library's objects have at load: this program changes none of them.
#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/dpc.h>
#include <nasctrl/ipc.h>
#include <nasctrl/lif_port.h>
#include <nasctrl/power.h>

namespace {

using testing::Each;

TEST(ControlAtLoad, HasNoConsumerNoClientAndNoName)
{
    for (const cm_ops &consumer : g_nasCtrlCmOps) {
        EXPECT_EQ(consumer.client_id, nullptr);
        EXPECT_EQ(consumer.event, nullptr);
        EXPECT_EQ(consumer.command, nullptr);
        EXPECT_EQ(consumer.status, nullptr);
    }
    EXPECT_EQ(g_nasCtrlCMClientId, 0U);
    EXPECT_EQ(sizeof g_nasEdsDsName, 64U);
    EXPECT_THAT(g_nasEdsDsName, Each('\0'));
}

TEST(ControlAtLoad, IsOffAndWithoutRoutines)
{
    EXPECT_EQ(g_nas_power_mgr.start, nullptr);
    EXPECT_EQ(g_nas_power_mgr.stop, nullptr);
    EXPECT_EQ(g_nas_power_mgr.state, NAS_POWER_OFF);
    EXPECT_EQ(GetNasPowerOnStatus(), 0U);
}

TEST(ControlAtLoad, HasItsDpcSwitchOff)
{
    EXPECT_EQ(g_dpcSwitch, 0);
    EXPECT_EQ(GetDpcSwitch(), 0U);
}

TEST(HdfsHandlersAtLoad, AreNone)
{
    EXPECT_THAT(g_hdfsGetIpsHandler, Each(nullptr));
    EXPECT_EQ(NotifyIpdataChange(nullptr), -22);
    EXPECT_EQ(NotifyIpdataClear(nullptr), -22);
}

TEST(LifPortsAtLoad, HaveFreeSlotsAndNoBuckets)
{
    EXPECT_THAT(g_NfsLifPortInfo.slots, Each(0U));
    EXPECT_EQ(g_NfsLifPortInfo.buckets, nullptr);
    EXPECT_EQ(g_NfsLifPortInfo.find, nullptr);
}

TEST(DpcAtLoad, IsZero)
{
    const nas_dpc_ls_view zero = {};
    EXPECT_EQ(memcmp(&g_nasDpcLsView, &zero, sizeof zero), 0);
    EXPECT_EQ(g_nasDpcClientId, 0U);
    EXPECT_EQ(g_nasCtrlDpcSubscribed, 0U);
    EXPECT_EQ(g_cmregls, 0U);
}

TEST(DpcAtLoad, HasNoTasks)
{
    EXPECT_EQ(g_nasDpcEventTaskList.head.next, &g_nasDpcEventTaskList.head);
    EXPECT_EQ(g_nasDpcEventTaskList.head.prev, &g_nasDpcEventTaskList.head);
}

} // namespace
