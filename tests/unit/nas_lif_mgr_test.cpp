// The LIF port table: indices, additions, deletions and names, one call at a time.
#include "nas_ip_mgr_faults.h"
#include "nas_lif_mgr_fixture.h"

namespace {

using lif::idsAt;
using lif::table;
using lif::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

// ---- indices

class LifIndex : public lif::Table {};

TEST_F(LifIndex, StartsAtTheGoldenRatioHash)
{
    struct Row {
        uint64_t id;
        uint32_t home;
    };
    for (const Row &row : {Row{1, 5062}, Row{2, 1933}, Row{3, 6996}, Row{255, 4920}, Row{256, 1791}, Row{8192, 8191},
                           Row{0x8000000000000000, 4096}, Row{0x123456789ABCDEF0, 5018}, Row{~0ULL, 3129}}) {
        EXPECT_EQ(nas_lifportid_hashfind(row.id), row.home) << row.id;
        EXPECT_EQ(lifport_id_to_index(row.id), row.home) << row.id;
        EXPECT_EQ(g_NfsLifPortInfo.slots[row.home], row.id) << row.id;
    }
}

TEST_F(LifIndex, OfTheSameHomeSlotIsTheNextFreeOne)
{
    const auto ids = idsAt(100, 4);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(nas_lifport_add_update(ids[i], "p", "10.0.0.1", 1), 100 + i);
        EXPECT_EQ(nas_lifportid_hashfind(ids[i]), 100 + i);
    }
    nas_lifportid_del(100, ids[0]);
    EXPECT_EQ(g_NfsLifPortInfo.slots[100], 0U);
    EXPECT_EQ(nas_lifport_add_update(ids[3], "p", "10.0.0.1", 1), 100U);
    EXPECT_EQ(nas_lifportid_hashfind(ids[2]), 102U);
}

TEST_F(LifIndex, WrapsAtTheEndOfTheTable)
{
    const auto ids = idsAt(8191, 3);
    EXPECT_EQ(lifport_id_to_index(ids[0]), 8191U);
    EXPECT_EQ(lifport_id_to_index(ids[1]), 0U);
    EXPECT_EQ(lifport_id_to_index(ids[2]), 1U);
    EXPECT_EQ(nas_lifportid_hashfind(ids[2]), 1U);
}

TEST_F(LifIndex, IsClaimedInTheFirstFreeSlotEvenIfTheIdStandsFurtherOn)
{
    const auto ids = idsAt(7, 2);
    lifport_id_to_index(ids[0]);
    ASSERT_EQ(lifport_id_to_index(ids[1]), 8U);
    nas_lifportid_del(7, ids[0]);
    EXPECT_EQ(nas_lifportid_hashfind(ids[1]), 8U);
    EXPECT_EQ(lifport_id_to_index(ids[1]), 7U);
    EXPECT_EQ(g_NfsLifPortInfo.slots[8], ids[1]);
}

TEST_F(LifIndex, IsFoundWhileOthersHoldTheLocks)
{
    lifport_id_to_index(5);
    do_kvos_spinlock_lock(&g_NfsLifPortInfo.lock);
    kvos_rwlock_write_lock(&g_NfsLifPortInfo.buckets[5].lock);
    EXPECT_EQ(nas_lifportid_hashfind(5), lif::homeSlot(5));
    kvos_rwlock_write_unlock(&g_NfsLifPortInfo.buckets[5].lock);
    do_kvos_spinlock_unlock(&g_NfsLifPortInfo.lock);
}

TEST_F(LifIndex, IsSharedOnceAllSlotsAreTaken)
{
    std::vector<bool> taken(8192);
    for (uint64_t id = 1; id <= 8192; ++id) {
        const uint32_t index = nas_lifport_add_update(id, "port", "10.0.0.1", 1);
        ASSERT_LT(index, 8192U);
        ASSERT_FALSE(taken[index]) << id;
        taken[index] = true;
        ASSERT_EQ(nas_lifportid_hashfind(id), index);
    }
    EXPECT_EQ(lif::usedSlots(), 8192U);
    const uint32_t home = lif::homeSlot(8193);
    const uint64_t owner = g_NfsLifPortInfo.slots[home];
    EXPECT_EQ(nas_lifportid_hashfind(8193), home);
    EXPECT_EQ(nas_lifport_add_update(8193, "port", "10.0.0.1", 1), home);
    EXPECT_EQ(g_NfsLifPortInfo.slots[home], owner);
    EXPECT_EQ(table().size(), 8193U);
}

