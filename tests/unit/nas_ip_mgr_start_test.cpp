// The time before the IP manager is initialised. Its service state is private and never goes back, so these tests have
// a program of their own, in which nothing initialises it.
#include "nas_ip_mgr_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using IpBeforeStart = ip::IpManager;

TEST_F(IpBeforeStart, ProducersAreRefusedAndQueueNothing)
{
    EXPECT_EQ(NasIpMgrAddNewIP("10.0.0.1", 3), 1U);
    EXPECT_EQ(NasIpMgrDeleteOldIP("10.0.0.2", 3), 1U);
    EXPECT_EQ(NasIpMgrAddNewNotifyEvent(7, 2), 1U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_EQ(NasIpMgr_GetEventEntry(), nullptr);
    EXPECT_EQ(NasIpMgr_GetNotifyEventEntry(), nullptr);
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: IpEvent :10.0.0.1.", "3 PROTOCOL: Ip Event Service is not running",
                            "6 PROTOCOL: IpEvent :10.0.0.2.", "3 PROTOCOL: Ip Event Service is not running",
                            "3 PROTOCOL: Ip Event Service is not running"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrAddNewIP", "NasIpMgrAddNewIP", "NasIpMgrDeleteOldIP",
                                              "NasIpMgrDeleteOldIP", "NasIpMgrAddNewNotifyEvent"));
}

TEST_F(IpBeforeStart, TheHandlerEndsAtOnce)
{
    EXPECT_EQ(NasIpMgrIpEventHandle(nullptr), nullptr);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: Nas ip mgr events handle start, with service status(0).",
                                         "3 PROTOCOL: NasIpMgrIpEventHandle exit normally."));
}

} // namespace
