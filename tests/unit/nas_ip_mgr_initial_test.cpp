// The values that the IP manager's globals have when the library is loaded: this program changes none of them.
#include <gtest/gtest.h>
#include <nasctrl/ip_manager.h>

TEST(IpManagerInitially, TheGlobalsHaveTheirInitialValues)
{
    EXPECT_EQ(g_iplistHead.next, &g_iplistHead);
    EXPECT_EQ(g_iplistHead.prev, &g_iplistHead);
    EXPECT_EQ(g_floatIpSupport, 1U);
    EXPECT_EQ(g_nasipMgrInitied, 0);
    EXPECT_EQ(g_needRetry, 0);
    EXPECT_EQ(g_periodLength, 60U);
    EXPECT_EQ(g_setPeriodNotifyFunc, nullptr);
    EXPECT_EQ(g_ipLastQueryTime, 0U);
    EXPECT_EQ(g_ipChangeTime, 0U);
    for (const ip_event_hook hook : g_pIpEventCallBacks) {
        EXPECT_EQ(hook, nullptr);
    }
}
