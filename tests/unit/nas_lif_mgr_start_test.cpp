// The start of the LIF port manager, and the removal of ports whose address the node no longer serves.
#include "nas_lif_mgr_fixture.h"

namespace {

using lif::table;
using lif::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- start

class LifStart : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        memset(&g_NfsLifPortInfo, 0, sizeof g_NfsLifPortInfo);
        g_pIpEventCallBacks[3] = nullptr;
    }
};

TEST_F(LifStart, BuildsTheTableAndLeavesTheSlotsAlone)
{
    memset(&g_NfsLifPortInfo.lock, 0x55, sizeof g_NfsLifPortInfo.lock);
    g_NfsLifPortInfo.slots[17] = 4;
    ASSERT_EQ(nas_lifport_info_init(), 0U);
    EXPECT_EQ(g_NfsLifPortInfo.lock.lock, 0U);
    EXPECT_EQ(g_NfsLifPortInfo.lock.magic, 0xDEAD4EADU);
    EXPECT_EQ(g_NfsLifPortInfo.lock.owner_cpu, 0xFFFFFFFFU);
    EXPECT_EQ(g_NfsLifPortInfo.lock.owner, ~0ULL);
    EXPECT_EQ(g_NfsLifPortInfo.slots[17], 4U);
    EXPECT_EQ(g_NfsLifPortInfo.find, nas_lifportid_hashfind);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks("nas_lifport_info_init"), 1U);
}

TEST_F(LifStart, EmptiesBucketsAgain)
{
    ASSERT_EQ(nas_lifport_info_init(), 0U);
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    g_NfsLifPortInfo.buckets[255].lock.word = 9;
    EXPECT_EQ(nas_lifport_hashinit(), 0U);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(g_NfsLifPortInfo.buckets[255].lock.word, 0U);
}

TEST_F(LifStart, FailsWithoutMemory)
{
    fake::failAllocation(1);
    EXPECT_EQ(NasLifMgrModuleStart(), 1U);
    EXPECT_EQ(g_NfsLifPortInfo.buckets, nullptr);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: Malloc failed.", "3 PROTOCOL: lifport info init failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_lifport_info_init", "NasLifMgrModuleStart"));
}

TEST_F(LifStart, RegistersTheHookAndTheLookUps)
{
    EXPECT_EQ(NasLifMgrModuleStart(), 0U);
    EXPECT_EQ(g_pIpEventCallBacks[3], LifIpEvent);
    EXPECT_THAT(fake::calls(), ElementsAre("statis_int_handle_register(0)", "statis_string_handle_register(0)"));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Module(3) regist IP event hook success."));
}

TEST_F(LifStart, EndsAtTheFirstFailedRegistrationAndUndoesNothing)
{
    struct Row {
        const char *function;
        size_t registrations;
    };
    for (const Row &row : {Row{"statis_int_handle_register", 1}, Row{"statis_string_handle_register", 2}}) {
        SetUp();
        fake::answer(row.function, {-9});
        EXPECT_EQ(NasLifMgrModuleStart(), static_cast<uint32_t>(-9)) << row.function;
        EXPECT_EQ(fake::calls().size(), row.registrations) << row.function;
        EXPECT_EQ(fake::log().back(), "3 PROTOCOL: register statis int handler fail -9.") << row.function;
        EXPECT_EQ(g_pIpEventCallBacks[3], LifIpEvent) << row.function;
        EXPECT_NE(g_NfsLifPortInfo.buckets, nullptr) << row.function;
    }
}

