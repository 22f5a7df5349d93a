// The values that the library's objects have at load: this program changes none of them.
#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/dpc.h>
#include <nasctrl/ipc.h>
#include <nasctrl/lif_port.h>

namespace {

using testing::Each;

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

} // namespace
