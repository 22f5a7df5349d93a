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
    EXPECT_FALSE(pass->hurried);
    EXPECT_EQ(pass->sleepSeconds, 42U);
    EXPECT_EQ(pass->queryResult, 0);
}

TEST_F(MonitorPass, SleepsFiveSecondsWhenSomethingHadFailedBeforeIt)
{
    g_needRetry = 1;
    askForAddresses();
    const auto pass = host::lastMonitorPass();
    ASSERT_TRUE(pass);
    EXPECT_TRUE(pass->hurried);
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

TEST_F(MonitorPass, KeepsTheAddressesOfTheLatestAnswer)
{
    fake::listAddress("10.0.0.1", 3, 63);
    askForAddresses();
    askForAddresses(true);
    const auto addresses = host::nodeAddresses();
    ASSERT_EQ(addresses.size(), 1U) << "a query that failed has told nothing else";
    EXPECT_EQ(addresses[0].address, "10.0.0.1");
    EXPECT_EQ(addresses[0].protocolType, 3U);
    EXPECT_TRUE(addresses[0].working);
}

TEST_F(MonitorPass, KeepsAnAddressThatIsNotWorkingAsSuch)
{
    fake::library().nodeList = std::string(8 + 72, '\0');
    fake::library().nodeList[4] = 1;
    fake::library().nodeList.replace(8 + 4, 3, "::1");
    askForAddresses(true);
    const auto addresses = host::nodeAddresses();
    ASSERT_EQ(addresses.size(), 1U);
    EXPECT_EQ(addresses[0].address, "::1");
    EXPECT_FALSE(addresses[0].working);
}

TEST_F(MonitorPass, HasNoResultWhileTheQueryIsUnderWay)
{
    host::beginMonitorPass();
    EXPECT_EQ(host::lastMonitorPass()->queryResult, std::nullopt);
}

} // namespace
