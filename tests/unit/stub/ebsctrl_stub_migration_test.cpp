// Migration of an LS and of a single FSP: the index, the shards' status, and what the handlers are told.
#include "ebsctrl_stub_handlers.h"

#include <thread>

using shard::index;
using shard::kNone;
using shard::setLocalLs;
using shard::Texts;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int32_t kFault = 0;
constexpr int32_t kFailback = 1;
const char *const kLwtError = "3 PROTOCOL: ret != NAS_OK is failed, goto LWT_ERROR!!!!!!!!!!!!";

// Status and takeover words of the first three shards.
Texts statuses()
{
    Texts texts;
    for (int i = 0; i < 3; ++i) {
        texts.push_back((shardViewStatus[i].status != 0 ? "FAULT " : "NORMAL ") +
                        std::to_string(shardViewStatus[i].takeoverLs));
    }
    return texts;
}

class Migration : public shard::Handlers {};

TEST_F(Migration, MovesEveryFspOfTheLs)
{
    serve({8, 0, 3, 1, 16, 2});
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 0U);
    EXPECT_THAT(index(), ElementsAre("0: 8 on 2 v0", "0: 0 on 1 v1", "0: 16 on 1 v0", "1: 1 on 1 v0", "2: 2 on 2 v0",
                                     "3: 3 on 1 v1"));
    EXPECT_THAT(log(), IsEmpty());
    EXPECT_EQ(shardViewList.node_count, 6U);
    fake::runAllJobs();
}

TEST_F(Migration, WritesARecordOfEachByBucketAndAge)
{
    serve({24, 3, 0, 1});
    FspMigrationNode(1, 3, 2);
    const migration_payload &payload = *event().payload;
    EXPECT_EQ(event().id, 0U);
    EXPECT_EQ(payload.reserved0, 0U);
    EXPECT_EQ(payload.reserved8, 0U);
    EXPECT_EQ(payload.reserved32, 0U);
    ASSERT_EQ(payload.count, 3U);
    const std::string expected("\x18\0\0\0\2\0\0\0\1\0\3\0\0\0\0\0\0\0\0\0"
                               "\0\0\0\0\2\0\0\0\1\0\3\0\0\0\0\0\0\0\0\0"
                               "\3\0\0\0\2\0\0\0\1\0\3\0\0\0\0\0\0\0\0\0",
                               60);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(payload.records), 60), expected);
    fake::runAllJobs();
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

struct ToldRow {
    const char *name;
    uint32_t src, dst;
    int32_t failback;
    uint32_t local;
    Texts told;
    Texts statuses;
};

TEST_F(Migration, SubmitsWhatItsKindAndThisNodeCallFor)
{
    const std::string out = "moveout(0 to 1 of 1-2)";
    const std::string in = "movein(0 to 1 of 1-2)";
    const std::string dlgFault = "notifyCall(2, 5, 1)";
    const std::string fmmFault = "notifyCall(1, 5, 1)";
    const std::string view = "notifyCall(1, 0, 0)";
    const std::string dlgBack = "notifyCall(2, 6, 2)";
    const std::string fmmBack = "notifyCall(1, 6, 2)";
    const Texts untouched = {"NORMAL 0", "NORMAL 0", "NORMAL 0"};
    const Texts fault = {"FAULT 2", "NORMAL 0", "NORMAL 0"};
    const Texts back = {"NORMAL 0", "NORMAL 4294967295", "NORMAL 0"};
    const std::vector<ToldRow> rows = {
        {"fault elsewhere", 1, 2, kFault, 9, {dlgFault, fmmFault, view}, fault},
        {"fault here", 1, 2, kFault, 1, {out, dlgFault, fmmFault, view}, fault},
        {"takeover here", 1, 2, kFault, 2, {dlgFault, fmmFault, view, in}, fault},
        {"failback elsewhere", 1, 2, kFailback, 9, {view, dlgBack, fmmBack}, back},
        {"failback from here", 1, 2, kFailback, 1, {out, view, dlgBack, fmmBack}, back},
        {"failback to here", 1, 2, kFailback, 2, {view, in, dlgBack, fmmBack}, back},
        {"neither, elsewhere", 1, 2, 2, 9, {view}, untouched},
        {"neither, from here", 1, 2, -1, 1, {out, view}, untouched},
        {"neither, to here", 1, 2, 7, 2, {view, in}, untouched},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        setLocalLs(row.local);
        serve({0});
        EXPECT_EQ(FspMigrationNode(row.src, row.dst, row.failback), 0U);
        EXPECT_THAT(told(), IsEmpty());
        EXPECT_EQ(statuses(), row.statuses);
        EXPECT_EQ(handled(), row.told);
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(log(), IsEmpty());
    }
}

