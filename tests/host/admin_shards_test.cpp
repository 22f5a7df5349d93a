/*
 * What the admin door answers about the shard view. The library behind it is this program's own: its tables, with real
 * locks, and moves that tell what the library's would.
 */
#include "admin/routes.h"
#include "admin_node.h"
#include "failing_new.h"
#include "fmm/policy_runner.h"
#include "fmm/shard_moves.h"
#include "notify/events.h"
#include "platform/locks.h"
#include "recorded_log.h"

#include <algorithm>
#include <cstddef>
#include <deque>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <nasctrl/config.h>
#include <nasctrl/shard_view.h>
#include <nlohmann/json.hpp>

shardview_tbl g_shardviewTbl;
char shard_addr_list[NAS_SHARDS_MAX][NAS_SHARD_ADDR_SIZE];
shard_status shardViewStatus[NAS_SHARDS_MAX];
shard_view_list shardViewList;

namespace {

using host::admin::Answer;
using Json = nlohmann::ordered_json;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct Shards {
    uint32_t result = 0;
    bool silent = false;          // moves tell nobody
    std::function<void()> atMove; // once, when a migration begins, on its thread
    std::deque<shard_node> nodes;
    std::vector<std::string> calls;
};

Shards g_shards;

shard_node *findNode(uint32_t fsp)
{
    const auto found = std::ranges::find(g_shards.nodes, fsp, &shard_node::fspId);
    return found == g_shards.nodes.end() ? nullptr : &*found;
}

void addNode(uint32_t fsp, uint32_t shard)
{
    shard_node &node = g_shards.nodes.emplace_back();
    node.fspId = fsp;
    node.shardId = shard;
    list_link &bucket = shardViewList.buckets[fsp % NAS_SHARD_BUCKETS];
    node.bucket_link = {&bucket, bucket.prev};
    static_cast<list_link *>(bucket.prev)->next = &node.bucket_link;
    bucket.prev = &node.bucket_link;
}

void addShard(uint32_t lsId, const std::string &address)
{
    const uint32_t i = g_shardviewTbl.number_of_shards++;
    g_shardviewTbl.entries[i].shardId = i;
    g_shardviewTbl.entries[i].lsId = lsId;
    address.copy(shard_addr_list[i], NAS_SHARD_ADDR_SIZE - 1);
}

void tellOne(const char *module, const char *name, uint64_t data = 0)
{
    if (!g_shards.silent) {
        host::recordEvent({.module = module, .name = name, .data = data});
    }
}

void tellBoth(const char *name, uint64_t data = 0)
{
    tellOne("DLG", name, data);
    tellOne("FMM", name, data);
}

void tellMove(uint32_t from, uint32_t to)
{
    if (getLocalLsID() == from) {
        tellBoth("VNODE_MOVEOUT");
    }
    tellOne("FMM", "SHARD_CHG");
    if (getLocalLsID() == to) {
        tellBoth("VNODE_MOVEIN");
    }
}

} // namespace

// ---- the library

