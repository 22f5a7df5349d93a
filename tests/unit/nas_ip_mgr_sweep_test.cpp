// Each road of the IP manager with its nth allocation, and its nth host call that can fail, failing, for every n until
// none is left to fail. After each: no lock held, nothing kept in memory but the records and what is meant to be lost,
// and the monitor's next passes bring the list to what the node has.
#include "nas_ip_mgr_fixture.h"

#include <sstream>

using ip::listed;

namespace {

// What a road starts from, what it does, and the node's addresses when it is over.
struct Road {
    const char *name;
    ip::Texts listedBefore;
    ip::Texts added;
    ip::Texts deleted;
    ip::Texts node;
};

const std::vector<Road> &roads()
{
    static const std::vector<Road> all = {
        {"SingleAddition", {}, ip::addresses(1), {}, ip::addresses(1)},
        {"BatchOf7", {}, ip::addresses(7), {}, ip::addresses(7)},
        {"BatchOf60", {}, ip::addresses(60), {}, ip::addresses(60)},
        {"Deletion", ip::addresses(2), {}, {"10.0.0.1"}, {"10.0.0.2"}},
    };
    return all;
}

void PrintTo(const Road &road, std::ostream *out)
{
    *out << road.name;
}

class IpRoads : public ip::IpManager, public testing::WithParamInterface<Road> {
protected:
    const Road &road() const { return GetParam(); }

    void arrange()
    {
        IpManager::SetUp();
        start();
        runHeldThreadsAtWaits();
        ip::setHook(0);
        for (const auto &addr : road().listedBefore) {
            NasIpMgrAddToList(addr.c_str(), 3, NAS_IP_ALL_NOTIFIED);
        }
        fake::setNodeIps(ip::onNode(road().node));
    }

    void travel()
    {
        for (const auto &addr : road().added) {
            NasIpMgrAddNewIP(addr.c_str(), 3);
        }
        for (const auto &addr : road().deleted) {
            NasIpMgrDeleteOldIP(addr.c_str(), 3);
        }
        runHandler();
    }

    // A batch that gets no memory loses its events, an addition thread that is not started its work item.
    static size_t meantToBeLost()
    {
        size_t lost = ip::logStarting("3 PROTOCOL: Create listen sock for ip(").size();
        const std::string batch = "3 PROTOCOL: Alloc mem for batch add Ip failed, lost cnt:";
        for (const auto &line : ip::logStarting(batch)) {
            lost += std::stoul(line.substr(batch.size()));
        }
        return lost;
    }

    void expectSound()
    {
        expectNothingHeld();
        EXPECT_EQ(fake::liveBlocks(), listed().size() + meantToBeLost());
        EXPECT_EQ(ip::completions(), 0);
    }

    void expectArrived() { EXPECT_EQ(ip::sorted(listed()), ip::sorted(ip::withEnding(road().node, " 3 63"))); }

    void finishAndExpectArrived()
    {
        NasIpMgrIpStatusMonitor();
        expectArrived();
        expectSound();
    }
};

TEST_P(IpRoads, EndWellWhicheverCallOfTheHostFails)
{
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE("host call " + std::to_string(n));
        arrange();
        fake::failCall(n);
        travel();
        if (fake::failableCalls() < n) {
            EXPECT_GT(n, road().added.size() + road().deleted.size());
            expectArrived();
            expectSound();
            return;
        }
        expectSound();
        fake::failCall(0);
        finishAndExpectArrived();
    }
}

TEST_P(IpRoads, EndWellWhicheverAllocationFails)
{
    arrange();
    fake::failCall(0);
    travel();
    const uint64_t atMost = fake::failableCalls();
    for (uint64_t n = 1; n <= atMost; ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        arrange();
        fake::failAllocation(n);
        travel();
        expectSound();
        fake::failAllocation(0);
        finishAndExpectArrived();
    }
}

TEST_P(IpRoads, EndWellWhicheverCallOfTheMonitorsPassFails)
{
    for (uint64_t n = 1;; ++n) {
        SCOPED_TRACE("host call " + std::to_string(n));
        arrange();
        fake::failCall(n);
        NasIpMgrIpStatusMonitor();
        if (fake::failableCalls() < n) {
            EXPECT_GT(n, 1U);
            expectArrived();
            expectSound();
            return;
        }
        expectSound();
        fake::failCall(0);
        finishAndExpectArrived();
    }
}

INSTANTIATE_TEST_SUITE_P(All, IpRoads, testing::ValuesIn(roads()),
                         [](const testing::TestParamInfo<Road> &row) { return std::string(row.param.name); });

} // namespace