TEST_F(Migration, OntoItselfTellsEverything)
{
    setLocalLs(1);
    serve({0});
    EXPECT_EQ(FspMigrationNode(1, 1, kFault), 0U);
    EXPECT_THAT(index(), ElementsAre("0: 0 on 0 v1"));
    EXPECT_THAT(handled(), ElementsAre("moveout(0 to 0 of 1-1)", "notifyCall(2, 5, 1)", "notifyCall(1, 5, 1)",
                                       "notifyCall(1, 0, 0)", "movein(0 to 0 of 1-1)"));
}

TEST_F(Migration, ThereAndBackLeavesTheShardNormal)
{
    serve({0, 1, 3});
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 0U);
    EXPECT_EQ(FspGetSrcLsByLsId(1), 2U);
    EXPECT_EQ(FspMigrationNode(2, 1, kFailback), 0U);
    EXPECT_THAT(statuses(), ElementsAre("NORMAL 4294967295", "NORMAL 0", "NORMAL 0"));
    EXPECT_EQ(FspGetSrcLsByLsId(1), kNone);
    // The FSP that was the destination's before goes along.
    EXPECT_THAT(index(), ElementsAre("0: 0 on 0 v2", "1: 1 on 0 v1", "3: 3 on 0 v2"));
    fake::runAllJobs();
}