TEST_F(LifStart, MayComeAfterTheFirstCallsOnTheTable)
{
    char name[8] = "before";
    const node_ip_entry none{};
    uint32_t isNew = 9;
    EXPECT_EQ(nas_lifport_hashinit(), 0U);
    EXPECT_EQ(nas_lifport_add(1, "eth0", "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_EQ(nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew), 0xFFFFFFFFU);
    EXPECT_EQ(isNew, 0U);
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_EQ(nas_get_lifport_name(1, name, sizeof name), 0U);
    EXPECT_STREQ(name, "before");
    DeleteRedundancyLifInfoByIpList(&none, 0);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buckets is NULL, return -1(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: buckets is NULL, return -1(-1)!!!!!!!!!!!!",
                                         "class 0 PROTOCOL: nas_lifportid_del_update begin 10.0.0.1.",
                                         "3 PROTOCOL: ERR, not found ip:10.0.0.1, time:5."));
    EXPECT_EQ(lif::usedSlots(), 0U);
    EXPECT_EQ(fake::locksHeld(), 0);
}

TEST_F(LifStart, GivesAddressEventsToTheHost)
{
    fake::answer("LifIpEventAdpter", {0, 4000000000});
    EXPECT_EQ(LifIpEvent(0, "10.0.0.1", 2), 0U);
    EXPECT_EQ(LifIpEvent(1, nullptr, 10), 4000000000U);
    EXPECT_THAT(fake::calls(), ElementsAre("LifIpEventAdpter(0, \"10.0.0.1\", 2)", "LifIpEventAdpter(1, null, 10)"));
}

// ---- clean-up

std::vector<node_ip_entry> nodeIps(const Texts &addresses)
{
    std::vector<node_ip_entry> entries;
    for (const auto &address : addresses) {
        node_ip_entry entry{};
        entry.proto_type = 900 + static_cast<uint32_t>(entries.size());
        memcpy(entry.addr, address.data(), address.size());
        entries.push_back(entry);
    }
    return entries;
}

class LifCleanUp : public lif::Table {
protected:
    static void cleanUp(const Texts &addresses)
    {
        auto entries = nodeIps(addresses);
        const auto count = static_cast<uint32_t>(entries.size());
        entries.emplace_back(); // so that an empty list is not a null one
        DeleteRedundancyLifInfoByIpList(entries.data(), count);
    }
};

TEST_F(LifCleanUp, FindsAddressesByFortySixCharacters)
{
    const std::string full(46, 'i');
    const auto entries = nodeIps({"10.0.0.1", full + "tail", std::string(64, 'u')});
    EXPECT_EQ(IsIpInList(entries.data(), 3, "10.0.0.1"), 1U);
    EXPECT_EQ(IsIpInList(entries.data(), 3, "10.0.0"), 0U);
    EXPECT_EQ(IsIpInList(entries.data(), 3, "10.0.0.10"), 0U);
    EXPECT_EQ(IsIpInList(entries.data(), 3, full.c_str()), 1U);
    EXPECT_EQ(IsIpInList(entries.data(), 1, full.c_str()), 0U);
    EXPECT_EQ(IsIpInList(entries.data(), 3, std::string(46, 'u').c_str()), 1U);
    EXPECT_EQ(IsIpInList(entries.data(), 0, "10.0.0.1"), 0U);
    EXPECT_EQ(IsIpInList(nullptr, 3, "10.0.0.1"), 0U);
    EXPECT_THAT(fake::log(), IsEmpty());
    EXPECT_EQ(IsIpInList(entries.data(), 3, nullptr), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ip is NULL, return 0(0)!!!!!!!!!!!!"));
}

TEST_F(LifCleanUp, KeepsPortsWhoseAddressIsServed)
{
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    const size_t start = logged();
    cleanUp({"10.0.0.2", "10.0.0.1"});
    EXPECT_THAT(table(), ElementsAre("1 #5062 @5 eth0 10.0.0.1"));
    EXPECT_THAT(logSince(start), IsEmpty());
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(LifCleanUp, RemovesEveryOtherPortOfABucket)
{
    nas_lifport_add(257, "eth3", "10.0.0.8", 5);
    nas_lifport_add(513, "eth2", "10.0.0.1", 5);
    nas_lifport_add(1, "eth1", "10.0.0.9", 5);
    nas_lifport_add(769, "eth0", "10.0.0.9", 5);
    const size_t start = logged();
    fake::answer("regLifportAdpter", {0, -6, 0});
    std::vector<uint64_t> words;
    fake::during("regLifportAdpter", [&] { words.push_back(g_NfsLifPortInfo.buckets[1].lock.word); });
    cleanUp({"10.0.0.1"});
    EXPECT_EQ(table().size(), 1U);
    EXPECT_EQ(lif::usedSlots(), 1U);
    EXPECT_EQ(g_NfsLifPortInfo.slots[lif::homeSlot(513)], 513U);
    EXPECT_EQ(fake::liveBlocks("nas_lifport_add"), 1U);
    EXPECT_THAT(words, ElementsAre(~0ULL, ~0ULL, ~0ULL));
    EXPECT_THAT(logSince(start),
                ElementsAre("6 PROTOCOL: Auto Detact: PERF_SWITCH Ip is (10.0.0.9) lifportid(id:769), (ret:0).",
                            "6 PROTOCOL: Auto Detact: PERF_SWITCH Ip is (10.0.0.9) lifportid(id:1), (ret:-6).",
                            "6 PROTOCOL: Auto Detact: PERF_SWITCH Ip is (10.0.0.8) lifportid(id:257), (ret:0)."));
    EXPECT_EQ(fake::logLines().back().func, "DeleteEachLifPortByIpList");
    EXPECT_THAT(fake::calls("regLifportAdpter"),
                ElementsAre("regLifportAdpter(769, 0)", "regLifportAdpter(1, 0)", "regLifportAdpter(257, 0)"));
}

TEST_F(LifCleanUp, WithAnEmptyListRemovesAllPorts)
{
    for (uint64_t id = 1; id <= 600; ++id) {
        nas_lifport_add(id, "eth", "10.0.0.1", 5);
    }
    cleanUp({});
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(lif::usedSlots(), 0U);
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

TEST_F(LifCleanUp, DoesNotSwitchTheLoopbackAndUnsupportedPorts)
{
    nas_lifport_add(1, "lo", "127.0.0.1", 5);
    nas_lifport_add(2, "eth0", "10.0.0.9", 5);
    const size_t start = logged();
    fake::answer("CheckLifPortSupportPerf", {1});
    cleanUp({});
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::calls(), ElementsAre("CheckLifPortSupportPerf(2)"));
    EXPECT_THAT(logSince(start),
                ElementsAre("6 PROTOCOL: Auto Detact: Ip is (127.0.0.1), lifport(id:1), don't support perf.",
                            "6 PROTOCOL: Auto Detact: Ip is (10.0.0.9), lifport(id:2), don't support perf."));
}

TEST_F(LifCleanUp, WithoutAListIsRefused)
{
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    DeleteRedundancyLifInfoByIpList(nullptr, 3);
    EXPECT_EQ(table().size(), 1U);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: Param is invalid, IP str is NULL.");
}

TEST_F(LifCleanUp, OfOnePortNeverCounts)
{
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    uint32_t counter = 40;
    DeleteEachLifPortByIpList(nullptr, 3, lif::entriesOf(1)[0], &counter);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(counter, 40U);
    DeleteEachLifPortByIpList(nullptr, 0, nullptr, &counter);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: entry is NULL, return !!!!!!!!!!!!");
}

} // namespace
