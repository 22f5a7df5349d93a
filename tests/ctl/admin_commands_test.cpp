/*
 * The commands that ask the admin door: what they ask, and what they print.
 */
#include "answered_command.h"
#include <algorithm>

namespace {

constexpr char kStatus[] =
    R"({"node": {"id": 7, "root": "/srv/node", "pid": 4711, "version": "1.0.0", "uptime_ms": 93784999},)"
    R"( "power": {"state": 1, "name": "on"},)"
    R"( "start": [{"step": "nas_ctrl_init", "result": 0}, {"step": "NasCloudAdaptInit", "result": -22}],)"
    R"( "addresses": {"total": 4, "pending": 1},)"
    R"( "modules": [{"slot": 0, "name": "nfs", "protocol_types": [2, 3], "port": 2049, "listening": 3, "failing": 0},)"
    R"( {"slot": 10, "name": "hdfs", "protocol_types": [3], "port": 80, "listening": 12, "failing": 1}],)"
    R"( "messages": {"connections": 1, "accepted": 5, "messages": 17, "replies": 16, "malformed": 2, "undelivered": 3},)"
    R"( "memory": {"blocks": 9, "bytes": 12345},)"
    R"( "cluster": {"store": {"place": "/srv/node/var/cluster.db", "reachable": true, "error": null},)"
    R"( "connected": true, "master": 7, "view_version": 12, "clients": 3}, "busy": []})";

constexpr char kStatusTables[] = "id         7\n"
                                 "root       /srv/node\n"
                                 "pid        4711\n"
                                 "version    1.0.0\n"
                                 "uptime     1 d 2 h 3 min 4 s\n"
                                 "power      on (1)\n"
                                 "addresses  4 total, 1 pending\n"
                                 "messages   1 connections, 5 accepted, 17 messages, 16 replies, 2 malformed, 3 "
                                 "undelivered\n"
                                 "memory     9 blocks, 12345 bytes\n"
                                 "store      /srv/node/var/cluster.db\n"
                                 "master     LS 7\n"
                                 "view       version 12, 3 clients\n"
                                 "\n"
                                 "START STEP         RESULT\n"
                                 "nas_ctrl_init           0\n"
                                 "NasCloudAdaptInit     -22\n"
                                 "\n"
                                 "SLOT  MODULE  TYPES  PORT  LISTENING  FAILING\n"
                                 "   0  nfs     2,3    2049          3        0\n"
                                 "  10  hdfs    3        80         12        1\n";

constexpr char kBusyStatus[] =
    R"({"node": {"id": 7, "root": "", "pid": 1, "version": "1.0.0", "uptime_ms": 999}, "power": null, "start": null,)"
    R"( "addresses": null, "modules": null, "messages": null, "memory": {"blocks": null, "bytes": 1},)"
    R"( "cluster": {"store": {"place": "http://10.0.0.1:2379", "reachable": false, "error": "no route"},)"
    R"( "connected": false, "master": null, "view_version": null, "clients": 0},)"
    R"( "busy": ["power", "start", "addresses", "modules", "messages", "memory"]})";

constexpr char kBusyStatusTables[] = "id         7\n"
                                     "root\n"
                                     "pid        1\n"
                                     "version    1.0.0\n"
                                     "uptime     0 s\n"
                                     "power      busy\n"
                                     "addresses  busy\n"
                                     "messages   busy\n"
                                     "memory     busy blocks, 1 bytes\n"
                                     "store      http://10.0.0.1:2379 (unreachable: no route)\n"
                                     "master     not known\n"
                                     "view       none read yet, not connected\n"
                                     "\n"
                                     "start steps: busy\n"
                                     "\n"
                                     "modules: busy\n";

constexpr char kAddresses[] =
    R"({"addresses": [{"address": "192.168.1.10", "protocol_type": 3, "status": 1, "modules": [)"
    R"({"slot": 0, "name": "nfs", "state": "listening"},)"
    R"( {"slot": 1, "name": "hdfs", "state": "failing", "reason": "Address already in use"},)"
    R"( {"slot": 2, "name": "dlg", "state": "listening"},)"
    R"( {"slot": 4, "name": "nlm", "state": "failing", "reason": "Permission denied"}]},)"
    R"( {"address": "fe80::1", "protocol_type": 10, "status": 0, "modules": [)"
    R"({"slot": 0, "name": "nfs", "state": "pending", "reason": null}]},)"
    R"( {"address": "10.0.0.9", "protocol_type": 3, "status": 1, "modules": null},)"
    R"( {"address": "10.0.0.10", "protocol_type": 2, "status": 1, "modules": []}], "busy": ["modules"]})";

constexpr char kAddressTable[] =
    "ADDRESS       TYPE  STATUS  ACCEPTED BY  PENDING  FAILING\n"
    "192.168.1.10     3       1  nfs, dlg     -        hdfs (Address already in use), nlm (Permission denied)\n"
    "fe80::1         10       0  -            nfs      -\n"
    "10.0.0.9         3       1  busy         busy     busy\n"
    "10.0.0.10        2       1  -            -        -\n";

constexpr char kConfig[] = R"({"getters": [{"name": "DpcGetClusterId", "result": 0, "value": "5"},)"
                           R"( {"name": "NasGetTuning", "result": 1, "value": null},)"
                           R"( {"name": "CTRL_GetCfgLsList", "result": 0, "value": [3, 4]}]})";

constexpr char kStorage[] =
    R"({"pid": 4711, "data": "", "error": "/d.json line 3: zone_domain: is given twice", "questions": [)"
    R"({"type": 1, "name": "node addresses", "fault": "none", "value": null, "requests": 12},)"
    R"( {"type": 15, "name": "zone domain", "fault": "slow", "value": 250, "requests": 0}]})";

constexpr char kStorageTables[] = "pid     4711\n"
                                  "data    none\n"
                                  "reload  /d.json line 3: zone_domain: is given twice\n"
                                  "\n"
                                  "TYPE  QUESTION        REQUESTS  FAULT\n"
                                  "   1  node addresses        12  none\n"
                                  "  15  zone domain            0  slow 250\n";

constexpr char kCommands[] = R"({"commands": [{"module": "nas_fmm", "command": "dump", "usage": "dump SHARD"},)"
                             R"( {"module": "cloud_adapt", "command": "ls", "usage": ""}]})";

constexpr char kLog[] = R"({"threshold": 6, "classes": [6, 4, null, 3]})";

constexpr char kMemory[] =
    R"({"accounts": [{"function": "FspGetFmmBuffer", "live_blocks": 2, "live_bytes": 1024, "total_blocks": 40},)"
    R"( {"function": "nas_lifport_add", "live_blocks": 0, "live_bytes": 0, "total_blocks": 2}],)"
    R"( "blocks": 2, "bytes": 1024})";

const AnsweredRow kRows[] = {
    {"Status", {"status"}, "GET /v1/status", "", kStatus, kStatusTables},
    {"BusyStatus", {"status"}, "GET /v1/status", "", kBusyStatus, kBusyStatusTables},
    {"Addresses", {"ip", "ls"}, "GET /v1/ips", "", kAddresses, kAddressTable},
    {"NoAddresses", {"ip", "ls"}, "GET /v1/ips", "", R"({"addresses": [], "busy": []})", "no addresses\n"},
    {"BusyAddresses",
     {"ip", "ls"},
     "GET /v1/ips",
     "",
     R"({"addresses": null, "busy": ["addresses"]})",
     "addresses: busy\n"},
    {"PowerStatus", {"power", "status"}, "GET /v1/power", "", R"({"state": 2, "name": "going off"})", "going off\n"},
    {"BusyPowerStatus", {"power", "status"}, "GET /v1/power", "", "null", "busy\n"},
    {"PowerOn", {"power", "on"}, "POST /v1/power", R"({"action":"on"})", R"({"state": 1, "name": "on"})", "on\n"},
    {"PowerOff", {"power", "off"}, "POST /v1/power", R"({"action":"off"})", R"({"state": 0, "name": "off"})", "off\n"},
    {"Clusters",
     {"cluster", "ls"},
     "GET /v1/clusters",
     "",
     R"({"clusters": ["5", "18446744073709551615"], "busy": []})",
     "             CLUSTER\n"
     "                   5\n"
     "18446744073709551615\n"},
    {"NoClusters",
     {"cluster", "ls"},
     "GET /v1/clusters",
     "",
     R"({"clusters": [], "busy": []})",
     "no remote clusters\n"},
    {"BusyClusters",
     {"cluster", "ls"},
     "GET /v1/clusters",
     "",
     R"({"clusters": null, "busy": ["clusters"]})",
     "clusters: busy\n"},
    {"ClusterAdded",
     {"cluster", "add", "0x10"},
     "POST /v1/clusters",
     R"({"id":"16"})",
     R"({"clusters": ["16"], "busy": []})",
     "CLUSTER\n     16\n"},
    {"ClusterRemoved",
     {"cluster", "rm", "5"},
     "DELETE /v1/clusters/5",
     "",
     R"({"clusters": ["9"], "busy": []})",
     "CLUSTER\n      9\n"},
    {"Config",
     {"config"},
     "GET /v1/config",
     "",
     kConfig,
     "GETTER             RESULT  VALUE\n"
     "DpcGetClusterId         0  5\n"
     "NasGetTuning            1  -\n"
     "CTRL_GetCfgLsList       0  3,4\n"},
    {"Commands",
     {"cmd"},
     "GET /v1/commands",
     "",
     kCommands,
     "MODULE       COMMAND  USAGE\n"
     "nas_fmm      dump     dump SHARD\n"
     "cloud_adapt  ls\n"},
    {"CommandWithValue",
     {"cmd", "-m", "nas_fmm", "-c", "dump", "-v", "-5 %% {}"},
     "POST /v1/commands",
     R"({"command":"dump","module":"nas_fmm","value":"-5 %% {}"})",
     R"({"result": 0, "text": "a\tb\nc \u001b[2J"})",
     "a\tb\nc \\x1b[2J\n"},
    {"CommandWithoutValue",
     {"cmd", "--module", "cloud_adapt", "--command", "ls"},
     "POST /v1/commands",
     R"({"command":"ls","module":"cloud_adapt"})",
     R"({"result": 0, "text": "done\n"})",
     "done\n"},
    {"CommandWithEmptyValue",
     {"cmd", "-m", "cloud_adapt", "-c", "ls", "-v", ""},
     "POST /v1/commands",
     R"({"command":"ls","module":"cloud_adapt","value":""})",
     R"({"result": 0, "text": ""})",
     ""},
    {"LogLevels",
     {"log", "level"},
     "GET /v1/log",
     "",
     kLog,
     "CLASS      LEVEL\n"
     "threshold      6\n"
     "0              6\n"
     "1              4\n"
     "2           busy\n"
     "3              3\n"},
    {"LevelOfAClass", {"log", "level", "--class", "1"}, "GET /v1/log", "", kLog, "4\n"},
    {"NewThreshold",
     {"log", "level", "5"},
     "PUT /v1/log",
     R"({"threshold":5})",
     R"({"threshold": 5, "classes": [6]})",
     "CLASS      LEVEL\n"
     "threshold      5\n"
     "0              6\n"},
    {"NewLevelOfAClass",
     {"log", "level", "0", "--class", "3"},
     "PUT /v1/log",
     R"({"class":3,"level":0})",
     R"({"threshold": 5, "classes": []})",
     "CLASS      LEVEL\n"
     "threshold      5\n"},
    {"Memory",
     {"mem"},
     "GET /v1/memory",
     "",
     kMemory,
     "FUNCTION         LIVE BLOCKS  LIVE BYTES  TOTAL BLOCKS\n"
     "FspGetFmmBuffer            2        1024            40\n"
     "total                      2        1024            42\n"},
    {"AllMemory",
     {"mem", "--all"},
     "GET /v1/memory",
     "",
     kMemory,
     "FUNCTION         LIVE BLOCKS  LIVE BYTES  TOTAL BLOCKS\n"
     "FspGetFmmBuffer            2        1024            40\n"
     "nas_lifport_add            0           0             2\n"
     "total                      2        1024            42\n"},
    {"StorageStatus", {"storage", "status"}, "GET /v1/storage/faults", "", kStorage, kStorageTables},
    {"FaultOfAType",
     {"storage", "fault", "3", "slow", "250"},
     "POST /v1/storage/faults",
     R"({"fault":"slow","type":3,"value":250})",
     kStorage,
     kStorageTables},
    {"FaultOfAllTypes",
     {"storage", "fault", "all", "timeout"},
     "POST /v1/storage/faults",
     R"({"fault":"timeout","type":"all"})",
     kStorage,
     kStorageTables},
    {"FaultWithoutAType",
     {"storage", "fault", "fail", "-110"},
     "POST /v1/storage/faults",
     R"({"fault":"fail","type":"all","value":110})",
     kStorage,
     kStorageTables},
    {"BusyMemory",
     {"mem"},
     "GET /v1/memory",
     "",
     R"({"accounts": null, "blocks": null, "bytes": null})",
     "accounts: busy\n"},
};

INSTANTIATE_TEST_SUITE_P(Admin, AnsweredCommand, testing::ValuesIn(kRows), rowName);

class Config : public NasctlTest {};

TEST_F(Config, PrintsTheNamedGettersInTheOrderOfTheirNames)
{
    node_.answer(kConfig);
    EXPECT_EQ(run({"config", "CTRL_GetCfgLsList", "DpcGetClusterId"}), (Outcome{"GETTER             RESULT  VALUE\n"
                                                                                "CTRL_GetCfgLsList       0  3,4\n"
                                                                                "DpcGetClusterId         0  5\n",
                                                                                "", 0}));
}

TEST_F(Config, KeepsTheShapeOfNamedGettersWithJson)
{
    node_.answer(kConfig);
    EXPECT_EQ(run({"config", "NasGetTuning", "--json"}),
              (Outcome{R"({"getters":[{"name":"NasGetTuning","result":1,"value":null}]})"
                       "\n",
                       "", 0}));
}

TEST_F(Config, SuggestsTheNearestGetter)
{
    node_.answer(kConfig);
    EXPECT_EQ(run({"config", "DpcGetClusterID"}),
              (Outcome{"", "nasctl: config: DpcGetClusterID: no such getter; did you mean DpcGetClusterId?\n", 2}));
}

TEST_F(Config, NamesAGetterThatIsLikeNoOther)
{
    node_.answer(kConfig);
    EXPECT_EQ(run({"config", "Whatever"}),
              (Outcome{"", "nasctl: config: Whatever: no such getter; nasctl config lists them\n", 2}));
}

class Cluster : public NasctlTest {};

TEST_F(Cluster, ManyAreAddedOneByOneAndTheLastListIsPrinted)
{
    node_.answer(R"({"clusters": ["5"], "busy": []})");
    node_.answer(R"({"clusters": ["5", "9"], "busy": []})");
    EXPECT_EQ(run({"cluster", "add", "5", "9"}), (Outcome{"CLUSTER\n      5\n      9\n", "", 0}));
    const auto asked = node_.requests();
    ASSERT_EQ(asked.size(), 2U);
    EXPECT_EQ(asked[0].body, R"({"id":"5"})");
    EXPECT_EQ(asked[1].body, R"({"id":"9"})");
}

TEST_F(Cluster, TheFirstRefusalEndsTheCommandAndTheListSoFarIsPrinted)
{
    node_.answer(R"({"clusters": ["5"], "busy": []})");
    node_.answer(R"({"error": "the list is full"})", 400);
    EXPECT_EQ(run({"cluster", "add", "5", "9", "11"}),
              (Outcome{"CLUSTER\n      5\n", "nasctl: cluster add: 9: refused by the node: the list is full\n", 1}));
    EXPECT_EQ(node_.requests().size(), 2U);
}

TEST_F(Cluster, NothingIsSentWhenOneIdIsBad)
{
    run({"cluster", "rm", "5", "x"});
    EXPECT_EQ(node_.requests(), std::vector<HttpRequest>());
}

class Command : public NasctlTest {};

TEST_F(Command, ItsTextIsPrintedAlsoWhenItFailed)
{
    node_.answer(R"({"result": -22, "text": "no such shard"})");
    EXPECT_EQ(
        run({"cmd", "-m", "nas_fmm", "-c", "dump"}),
        (Outcome{
            "no such shard\n",
            "nasctl: cmd: nas_fmm dump: result -22 (Invalid argument); nasctl cmd lists the commands and their usage\n",
            1}));
}

TEST_F(Command, ItsFailureIsExitCode1WithJsonToo)
{
    node_.answer(R"({"result": 1, "text": ""})");
    EXPECT_EQ(run({"cmd", "-m", "nas_fmm", "-c", "dump", "--json"}),
              (Outcome{"{\"result\": 1, \"text\": \"\"}\n",
                       "nasctl: cmd: nas_fmm dump: result 1; nasctl cmd lists the commands and their usage\n", 1}));
}

class Output : public NasctlTest {};

TEST_F(Output, OnATerminalTitlesAreBoldAndFailuresRed)
{
    node_.answer(kAddresses);
    const Outcome outcome = run({"ip", "ls"}, {.terminal = true});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_TRUE(outcome.out.starts_with("\033[1mADDRESS       TYPE  STATUS  ACCEPTED BY  PENDING  FAILING\033[0m\n"
                                        "192.168.1.10     3       1  nfs, dlg     -        \033[31mhdfs (Address "
                                        "already in use), nlm (Permission denied)\033[0m\n"))
        << outcome.out;
}

TEST_F(Output, JsonHasNoColoursOnATerminal)
{
    node_.answer(kLog);
    EXPECT_EQ(run({"log", "level", "--json"}, {.terminal = true}), (Outcome{kLog + std::string("\n"), "", 0}));
}

TEST_F(Output, ThatCannotBeWrittenIsAFailure)
{
    node_.answer(kLog);
    EXPECT_EQ(run({"log", "level"}, {.outputFile = "/dev/full"}),
              (Outcome{"", "nasctl: log level: cannot write to standard output (No space left on device)\n", 1}));
}

TEST_F(Output, ANewlineAtTheEndOfAnAnswerIsNotDoubled)
{
    node_.answer("{\"state\": 1, \"name\": \"on\"}\n");
    EXPECT_EQ(run({"power", "status", "--json"}), (Outcome{"{\"state\": 1, \"name\": \"on\"}\n", "", 0}));
}

TEST_F(Output, DoesNotDependOnTheEnvironment)
{
    node_.answer(R"({"state": 1, "name": "on"})");
    EXPECT_EQ(run({"power", "status"},
                  {.environment = {"http_proxy=http://127.0.0.1:1", "ALL_PROXY=http://127.0.0.1:1", "LC_ALL=C"}}),
              (Outcome{"on\n", "", 0}));
}

class Sockets : public NasctlTest {};

TEST_F(Sockets, TheirOwnOptionsWinOverTheRoot)
{
    node_.answer(R"({"state": 1, "name": "on"})");
    node_.answerMessage(echo);
    EXPECT_EQ(runNasctl({"power", "status", "--root", "/nonexistent", "--admin-socket", adminSocket()}),
              (Outcome{"on\n", "", 0}));
    EXPECT_EQ(runNasctl({"--message-socket", messageSocket(), "ip", "add", "::1", "--root=/nonexistent"}),
              (Outcome{"::1: addition queued\n", "", 0}));
}

TEST_F(Sockets, ARequestWithABodySaysThatItIsJson)
{
    node_.answer(R"({"state": 1, "name": "on"})");
    run({"power", "on"});
    ASSERT_EQ(node_.requests().size(), 1U);
    EXPECT_NE(node_.requests()[0].headers.find("\r\nContent-Type: application/json\r\n"), std::string::npos);
}

} // namespace