TEST_F(Migration, OfAnLsWithoutFspsStillTells)
{
    serve({1});
    EXPECT_EQ(FspMigrationNode(3, 2, 2), 0U);
    EXPECT_EQ(fake::queuedJobs(), 1U);
    EXPECT_EQ(event().payload->count, 0U);
    EXPECT_NE(event().payload->records, nullptr);
    EXPECT_THAT(handled(), ElementsAre("notifyCall(1, 0, 0)"));
    EXPECT_THAT(index(), ElementsAre("1: 1 on 1 v0"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(Migration, OfAnEmptyIndexDoesNothing)
{
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 0U);
    EXPECT_EQ(fake::queuedJobs(), 0U);
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_THAT(statuses(), ElementsAre("NORMAL 0", "NORMAL 0", "NORMAL 0"));
}

TEST_F(Migration, OfUnknownLssIsRefused)
{
    serve({0});
    EXPECT_EQ(FspMigrationNode(7, 2, kFault), 1U);
    EXPECT_EQ(FspMigrationNode(1, 7, kFault), 1U);
    EXPECT_EQ(FspMigrationNode(7, 8, kFault), 1U);
    const std::string src =
        "3 PROTOCOL: (srcShardId >= g_shardviewTbl.number_of_shards) is failed, goto ERROR!!!!!!!!!!!!";
    const std::string dst =
        "3 PROTOCOL: (dstShardId >= g_shardviewTbl.number_of_shards) is failed, goto ERROR!!!!!!!!!!!!";
    EXPECT_THAT(log(), ElementsAre(src, dst, src));
    EXPECT_EQ(fake::logFuncs().back(), "FspMigrationNode");
    EXPECT_EQ(fake::logLines().back().file, "ebsctrl_stub_migration.cpp");
    EXPECT_THAT(index(), ElementsAre("0: 0 on 0 v0"));
    EXPECT_EQ(fake::queuedJobs(), 0U);
}

TEST_F(Migration, CutsLsIdsInTheRecordsOnly)
{
    start("65537:a,4294901763:b");
    setLocalLs(4294901763U);
    serve({0});
    EXPECT_EQ(FspMigrationNode(65537, 4294901763U, kFault), 0U);
    EXPECT_EQ(shardViewStatus[0].takeoverLs, 4294901763U);
    EXPECT_THAT(handled(), ElementsAre("notifyCall(2, 5, 65537)", "notifyCall(1, 5, 65537)", "notifyCall(1, 0, 0)",
                                       "movein(0 to 1 of 1-3)"));
    EXPECT_EQ(FspMigrationNode(65537, 4294901763U, kFailback), 0U);
    EXPECT_THAT(handled(), ElementsAre("notifyCall(1, 0, 0)", "movein()", "notifyCall(2, 6, 4294901763)",
                                       "notifyCall(1, 6, 4294901763)"));
}

TEST_F(Migration, SubmitsUnderAReferenceOfItsOwnWithoutTheLock)
{
    setLocalLs(1);
    serve({0});
    std::vector<uint32_t> refs;
    std::vector<uint64_t> locks;
    std::vector<uint32_t> faults;
    fake::during("lwt_work_enqueue", [&] {
        refs.push_back(fake::queuedJobs() == 0 ? 0 : event().refs);
        locks.push_back(shardViewList.lock.word);
        faults.push_back(shardViewStatus[0].status);
    });
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 0U);
    EXPECT_THAT(refs, ElementsAre(0, 3, 4));
    EXPECT_THAT(locks, ElementsAre(0, 0, 0));
    EXPECT_THAT(faults, ElementsAre(0, 1, 1)); // FAULT before its notice
    EXPECT_EQ(event().refs, 3U);
    EXPECT_EQ(event().id, 1U);
    fake::runJob();
    EXPECT_EQ(event().refs, 2U);
    fake::runAllJobs();
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(Migration, SetsTheRecoveredShardNormalJustBeforeItsNotice)
{
    serve({1});
    shardViewStatus[0] = {1, 2};
    std::vector<uint32_t> faults;
    fake::during("lwt_work_enqueue", [&] { faults.push_back(shardViewStatus[0].status); });
    EXPECT_EQ(FspMigrationNode(2, 1, kFailback), 0U);
    EXPECT_THAT(faults, ElementsAre(1, 0));
    EXPECT_EQ(event().id, 1U);
    fake::runAllJobs();
}

TEST_F(Migration, WithoutMemoryForItsEventFails)
{
    struct Row {
        uint64_t nth;
        Texts log;
        const char *index;
        std::vector<size_t> blocks; // that are still there when the line is logged
    };
    const std::vector<Row> rows = {
        {1, {}, "0: 0 on 0 v0", {}},
        {2, {"3 PROTOCOL: (info == NULL) is failed, goto ERROR!!!!!!!!!!!!"}, "0: 0 on 1 v1", {1}},
        {3, {"3 PROTOCOL: (fmmBuffer == NULL) is failed, goto ERROR!!!!!!!!!!!!"}, "0: 0 on 1 v1", {2}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.nth);
        SetUp();
        serve({0});
        std::vector<size_t> blocks;
        fake::during("kvlog", [&] { blocks.push_back(fake::liveBlocks()); });
        fake::failAllocation(row.nth);
        EXPECT_EQ(FspMigrationNode(1, 2, kFault), 1U);
        EXPECT_EQ(log(), row.log);
        EXPECT_EQ(blocks, row.blocks);
        EXPECT_THAT(index(), ElementsAre(row.index));
        EXPECT_THAT(statuses(), ElementsAre("NORMAL 0", "NORMAL 0", "NORMAL 0"));
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_EQ(fake::locksHeld(), 0);
        EXPECT_EQ(fake::queuedJobs(), 0U);
    }
}

TEST_F(Migration, OfMoreNodesThanTheIndexCountsKeepsItLocked)
{
    serve({0, 3, 8});
    shardViewList.node_count = 1;
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: (number >= len) is failed, goto ERROR!!!!!!!!!!!!"));
    EXPECT_EQ(shardViewList.lock.word, ~uint64_t{0});
    EXPECT_THAT(index(), ElementsAre("0: 0 on 1 v1", "0: 8 on 2 v0", "3: 3 on 0 v0"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_EQ(fake::queuedJobs(), 0U);
    locksLeft_ = 1;
}

// A migration on the node that is both ends, whose handlers are refused one after the other.
struct RefusedRow {
    int32_t failback;
    Texts handled;                    // with none refused
    std::vector<size_t> lines;        // of handled, that come of the first 0, 1, 2... handlers
    std::vector<const char *> status; // of shard 0 when the nth handler is refused
};

TEST_F(Migration, EndsAtTheFirstRefusedSubmission)
{
    const Texts fault = {"moveout(0 to 0 of 1-1)", "notifyCall(2, 5, 1)", "notifyCall(1, 5, 1)", "notifyCall(1, 0, 0)",
                         "movein(0 to 0 of 1-1)"};
    const Texts back = {"moveout(0 to 0 of 1-1)", "notifyCall(1, 0, 0)", "movein(0 to 0 of 1-1)", "notifyCall(2, 6, 1)",
                        "notifyCall(1, 6, 1)"};
    const std::vector<RefusedRow> rows = {
        {kFault, fault, {0, 1, 3, 4}, {"NORMAL 7", "FAULT 1", "FAULT 1", "FAULT 1"}},
        {kFailback, back, {0, 1, 2, 3}, {"NORMAL 7", "NORMAL 7", "NORMAL 7", "NORMAL 4294967295"}},
    };
    for (const auto &row : rows) {
        for (size_t refused = 0; refused < 4; ++refused) {
            for (const bool memory : {true, false}) {
                SCOPED_TRACE(std::to_string(row.failback) + ", handler " + std::to_string(refused) +
                             (memory ? "" : ", without memory"));
                SetUp();
                setLocalLs(1);
                serve({0});
                shardViewStatus[0].takeoverLs = 7;
                // Three allocations for the event, then a task and a place in the queue for each handler.
                fake::failCall(3 + 2 * refused + (memory ? 2 : 1));
                EXPECT_EQ(FspMigrationNode(1, 1, row.failback), 1U);
                EXPECT_THAT(log(), ElementsAre(memory ? "3 PROTOCOL: lwt_work_enque failed (1)!!!!"
                                                      : "3 PROTOCOL: task is NULL,return -ENOMEM!!!!",
                                               kLwtError));
                EXPECT_EQ(fake::logFuncs().back(), "FspMigrationNode");
                EXPECT_EQ(statuses()[0], row.status[refused]);
                EXPECT_THAT(index(), ElementsAre("0: 0 on 0 v1"));
                EXPECT_EQ(fake::queuedJobs(), refused);
                EXPECT_EQ(handled(),
                          Texts(row.handled.begin(), row.handled.begin() + static_cast<ptrdiff_t>(row.lines[refused])));
                EXPECT_EQ(fake::liveBlocks(), memory ? 1U : 0U); // the task that the queue refused
                EXPECT_EQ(fake::locksHeld(), 0);
            }
        }
    }
}

TEST_F(Migration, MovesAFullIndex)
{
    shard::fillIndex();
    setLocalLs(2);
    EXPECT_EQ(FspMigrationNode(1, 2, 2), 0U);
    EXPECT_EQ(event().payload->count, 1365U);
    fake::runAllJobs();
    EXPECT_EQ(FspMigrationNode(3, 2, 2), 0U);
    fake::runAllJobs();
    for (const shard_node &node : shardNodeEntry) {
        ASSERT_EQ(node.shardId, 1U);
    }
    EXPECT_EQ(FspMigrationNode(2, 1, 2), 0U);
    EXPECT_EQ(event().payload->count, 4096U);
    fake::runAllJobs();
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

// ---- a single FSP

class Modification : public shard::Handlers {};

TEST_F(Modification, MovesTheFspAndTellsTheNode)
{
    struct Row {
        const char *name;
        uint32_t local;
        Texts told;
    };
    const std::vector<Row> rows = {
        {"elsewhere", 9, {"notifyCall(1, 0, 0)"}},
        {"from here", 1, {"moveout(3 to 1 of 1-2)", "notifyCall(1, 0, 0)"}},
        {"to here", 2, {"notifyCall(1, 0, 0)", "movein(3 to 1 of 1-2)"}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        setLocalLs(row.local);
        serve({0, 3});
        EXPECT_EQ(FspModifyShardView(3, 2), 0U);
        EXPECT_THAT(index(), ElementsAre("0: 0 on 0 v0", "3: 3 on 1 v1"));
        EXPECT_EQ(event().id, 0U);
        EXPECT_EQ(event().payload->count, 1U);
        EXPECT_EQ(handled(), row.told);
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(log(), IsEmpty());
        EXPECT_THAT(statuses(), ElementsAre("NORMAL 0", "NORMAL 0", "NORMAL 0"));
    }
}

TEST_F(Modification, TellsBothMovesOnTheNodeOfTwoShards)
{
    start("1:a,2:b,3:c,1:d");
    setLocalLs(1);
    serve({3});
    EXPECT_EQ(FspModifyShardView(3, 1), 0U);
    EXPECT_EQ(event().refs, 3U);
    EXPECT_THAT(handled(), ElementsAre("moveout(3 to 0 of 1-1)", "notifyCall(1, 0, 0)", "movein(3 to 0 of 1-1)"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(Modification, IsKeptByTheHandlersAlone)
{
    setLocalLs(1);
    serve({3});
    std::vector<uint32_t> refs;
    fake::during("lwt_work_enqueue", [&] { refs.push_back(fake::queuedJobs() == 0 ? 1 : event().refs); });
    EXPECT_EQ(FspModifyShardView(3, 2), 0U);
    EXPECT_THAT(refs, ElementsAre(1, 2));
    EXPECT_EQ(event().refs, 2U);
    fake::runJob();
    EXPECT_EQ(event().refs, 1U);
    fake::runAllJobs();
}

// The node's LS id is read before each move event, so the view change is handled before the move-in is submitted.
TEST_F(Modification, OutlivesAHandlerThatIsDoneBeforeTheNextIsSubmitted)
{
    setLocalLs(2);
    serve({0, 3});
    fake::during("CgwGetInitLocalLsId", [] { fake::runAllJobs(); });
    EXPECT_EQ(FspModifyShardView(3, 2), 0U);
    EXPECT_THAT(told(), ElementsAre("notifyCall(1, 0, 0)"));
    EXPECT_THAT(handled(), ElementsAre("movein(3 to 1 of 1-2)"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(Modification, CreatesTheNodeOfANewFsp)
{
    EXPECT_EQ(FspModifyShardView(3, 2), 0U);
    EXPECT_THAT(index(), ElementsAre("3: 3 on 1 v1"));
    fake::runAllJobs();
}

TEST_F(Modification, OntoItsOwnShardDoesNothing)
{
    setLocalLs(1);
    EXPECT_EQ(FspModifyShardView(3, 1), 0U);
    EXPECT_THAT(index(), ElementsAre("3: 3 on 0 v0"));
    EXPECT_EQ(fake::queuedJobs(), 0U);
    EXPECT_EQ(fake::locksHeld(), 0);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Modification, OntoAnUnknownLsIsRefusedInSilence)
{
    EXPECT_EQ(FspModifyShardView(3, 7), 1U);
    EXPECT_THAT(index(), IsEmpty());
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Modification, InAFullIndexIsRefused)
{
    shard::fillIndex();
    EXPECT_EQ(FspModifyShardView(3, 2), 1U);
    EXPECT_EQ(fake::locksHeld(), 0);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(Modification, FromAShardBeyondTheTableIsRefused)
{
    serve({3});
    shardNodeEntry[0].shardId = 4096;
    EXPECT_EQ(FspModifyShardView(3, 2), 1U);
    shardNodeEntry[0].shardId = kNone;
    EXPECT_EQ(FspModifyShardView(3, 2), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: Invalid shardId:4096", "3 PROTOCOL: Invalid shardId:-1"));
    EXPECT_EQ(fake::logFuncs().back(), "FspModifyShardView");
    EXPECT_THAT(index(), ElementsAre("3: 3 on 4294967295 v0"));
    shardNodeEntry[0].shardId = 4095;
    EXPECT_EQ(FspModifyShardView(3, 2), 0U);
    EXPECT_EQ(event().payload->records[0].srcLs, 0U);
    fake::runAllJobs();
}

TEST_F(Modification, CutsLsIdsInTheRecord)
{
    start("65537:a,4294901763:b");
    serve({0});
    EXPECT_EQ(FspModifyShardView(0, 4294901763U), 0U);
    EXPECT_EQ(event().payload->records[0].srcLs, 1U);
    EXPECT_EQ(event().payload->records[0].dstLs, 3U);
    fake::runAllJobs();
}

TEST_F(Modification, WithoutMemoryForItsEventFailsInSilence)
{
    for (uint64_t nth = 1; nth <= 3; ++nth) {
        SCOPED_TRACE(nth);
        SetUp();
        serve({3});
        fake::failAllocation(nth);
        EXPECT_EQ(FspModifyShardView(3, 2), 1U);
        EXPECT_THAT(index(), ElementsAre("3: 3 on 1 v1"));
        EXPECT_THAT(log(), IsEmpty());
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_EQ(fake::queuedJobs(), 0U);
    }
}

TEST_F(Modification, WhoseFirstSubmissionIsRefusedIsGone)
{
    for (const uint32_t local : {1U, 9U}) {
        SCOPED_TRACE(local);
        SetUp();
        setLocalLs(local);
        fake::answer("lwt_work_enqueue", {5});
        EXPECT_EQ(FspModifyShardView(3, 2), 1U);
        EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: lwt_work_enque failed (5)!!!!", kLwtError));
        EXPECT_EQ(fake::logFuncs().back(), "FspModifyShardView");
        EXPECT_EQ(fake::liveBlocks(), 1U); // the refused task
        EXPECT_EQ(fake::queuedJobs(), 0U);
        EXPECT_THAT(index(), ElementsAre("3: 3 on 1 v1"));
    }
}

TEST_F(Modification, WhoseLaterSubmissionIsRefusedDropsOneReferenceMore)
{
    struct Row {
        const char *name;
        uint32_t fsp, local;
        size_t refused; // counted from 1
        size_t blocks;  // the tasks, and the event where a handler still has a reference
    };
    const std::vector<Row> rows = {
        {"view change after move-out", 3, 1, 2, 2},
        {"move-in after view change", 1, 1, 2, 2},
        {"move-in after both", 3, 1, 3, 3 + 3},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        SetUp();
        start("1:a,2:b,3:c,1:d");
        setLocalLs(row.local);
        serve({row.fsp});
        shard::refuseSubmission(row.refused);
        EXPECT_EQ(FspModifyShardView(row.fsp, 1), 1U);
        EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: lwt_work_enque failed (5)!!!!", kLwtError));
        EXPECT_EQ(fake::liveBlocks("FspSubmitLwt"), row.refused);
        EXPECT_EQ(fake::liveBlocks(), row.blocks);
        if (row.refused == 3) {
            EXPECT_EQ(event().refs, 1U);
        }
        EXPECT_EQ(fake::locksHeld(), 0);
    }
}

TEST_F(Modification, WhoseLaterSubmissionIsRefusedFreesAnEventThatIsHandledAlready)
{
    serve({1});
    setLocalLs(1);
    shard::refuseSubmission(2);
    fake::during("kvlog", [] { fake::runAllJobs(); });
    EXPECT_EQ(FspModifyShardView(1, 1), 1U);
    EXPECT_EQ(fake::queuedJobs(), 0U);
    EXPECT_EQ(fake::liveBlocks(), 1U); // the refused task
}

// ---- the handlers

class Handler : public shard::Handlers {
protected:
    // The handlers that a migration onto its own node submits, in their order.
    static std::vector<fmm_handler> handlersOf(int32_t failback)
    {
        setLocalLs(1);
        FspGetShardIdByFsp(0);
        FspMigrationNode(1, 1, failback);
        std::vector<fmm_handler> handlers;
        for (size_t i = 0; i < fake::queuedJobs(); ++i) {
            handlers.push_back(shard::taskOf(fake::queuedJob(i)).handler);
        }
        fake::runAllJobs();
        start_ = fake::calls().size();
        return handlers;
    }
    static Texts callsSince()
    {
        const Texts all = fake::calls();
        return {all.begin() + static_cast<ptrdiff_t>(start_), all.end()};
    }
};

TEST_F(Handler, OfAMoveWaitsForTheSimulator)
{
    setLocalLs(1);
    serve({0});
    FspMigrationNode(1, 1, 2);
    start_ = fake::calls().size();
    fake::runAllJobs();
    EXPECT_THAT(callsSince(),
                ElementsAre("kvlwt_task_sem_init(1)", "moveout(0 to 0 of 1-1)", "kvlwt_task_sem_up(666, \"moveout\")",
                            "kvlwt_task_sem_down(666, \"FspMoveOutEvent\")", "kvlwt_task_sem_destroy()",
                            "notifyCall(1, 0, 0)", "kvlwt_task_sem_init(1)", "movein(0 to 0 of 1-1)",
                            "kvlwt_task_sem_up(666, \"movein\")", "kvlwt_task_sem_down(666, \"FspMoveInEvent\")",
                            "kvlwt_task_sem_destroy()"));
    EXPECT_EQ(fake::liveSemaphores(), 0U);
}

TEST_F(Handler, OfAMoveThatNobodyDeliversWaitsOn)
{
    setLocalLs(1);
    serve({0});
    FspMigrationNode(1, 2, 2);
    shard::loseMoves(true);
    EXPECT_TRUE(fake::runUntilStopped([] { fake::runAllJobs(); }));
    EXPECT_EQ(fake::liveSemaphores(), 1U);
    EXPECT_EQ(fake::calls("kvlwt_task_sem_destroy").size(), 0U);
    EXPECT_EQ(fake::calls().back(), "notifyCall(1, 0, 0)"); // other handlers run on
}

TEST_F(Handler, OfAMoveWithoutAPayloadOnlyDropsItsReference)
{
    const auto handlers = handlersOf(2);
    ASSERT_EQ(handlers.size(), 3U);
    for (const fmm_handler handler : {handlers[0], handlers[2]}) {
        fmm_buffer buffer{0, nullptr, 2, 0};
        handler(&buffer);
        handler(nullptr);
        EXPECT_EQ(buffer.refs, 1U);
    }
    EXPECT_THAT(callsSince(), IsEmpty());
}

TEST_F(Handler, OfANoticeHoldsTheLsInTheArgument)
{
    const fmm_handler fault = handlersOf(0)[1];
    const fmm_handler recovery = handlersOf(1)[3];
    const size_t before = fake::notices().size();
    fmm_buffer buffer{0xFFFFFFFF01020304U, nullptr, 9, 0};
    fault(&buffer);
    recovery(&buffer);
    EXPECT_EQ(buffer.refs, 7U);
    EXPECT_THAT(callsSince(), ElementsAre("notifyCall(2, 5, 16909060)", "notifyCall(1, 5, 16909060)",
                                          "notifyCall(2, 6, 16909060)", "notifyCall(1, 6, 16909060)"));
    for (size_t i = before; i < fake::notices().size(); ++i) {
        EXPECT_EQ(fake::notices()[i].argument, std::string("\4\3\2\1", 4) + std::string(68, '\0'));
    }
    fault(nullptr);
    recovery(nullptr);
    EXPECT_EQ(fake::notices().size(), before + 4);
}

TEST_F(Handler, OfTheViewChangeNeedsNoEvent)
{
    const fmm_handler view = handlersOf(2)[1];
    fmm_buffer buffer{77, nullptr, 2, 0};
    view(&buffer);
    view(nullptr);
    EXPECT_EQ(buffer.refs, 1U);
    EXPECT_THAT(callsSince(), ElementsAre("notifyCall(1, 0, 0)", "notifyCall(1, 0, 0)"));
    EXPECT_EQ(fake::notices().back().argument, std::string(72, '\0'));
}

TEST_F(Handler, IgnoresWhatTheModulesAnswer)
{
    fake::answerAlways("notifyCall", 5);
    serve({0});
    EXPECT_EQ(FspMigrationNode(1, 2, kFault), 0U);
    EXPECT_THAT(handled(), ElementsAre("notifyCall(2, 5, 1)", "notifyCall(1, 5, 1)", "notifyCall(1, 0, 0)"));
    EXPECT_THAT(log(), IsEmpty());
}

// Handlers start as soon as they are queued, on threads that outlive the call.
TEST_F(Handler, RunsOnManyThreadsAtOnce)
{
    constexpr int kRounds = 40;
    start("1:a,2:b,3:c,4:d");
    setLocalLs(1);
    serve({0, 1, 4, 8});
    std::atomic<bool> over{false};
    std::vector<std::thread> workers;
    for (int i = 0; i < 3; ++i) {
        workers.emplace_back([&over] {
            while (!over || fake::queuedJobs() != 0) {
                if (!fake::runJob()) {
                    std::this_thread::yield();
                }
            }
        });
    }
    std::thread reader([&over] {
        char text[4096];
        shard_info info{};
        while (!over) {
            FspShowShardView(text, sizeof text);
            FspGetNodeInfo(text, sizeof text);
            stubGetShardInfo(4, &info);
            FspGetSrcLsByLsId(1);
            FspGetNextLsIdByFsp(8);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < kRounds; ++i) {
        EXPECT_EQ(FspMigrationNode(1, 3, kFault), 0U);
        EXPECT_EQ(FspMigrationNode(3, 1, kFailback), 0U);
        // Neither from this node nor to it: an event with a single handler.
        EXPECT_EQ(FspModifyShardView(1, i % 2 == 0 ? 4 : 2), 0U);
    }
    over = true;
    reader.join();
    for (auto &worker : workers) {
        worker.join();
    }
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_EQ(fake::calls("moveout").size(), size_t{kRounds});
    EXPECT_EQ(fake::calls("movein").size(), size_t{kRounds});
    EXPECT_EQ(shardNodeEntry[0].version, 2U * kRounds);
}

// ---- the shard table's display, and a single placement

const std::string kHeader = "NODE                   node id             \t ip                                "
                            "status               dest                 \n";

class NodeInfo : public shard::Handlers {
protected:
    static std::string show(uint32_t room)
    {
        std::vector<char> text(room + 1, 'y');
        const uint32_t written = FspGetNodeInfo(text.data(), room);
        EXPECT_EQ(text[room], 'y');
        EXPECT_EQ(written, room == 0 ? 0 : strlen(text.data()));
        return room == 0 ? "" : text.data();
    }
};

TEST_F(NodeInfo, HasALinePerShard)
{
    start("1:10.0.0.1,70000:fe80::1,3:c");
    shardViewStatus[0] = {1, 70000};
    shardViewStatus[1] = {0, kNone};
    shardViewStatus[2] = {2, 0};
    EXPECT_EQ(
        show(1000),
        kHeader +
            "Node0                  1                        10.0.0.1                          FAULT                "
            "70000                \n"
            "Node1                  70000                    fe80::1                           NORMAL               "
            "0                    \n"
            "Node2                  3                        c                                 FAULT                "
            "0                    \n");
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(NodeInfo, OfNoShardsIsTheHeader)
{
    g_shardviewTbl.number_of_shards = 0;
    EXPECT_EQ(show(1000), kHeader);
}

TEST_F(NodeInfo, IsCutToEveryLength)
{
    const std::string whole = show(1000);
    for (uint32_t room = 0; room <= whole.size() + 2; ++room) {
        ASSERT_EQ(show(room), whole.substr(0, room == 0 ? 0 : room - 1)) << room;
    }
}

TEST_F(NodeInfo, ShowsAnAddressWithoutItsNulToItsEnd)
{
    g_shardviewTbl.number_of_shards = 1;
    memset(shard_addr_list[0], 'x', 256);
    EXPECT_EQ(show(1000), kHeader + "Node0                  1                        " + std::string(256, 'x') +
                              "  NORMAL               0                    \n");
}

TEST_F(NodeInfo, NeverLeavesTheTable)
{
    g_shardviewTbl.number_of_shards = 5000;
    std::vector<char> text(1000000);
    FspGetNodeInfo(text.data(), static_cast<uint32_t>(text.size()));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 4097);
}

TEST_F(NodeInfo, DoesNotTakeTheLock)
{
    kvos_rwlock_write_lock(&shardViewList.lock);
    EXPECT_EQ(show(1000).substr(0, kHeader.size()), kHeader);
    kvos_rwlock_write_unlock(&shardViewList.lock);
}

TEST_F(NodeInfo, WithoutABufferIsNothing)
{
    EXPECT_EQ(FspGetNodeInfo(nullptr, 100), 0U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: buf is NULL, return 0(0)!!!!!!!!!!!!"));
}

class Placement : public shard::Handlers {};

TEST_F(Placement, TellsFspLsAndVersion)
{
    start("1:a,70000:b");
    serve({5, 4294967295U});
    shardNodeEntry[1].version = 12;
    shard_info info;
    memset(&info, 0x55, sizeof info);
    EXPECT_EQ(stubGetShardInfo(-1, &info), 0U);
    EXPECT_EQ(info.fspId, 4294967295U);
    EXPECT_EQ(info.lsId, 70000U);
    EXPECT_EQ(info.version, 12U);
    for (const uint32_t word : {info.words4[0], info.words4[1], info.word16, info.pad}) {
        EXPECT_EQ(word, 0x55555555U);
    }
}

TEST_F(Placement, OfAnUnknownFspIsNotMade)
{
    serve({5});
    shard_info info;
    memset(&info, 0x55, sizeof info);
    const shard_info before = info;
    EXPECT_EQ(stubGetShardInfo(13, &info), 1U);
    EXPECT_EQ(memcmp(&info, &before, sizeof info), 0);
    EXPECT_THAT(index(), ElementsAre("5: 5 on 2 v0"));
    EXPECT_EQ(fake::locksHeld(), 0);
}

TEST_F(Placement, IsReadBesideOtherReaders)
{
    serve({5});
    shard_info info{};
    kvos_rwlock_read_lock(&shardViewList.lock);
    EXPECT_EQ(stubGetShardInfo(5, &info), 0U);
    EXPECT_EQ(info.lsId, 3U);
    kvos_rwlock_read_unlock(&shardViewList.lock);
}

TEST_F(Placement, WithoutARecordIsRefused)
{
    EXPECT_EQ(stubGetShardInfo(5, nullptr), 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: shardView is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
    EXPECT_EQ(fake::logFuncs().back(), "stubGetShardInfo");
}

} // namespace