TEST_F(LifIndex, ThatIsSharedIsFreedByEitherOfItsPorts)
{
    for (uint64_t id = 1; id <= 8192; ++id) {
        nas_lifport_add_update(id, "port", "10.0.0.1", 1);
    }
    const uint32_t home = nas_lifport_add_update(8193, "port", "10.0.0.2", 1);
    const uint64_t owner = g_NfsLifPortInfo.slots[home];
    nas_lifportid_del_update("10.0.0.2", 1);
    EXPECT_EQ(g_NfsLifPortInfo.slots[home], 0U);
    EXPECT_EQ(table().size(), 8192U);
    EXPECT_EQ(nas_lifportid_hashfind(owner), lif::homeSlot(owner)); // the owner has lost its slot
    EXPECT_EQ(nas_lifport_add_update(8194, "port", "10.0.0.3", 1), home);
    EXPECT_EQ(lif::usedSlots(), 8192U);
}

TEST_F(LifIndex, IsReleasedWhereverItsIdStands)
{
    const auto ids = idsAt(200, 2);
    lifport_id_to_index(ids[0]);
    lifport_id_to_index(ids[1]);
    nas_lifportid_del(5, ids[1]); // not its slot
    EXPECT_EQ(g_NfsLifPortInfo.slots[200], ids[0]);
    EXPECT_EQ(g_NfsLifPortInfo.slots[201], 0U);
}

TEST_F(LifIndex, OfAnUnknownIdReleasesItsHomeSlotWhoeverOwnsIt)
{
    const auto ids = idsAt(200, 2);
    lifport_id_to_index(ids[0]);
    nas_lifportid_del(5, ids[1]);
    EXPECT_EQ(g_NfsLifPortInfo.slots[200], 0U);
}

// ---- additions

class LifAdd : public lif::Table {};

TEST_F(LifAdd, FillsAnEntryAndPutsItFirstInItsBucket)
{
    ASSERT_EQ(nas_lifport_add(1, "eth0", "10.0.0.1", 5), 5062U);
    ASSERT_EQ(nas_lifport_add(257, "eth1", "fe80::1", 6), lif::homeSlot(257));
    EXPECT_THAT(table(), ElementsAre("257 #" + std::to_string(lif::homeSlot(257)) + " @6 eth1 fe80::1",
                                     "1 #5062 @5 eth0 10.0.0.1"));
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: lifportid:1 alloc index:5062.",
                            "class 0 PROTOCOL: lifportid:257 alloc index:" + std::to_string(lif::homeSlot(257)) + "."));
    EXPECT_EQ(fake::logLines()[0].func, "nas_lifport_add");
    EXPECT_EQ(fake::logLines()[0].file, "nas_lif_mgr.cpp");
}

TEST_F(LifAdd, AllocatesUnderTheSpinLockAndLogsOutsideIt)
{
    uint64_t heldWhileLogging = 1;
    fake::during("kvlog", [&] { heldWhileLogging = g_NfsLifPortInfo.lock.lock; });
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    EXPECT_EQ(heldWhileLogging, 0U);
    EXPECT_THAT(fake::callsUnderSpinLock(), ElementsAre("nas_mem_comm_alloc"));
}

// Where the table stands whenever a lock was just taken or is about to be released, with the bucket's lock.
std::string standing(const std::string &func)
{
    const bool bucketHeld = g_NfsLifPortInfo.buckets[1].lock.word == ~uint64_t{0};
    return func + ": slot " + std::to_string(g_NfsLifPortInfo.slots[5062]) + ", " + std::to_string(table().size()) +
           " listed, bucket " + (bucketHeld ? "held" : "free");
}

