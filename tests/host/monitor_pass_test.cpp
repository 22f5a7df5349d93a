// What the adapters remember of the monitor's latest pass, as the library's question for the node's addresses shows it.
#include "adapters/monitor_pass.h"

#include "adapters/adapters.h"
#include "fake_library.h"
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <nasctrl/host/adapters.h>
#include <nasctrl/ip_manager.h>

namespace {

class MonitorPass : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }

    static void askForAddresses(bool hasStorage = false)
    {
        host::AdapterSettings settings;
        settings.hasStorage = hasStorage;
        host::configureAdapters(settings);
        node_ip_list *list = nullptr;
        GetCurNodeIpListAdapter(&list);
        free(list);
    }
};

TEST_F(MonitorPass, SleepsThePeriodWhenNothingHadFailed)
{
    g_periodLength = 42;
    askForAddresses();
    const auto pass = host::lastMonitorPass();
    ASSERT_TRUE(pass);
    EXPECT_FALSE(pass->afterFailure);
    EXPECT_EQ(pass->sleepSeconds, 42U);
    EXPECT_EQ(pass->queryResult, 0);
}

TEST_F(MonitorPass, SleepsFiveSecondsWhenSomethingHadFailedBeforeIt)
{
    g_needRetry = 1;
    askForAddresses();
    const auto pass = host::lastMonitorPass();
    ASSERT_TRUE(pass);
    EXPECT_TRUE(pass->afterFailure);
    EXPECT_EQ(pass->sleepSeconds, 5U);
}

TEST_F(MonitorPass, KeepsTheCodeOfAQueryThatFailed)
{
    askForAddresses(true);
    EXPECT_EQ(host::lastMonitorPass()->queryResult, -110);
}

TEST_F(MonitorPass, IsTheFirstOnlyOnce)
{
    askForAddresses();
    askForAddresses();
    EXPECT_FALSE(host::lastMonitorPass()->first);
}

TEST_F(MonitorPass, HasNoResultWhileTheQueryIsUnderWay)
{
    host::beginMonitorPass();
    EXPECT_EQ(host::lastMonitorPass()->queryResult, std::nullopt);
}

} // namespace
