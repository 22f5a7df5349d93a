// The shard view: its configuration, its table, and the index of FSPs.
#include "ebsctrl_stub_fixture.h"

#include <memory>
#include <set>
#include <thread>

using shard::index;
using shard::kNone;
using shard::Texts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::KilledBySignal;

namespace {

// "1:10.0.0.1,2:10.0.0.2,..." for LSs 1 to count.
std::string pairs(uint32_t count)
{
    std::string list;
    for (uint32_t i = 1; i <= count; ++i) {
        list += (i == 1 ? "" : ",") + std::to_string(i) + ":a" + std::to_string(i);
    }
    return list;
}

// The table's shards as "<shard id> LS <LS id> at <address>".
Texts table()
{
    Texts shards;
    for (uint32_t i = 0; i < g_shardviewTbl.number_of_shards; ++i) {
        const shard_entry &entry = g_shardviewTbl.entries[i];
        shards.push_back(std::to_string(entry.shardId) + " LS " + std::to_string(entry.lsId) + " at " +
                         shard_addr_list[i]);
    }
    return shards;
}

// ---- the path

class ConfPath : public shard::View {
    void TearDown() override { stub_setConfPath("/opt/marovesta/brisqueta/conf/dpc.conf"); }
};

TEST_F(ConfPath, IsKept)
{
    stub_setConfPath("/etc/other.conf");
    EXPECT_STREQ(g_confPath, "/etc/other.conf");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(ConfPath, ThatIsNullOrEmptyChangesNothing)
{
    stub_setConfPath("/etc/other.conf");
    stub_setConfPath(nullptr);
    stub_setConfPath("");
    EXPECT_STREQ(g_confPath, "/etc/other.conf");
}

TEST_F(ConfPath, MayHave511Characters)
{
    const std::string path(511, 'p');
    stub_setConfPath(path.c_str());
    EXPECT_EQ(g_confPath, path);
}

TEST_F(ConfPath, Of512CharactersEndsTheProcess)
{
    const std::string path(512, 'p');
    shard::showLog();
    EXPECT_EXIT(stub_setConfPath(path.c_str()), KilledBySignal(SIGABRT),
                "^ebsctrl_stub.cpp:824 stub_setConfPath 3 PROTOCOL: Assertion \\(ret == 0\\) is failed!!!!!!!!!!!!\n$");
}

// ---- the start

class ShardStart : public shard::View {};

TEST_F(ShardStart, ReadsTheListThePartitionsAndMakesTheQueue)
{
    EXPECT_EQ(shard::initView("1:10.0.0.1,2:10.0.0.2", "64"), 0U);
    EXPECT_THAT(table(), ElementsAre("0 LS 1 at 10.0.0.1", "1 LS 2 at 10.0.0.2"));
    EXPECT_EQ(g_partionNumber, 64U);
    EXPECT_EQ(shard::freeNodes(), 4096U);
    EXPECT_THAT(fake::calls(), ElementsAre("ProtoCfgGetStringValue(\"GLOBAL\", \"ebsserver_ip_list\", 51200)",
                                           "ProtoCfgGetStringValue(\"GLOBAL\", \"partition_number\", 32)",
                                           "lwt_workqueue_create(\"Fmm LWT\", 8, 8, 1000)"));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Init forward lwt wq SUCCESS."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("stub_initShardView"));
    EXPECT_NE(g_fmmLwtQ, nullptr);
    EXPECT_EQ(fmm_get_lwt_queue(), g_fmmLwtQ);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(ShardStart, ReadsTheNamedFileNotTheStoredPath)
{
    fake::setConfig(g_confPath, "GLOBAL", "ebsserver_ip_list", "9:other");
    shard::initView("1:named");
    EXPECT_THAT(table(), ElementsAre("0 LS 1 at named"));
}

TEST_F(ShardStart, WithoutAListInitialisesNothing)
{
    g_partionNumber = 7;
    EXPECT_EQ(stub_initShardView(shard::kConf), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ret != 0 is failed, return NAS_ERROR!!!!!!!!!!!!"));
    EXPECT_THAT(fake::calls(), ElementsAre("ProtoCfgGetStringValue(\"GLOBAL\", \"ebsserver_ip_list\", 51200)"));
    EXPECT_EQ(g_partionNumber, 7U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 0U);
    EXPECT_EQ(shardViewList.free_head.next, nullptr);
    EXPECT_EQ(g_fmmLwtQ, nullptr);
}

TEST_F(ShardStart, WithoutAPathIsRefused)
{
    EXPECT_EQ(stub_initShardView(nullptr), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: confPath is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(ShardStart, WithoutAQueueFailsWithTheViewBuilt)
{
    fake::answer("lwt_workqueue_create", {1});
    EXPECT_EQ(shard::initView("1:a"), kNone);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Init forward lwt wq FAILED."));
    EXPECT_THAT(table(), ElementsAre("0 LS 1 at a"));
    EXPECT_EQ(shard::freeNodes(), 4096U);
    EXPECT_EQ(fmm_get_lwt_queue(), nullptr);
}

TEST_F(ShardStart, EachCallThatCanFailFailsInItsOwnWay)
{
    // The list, the partitions (which may be missing), the queue.
    const std::vector<uint32_t> results = {1, 0, kNone, 0};
    for (size_t nth = 1; nth <= results.size(); ++nth) {
        SetUp();
        fake::failCall(nth);
        EXPECT_EQ(shard::initView("1:a", "5"), results[nth - 1]) << nth;
        EXPECT_EQ(g_partionNumber, nth == 1 ? 3U : nth == 2 ? 1U : 5U) << nth;
    }
}

TEST_F(ShardStart, TakesPartitionsAsADecimalNumber)
{
    const std::vector<std::pair<std::string, uint32_t>> rows = {
        {"4096", 4096}, {" 12", 12}, {"0x10", 0}, {"5000", 5000}, {"7 nodes", 7}, {"-1", kNone}, {"none", 0},
    };
    for (const auto &[text, number] : rows) {
        SetUp();
        shard::initView("1:a", text);
        EXPECT_EQ(stub_GetPartionNumber(), number) << text;
    }
}

TEST_F(ShardStart, WithoutPartitionsHasOne)
{
    shard::initView("1:a,2:b");
    EXPECT_EQ(stub_GetPartionNumber(), 1U);
}

struct ListRow {
    const char *name;
    std::string list;
    Texts shards;
    Texts bad;
};

TEST_F(ShardStart, KeepsTheIndexOfABadPair)
{
    const std::vector<ListRow> rows = {
        {"at the start", "x,2:b,3:c", {"0 LS 0 at ", "1 LS 2 at b", "2 LS 3 at c"}, {"x"}},
        {"in the middle", "1:a,2,3:c", {"0 LS 1 at a", "0 LS 0 at ", "2 LS 3 at c"}, {"2"}},
        {"at the end", "1:a,2:b,3", {"0 LS 1 at a", "1 LS 2 at b"}, {"3"}},
        {"empty list", "", {}, {""}},
        {"two commas", "1:a,,3:c", {"0 LS 1 at a", "0 LS 0 at ", "2 LS 3 at c"}, {""}},
        {"trailing comma", "1:a,", {"0 LS 1 at a"}, {""}},
        {"only commas", ",,", {}, {"", "", ""}},
        {"all bad", "1,2", {}, {"1", "2"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        EXPECT_EQ(shard::initView(row.list), 0U);
        EXPECT_EQ(table(), row.shards);
        Texts lines;
        for (const auto &pair : row.bad) {
            lines.push_back("3 PROTOCOL: Bad format pair:" + pair + "\n");
        }
        lines.emplace_back("6 PROTOCOL: Init forward lwt wq SUCCESS.");
        EXPECT_EQ(fake::log(), lines);
    }
}

TEST_F(ShardStart, CutsAPairAtItsFirstColon)
{
    shard::initView("1:fe80::1,2:");
    EXPECT_THAT(table(), ElementsAre("0 LS 1 at fe80::1", "1 LS 2 at "));
}

TEST_F(ShardStart, TakesLsIdsAsDecimalNumbers)
{
    shard::initView("65536:a,4294967295:b, 7:c,0x1:d,-1:e,ls:f,99999999999999999999:g");
    EXPECT_THAT(table(), ElementsAre("0 LS 65536 at a", "1 LS 4294967295 at b", "2 LS 7 at c", "3 LS 0 at d",
                                     "4 LS 4294967295 at e", "5 LS 0 at f", "6 LS 4294967295 at g"));
}

TEST_F(ShardStart, LeavesTheReservedWordsZero)
{
    shard::initView("1:a,2:b");
    std::vector<uint32_t> words(sizeof g_shardviewTbl / 4);
    memcpy(words.data(), &g_shardviewTbl, sizeof g_shardviewTbl);
    EXPECT_EQ(words[2], 2U);  // number of shards
    EXPECT_EQ(words[7], 1U);  // LS of shard 0
    EXPECT_EQ(words[11], 1U); // id of shard 1
    EXPECT_EQ(words[14], 2U); // LS of shard 1
    for (const size_t used : {2U, 7U, 11U, 14U}) {
        words[used] = 0;
    }
    EXPECT_EQ(words, std::vector<uint32_t>(sizeof g_shardviewTbl / 4));
}

TEST_F(ShardStart, Takes4096Pairs)
{
    EXPECT_EQ(shard::initView(pairs(4096)), 0U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 4096U);
    EXPECT_EQ(table().back(), "4095 LS 4096 at a4096");
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Init forward lwt wq SUCCESS."));
}

TEST_F(ShardStart, RefusesEveryPairBeyond)
{
    EXPECT_EQ(shard::initView(pairs(4098)), 0U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 4096U);
    EXPECT_EQ(table().back(), "4095 LS 4096 at a4096");
    EXPECT_THAT(fake::log(),
                ElementsAre("3 PROTOCOL: Bad format pair:4097:a4097\n", "3 PROTOCOL: Bad format pair:4098:a4098\n",
                            "6 PROTOCOL: Init forward lwt wq SUCCESS."));
    EXPECT_EQ(shardViewStatus[0].status, 0U);
}

TEST_F(ShardStart, TakesAListThatFillsItsBuffer)
{
    std::string list = "1:a";
    list.resize(51199, ',');
    EXPECT_EQ(shard::initView(list), 0U);
    EXPECT_EQ(fake::log().size(), 51199U - 3 + 1);
    SetUp();
    list.push_back(',');
    EXPECT_EQ(shard::initView(list), 1U);
}

// ---- a single pair

class ShardPair : public shard::View {
protected:
    static uint32_t build(uint32_t index, const std::string &pair)
    {
        std::string text = pair;
        return stub_buildShardView(index, text.data());
    }
};

TEST_F(ShardPair, FillsItsShardAndCountsUpToIt)
{
    EXPECT_EQ(build(4, "12:10.0.0.12"), 0U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 5U);
    EXPECT_EQ(table()[4], "4 LS 12 at 10.0.0.12");
    EXPECT_EQ(build(0, "1:x"), 0U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 1U);
}

TEST_F(ShardPair, WithoutAColonChangesNothing)
{
    EXPECT_EQ(build(2, "12"), 1U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Bad format pair:12\n"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("stub_buildShardView"));
}

TEST_F(ShardPair, ThatIsNullIsRefused)
{
    EXPECT_EQ(stub_buildShardView(0, nullptr), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: pair is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(ShardPair, BeyondTheTableIsRefusedAsItStands)
{
    EXPECT_EQ(build(4095, "1:a"), 0U);
    EXPECT_EQ(build(4096, "2:b"), 1U);
    EXPECT_EQ(build(kNone, "3:c"), 1U);
    EXPECT_EQ(g_shardviewTbl.number_of_shards, 4096U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Bad format pair:2:b\n", "3 PROTOCOL: Bad format pair:3:c\n"));
}

TEST_F(ShardPair, MayHaveAnAddressOf255Characters)
{
    const std::string address(255, 'a');
    EXPECT_EQ(build(0, "1:" + address), 0U);
    EXPECT_EQ(shard_addr_list[0], address);
}

TEST_F(ShardPair, WithAnAddressOf256CharactersEndsTheProcess)
{
    shard::showLog();
    EXPECT_EXIT(build(0, "1:" + std::string(256, 'a')), KilledBySignal(SIGABRT),
                "^ebsctrl_stub.cpp:[0-9]+ stub_buildShardView 3 PROTOCOL: Assertion \\(ret == 0\\) is "
                "failed!!!!!!!!!!!!\n$");
}

// ---- the index

class FspIndex : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        start("1:a,2:b,3:c");
    }

    static shard_node *lookUp(uint32_t fspId)
    {
        kvos_rwlock_write_lock(&shardViewList.lock);
        shard_node *node = FspGetShardView(fspId);
        kvos_rwlock_write_unlock(&shardViewList.lock);
        return node;
    }
};

TEST_F(FspIndex, CreatesANodeOnTheShardOfTheHash)
{
    shard_node *node = lookUp(8);
    EXPECT_EQ(node, &shardNodeEntry[0]);
    EXPECT_EQ(node->free_link.next, reinterpret_cast<void *>(0x100100));
    EXPECT_EQ(node->free_link.prev, reinterpret_cast<void *>(0x200200));
    EXPECT_THAT(index(), ElementsAre("0: 8 on 2 v0"));
    EXPECT_EQ(shardViewList.node_count, 1U);
    EXPECT_EQ(shard::freeNodes(), 4095U);
}

TEST_F(FspIndex, FindsANodeAgain)
{
    EXPECT_EQ(lookUp(8), lookUp(8));
    EXPECT_EQ(FspGetShardIdByFsp(8), 2U);
    EXPECT_EQ(FspGetShardIdByFsp(8), 2U);
    EXPECT_EQ(shardViewList.node_count, 1U);
}

TEST_F(FspIndex, KeepsTheOrderOfCreationInABucket)
{
    for (const uint32_t fsp : {16U, 3U, 0U, 11U, 8U}) {
        lookUp(fsp);
    }
    EXPECT_THAT(index(), ElementsAre("0: 16 on 1 v0", "0: 0 on 0 v0", "0: 8 on 2 v0", "3: 3 on 0 v0", "3: 11 on 2 v0"));
    EXPECT_EQ(lookUp(5), &shardNodeEntry[5]);
}

TEST_F(FspIndex, AsksTheHashForBucketAndShard)
{
    Texts asked;
    fake::setHash([&](uint64_t value, uint32_t modulus) {
        asked.push_back(std::to_string(value) + " below " + std::to_string(modulus));
        return modulus - 1;
    });
    EXPECT_EQ(FspGetShardIdByFsp(4294967295U), 2U);
    EXPECT_THAT(asked, ElementsAre("4294967295 below 8", "4294967295 below 3"));
    EXPECT_THAT(index(), ElementsAre("7: 4294967295 on 2 v0"));
}

TEST_F(FspIndex, HashesBelowZeroWithoutShards)
{
    g_shardviewTbl.number_of_shards = 0;
    std::vector<uint32_t> moduli;
    fake::setHash([&](uint64_t, uint32_t modulus) {
        moduli.push_back(modulus);
        return 0;
    });
    EXPECT_EQ(FspGetShardIdByFsp(5), 0U);
    EXPECT_THAT(moduli, ElementsAre(8, 0));
}

TEST_F(FspIndex, LeavesTheVersionOfATakenNode)
{
    shardNodeEntry[0].version = 9;
    uint64_t version = 0;
    EXPECT_EQ(FspGetShardInfoByFsp(1, nullptr, &version), 0U);
    EXPECT_EQ(version, 9U);
}

TEST_F(FspIndex, TakesTheWriteLockForEveryLookUp)
{
    std::vector<uint64_t> words;
    fake::setHash([&](uint64_t, uint32_t) {
        words.push_back(shardViewList.lock.word);
        return 0;
    });
    FspGetShardIdByFsp(1);
    FspGetShardInfoByFsp(1, nullptr, nullptr);
    EXPECT_THAT(words, testing::Each(~uint64_t{0}));
    EXPECT_EQ(words.size(), 3U);
    EXPECT_EQ(shardViewList.lock.word, 0U);
}

TEST_F(FspIndex, TellsShardAndVersionWhereTheyAreWanted)
{
    lookUp(8)->version = 5;
    uint32_t shardId = 77;
    uint64_t version = 77;
    EXPECT_EQ(FspGetShardInfoByFsp(8, &shardId, &version), 0U);
    EXPECT_EQ(shardId, 2U);
    EXPECT_EQ(version, 5U);
    EXPECT_EQ(FspGetShardInfoByFsp(8, nullptr, nullptr), 0U);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(FspIndex, HasRoomFor4096)
{
    std::set<const shard_node *> nodes;
    for (uint32_t fsp = 0; fsp < 4096; ++fsp) {
        nodes.insert(lookUp(fsp));
    }
    EXPECT_EQ(nodes.size(), 4096U);
    EXPECT_EQ(lookUp(4096), nullptr);
    EXPECT_EQ(FspGetShardIdByFsp(4096), kNone);
    EXPECT_EQ(shardViewList.node_count, 4096U);
    EXPECT_EQ(FspGetShardIdByFsp(4095), 0U);
    EXPECT_EQ(fake::locksHeld(), 0);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(FspIndex, ThatIsFullStaysLockedByShardInfo)
{
    shard::fillIndex();
    uint32_t shardId = 77;
    uint64_t version = 77;
    EXPECT_EQ(FspGetShardInfoByFsp(5, &shardId, &version), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: ShardNode is NULL."));
    EXPECT_EQ(shardViewList.lock.word, ~uint64_t{0});
    EXPECT_EQ(shardId, 77U);
    EXPECT_EQ(version, 77U);
    locksLeft_ = 1;
}

TEST_F(FspIndex, IsEmptiedInIndexOrder)
{
    for (uint32_t fsp = 0; fsp < 20; ++fsp) {
        lookUp(fsp);
    }
    shardNodeEntry[3].version = 4;
    shardViewStatus[2] = {1, 9};
    FspInitShardView();
    EXPECT_THAT(index(), IsEmpty());
    EXPECT_EQ(shardViewList.node_count, 0U);
    list_link *link = &shardViewList.free_head;
    for (const shard_node &node : shardNodeEntry) {
        link = static_cast<list_link *>(link->next);
        ASSERT_EQ(link, &node.free_link);
        ASSERT_EQ(node.fspId, kNone);
    }
    EXPECT_EQ(link->next, &shardViewList.free_head);
    EXPECT_EQ(shardViewList.free_head.prev, link);
    EXPECT_EQ(shardViewStatus[2].status, 0U);
    EXPECT_EQ(shardViewStatus[2].takeoverLs, 9U);
    EXPECT_EQ(shardNodeEntry[3].version, 4U);
}

TEST_F(FspIndex, HoldsWithSeveralThreadsAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<std::vector<uint32_t>> shards(4, std::vector<uint32_t>(200));
    for (auto &answers : shards) {
        threads.emplace_back([&answers] {
            for (uint32_t fsp = 0; fsp < answers.size(); ++fsp) {
                answers[fsp] = FspGetShardIdByFsp(fsp);
                FspGetSrcLsByLsId(1 + fsp % 3);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shardViewList.node_count, 200U);
    EXPECT_EQ(index().size(), 200U);
    EXPECT_THAT(shards, testing::Each(shards[0]));
}

// Before any start nothing is found and nothing breaks.
class BeforeTheStart : public shard::View {};

TEST_F(BeforeTheStart, NothingIsFound)
{
    EXPECT_EQ(FspGetShardIdByFsp(1), kNone);
    EXPECT_EQ(FspGetNextLsIdByFsp(1), kNone);
    EXPECT_EQ(FspGetShardIdByLsId(0), kNone);
    EXPECT_EQ(FspGetNextLsIdByLs(0), kNone);
    EXPECT_EQ(FspGetSrcLsByLsId(0), kNone);
    shard_info info{};
    EXPECT_EQ(stubGetShardInfo(1, &info), 1U);
    EXPECT_EQ(FspMigrationNode(0, 0, 0), 1U);
    EXPECT_EQ(FspModifyShardView(1, 0), 1U);
    char text[200];
    EXPECT_EQ(FspShowShardView(text, sizeof text), 69U);
    EXPECT_EQ(FspGetNodeInfo(text, sizeof text), 122U);
    EXPECT_EQ(fmm_get_lwt_queue(), nullptr);
}

// ---- LSs

class LsLookUp : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        start("1:a,70000:b,3:c,1:d");
    }
};

TEST_F(LsLookUp, FindsTheFirstShardOfAnLs)
{
    EXPECT_EQ(FspGetShardIdByLsId(1), 0U);
    EXPECT_EQ(FspGetShardIdByLsId(70000), 1U);
    EXPECT_EQ(FspGetShardIdByLsId(3), 2U);
    EXPECT_EQ(FspGetShardIdByLsId(4464), kNone); // the low 16 bits of 70000
    EXPECT_EQ(FspGetShardIdByLsId(0), kNone);
    EXPECT_EQ(FspGetShardIdByLsId(kNone), kNone);
}

TEST_F(LsLookUp, EndsAtTheNumberOfShards)
{
    g_shardviewTbl.number_of_shards = 2;
    EXPECT_EQ(FspGetShardIdByLsId(3), kNone);
    g_shardviewTbl.number_of_shards = 0;
    EXPECT_EQ(FspGetShardIdByLsId(1), kNone);
}

TEST_F(LsLookUp, NeverLeavesTheTable)
{
    g_shardviewTbl.number_of_shards = 5000;
    EXPECT_EQ(FspGetShardIdByLsId(77), kNone);
    shardNodeEntry[0].shardId = 0;
    FspGetShardIdByFsp(1);
    shardNodeEntry[0].shardId = 4500;
    EXPECT_EQ(FspGetNextLsIdByFsp(1), kNone);
    shardNodeEntry[0].shardId = 4095;
    EXPECT_EQ(FspGetNextLsIdByFsp(1), 1U);
}

TEST_F(LsLookUp, FollowsAnLsByTheNextShards)
{
    EXPECT_EQ(FspGetNextLsIdByLs(1), 70000U);
    EXPECT_EQ(FspGetNextLsIdByLs(70000), 3U);
    EXPECT_EQ(FspGetNextLsIdByLs(3), 1U);
    EXPECT_EQ(FspGetNextLsIdByLs(9), kNone);
}

TEST_F(LsLookUp, FollowsTheLastShardByTheFirst)
{
    start("1:a,2:b");
    EXPECT_EQ(FspGetNextLsIdByLs(2), 1U);
    EXPECT_EQ(FspGetNextLsIdByFsp(1), 1U);
    start("7:a");
    EXPECT_EQ(FspGetNextLsIdByLs(7), 7U);
}

TEST_F(LsLookUp, FollowsAnFspByTheNextShard)
{
    EXPECT_EQ(FspGetNextLsIdByFsp(0), 70000U);
    EXPECT_EQ(FspGetNextLsIdByFsp(2), 1U);
    EXPECT_EQ(FspGetNextLsIdByFsp(3), 1U);
    EXPECT_EQ(shardViewList.node_count, 3U);
    shardNodeEntry[0].shardId = 4;
    EXPECT_EQ(FspGetNextLsIdByFsp(0), kNone);
}

TEST_F(LsLookUp, FollowsNoFspInAFullIndex)
{
    shard::fillIndex();
    EXPECT_EQ(FspGetNextLsIdByFsp(5), kNone);
}

TEST_F(LsLookUp, TellsWhoTookOver)
{
    shardViewStatus[1].takeoverLs = 3;
    EXPECT_EQ(FspGetSrcLsByLsId(70000), 3U);
    EXPECT_EQ(FspGetSrcLsByLsId(1), 0U);
    EXPECT_EQ(FspGetSrcLsByLsId(9), kNone);
}

// ---- what a client is told

class Sharding : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        start("1:10.0.0.1,70000:10.0.0.2", "2");
    }

    shard_entry entry_{1, {2, 3}, 4, {5, 6, 7}};
    uint64_t version_ = 77;
    char addr_[256] = "unset";
};

TEST_F(Sharding, TellsEntryVersionAndAddressUnderTheFspsId)
{
    g_shardviewTbl.entries[1].reserved4[0] = 8;
    g_shardviewTbl.entries[1].reserved16[2] = 9;
    FspGetShardIdByFsp(65);
    shardNodeEntry[0].version = 3;
    EXPECT_EQ(stub_getShardingInfoById(65, &entry_, &version_, addr_, sizeof addr_), 0U);
    const shard_entry expected{65, {8, 0}, 70000, {0, 0, 9}};
    EXPECT_EQ(memcmp(&entry_, &expected, sizeof expected), 0);
    EXPECT_EQ(version_, 3U);
    EXPECT_STREQ(addr_, "10.0.0.2");
    EXPECT_EQ(g_shardviewTbl.entries[1].shardId, 1U);
}

TEST_F(Sharding, CopiesTheWholeAddressSlot)
{
    memset(shard_addr_list[0], 'x', 256);
    EXPECT_EQ(stub_getShardingInfoById(0, &entry_, nullptr, addr_, sizeof addr_), 0U);
    EXPECT_EQ(std::string(addr_, 256), std::string(256, 'x'));
    std::vector<char> large(300, 'y');
    EXPECT_EQ(stub_getShardingInfoById(0, &entry_, nullptr, large.data(), kNone), 0U);
    EXPECT_EQ(std::string(large.data(), 300), std::string(256, 'x') + std::string(44, 'y'));
}

TEST_F(Sharding, WithoutAnEntryTellsTheVersionOnly)
{
    FspGetShardIdByFsp(65);
    shardNodeEntry[0].version = 3;
    EXPECT_EQ(stub_getShardingInfoById(65, nullptr, &version_, nullptr, 0), 1U);
    EXPECT_EQ(version_, 3U);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Sharding, WithoutAnAddressBufferChangesNothing)
{
    EXPECT_EQ(stub_getShardingInfoById(65, &entry_, &version_, nullptr, 256), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: addr is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
    EXPECT_THAT(index(), IsEmpty());
    EXPECT_EQ(version_, 77U);
}

TEST_F(Sharding, OfAShardBeyondTheTableIsUnknown)
{
    for (const uint32_t shardId : {2U, 4095U, 4096U, kNone}) {
        FspGetShardIdByFsp(65);
        shardNodeEntry[0].shardId = shardId;
        EXPECT_EQ(stub_getShardingInfoById(65, &entry_, &version_, addr_, sizeof addr_), 1U) << shardId;
        EXPECT_STREQ(addr_, "unset");
        EXPECT_EQ(entry_.shardId, 1U);
    }
}

TEST_F(Sharding, InAFullIndexFailsAndKeepsItLocked)
{
    shard::fillIndex();
    EXPECT_EQ(stub_getShardingInfoById(65, &entry_, &version_, addr_, sizeof addr_), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: ShardNode is NULL.", "3 PROTOCOL: Get shardInfo failed:65"));
    EXPECT_EQ(fake::logFuncs().back(), "stub_getShardingInfoById");
    locksLeft_ = 1;
}

TEST_F(Sharding, EndsTheProcessWhenTheAddressDoesNotFit)
{
    shard::showLog();
    for (const uint32_t length : {0U, 1U, 255U}) {
        EXPECT_EXIT(stub_getShardingInfoById(65, &entry_, &version_, addr_, length), KilledBySignal(SIGABRT),
                    "^ebsctrl_stub.cpp:[0-9]+ stub_getShardingInfoById 3 PROTOCOL: Assertion \\(ret == 0\\) is "
                    "failed!!!!!!!!!!!!\n$")
            << length;
    }
}

TEST_F(Sharding, FindsTheAddressOfAnLs)
{
    EXPECT_EQ(stub_queryAddrByLsId(70000, addr_, sizeof addr_), 0U);
    EXPECT_STREQ(addr_, "10.0.0.2");
    EXPECT_EQ(stub_queryAddrByLsId(9, addr_, sizeof addr_), 1U);
    EXPECT_STREQ(addr_, "10.0.0.2");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Sharding, FindsTheAddressOfAnLsIdAboveTheSignedNumbers)
{
    start("4294967295:far", "1");
    EXPECT_EQ(stub_queryAddrByLsId(-1, addr_, sizeof addr_), 0U);
    EXPECT_STREQ(addr_, "far");
}

TEST_F(Sharding, BoundsTheSearchByThePartitions)
{
    g_partionNumber = 1;
    EXPECT_EQ(stub_queryAddrByLsId(70000, addr_, sizeof addr_), 1U);
    g_partionNumber = 0;
    EXPECT_EQ(stub_queryAddrByLsId(1, addr_, sizeof addr_), 1U);
    g_partionNumber = 2;
    g_shardviewTbl.number_of_shards = 0;
    EXPECT_EQ(stub_queryAddrByLsId(70000, addr_, sizeof addr_), 0U);
}

TEST_F(Sharding, CutsThePartitionsToTheTable)
{
    g_partionNumber = 4096;
    EXPECT_EQ(stub_queryAddrByLsId(9, addr_, sizeof addr_), 1U);
    EXPECT_EQ(g_partionNumber, 4096U);
    g_partionNumber = 5000;
    EXPECT_EQ(stub_queryAddrByLsId(9, addr_, sizeof addr_), 1U);
    EXPECT_EQ(g_partionNumber, 4096U);
    g_shardviewTbl.entries[4095].lsId = 9;
    EXPECT_EQ(stub_queryAddrByLsId(9, addr_, sizeof addr_), 0U);
    EXPECT_STREQ(addr_, "");
}

TEST_F(Sharding, RefusesANullAddressBeforeAnythingElse)
{
    g_partionNumber = 5000;
    EXPECT_EQ(stub_queryAddrByLsId(1, nullptr, 256), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: Addr is invalid"));
    EXPECT_EQ(g_partionNumber, 5000U);
}

TEST_F(Sharding, EndsTheProcessWhenAQueriedAddressDoesNotFit)
{
    shard::showLog();
    for (const uint32_t length : {0U, 255U}) {
        EXPECT_EXIT(stub_queryAddrByLsId(1, addr_, length), KilledBySignal(SIGABRT),
                    "^ebsctrl_stub.cpp:[0-9]+ stub_queryAddrByLsId 3 PROTOCOL: Assertion \\(ret == 0\\) is "
                    "failed!!!!!!!!!!!!\n$")
            << length;
    }
    EXPECT_EQ(stub_queryAddrByLsId(1, addr_, 256), 0U);
}

TEST_F(Sharding, CopiesTheWholeTable)
{
    std::vector<char> copy(114704 + 4, 'y');
    EXPECT_EQ(stub_copyShardView(copy.data(), 114704), 0);
    EXPECT_EQ(memcmp(copy.data(), &g_shardviewTbl, 114704), 0);
    EXPECT_EQ(std::string(copy.data() + 114704, 4), "yyyy");
    EXPECT_EQ(stub_copyShardView(copy.data(), kNone), 0);
}

TEST_F(Sharding, CopiesNothingIntoLess)
{
    std::vector<char> copy(114704);
    EXPECT_NE(stub_copyShardView(copy.data(), 114703), 0);
    EXPECT_NE(stub_copyShardView(copy.data(), 0), 0);
    EXPECT_NE(stub_copyShardView(nullptr, 114704), 0);
}

// ---- the display

const std::string kHeader = "NODE                    FSP                     Version             \n";

class Display : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        start("1:a,70000:b");
    }

    static std::string show(uint32_t room)
    {
        std::vector<char> text(room + 1, 'y');
        const uint32_t written = FspShowShardView(text.data(), room);
        EXPECT_EQ(text[room], 'y');
        EXPECT_EQ(written, room == 0 ? 0 : strlen(text.data()));
        return room == 0 ? "" : text.data();
    }
};

TEST_F(Display, HasALinePerFspByBucketAndAge)
{
    for (const uint32_t fsp : {9U, 4294967295U, 1U, 8U}) {
        FspGetShardIdByFsp(fsp);
    }
    shardNodeEntry[3].version = ~uint64_t{0};
    EXPECT_EQ(show(1000), kHeader + "1                       8                       18446744073709551615\n" +
                              "70000                   9                       0                   \n" +
                              "70000                   1                       0                   \n" +
                              "70000                   4294967295              0                   \n");
}

TEST_F(Display, OfAnEmptyIndexIsTheHeader)
{
    EXPECT_EQ(show(1000), kHeader);
}

TEST_F(Display, IsCutToEveryLength)
{
    FspGetShardIdByFsp(9);
    FspGetShardIdByFsp(8);
    const std::string whole = show(1000);
    ASSERT_EQ(whole.size(), 3 * 69U);
    for (uint32_t room = 0; room <= whole.size() + 2; ++room) {
        ASSERT_EQ(show(room), whole.substr(0, room == 0 ? 0 : room - 1)) << room;
    }
}

TEST_F(Display, ShowsAShardBeyondTheTableWithoutAnLs)
{
    FspGetShardIdByFsp(0);
    shardNodeEntry[0].shardId = 4096;
    EXPECT_EQ(show(1000), kHeader + "4294967295              0                       0                   \n");
}

TEST_F(Display, WithoutABufferIsNothing)
{
    EXPECT_EQ(FspShowShardView(nullptr, 100), 0U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: buf is NULL, return 0(0)!!!!!!!!!!!!"));
}

} // namespace