uint32_t stub_GetPartionNumber(void)
{
    return 3;
}
uint32_t hash_u64_id(uint64_t value, uint32_t modulus)
{
    return modulus == 0 ? 0 : static_cast<uint32_t>(value % modulus);
}
uint32_t FspGetShardIdByLsId(uint32_t lsId)
{
    for (uint32_t i = 0; i < g_shardviewTbl.number_of_shards; ++i) {
        if (g_shardviewTbl.entries[i].lsId == lsId) {
            return i;
        }
    }
    return NAS_INVALID;
}
uint32_t FspGetNextLsIdByLs(uint32_t lsId)
{
    return g_shardviewTbl.entries[(FspGetShardIdByLsId(lsId) + 1) % g_shardviewTbl.number_of_shards].lsId;
}
uint32_t FspGetShardIdByFsp(uint32_t fspId)
{
    if (findNode(fspId) == nullptr) {
        addNode(fspId, hash_u64_id(fspId, g_shardviewTbl.number_of_shards));
    }
    return findNode(fspId)->shardId;
}
uint32_t FspGetNextLsIdByFsp(uint32_t fspId)
{
    return g_shardviewTbl.entries[(FspGetShardIdByFsp(fspId) + 1) % g_shardviewTbl.number_of_shards].lsId;
}
uint32_t FspGetSrcLsByLsId(uint32_t lsId)
{
    return shardViewStatus[FspGetShardIdByLsId(lsId)].takeoverLs;
}
uint32_t stubGetShardInfo(int32_t fspId, shard_info *out)
{
    const shard_node *node = findNode(static_cast<uint32_t>(fspId));
    if (node == nullptr) {
        return 1;
    }
    out->fspId = node->fspId;
    out->lsId = g_shardviewTbl.entries[node->shardId].lsId;
    out->version = node->version;
    return 0;
}
uint32_t FspMigrationNode(uint32_t src, uint32_t dst, int32_t failback)
{
    if (const auto atMove = std::exchange(g_shards.atMove, nullptr)) {
        atMove();
    }
    g_shards.calls.push_back("migrate " + std::to_string(src) + " to " + std::to_string(dst) + ", " +
                             std::to_string(failback));
    if (g_shards.result != 0 || g_shards.nodes.empty()) {
        return g_shards.result;
    }
    for (shard_node &node : g_shards.nodes) {
        if (node.shardId == FspGetShardIdByLsId(src)) {
            node.shardId = FspGetShardIdByLsId(dst);
            ++node.version;
        }
    }
    tellMove(src, dst);
    tellBoth(failback == 0 ? "NODE_FAULT" : "NODE_RECOVER", failback == 0 ? src : dst);
    shardViewStatus[FspGetShardIdByLsId(failback == 0 ? src : dst)] =
        failback == 0 ? shard_status{1, dst} : shard_status{0, NAS_INVALID};
    return 0;
}
uint32_t FspModifyShardView(uint32_t fspId, uint32_t dst)
{
    g_shards.calls.push_back("move " + std::to_string(fspId) + " to " + std::to_string(dst));
    const uint32_t from = FspGetShardIdByFsp(fspId);
    if (from != FspGetShardIdByLsId(dst)) {
        findNode(fspId)->shardId = FspGetShardIdByLsId(dst);
        ++findNode(fspId)->version;
        tellMove(g_shardviewTbl.entries[from].lsId, dst);
    }
    return g_shards.result;
}

namespace {

class AdminShards : public testing::Test {
protected:
    void SetUp() override
    {
        resetNode();
        g_node.config["getLocalLsID"] = {0, "1"};
        g_shards = {};
        g_shardviewTbl = {};
        std::ranges::fill(shardViewStatus, shard_status{});
        shardViewList.lock = {};
        for (list_link &bucket : shardViewList.buckets) {
            bucket = {&bucket, &bucket};
        }
        addShard(1, "127.0.0.1");
        addShard(2, "127.0.0.2");
        addShard(70000, "fd00::3");
        host::setPolicy({});
    }