TEST_F(LifAdd, ClaimsTheSlotAndListsItsOwnerUnderTheSpinLockInsideTheBuckets)
{
    Texts seen;
    uint32_t isNew = 9;
    fake::duringLocks([&](const std::string &func) { seen.push_back(standing(func)); });
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    EXPECT_THAT(seen, ElementsAre("kvos_rwlock_write_lock: slot 0, 0 listed, bucket held",
                                  "do_kvos_spinlock_lock: slot 0, 0 listed, bucket held",
                                  "do_kvos_spinlock_unlock: slot 1, 1 listed, bucket held",
                                  "kvos_rwlock_write_unlock: slot 1, 1 listed, bucket held"));
}

TEST_F(LifAdd, ReplacesDataUnderTheBucketsLock)
{
    Texts seen;
    uint32_t isNew = 9;
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    fake::duringLocks([&](const std::string &func) { seen.push_back(func + " " + lif::entriesOf(1)[0]->name); });
    nas_lifportid_hashadd(1, "eth1", "10.0.0.2", 6, &isNew);
    EXPECT_THAT(seen, ElementsAre("kvos_rwlock_write_lock eth0", "kvos_rwlock_write_unlock eth1"));
}

TEST_F(LifAdd, WithoutMemoryKeepsTheSlotClaimed)
{
    fake::failAllocation(1);
    EXPECT_EQ(nas_lifport_add(1, "eth0", "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_EQ(g_NfsLifPortInfo.slots[5062], 1U);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: malloc failed(lifportid:1)."));
    EXPECT_EQ(nas_lifport_add(1, "eth0", "10.0.0.1", 5), 5062U);
}

