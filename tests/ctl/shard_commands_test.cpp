/*
 * nasctl shard and nasctl fmm.
 */
#include "answered_command.h"

namespace {

constexpr char kShards[] =
    R"({"local_ls":2,"partitions":3,"shards":[)"
    R"({"shard":0,"ls":1,"address":"127.0.0.1","status":"FAULT","takeover_ls":2,"fsps":0},)"
    R"({"shard":1,"ls":2,"address":"127.0.0.2","status":"NORMAL","takeover_ls":null,"fsps":null}],"busy":["fsps"]})";

constexpr char kMove[] =
    R"({"from":1,"to":70000,"result":0,"empty_index":false,)"
    R"("moved":[{"fsp":5,"from_shard":0,"to_shard":2,"version":1},{"fsp":6,"from_shard":0,"to_shard":2,"version":9}],)"
    R"("took_us":112,"told":[)"
    R"({"number":41,"time_ms":1,"module":"DLG","event":"VNODE_MOVEOUT","data":"0","text":"",)"
    R"("moves":[{"fsp":5,"shard":2,"from":1,"to":4464}],"move_count":2,"after_us":204},)"
    R"({"number":42,"time_ms":1,"module":"FMM","event":"NODE_FAULT","data":"1","text":"","moves":[],"move_count":0,)"
    R"("after_us":1300}],"untold":[],"shortened":[{"ls":70000,"in_events":4464}]})";
constexpr char kMoveText[] = "LS 1 to LS 70000: 2 FSPs moved in 0.112 ms\n"
                             "FSP  FROM SHARD  TO SHARD  VERSION\n"
                             "  5           0         2        1\n"
                             "  6           0         2        9\n"
                             "EVENT  TOLD  OF                AFTER  ABOUT\n"
                             "   41  DLG   VNODE_MOVEOUT  0.204 ms  2 moved; FSP 5 to shard 2, LS 1 to 4464; ...\n"
                             "   42  FMM   NODE_FAULT     1.300 ms  LS 1\n"
                             "LS 70000 is LS 4464 in the moves of events, which have 16 bits for it\n";

constexpr char kNothing[] = R"({"from":1,"to":2,"result":0,"empty_index":true,"moved":[],"took_us":3,"told":[],)"
                            R"("untold":[],"shortened":[]})";

constexpr char kPlaced[] = R"({"fsp":5,"known":true,"shard":1,"ls":2,"address":"127.0.0.2","version":3,"next_ls":3})";
constexpr char kPlacedText[] = "FSP      5\n"
                               "shard    1\n"
                               "LS       2\n"
                               "address  127.0.0.2\n"
                               "version  3\n"
                               "next LS  3\n";

constexpr char kPolicy[] =
    R"({"mode":"dry-run","steady_s":5,"reports":[{"ls":2,"state":"faulty","age_ms":3999,"moved":false},)"
    R"({"ls":3,"state":"running","age_ms":0,"moved":true}],"plan":[)"
    R"({"action":"migrate","ls":2,"from":2,"to":1,"fsps":7,"in_ms":0,"why":"LS 2 is faulty"},)"
    R"({"action":"failback","ls":3,"from":1,"to":3,"fsps":1,"in_ms":2500,"why":"LS 3 is back"},)"
    R"({"action":"failback","ls":4,"from":1,"to":4,"fsps":1,"in_ms":null,"why":"LS 4 is back, but"}],"busy":[]})";
constexpr char kPolicyText[] = "policy dry-run, back after 5 s of steady running\n"
                               "LS  REPORTED  FOR  MOVED BY THE POLICY\n"
                               " 2  faulty    3 s  no\n"
                               " 3  running   0 s  yes\n"
                               "PLAN      LS  FROM  TO  FSPS  DUE     WHY\n"
                               "migrate    2     2   1     7  now     LS 2 is faulty\n"
                               "failback   3     1   3     1  in 2 s  LS 3 is back\n"
                               "failback   4     1   4     1  waits   LS 4 is back, but\n";
constexpr char kNoPolicy[] = R"({"mode":"off","steady_s":60,"reports":[],"plan":[],"busy":[]})";
constexpr char kNoPolicyText[] = "policy off, back after 60 s of steady running\nnothing is to be moved\n";

constexpr char kTold[] =
    R"({"shard_changes":{"subscribed":true,"announced":1},"faulty_processes":[],"recoveries":0,"told":[)"
    R"({"number":7,"time_ms":1,"module":"FMM","event":"NODE_FAULT","data":"9","text":"","moves":[],"move_count":0,)"
    R"("after_us":50}],"untold":[],"serves_shard":false})";

const AnsweredRow kRows[] = {
    {"Shards",
     {"shard", "ls"},
     "GET /v1/shards",
     "",
     kShards,
     "SHARD  LS  ADDRESS    STATUS  FSPS  WENT TO LS\n"
     "    0   1  127.0.0.1  FAULT      0           2\n"
     "    1   2  127.0.0.2  NORMAL  busy           -  this node\n"},
    {"NoShards",
     {"shard", "ls"},
     "GET /v1/shards",
     "",
     R"({"local_ls":2,"partitions":3,"shards":[],"busy":[]})",
     "no shards\n"},
    {"Index",
     {"shard", "show"},
     "GET /v1/shards/index",
     "",
     R"({"fsps":[{"fsp":5,"shard":1,"ls":2,"version":18446744073709551615}],"room":4096,"busy":[]})",
     "FSP  SHARD  LS               VERSION\n"
     "  5      1   2  18446744073709551615\n"
     "1 of 4096 places are taken\n"},
    {"EmptyIndex",
     {"shard", "show"},
     "GET /v1/shards/index",
     "",
     R"({"fsps":[],"room":4096,"busy":[]})",
     "0 of 4096 places are taken\n"},
    {"BusyIndex",
     {"shard", "show"},
     "GET /v1/shards/index",
     "",
     R"({"fsps":null,"room":4096,"busy":["fsps"]})",
     "the index is busy, ask again\n"},
    {"Fsp", {"shard", "fsp", "0x5"}, "GET /v1/shards/fsps/5", "", kPlaced, kPlacedText},
    {"FspThatIsNotPlaced",
     {"shard", "fsp", "5"},
     "GET /v1/shards/fsps/5",
     "",
     R"({"fsp":5,"known":false,"shard":1,"ls":2,"address":"a","version":null,"next_ls":3})",
     "FSP      5\nshard    1\nLS       2\naddress  a\nversion  -\nnext LS  3\n"
     "it is not in the index; this is where its first look-up puts it\n"},
    {"FspPlaced", {"shard", "fsp", "5", "--place"}, "POST /v1/shards/fsps", R"({"fsp":5})", kPlaced, kPlacedText},
    {"Migration",
     {"shard", "migrate", "1", "--to", "70000"},
     "POST /v1/shards/migrate",
     R"({"ls":1,"to":70000})",
     kMove,
     kMoveText},
    {"MigrationToTheNextLs",
     {"shard", "migrate", "1"},
     "POST /v1/shards/migrate",
     R"({"ls":1})",
     kNothing,
     "the index is empty: nothing moved, nothing was marked, and nobody was told\n"},
    {"Failback", {"shard", "failback", "1"}, "POST /v1/shards/failback", R"({"ls":1})", kMove, kMoveText},
    {"FspMove",
     {"shard", "move-fsp", "5", "--to", "2"},
     "POST /v1/shards/move",
     R"({"fsp":5,"to":2})",
     kMove,
     kMoveText},
    {"FspMoveToWhereItIs",
     {"shard", "move-fsp", "5", "--to", "2"},
     "POST /v1/shards/move",
     R"({"fsp":5,"to":2})",
     R"({"from":2,"to":2,"result":0,"empty_index":false,"moved":[],"took_us":3,"told":[],"untold":[],"shortened":[]})",
     "it is on LS 2 already: nothing moved, and nobody was told\n"},
    {"Policy", {"shard", "policy"}, "GET /v1/shards/policy", "", kPolicy, kPolicyText},
    {"PolicyOfADryRun", {"shard", "policy", "--dry-run"}, "GET /v1/shards/policy", "", kPolicy, kPolicyText},
    {"PolicyOn",
     {"shard", "policy", "on", "--steady", "5"},
     "PUT /v1/shards/policy",
     R"({"mode":"on","steady_s":5})",
     kPolicy,
     kPolicyText},
    {"PolicyOnForADryRun",
     {"shard", "policy", "on", "--dry-run"},
     "PUT /v1/shards/policy",
     R"({"mode":"dry-run"})",
     kPolicy,
     kPolicyText},
    {"PolicyOff", {"shard", "policy", "off"}, "PUT /v1/shards/policy", R"({"mode":"off"})", kNoPolicy, kNoPolicyText},
    {"PolicyOfABusyIndex",
     {"shard", "policy"},
     "GET /v1/shards/policy",
     "",
     R"({"mode":"on","steady_s":60,"reports":[],"plan":null,"busy":["plan"]})",
     "policy on, back after 60 s of steady running\n"
     "the index is busy, so the plan is not known; ask again\n"},
    {"FmmStatus",
     {"fmm", "status"},
     "GET /v1/fmm",
     "",
     R"({"shard_changes":{"subscribed":true,"announced":1},"faulty_processes":[{"ls":9,"age_ms":1500}],"recoveries":2})",
     "1 shard change announced\n2 recoveries\nFAULTY LS  FOR\n        9  1 s\n"},
    {"FmmStatusInTheSingular",
     {"fmm", "status"},
     "GET /v1/fmm",
     "",
     R"({"shard_changes":{"subscribed":true,"announced":0},"faulty_processes":[],"recoveries":1})",
     "0 shard changes announced\n1 recovery\nno process is faulty\n"},
    {"FmmEvent",
     {"fmm", "node-fault", "9"},
     "POST /v1/fmm",
     R"({"event":"node-fault","ls":9})",
     kTold,
     "EVENT  TOLD  OF             AFTER  ABOUT\n"
     "    7  FMM   NODE_FAULT  0.050 ms  LS 9\n"
     "LS 9 serves no shard, so the shard policy leaves it alone\n"},
};

INSTANTIATE_TEST_SUITE_P(Shards, AnsweredCommand, testing::ValuesIn(kRows), rowName);

class FmmEvents : public NasctlTest {};

TEST_F(FmmEvents, AreAskedForByTheirNames)
{
    const std::string answer = R"({"told":[],"untold":[],"serves_shard":null})";
    const struct {
        std::vector<std::string> words;
        std::string body;
    } kEvents[] = {
        {{"fmm", "shard-change"}, R"({"event":"shard-change"})"},
        {{"fmm", "vnode-move-in"}, R"({"event":"vnode-move-in"})"},
        {{"fmm", "vnode-move-out"}, R"({"event":"vnode-move-out"})"},
        {{"fmm", "node-recover", "4294967295"}, R"({"event":"node-recover","ls":4294967295})"},
    };
    for (const auto &row : kEvents) {
        node_.answer(answer);
        EXPECT_EQ(run(row.words), (Outcome{"", "", 0})) << row.body;
        EXPECT_EQ(node_.requests().back().body, row.body);
    }
}

TEST_F(FmmEvents, ThatDoNotComeInTimeFailTheCommand)
{
    node_.answer(R"({"told":[],"untold":[{"module":"DLG","event":"VNODE_MOVEIN","data":"0"}],"serves_shard":null})");
    EXPECT_EQ(run({"fmm", "vnode-move-in"}),
              (Outcome{"DLG was not told of VNODE_MOVEIN in time; the node's log tells why\n", "", 1}));
}

class ShardMoves : public NasctlTest {};

TEST_F(ShardMoves, ThatTheLibraryCutShortFailTheCommand)
{
    node_.answer(R"({"from":1,"to":2,"result":1,"empty_index":false,"moved":null,"took_us":5,"told":[],)"
                 R"("untold":[{"module":"FMM","event":"SHARD_CHG","data":"0"}],"shortened":[]})");
    EXPECT_EQ(run({"shard", "migrate", "1"}),
              (Outcome{"LS 1 to LS 2: FSPs moved in 0.005 ms\n"
                       "the index is busy; nasctl shard show tells later what moved\n"
                       "FMM was not told of SHARD_CHG in time; the node's log tells why\n",
                       "nasctl: shard migrate: the library's call failed with 1, the node's log tells why; what moved "
                       "stays moved\n",
                       1}));
}

} // namespace