    static Answer call(const std::string &method, const std::string &path, const std::string &body = "")
    {
        return host::admin::answerRequest({method, "/v1/shards" + path, body});
    }
    static std::string bodyOf(const std::string &method, const std::string &path, const std::string &body = "")
    {
        const Answer answer = call(method, path, body);
        EXPECT_EQ(answer.status, 200U) << answer.body;
        return answer.body;
    }
    static Json json(const std::string &method, const std::string &path, const std::string &body = "")
    {
        return Json::parse(bodyOf(method, path, body));
    }
    // "MODULE EVENT DATA" of what an answer tells of.
    static std::vector<std::string> told(const Json &answer, const char *key = "told")
    {
        std::vector<std::string> lines;
        for (const Json &each : answer.at(key)) {
            lines.push_back(each.at("module").get<std::string>() + " " + each.at("event").get<std::string>() + " " +
                            each.at("data").get<std::string>());
        }
        return lines;
    }
    static void expectRefusal(unsigned status, const std::string &error, const Answer &answer)
    {
        EXPECT_EQ(answer.status, status) << error;
        EXPECT_EQ(answer.body, R"({"error":")" + error + R"("})");
    }
};

// A hold that is not given back during the call.
class IndexHold {
public:
    IndexHold() { kvos_rwlock_write_lock(&shardViewList.lock); }
    ~IndexHold() { kvos_rwlock_write_unlock(&shardViewList.lock); }
    IndexHold(const IndexHold &) = delete;
    IndexHold &operator=(const IndexHold &) = delete;
};

TEST_F(AdminShards, AreListedWithTheirLsAndWhereTheirFspsWent)
{
    addNode(1, 1);
    addNode(2, 2);
    addNode(4, 1);
    shardViewStatus[0] = {1, 2};
    shardViewStatus[2] = {0, NAS_INVALID};
    EXPECT_EQ(
        bodyOf("GET", ""),
        R"({"local_ls":1,"partitions":3,"shards":[)"
        R"({"shard":0,"ls":1,"address":"127.0.0.1","status":"FAULT","takeover_ls":2,"fsps":0},)"
        R"({"shard":1,"ls":2,"address":"127.0.0.2","status":"NORMAL","takeover_ls":null,"fsps":2},)"
        R"({"shard":2,"ls":70000,"address":"fd00::3","status":"NORMAL","takeover_ls":null,"fsps":1}],"busy":[]})");
}

TEST_F(AdminShards, AreListedWithoutCountsWhileTheIndexIsHeld)
{
    const IndexHold hold;
    const Json answer = json("GET", "");
    EXPECT_TRUE(answer["shards"][0]["fsps"].is_null());
    EXPECT_EQ(answer["busy"].dump(), R"(["fsps"])");
    EXPECT_EQ(bodyOf("GET", "/index"), R"({"fsps":null,"room":4096,"busy":["fsps"]})");
}

TEST_F(AdminShards, AreNoneBeforeTheViewIsBuilt)
{
    g_shardviewTbl = {};
    shardViewList.buckets[0] = {};
    EXPECT_EQ(json("GET", "")["shards"].dump(), "[]");
    EXPECT_EQ(json("GET", "/index")["fsps"].dump(), "[]");
}

TEST_F(AdminShards, ShowTheIndexBucketByBucket)
{
    addNode(9, 1);
    addNode(8, 2);
    addNode(1, 0);
    g_shards.nodes[0].version = UINT64_MAX;
    EXPECT_EQ(bodyOf("GET", "/index"), R"({"fsps":[{"fsp":8,"shard":2,"ls":70000,"version":0},)"
                                       R"({"fsp":9,"shard":1,"ls":2,"version":18446744073709551615},)"
                                       R"({"fsp":1,"shard":0,"ls":1,"version":0}],"room":4096,"busy":[]})");
}

TEST_F(AdminShards, TellWhereAnFspIsAndWouldBeWithoutPlacingIt)
{
    addNode(5, 1);
    g_shards.nodes[0].version = 3;
    EXPECT_EQ(bodyOf("GET", "/fsps/5"),
              R"({"fsp":5,"known":true,"shard":1,"ls":2,"address":"127.0.0.2","version":3,"next_ls":70000})");
    EXPECT_EQ(bodyOf("GET", "/fsps/8"),
              R"({"fsp":8,"known":false,"shard":2,"ls":70000,"address":"fd00::3","version":null,"next_ls":1})");
    EXPECT_EQ(g_shards.nodes.size(), 1U);
}

TEST_F(AdminShards, PlaceAnFspWhenAsked)
{
    EXPECT_EQ(bodyOf("POST", "/fsps", R"({"fsp":4294967294})"),
              R"({"fsp":4294967294,"known":true,"shard":2,"ls":70000,"address":"fd00::3","version":0,"next_ls":1})");
    EXPECT_EQ(g_shards.nodes.size(), 1U);
}

TEST_F(AdminShards, PlaceAndMoveNoFspIntoAFullIndex)
{
    for (uint32_t fsp = 0; fsp < NAS_SHARD_NODES; ++fsp) {
        addNode(fsp, 0);
    }
    expectRefusal(409, "the index is full with 4096 FSPs", call("POST", "/fsps", R"({"fsp":5000})"));
    expectRefusal(409, "the index is full with 4096 FSPs", call("POST", "/move", R"({"fsp":5000,"to":2})"));
    EXPECT_EQ(json("POST", "/move", R"({"fsp":4095,"to":2})")["placement"]["shard"], 1);
}

TEST_F(AdminShards, MigrateToTheNextLsAndTellWhoWasTold)
{
    addNode(3, 0);
    addNode(6, 0);
    addNode(7, 1);
    const Json answer = json("POST", "/migrate", R"({"ls":1})");
    EXPECT_THAT(g_shards.calls, ElementsAre("migrate 1 to 2, 0"));
    EXPECT_EQ(answer["from"], 1);
    EXPECT_EQ(answer["to"], 2);
    EXPECT_EQ(answer["result"], 0);
    EXPECT_EQ(answer["moved"].dump(), R"([{"fsp":3,"from_shard":0,"to_shard":1,"version":1},)"
                                      R"({"fsp":6,"from_shard":0,"to_shard":1,"version":1}])");
    EXPECT_THAT(told(answer), ElementsAre("DLG VNODE_MOVEOUT 0", "FMM VNODE_MOVEOUT 0", "FMM SHARD_CHG 0",
                                          "DLG NODE_FAULT 1", "FMM NODE_FAULT 1"));
    EXPECT_THAT(told(answer, "untold"), IsEmpty());
    EXPECT_TRUE(answer["took_us"].is_number());
    EXPECT_TRUE(answer["told"][0]["after_us"].is_number());
    EXPECT_EQ(answer["shortened"].dump(), "[]");
}

TEST_F(AdminShards, MigrateToAnLsWhoseIdTheRecordsShorten)
{
    addNode(3, 0);
    EXPECT_EQ(json("POST", "/migrate", R"({"ls":1,"to":70000})")["shortened"].dump(),
              R"([{"ls":70000,"in_events":4464}])");
    EXPECT_THAT(g_shards.calls, ElementsAre("migrate 1 to 70000, 0"));
}

TEST_F(AdminShards, MigrateNothingOfAnEmptyIndex)
{
    const Json answer = json("POST", "/migrate", R"({"ls":1})");
    EXPECT_EQ(answer["empty_index"], true);
    EXPECT_EQ(answer["moved"].dump(), "[]");
    EXPECT_THAT(told(answer), IsEmpty());
    EXPECT_THAT(told(answer, "untold"), IsEmpty());
}

TEST_F(AdminShards, TellWhoWasNotToldWhenTheLibraryFails)
{
    addNode(7, 1);
    g_shards.result = 1;
    const Json answer = json("POST", "/migrate", R"({"ls":2})");
    EXPECT_EQ(answer["result"], 1);
    EXPECT_THAT(told(answer, "untold"), ElementsAre("FMM SHARD_CHG 0", "DLG NODE_FAULT 2", "FMM NODE_FAULT 2"));
}

TEST_F(AdminShards, FailBackFromWhereTheFspsWent)
{
    addNode(3, 0);
    json("POST", "/migrate", R"({"ls":1,"to":70000})");
    const Json answer = json("POST", "/failback", R"({"ls":1})");
    EXPECT_EQ(g_shards.calls.back(), "migrate 70000 to 1, 1");
    EXPECT_EQ(answer["moved"].dump(), R"([{"fsp":3,"from_shard":2,"to_shard":0,"version":2}])");
    EXPECT_THAT(told(answer), ElementsAre("FMM SHARD_CHG 0", "DLG VNODE_MOVEIN 0", "FMM VNODE_MOVEIN 0",
                                          "DLG NODE_RECOVER 1", "FMM NODE_RECOVER 1"));
    expectRefusal(409, "the shard of LS 1 is not FAULT, so no LS took over from it",
                  call("POST", "/failback", R"({"ls":1})"));
}

TEST_F(AdminShards, MoveOneFspWhichMayBeNew)
{
    const Json answer = json("POST", "/move", R"({"fsp":3,"to":2})");
    EXPECT_THAT(g_shards.calls, ElementsAre("move 3 to 2"));
    EXPECT_EQ(answer["from"], 1);
    EXPECT_EQ(answer["empty_index"], false);
    EXPECT_EQ(answer["moved"].dump(), R"([{"fsp":3,"from_shard":0,"to_shard":1,"version":1}])");
    EXPECT_THAT(told(answer), ElementsAre("DLG VNODE_MOVEOUT 0", "FMM VNODE_MOVEOUT 0", "FMM SHARD_CHG 0"));
    EXPECT_EQ(answer["placement"]["ls"], 2);
    EXPECT_EQ(answer["placement"]["version"], 1);
}

TEST_F(AdminShards, MoveAnFspToWhereItIsAndTellNobody)
{
    addNode(3, 1);
    const Json answer = json("POST", "/move", R"({"fsp":3,"to":2})");
    EXPECT_EQ(answer["moved"].dump(), "[]");
    EXPECT_THAT(told(answer, "untold"), IsEmpty());
}

TEST_F(AdminShards, WaitForNoIndexThatIsHeld)
{
    addNode(3, 0);
    const IndexHold hold;
    const struct {
        const char *method;
        const char *path;
        const char *body;
    } kRows[] = {{"GET", "/fsps/3", ""},
                 {"POST", "/fsps", R"({"fsp":3})"},
                 {"POST", "/migrate", R"({"ls":1})"},
                 {"POST", "/move", R"({"fsp":3,"to":2})"}};
    for (const auto &row : kRows) {
        expectRefusal(503, "the lock of the shard index is held", call(row.method, row.path, row.body));
    }
    shardViewStatus[0] = {1, 2};
    expectRefusal(503, "the lock of the shard index is held", call("POST", "/failback", R"({"ls":1})"));
    EXPECT_THAT(g_shards.calls, IsEmpty());
}

TEST_F(AdminShards, RefuseIdsThatAreUnknownOrNone)
{
    const struct {
        const char *path;
        const char *body;
        unsigned status;
        const char *error;
    } kRows[] = {
        {"/migrate", R"({"ls":9})", 404, "no shard belongs to LS 9; nasctl shard ls lists them"},
        {"/migrate", R"({"ls":65537})", 404, "no shard belongs to LS 65537; nasctl shard ls lists them"},
        {"/migrate", R"({"ls":1,"to":4294967295})", 404,
         "no shard belongs to LS 4294967295; nasctl shard ls lists them"},
        {"/migrate", R"({"ls":1,"to":1})", 400, "to: must be another LS than LS 1"},
        {"/migrate", R"({"ls":4294967296})", 400, "ls: must be a whole number from 0 to 4294967295"},
        {"/migrate", R"({"ls":"1"})", 400, "ls: must be a whole number from 0 to 4294967295"},
        {"/migrate", R"({"to":1})", 400, "ls: is missing"},
        {"/failback", R"({"ls":9})", 404, "no shard belongs to LS 9; nasctl shard ls lists them"},
        {"/failback", R"({"ls":-1})", 400, "ls: must be a whole number from 0 to 4294967295"},
        {"/failback", "{}", 400, "ls: is missing"},
        {"/failback", R"({"ls":1,"to":2})", 400, "to: is not a field of this call"},
        {"/move", R"({"fsp":1,"to":9})", 404, "no shard belongs to LS 9; nasctl shard ls lists them"},
        {"/move", R"({"fsp":4294967295,"to":2})", 400, "fsp: must be a whole number from 0 to 4294967294"},
        {"/move", R"({"fsp":1})", 400, "to: is missing"},
        {"/fsps", R"({"fsp":4294967295})", 400, "fsp: must be a whole number from 0 to 4294967294"},
    };
    for (const auto &row : kRows) {
        expectRefusal(row.status, row.error, call("POST", row.path, row.body));
    }
    for (const char *fsp : {"4294967295", "-1", "0x5", "5x", "18446744073709551616"}) {
        expectRefusal(400, "fsp: must be a whole number from 0 to 4294967294",
                      call("GET", std::string("/fsps/") + fsp));
    }
    EXPECT_THAT(g_shards.calls, IsEmpty());
    EXPECT_THAT(g_shards.nodes, IsEmpty());
}

TEST_F(AdminShards, AreNotMovedByTheLibrarysCommandWhileTheIndexIsHeld)
{
    g_node.commands = {{"nas_fmm", "modify_fsp_shardview", "", nullptr}};
    g_node.run = [](const std::optional<std::string> &value) {
        g_shards.calls.push_back("command " + value.value());
        tellOne("FMM", "SHARD_CHG"); // on the thread that holds notices back
        return host::CommandAnswer{0, ""};
    };
    const host::admin::Request request{"POST", "/v1/commands",
                                       R"({"module":"nas_fmm","command":"modify_fsp_shardview","value":"5"})"};
    {
        const IndexHold hold;
        expectRefusal(503, "the lock of the shard index is held", host::admin::answerRequest(request));
    }
    EXPECT_EQ(host::admin::answerRequest(request).status, 200U);
    EXPECT_THAT(g_shards.calls, ElementsAre("command 5"));
}

// Whether a move that begins while the command runs has to wait for it.
bool keepsMovesOut(const std::string &module, const std::string &command)
{
    std::mutex *moves = host::holdMoves().mutex();
    bool held = false;
    g_node.commands = {{module, command, "", nullptr}};
    g_node.run = [&](const std::optional<std::string> &) {
        const auto canHold = [&] { return std::unique_lock(*moves, std::try_to_lock).owns_lock(); };
        held = !std::async(std::launch::async, canHold).get();
        return host::CommandAnswer{0, ""};
    };
    const std::string body = R"({"module":")" + module + R"(","command":")" + command + R"(","value":"1"})";
    EXPECT_EQ(host::admin::answerRequest({"POST", "/v1/commands", body}).status, 200U);
    EXPECT_EQ(host::holdMoves().mutex(), moves) << "free again";
    return held;
}

TEST_F(AdminShards, AreMovedByOneAtATimeTheLibrarysCommandsIncluded)
{
    for (const char *command : {"modify_fsp_shardview", "set_node_fault", "failback_shard_view"}) {
        EXPECT_TRUE(keepsMovesOut("nas_fmm", command)) << command;
    }
    EXPECT_FALSE(keepsMovesOut("nas_fmm", "show_fsp_shardview"));
    EXPECT_FALSE(keepsMovesOut("nas_fmm", "node_fault"));
    EXPECT_FALSE(keepsMovesOut("other", "set_node_fault"));
}

TEST_F(AdminShards, LeaveTheIndexFreeWhenMemoryIsTooShortToReadIt)
{
    addNode(7, 1);
    addNode(8, 2);
    std::optional<std::vector<host::IndexedFsp>> index;
    failing::sweep(
        [&] {
            try {
                index = host::readFspIndex();
            } catch (const std::bad_alloc &) {
            }
        },
        [] { EXPECT_TRUE(host::canWriteFspIndex()); });
    EXPECT_EQ(index->size(), 2U);
}

// ---- the policy

TEST_F(AdminShards, HaveAPolicyThatIsOff)
{
    const Json answer = json("GET", "/policy");
    EXPECT_EQ(answer["mode"], "off");
    EXPECT_EQ(answer["steady_s"], 60);
    EXPECT_EQ(answer["busy"].dump(), "[]");
}

TEST_F(AdminShards, KeepWhatIsNotSetOfThePolicy)
{
    EXPECT_EQ(json("PUT", "/policy", R"({"mode":"dry-run"})")["mode"], "dry-run");
    const Json answer = json("PUT", "/policy", R"({"steady_s":5})");
    EXPECT_EQ(answer["mode"], "dry-run");
    EXPECT_EQ(answer["steady_s"], 5);
    EXPECT_EQ(json("PUT", "/policy", R"({"mode":"on"})")["steady_s"], 5);
}

TEST_F(AdminShards, ShowWhatThePolicyWouldDoAndWhy)
{
    addNode(7, 1);
    host::reportStorageLs(2, true);
    const Json answer = json("GET", "/policy");
    EXPECT_EQ(answer["reports"][0]["ls"], 2);
    EXPECT_EQ(answer["reports"][0]["state"], "faulty");
    EXPECT_EQ(answer["plan"].dump(), R"([{"action":"migrate","ls":2,"from":2,"to":70000,"fsps":1,"in_ms":0,)"
                                     R"("why":"LS 2 is faulty, and LS 70000 is the next that runs"}])");
    const IndexHold hold;
    const Json busy = json("GET", "/policy");
    EXPECT_TRUE(busy["plan"].is_null());
    EXPECT_EQ(busy["busy"].dump(), R"(["plan"])");
    host::reportStorageLs(2, false);
}

TEST_F(AdminShards, RefuseAPolicyThatIsNone)
{
    expectRefusal(400, "mode: must be off, dry-run or on", call("PUT", "/policy", R"({"mode":"auto"})"));
    expectRefusal(400, "steady_s: must not be 0", call("PUT", "/policy", R"({"steady_s":0})"));
    expectRefusal(400, "steady_s: must be a whole number from 0 to 86400",
                  call("PUT", "/policy", R"({"steady_s":86401})"));
    expectRefusal(400, "dry: is not a field of this call", call("PUT", "/policy", R"({"dry":true})"));
    EXPECT_EQ(json("GET", "/policy")["mode"], "off");
}

// The policy's thread, as a node runs it, until the event comes that ends the test's wait.
class ShardPolicyAtWork : public AdminShards {
protected:
    void SetUp() override
    {
        AdminShards::SetUp();
        host::allowEventWaits(true);
        before_ = host::readEvents(UINT64_MAX, 0).newest;
        host::startShardPolicy();
    }
    void TearDown() override
    {
        host::stopShardPolicy();
        host::setPolicy({});
        host::reportStorageLs(2, false);
        host::noteMoveByHand(2);
    }
    // The text of the next event of module POLICY, which has that name.
    std::string await(const std::string &name)
    {
        while (true) {
            const host::EventPage page = host::readEvents(before_, 1, std::chrono::hours(1));
            before_ = page.events.at(0)->number;
            const host::EventDetails &details = page.events[0]->details;
            if (details.module == "POLICY") {
                EXPECT_EQ(details.name, name);
                return details.text;
            }
        }
    }

private:
    uint64_t before_ = 0;
};

TEST_F(ShardPolicyAtWork, MovesAwayAndTellsWhy)
{
    addNode(7, 1);
    host::reportStorageLs(2, true);
    host::setPolicy({host::PolicyMode::on, std::chrono::seconds(60)});
    EXPECT_EQ(await("MIGRATE"), "1 FSP from LS 2 to LS 70000: LS 2 is faulty, and LS 70000 is the next that runs");
    host::stopShardPolicy();
    EXPECT_THAT(g_shards.calls, ElementsAre("migrate 2 to 70000, 0"));
}

TEST_F(ShardPolicyAtWork, MovesNothingInADryRun)
{
    addNode(7, 1);
    host::setPolicy({host::PolicyMode::dryRun, std::chrono::seconds(60)});
    host::reportStorageLs(2, true);
    EXPECT_EQ(await("WOULD_MIGRATE"),
              "1 FSP would move from LS 2 to LS 70000: LS 2 is faulty, and LS 70000 is the next that runs");
    host::stopShardPolicy();
    EXPECT_THAT(g_shards.calls, IsEmpty());
}

// Whether the policy would move the FSPs of LS 2 back.
bool movedByPolicy()
{
    return host::policyView().reports.at(2).moved;
}

void runCommand(const std::string &command, int32_t result)
{
    g_node.commands = {{"nas_fmm", command, "", nullptr}};
    g_node.run = [=](const std::optional<std::string> &) { return host::CommandAnswer{result, ""}; };
    const std::string body = R"({"module":"nas_fmm","command":")" + command + R"(","value":"0x2"})";
    EXPECT_EQ(host::admin::answerRequest({"POST", "/v1/commands", body}).status, 200U);
}

TEST_F(ShardPolicyAtWork, LeavesAnLsToTheOperatorWhoMovedItByTheLibrarysCommand)
{
    addNode(7, 1);
    host::reportStorageLs(2, true);
    host::setPolicy({host::PolicyMode::on, std::chrono::seconds(60)});
    await("MIGRATE");
    host::stopShardPolicy();
    runCommand("modify_fsp_shardview", 0); // of FSP 2
    runCommand("failback_shard_view", 1);
    EXPECT_TRUE(movedByPolicy()) << "after the move of an FSP, and a command that failed";
    runCommand("failback_shard_view", 0);
    EXPECT_FALSE(movedByPolicy());
}

TEST_F(ShardPolicyAtWork, LeavesAnLsToTheOperatorWhoMovesItDuringTheMoveOfThePolicy)
{
    addNode(7, 1);
    g_shards.atMove = [] { host::noteMoveByHand(2); };
    host::reportStorageLs(2, true);
    host::setPolicy({host::PolicyMode::on, std::chrono::seconds(60)});
    await("MIGRATE");
    host::stopShardPolicy();
    EXPECT_FALSE(movedByPolicy());
}

TEST_F(ShardPolicyAtWork, GoesOnAfterMemoryWasShort)
{
    addNode(7, 1);
    recorded::clear();
    g_shards.atMove = [] {
        host::reportStorageLs(2, true); // wakes the thread as soon as it sleeps
        throw std::bad_alloc();
    };
    host::reportStorageLs(2, true);
    host::setPolicy({host::PolicyMode::on, std::chrono::seconds(60)});
    await("MIGRATE");
    host::stopShardPolicy();
    EXPECT_TRUE(movedByPolicy());
    EXPECT_THAT(recorded::lines(), testing::Contains("3 policy: no memory for the next step"));
}

TEST_F(ShardPolicyAtWork, TellsOfAMoveThatFailed)
{
    addNode(7, 1);
    g_shards.result = 1;
    host::setPolicy({host::PolicyMode::on, std::chrono::seconds(60)});
    host::reportStorageLs(2, true);
    EXPECT_THAT(await("MIGRATE_FAILED"), HasSubstr("the library moved nothing, or not all, from LS 2 to LS 70000"));
}

} // namespace