TEST_F(LifAdd, OfANullTextFreesTheEntryAndKeepsTheSlotClaimed)
{
    const size_t before = fake::liveBlocks();
    EXPECT_EQ(nas_lifport_add(1, nullptr, "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_EQ(nas_lifport_add(2, "eth0", nullptr, 5), 0xFFFFFFFFU);
    EXPECT_EQ(fake::liveBlocks(), before);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(lif::usedSlots(), 2U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(LifAdd, CutsLongTexts)
{
    const std::string name(256, 'n');
    const std::string ip(46, 'i');
    nas_lifport_add(1, name.c_str(), ip.c_str(), 1);
    EXPECT_THAT(table(), ElementsAre("1 #5062 @1 " + name + " " + ip));
    nas_lifport_add_update(2, (name + "x").c_str(), (ip + "x").c_str(), 1);
    EXPECT_EQ(lif::shown(*lif::entriesOf(2)[0]), "2 #1933 @1 " + name + " " + ip);
    uint32_t isNew = 9;
    EXPECT_EQ(nas_lifportid_hashadd(1, (name + "x").c_str(), (ip + "x").c_str(), 2, &isNew), 5062U);
    EXPECT_EQ(lif::shown(*lif::entriesOf(1)[0]), "1 #5062 @2 " + name + " " + ip);
}

TEST_F(LifAdd, OfAKnownIdReplacesOlderData)
{
    uint32_t isNew = 9;
    EXPECT_EQ(nas_lifportid_hashadd(1, "eth0-long", "10.0.0.100", 5, &isNew), 5062U);
    EXPECT_EQ(isNew, 1U);
    const size_t start = logged();
    EXPECT_EQ(nas_lifportid_hashadd(1, "bond", "10.0.0.2", 6, &isNew), 5062U);
    EXPECT_EQ(isNew, 0U);
    EXPECT_THAT(table(), ElementsAre("1 #5062 @6 bond 10.0.0.2"));
    EXPECT_STREQ(lif::entriesOf(1)[0]->name + 5, "");
    EXPECT_THAT(logSince(start),
                ElementsAre("class 3 PROTOCOL: Duplicate,lif:1,name:bond, ip:10.0.0.2, time:6-6, index:5062."));
}

TEST_F(LifAdd, OfAKnownIdKeepsDataThatIsNotOlder)
{
    uint32_t isNew = 9;
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    const size_t start = logged();
    EXPECT_EQ(nas_lifportid_hashadd(1, "bond", "10.0.0.2", 5, &isNew), 5062U);
    EXPECT_EQ(nas_lifportid_hashadd(1, nullptr, nullptr, 4, &isNew), 5062U);
    EXPECT_EQ(isNew, 0U);
    EXPECT_THAT(table(), ElementsAre("1 #5062 @5 eth0 10.0.0.1"));
    EXPECT_THAT(logSince(start),
                ElementsAre("class 3 PROTOCOL: Duplicate,lif:1,name:bond, ip:10.0.0.2, time:5-5, index:5062.",
                            "class 3 PROTOCOL: Duplicate,lif:1,name:(null), ip:(null), time:4-5, index:5062."));
}

TEST_F(LifAdd, ComparesTimesUnsigned)
{
    uint32_t isNew = 9;
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    nas_lifportid_hashadd(1, "bond", "10.0.0.2", ~0ULL, &isNew);
    EXPECT_THAT(table(), ElementsAre("1 #5062 @18446744073709551615 bond 10.0.0.2"));
}

TEST_F(LifAdd, OfAKnownIdFailsWithTheSumOfItsFailedCopies)
{
    struct Row {
        const char *name, *ip;
        uint32_t sum;
        const char *shownName, *shownIp;
    };
    // 400 is the bounds-checking library's code for a null source.
    for (const Row &row :
         {Row{nullptr, "10.0.0.2", 400, "(null)", "10.0.0.2"}, Row{"bond", nullptr, 400, "bond", "(null)"},
          Row{nullptr, nullptr, 800, "(null)", "(null)"}}) {
        SetUp();
        uint32_t isNew = 9;
        nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
        const size_t start = logged();
        EXPECT_EQ(nas_lifportid_hashadd(1, row.name, row.ip, 6, &isNew), 0xFFFFFFFFU);
        EXPECT_EQ(lif::entriesOf(1)[0]->time, 6U);
        EXPECT_THAT(logSince(start), ElementsAre(std::string("class 3 PROTOCOL: Err,lif:1,name:") + row.shownName +
                                                 ", ip:" + row.shownIp +
                                                 ", time:6-6, index:5062, ret:" + std::to_string(row.sum) + "."));
    }
    SetUp();
    faults::reset();
    uint32_t isNew = 9;
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    faults::failClear(1, 7);
    EXPECT_EQ(nas_lifportid_hashadd(1, nullptr, "10.0.0.2", 6, &isNew), 0xFFFFFFFFU);
    EXPECT_EQ(fake::log().back(),
              "class 3 PROTOCOL: Err,lif:1,name:(null), ip:10.0.0.2, time:6-6, index:5062, ret:407.");
}

TEST_F(LifAdd, HoldsTheBucketWhileItCreatesAndNotWhileItReports)
{
    std::vector<uint64_t> words;
    fake::during("kvlog", [&] { words.push_back(g_NfsLifPortInfo.buckets[1].lock.word); });
    uint32_t isNew = 0;
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, &isNew);
    EXPECT_THAT(words, ElementsAre(~0ULL, 0U));
}

TEST_F(LifAdd, ThatFailsToCreateSaysThatItWasNewAndReleasesTheBucket)
{
    struct Row {
        const char *what;
        uint64_t failingAllocation;
        const char *name;
        Texts lines;
    };
    for (const Row &row : {Row{"no memory", 1, "eth0", {"class 3 PROTOCOL: malloc failed(lifportid:1)."}},
                           Row{"no name", 0, nullptr, {}}}) {
        SetUp();
        const size_t start = logged();
        uint32_t isNew = 9;
        fake::failAllocation(row.failingAllocation);
        EXPECT_EQ(nas_lifportid_hashadd(1, row.name, "10.0.0.1", 5, &isNew), 0xFFFFFFFFU) << row.what;
        EXPECT_EQ(isNew, 1U) << row.what;
        EXPECT_EQ(g_NfsLifPortInfo.buckets[1].lock.word, 0U) << row.what;
        EXPECT_EQ(g_NfsLifPortInfo.lock.lock, 0U) << row.what;
        EXPECT_THAT(table(), IsEmpty()) << row.what;
        EXPECT_EQ(logSince(start), row.lines) << row.what;
    }
}

TEST_F(LifAdd, WithNowhereToTellWhetherItIsNewIsRefused)
{
    EXPECT_EQ(nas_lifportid_hashadd(1, "eth0", "10.0.0.1", 5, nullptr), 0xFFFFFFFFU);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: isNew is NULL, return -1(-1)!!!!!!!!!!!!"));
}

TEST_F(LifAdd, OfTheHostRefusesIdZero)
{
    EXPECT_EQ(nas_lifport_add_update(0, "eth0", "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(LifAdd, OfTheHostSwitchesThePerformancePathOn)
{
    EXPECT_EQ(nas_lifport_add_update(1, "eth0", "10.0.0.1", 5), 5062U);
    EXPECT_THAT(fake::calls(), ElementsAre("CheckLifPortSupportPerf(1)", "regLifportAdpter(1, 1)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: lifportid:1 alloc index:5062.",
                                         "6 PROTOCOL: Add lif_port success, id: 1, name: eth0, ip: 10.0.0.1."));
}

TEST_F(LifAdd, OfTheHostGoesOnWhenTheSwitchFails)
{
    fake::answer("regLifportAdpter", {-3});
    EXPECT_EQ(nas_lifport_add_update(1, "eth0", "127.0.0.10", 5), 5062U);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: lifportid:1 alloc index:5062.",
                            "class 3 PROTOCOL: Ftds: PERF_SWITCH ON lifport(id:1,index:5062) failed (ret:-3).",
                            "6 PROTOCOL: Add lif_port success, id: 1, name: eth0, ip: 127.0.0.10."));
}

TEST_F(LifAdd, OfTheHostLeavesUnsupportedPortsAndTheLoopbackOff)
{
    fake::answer("CheckLifPortSupportPerf", {1, 0});
    EXPECT_EQ(nas_lifport_add_update(1, "eth0", "10.0.0.1", 5), 5062U);
    EXPECT_EQ(nas_lifport_add_update(2, "lo", "127.0.0.1", 5), 1933U);
    EXPECT_THAT(fake::calls("regLifportAdpter"), IsEmpty());
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: lifportid:1 alloc index:5062.",
                            "class 1 PROTOCOL: Ftds: Ip is (10.0.0.1), lifport(id:1), don't support perf.",
                            "class 0 PROTOCOL: lifportid:2 alloc index:1933.",
                            "class 1 PROTOCOL: Ftds: Ip is (127.0.0.1), lifport(id:2), don't support perf."));
}

TEST_F(LifAdd, OfTheHostAsksNothingForAKnownOrFailedPort)
{
    fake::failAllocation(1);
    EXPECT_EQ(nas_lifport_add_update(1, "eth0", "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_EQ(nas_lifport_add_update(2, nullptr, nullptr, 5), 0xFFFFFFFFU);
    EXPECT_THAT(fake::calls(), IsEmpty());
    nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    EXPECT_EQ(nas_lifport_add_update(1, "eth0", "10.0.0.1", 6), 5062U);
    EXPECT_EQ(nas_lifport_add_update(1, nullptr, "10.0.0.1", 7), 0xFFFFFFFFU);
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(LifAdd, FailsCleanlyAtEveryCallThatCanFail)
{
    uint64_t nth = 0;
    for (bool failed = true; failed;) {
        SetUp();
        const size_t before = fake::liveBlocks();
        fake::failCall(++nth);
        const uint32_t index = nas_lifport_add_update(1, "eth0", "10.0.0.1", 5);
        failed = fake::failableCalls() >= nth;
        EXPECT_EQ(fake::liveBlocks() - before, table().size()) << nth;
        EXPECT_EQ(index == 0xFFFFFFFF, table().empty()) << nth;
        EXPECT_EQ(lif::usedSlots(), 1U) << nth;
        EXPECT_EQ(fake::locksHeld(), 0) << nth;
    }
    EXPECT_EQ(nth, 3U); // the entry, the switch, and nothing
}

// ---- deletions by the host

class LifDelete : public lif::Table {
protected:
    void SetUp() override
    {
        lif::Table::SetUp();
        nas_lifport_add(1, "eth0", "10.0.0.1", 5);
        start_ = logged();
    }

    size_t start_ = 0;
};

const std::string kBegin = "class 0 PROTOCOL: nas_lifportid_del_update begin ";

TEST_F(LifDelete, RemovesPortSlotAndPerformancePath)
{
    fake::answer("regLifportAdpter", {-4});
    std::vector<uint64_t> words;
    fake::during("regLifportAdpter", [&] { words.push_back(g_NfsLifPortInfo.buckets[1].lock.word); });
    const size_t before = fake::liveBlocks();
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_EQ(lif::usedSlots(), 0U);
    EXPECT_EQ(fake::liveBlocks(), before - 1);
    EXPECT_THAT(words, ElementsAre(~0ULL)); // write-locked
    EXPECT_THAT(fake::calls(), ElementsAre("CheckLifPortSupportPerf(1)", "regLifportAdpter(1, 0)"));
    EXPECT_THAT(logSince(start_),
                ElementsAre(kBegin + "10.0.0.1.",
                            "class 1 PROTOCOL: Ftds:PERF_SWITCH Ip is (10.0.0.1) lifportid(id:1), (ret:-4)."));
    EXPECT_EQ(fake::logLines().back().func, "nas_lifportid_del_update");
}

TEST_F(LifDelete, ReleasesTheSlotUnderTheSpinLockInsideTheBuckets)
{
    Texts seen;
    fake::duringLocks([&](const std::string &func) {
        if (g_NfsLifPortInfo.buckets[0].lock.word == 0 && g_NfsLifPortInfo.buckets[1].lock.word != 0) {
            seen.push_back(standing(func));
        }
    });
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_THAT(seen, ElementsAre("kvos_rwlock_write_lock: slot 1, 1 listed, bucket held",
                                  "do_kvos_spinlock_lock: slot 1, 1 listed, bucket held",
                                  "do_kvos_spinlock_unlock: slot 0, 1 listed, bucket held",
                                  "kvos_rwlock_write_unlock: slot 0, 0 listed, bucket held"));
}

TEST_F(LifDelete, OlderThanTheLastAddIsIgnoredSilently)
{
    nas_lifportid_del_update("10.0.0.1", 4);
    EXPECT_EQ(table().size(), 1U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(logSince(start_), ElementsAre(kBegin + "10.0.0.1."));
}

TEST_F(LifDelete, NewerThanTheLastAddRemovesThePort)
{
    nas_lifportid_del_update("10.0.0.1", 6);
    EXPECT_THAT(table(), IsEmpty());
}

TEST_F(LifDelete, OfAnUnknownAddressIsAnError)
{
    nas_lifportid_del_update("10.0.0.10", 6);
    EXPECT_EQ(table().size(), 1U);
    EXPECT_THAT(logSince(start_),
                ElementsAre(kBegin + "10.0.0.10.", "3 PROTOCOL: ERR, not found ip:10.0.0.10, time:6."));
}

TEST_F(LifDelete, OfNoAddressDoesNothing)
{
    nas_lifportid_del_update(nullptr, 6);
    EXPECT_EQ(table().size(), 1U);
    EXPECT_THAT(logSince(start_), IsEmpty());
}

TEST_F(LifDelete, RemovesOnlyTheFirstPortWithTheAddress)
{
    nas_lifport_add(257, "eth1", "10.0.0.1", 5); // in front of port 1
    nas_lifport_add(256, "eth2", "10.0.0.1", 5); // in an earlier bucket
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_EQ(table().size(), 2U);
    EXPECT_THAT(lif::entriesOf(256), IsEmpty());
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_THAT(table(), ElementsAre("1 #5062 @5 eth0 10.0.0.1"));
}

TEST_F(LifDelete, StopsAtTheFirstPortEvenIfThatIsTooNew)
{
    nas_lifport_add(257, "eth1", "10.0.0.1", 9);
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_EQ(table().size(), 2U);
}

TEST_F(LifDelete, LeavesThePerformancePathOfUnsupportedPortsAlone)
{
    fake::answer("CheckLifPortSupportPerf", {1});
    nas_lifportid_del_update("10.0.0.1", 5);
    EXPECT_THAT(table(), IsEmpty());
    EXPECT_THAT(fake::calls(), ElementsAre("CheckLifPortSupportPerf(1)"));
    EXPECT_EQ(fake::log().back(), "class 1 PROTOCOL: Ftds: Ip is (10.0.0.1), lifport(id:1), don't support perf.");
}

TEST_F(LifDelete, OfTheLoopbackAsksNothing)
{
    nas_lifport_add(2, "lo", "127.0.0.1", 5);
    nas_lifportid_del_update("127.0.0.1", 5);
    EXPECT_EQ(table().size(), 1U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_EQ(fake::log().back(), "class 1 PROTOCOL: Ftds: Ip is (127.0.0.1), lifport(id:2), don't support perf.");
}

TEST_F(LifDelete, ComparesFortySixCharacters)
{
    const std::string ip(46, 'i');
    nas_lifport_add(2, "eth1", ip.c_str(), 5);
    nas_lifportid_del_update(ip.substr(1).c_str(), 5);
    EXPECT_EQ(table().size(), 2U);
    nas_lifportid_del_update((ip + "and more").c_str(), 5);
    EXPECT_EQ(table().size(), 1U);
}

// ---- names

class LifName : public lif::Table {
protected:
    void SetUp() override
    {
        lif::Table::SetUp();
        nas_lifport_add(1, "eth0", "10.0.0.1", 5);
    }
};

TEST_F(LifName, IsCopiedUnderAReadLock)
{
    char name[8] = "xxxxxxx";
    kvos_rwlock_read_lock(&g_NfsLifPortInfo.buckets[1].lock);
    EXPECT_EQ(nas_get_lifport_name(1, name, sizeof name), 0U);
    kvos_rwlock_read_unlock(&g_NfsLifPortInfo.buckets[1].lock);
    EXPECT_STREQ(name, "eth0");
}

TEST_F(LifName, IsCopiedBeforeTheReadLockIsReleased)
{
    char name[8] = "xxxxxxx";
    Texts seen;
    fake::duringLocks([&](const std::string &func) { seen.push_back(func + " " + name); });
    EXPECT_EQ(nas_get_lifport_name(1, name, sizeof name), 0U);
    EXPECT_THAT(seen, ElementsAre("kvos_rwlock_read_lock xxxxxxx", "kvos_rwlock_read_unlock eth0"));
}

TEST_F(LifName, OfAnUnknownIdLeavesTheBufferAlone)
{
    char name[8] = "before";
    EXPECT_EQ(nas_get_lifport_name(257, name, sizeof name), 0U);
    EXPECT_STREQ(name, "before");
}

TEST_F(LifName, IntoNoBufferIsRefused)
{
    EXPECT_EQ(nas_get_lifport_name(1, nullptr, 8), 1U);
    EXPECT_EQ(fake::log().back(), "class 3 PROTOCOL: pObjName is null.");
}

TEST_F(LifName, ThatDoesNotFitKeepsItsBucketReadLocked)
{
    char name[5] = "";
    EXPECT_EQ(nas_get_lifport_name(1, name, 5), 0U);
    EXPECT_STREQ(name, "eth0");
    EXPECT_EQ(g_NfsLifPortInfo.buckets[1].lock.word, 0U);
    for (const uint32_t length : {4U, 1U, 0U}) {
        EXPECT_EQ(nas_get_lifport_name(1, name, length), 1U) << length;
        EXPECT_EQ(g_NfsLifPortInfo.buckets[1].lock.word, static_cast<uint64_t>(++locksLeft_)) << length;
    }
}

TEST_F(LifName, OfTheLongestKindFitsWithItsEnd)
{
    const std::string longest(256, 'n');
    nas_lifport_add(2, longest.c_str(), "10.0.0.2", 1);
    const std::unique_ptr<char[]> name(new char[257]);
    EXPECT_EQ(nas_get_lifport_name(2, name.get(), 257), 0U);
    EXPECT_EQ(name.get(), longest);
    EXPECT_EQ(nas_get_lifport_name(2, name.get(), 0xFFFFFFFF), 0U) << "no more is written than the longest name needs";
    EXPECT_EQ(nas_get_lifport_name(2, name.get(), 256), 1U);
    locksLeft_ = 1;
}

TEST_F(LifName, OfAnAddressIsTheHostsToAnswer)
{
    fake::answer("getNasLifPortIdByIpAdpter", {4000000000});
    EXPECT_EQ(getNasLifPortIdByIp(1, 2, 3, 4, 5, ~uintptr_t{0}), 4000000000U);
    EXPECT_THAT(fake::calls(), ElementsAre("getNasLifPortIdByIpAdpter(1, 2, 3, 4, 5, 18446744073709551615)"));
}

} // namespace
