/*
 * The commands about the monitor, one address, LIF ports and the storage-side service: what each asks the node, and
 * what people and programs get to see.
 */
#include "answered_command.h"

namespace {

constexpr char kMonitor[] =
    R"({"period_s": 60, "last_pass": {"age_ms": 1250, "result": 0},)"
    R"( "next_pass": {"in_ms": 58750, "sleep_s": 60, "early": false}, "retry": false, "why": null, "failing": []})";

constexpr char kHurriedMonitor[] =
    R"({"period_s": 60, "last_pass": {"age_ms": 7000, "result": -110},)"
    R"( "next_pass": {"in_ms": 0, "sleep_s": 5, "early": true}, "retry": true,)"
    R"( "why": "the node's addresses could not be read (-110).",)"
    R"( "failing": [{"address": "10.0.0.1", "slot": 1, "name": "hdfs", "reason": "Address already in use"}]})";

constexpr char kExplanation[] =
    R"({"address": "10.0.0.1", "family": "IPv4", "entries": [{"address": "10.0.0.1", "protocol_type": 3,)"
    R"( "status": 61, "modules": [{"slot": 0, "name": "nfs", "state": "listening"},)"
    R"( {"slot": 1, "name": "hdfs", "state": "failing", "reason": "Address already in use"}],)"
    R"( "verdict": "refused"}], "why_unknown": null, "next_try_ms": 4000,)"
    R"( "lif_ports": [{"id": "5", "name": "eth0"}, {"id": "6", "name": "eth1"}], "busy": []})";

constexpr char kUnknown[] =
    R"({"address": "::1", "family": "IPv6", "entries": [], "why_unknown": "no notice announced it",)"
    R"( "next_try_ms": null, "lif_ports": [], "busy": []})";

constexpr char kBusyExplanation[] =
    R"({"address": "::1", "family": "IPv6", "entries": null, "why_unknown": null, "next_try_ms": null,)"
    R"( "lif_ports": [], "busy": ["entries", "lif_ports"]})";

constexpr char kPorts[] =
    R"({"ports": [{"id": "5", "index": 17, "name": "eth0", "address": "10.0.0.1", "time": "123", "performance": true},)"
    R"( {"id": "18446744073709551615", "index": 8191, "name": "a\nb", "address": "fd00::1", "time": "0",)"
    R"( "performance": false}], "busy_buckets": [], "busy": []})";

constexpr char kPortTable[] = "                  ID  INDEX  NAME  ADDRESS   TIME  PERFORMANCE\n"
                              "                   5     17  eth0  10.0.0.1   123  on\n"
                              "18446744073709551615   8191  a\\nb  fd00::1      0  off\n";

constexpr char kAdded[] =
    R"({"index": 17, "port": {"id": "5", "index": 17, "name": "eth0", "address": "10.0.0.1", "time": "9",)"
    R"( "performance": true}})";

constexpr char kAddedTable[] = "ID  INDEX  NAME  ADDRESS   TIME  PERFORMANCE\n"
                               " 5     17  eth0  10.0.0.1     9  on\n";

constexpr char kName[] =
    R"({"name": "N", "store": {"place": "/c.db", "reachable": true, "error": "an old one"}, "version": 3,)"
    R"( "local": {"version": 2, "fl": 5, "seq": 9}, "published": 4})";

constexpr char kNameTable[] = "name        N\n"
                              "store       /c.db\n"
                              "version     3\n"
                              "local copy  version 2, FL 5, seq 9\n"
                              "published   4 by this node\n";

constexpr char kZone[] =
    R"({"question": "zone", "code": 0, "reason": null, "answer": {"result": 0, "count": 2, "entries": [)"
    R"({"address": "10.0.0.1", "protocol_type": 3, "work_status": 1},)"
    R"( {"address": "fd00::1", "protocol_type": 10, "work_status": 0}], "rest": null}})";

constexpr char kZoneTable[] = "result  0\n"
                              "count   2\n"
                              "\n"
                              "ADDRESS   PROTOCOL TYPE  WORK STATUS\n"
                              "10.0.0.1              3            1\n"
                              "fd00::1              10            0\n";

constexpr char kConfiguration[] =
    R"({"question": "conf", "code": 0, "reason": null, "answer": {"result": 0, "fs_id": 7, "dtree_path": "/a",)"
    R"( "subnet": "", "tenant_id": null, "rest": {"hex": "6101", "text": "a."}}})";

const AnsweredRow kRows[] = {
    {"Monitor",
     {"ip", "monitor"},
     "GET /v1/monitor",
     "",
     kMonitor,
     "period     60 s\n"
     "last pass  1.2 s ago\n"
     "next pass  in 58.7 s, 60 s after the last\n"
     "then       a period after it\n"
     "hurry      -\n"},
    {"HurriedMonitor",
     {"ip", "monitor"},
     "GET /v1/monitor",
     "",
     kHurriedMonitor,
     "period     60 s\n"
     "last pass  7.0 s ago, the node's addresses could not be read (-110)\n"
     "next pass  due, 5 s after the last, early\n"
     "then       5 s after it\n"
     "hurry      the node's addresses could not be read (-110).\n"
     "\n"
     "ADDRESS   SLOT  MODULE  REASON\n"
     "10.0.0.1     1  hdfs    Address already in use\n"},
    {"MonitorBeforeItsFirstPass",
     {"ip", "monitor"},
     "GET /v1/monitor",
     "",
     R"({"period_s": 1, "last_pass": null, "next_pass": null, "retry": true, "why": "x", "failing": []})",
     "period     1 s\n"
     "last pass  none yet\n"
     "next pass  at once\n"
     "then       5 s after it\n"
     "hurry      x\n"},
    {"MonitorDuringItsQuery",
     {"ip", "monitor"},
     "GET /v1/monitor",
     "",
     R"({"period_s": 1, "last_pass": {"age_ms": 99, "result": null}, "next_pass": null, "retry": false,)"
     R"( "why": null, "failing": []})",
     "period     1 s\n"
     "last pass  0.0 s ago, waits for the node's addresses\n"
     "next pass  at once\n"
     "then       a period after it\n"
     "hurry      -\n"},
    {"NewPeriod",
     {"ip", "monitor", "--period", "0x1e"},
     "PUT /v1/monitor",
     R"({"period":30})",
     kMonitor,
     "period     60 s\n"
     "last pass  1.2 s ago\n"
     "next pass  in 58.7 s, 60 s after the last\n"
     "then       a period after it\n"
     "hurry      -\n"},
    {"Explanation",
     {"ip", "explain", "10.0.0.1"},
     "GET /v1/ips/10.0.0.1",
     "",
     kExplanation,
     "address    10.0.0.1 (IPv4)\n"
     "known      yes\n"
     "next try   in 4.0 s\n"
     "LIF ports  5 (eth0), 6 (eth1)\n"
     "\n"
     "LISTED AS  TYPE  STATUS  ACCEPTED BY  PENDING  FAILING                        VERDICT\n"
     "10.0.0.1      3      61  nfs          -        hdfs (Address already in use)  refused\n"},
    {"UnknownAddress",
     {"ip", "explain", "::1"},
     "GET /v1/ips/::1",
     "",
     kUnknown,
     "address    ::1 (IPv6)\n"
     "known      no: no notice announced it\n"
     "next try   -\n"
     "LIF ports  -\n"},
    {"BusyAddress",
     {"ip", "explain", "::1"},
     "GET /v1/ips/::1",
     "",
     kBusyExplanation,
     "address    ::1 (IPv6)\n"
     "known      busy\n"
     "next try   -\n"
     "LIF ports  - (part of the table is busy)\n"},
    {"Ports", {"lif", "ls"}, "GET /v1/lif", "", kPorts, kPortTable},
    {"NoPorts", {"lif", "ls"}, "GET /v1/lif", "", R"({"ports": [], "busy_buckets": [], "busy": []})", "no LIF ports\n"},
    {"BusyPorts",
     {"lif", "ls"},
     "GET /v1/lif",
     "",
     R"({"ports": [], "busy_buckets": [5, 9], "busy": ["ports"]})",
     "busy: 2 of 256 parts of the table are left out\n"},
    {"AddedPort",
     {"lif", "add", "5", "eth0", "10.0.0.1"},
     "POST /v1/lif",
     R"({"address":"10.0.0.1","id":"5","name":"eth0"})",
     kAdded,
     kAddedTable},
    {"PortAddedWithATime",
     {"lif", "add", "0x5", "", "::1", "--time", "9"},
     "POST /v1/lif",
     R"({"address":"::1","id":"5","name":"","time":"9"})",
     kAdded,
     kAddedTable},
    {"PortAddedUnderAHold",
     {"lif", "add", "5", "eth0", "::1"},
     "POST /v1/lif",
     R"({"address":"::1","id":"5","name":"eth0"})",
     R"({"index": 17, "port": null})",
     "index 17\n"},
    {"DeletedPort",
     {"lif", "del", "10.0.0.1"},
     "DELETE /v1/lif/10.0.0.1",
     "",
     R"({"removed": ["5"], "left": ["6"]})",
     "5: removed\n"},
    {"PortDeletedWithATime",
     {"lif", "del", "::1", "--time", "9"},
     "DELETE /v1/lif/::1",
     R"({"time":"9"})",
     R"({"removed": ["5"], "left": []})",
     "5: removed\n"},
    {"IndexOfAPort",
     {"lif", "find", "5"},
     "GET /v1/lif/index/5",
     "",
     R"({"id": "5", "index": 17, "known": true})",
     "17\n"},
    {"NameOfAPort",
     {"lif", "name", "5"},
     "GET /v1/lif/name/5",
     "",
     R"({"id": "5", "name": "eth0", "known": true})",
     "eth0\n"},
    {"Vpcs",
     {"vpc", "ls"},
     "GET /v1/vpc",
     "",
     R"({"records": [{"slot": 0, "id": "vpc-a", "address": "10.1.0.0", "length": 16},)"
     R"( {"slot": 12, "id": "b\n", "address": "x", "length": -1}]})",
     "SLOT  ID     NETWORK\n"
     "   0  vpc-a  10.1.0.0/16\n"
     "  12  b\\n    x/-1\n"},
    {"NoVpcs", {"vpc", "ls"}, "GET /v1/vpc", "", R"({"records": []})", "no VPC records\n"},
    {"VpcThatIsAdded",
     {"vpc", "add", "vpc-a", "10.1.0.0/16"},
     "POST /v1/vpc",
     R"({"id":"vpc-a","network":"10.1.0.0/16"})",
     R"({"added": true, "record": {"slot": 0, "id": "vpc-a", "address": "10.1.0.0", "length": 16}})",
     "SLOT  ID     NETWORK\n"
     "   0  vpc-a  10.1.0.0/16\n"},
    {"VpcThatIsThere",
     {"vpc", "add", "vpc-a", "10.1.0.0/16"},
     "POST /v1/vpc",
     R"({"id":"vpc-a","network":"10.1.0.0/16"})",
     R"({"added": false, "record": {"slot": 3, "id": "vpc-a", "address": "10.1.0.0", "length": 16}})",
     "SLOT  ID     NETWORK\n"
     "   3  vpc-a  10.1.0.0/16\n"
     "it was there already\n"},
    {"VpcOfAnAddress",
     {"vpc", "lookup", "10.1.7.9"},
     "GET /v1/vpc/of/10.1.7.9",
     "",
     R"({"address": "10.1.7.9", "id": "vpc-a", "default": false})",
     "vpc-a\n"},
    {"VpcWithoutAName",
     {"vpc", "lookup", "255.255.255.255"},
     "GET /v1/vpc/of/255.255.255.255",
     "",
     R"({"address": "255.255.255.255", "id": "", "default": false})",
     "\"\"\n"},
    {"VpcIdThatIsKnown",
     {"vpc", "check", "vpc-a"},
     "POST /v1/vpc/check",
     R"({"id":"vpc-a"})",
     R"({"id": "vpc-a", "known": true})",
     "known\n"},
    {"ClearedVpcs",
     {"vpc", "clear"},
     "DELETE /v1/vpc",
     "",
     R"({"removed": 1})",
     "1 record removed; the file stays as it is\n"},
    {"SavedVpcs",
     {"vpc", "save"},
     "POST /v1/vpc/save",
     "",
     R"({"file": "/n/opt/dr/config/vpc.local.conf", "records": 2, "left_bytes": 0})",
     "2 records saved in /n/opt/dr/config/vpc.local.conf\n"},
    {"VpcsSavedOverALongerText",
     {"vpc", "save"},
     "POST /v1/vpc/save",
     "",
     R"({"file": "/f", "records": 1, "left_bytes": 40})",
     "1 record saved in /f; 40 bytes of an older, longer text stay behind them\n"},
    {"ReloadedVpcs",
     {"vpc", "reload"},
     "POST /v1/vpc/reload",
     "",
     R"({"file": "/f", "added": 0, "records": 4})",
     "0 records added from /f; 4 in the table\n"},
    {"Zone", {"hdfs", "zone"}, "POST /v1/ask/zone", "", kZone, kZoneTable},
    {"NodeAddresses", {"ip", "node"}, "POST /v1/ask/node-ips", "", kZone, kZoneTable},
    {"Interfaces", {"ifaces"}, "POST /v1/ask/ifaces", "", kZone, kZoneTable},
    {"NodeIds", {"hdfs", "node-ids"}, "POST /v1/ask/node-ids", "", kZone, kZoneTable},
    {"Domain", {"hdfs", "domain"}, "POST /v1/ask/domain", "", kZone, kZoneTable},
    {"Contacted", {"hdfs", "contacted"}, "POST /v1/ask/contacted", "", kZone, kZoneTable},
    {"Neighbours", {"hdfs", "neighbors", "6"}, "POST /v1/ask/neighbors", R"({"eds_ls_id":6})", kZone, kZoneTable},
    {"GlobalZone",
     {"hdfs", "global-zone", "s", "--fs-id", "1", "--tenant-id", "2"},
     "POST /v1/ask/global-zone",
     R"({"fs_id":1,"subnet":"s","tenant_id":2})",
     kZone,
     kZoneTable},
    {"Subnet",
     {"hdfs", "subnet", "10.0.0.0/24"},
     "POST /v1/ask/subnet",
     R"({"fs_id":0,"subnet":"10.0.0.0/24","tenant_id":0})",
     kZone,
     kZoneTable},
    {"Tenant",
     {"hdfs", "tenant", "::1"},
     "POST /v1/ask/tenant",
     R"({"address":"::1"})",
     R"({"question": "tenant", "code": 0, "reason": null, "answer": {"result": 0, "tenant_id": 9, "rest": null}})",
     "result     0\n"
     "tenant id  9\n"},
    {"Configuration",
     {"hdfs", "conf", "10.0.0.1"},
     "POST /v1/ask/conf",
     R"({"address":"10.0.0.1"})",
     kConfiguration,
     "result      0\n"
     "fs id       7\n"
     "dtree path  /a\n"
     "subnet      -\n"
     "tenant id   missing\n"
     "rest        6101\n"
     "            a.\n"},
    {"Name", {"ns", "show"}, "GET /v1/name", "", kName, kNameTable},
    {"NameOfAnUnreachableStore",
     {"ns", "show"},
     "GET /v1/name",
     "",
     R"({"name": "N", "store": {"place": "http://a:1", "reachable": false, "error": "gone"}, "version": 0,)"
     R"( "local": {"version": 0, "fl": 0, "seq": 0}, "published": 0})",
     "name        N\n"
     "store       http://a:1 (unreachable: gone)\n"
     "version     0\n"
     "local copy  version 0, FL 0, seq 0\n"
     "published   0 by this node\n"},
    {"NameWithoutAStore",
     {"ns", "show"},
     "GET /v1/name",
     "",
     R"({"name": "N", "store": null, "version": 0, "local": {"version": 0, "fl": 0, "seq": 0}, "published": 0})",
     "name        N\n"
     "store       none\n"
     "version     0\n"
     "local copy  version 0, FL 0, seq 0\n"
     "published   0 by this node\n"},
    {"NameReadAnew", {"ns", "read"}, "POST /v1/name/read", "", kName, kNameTable},
    {"PublishedName", {"ns", "publish", "0x5"}, "POST /v1/name/publish", R"({"fl":5})", kName, kNameTable},
    {"CreatedName", {"ns", "create"}, "POST /v1/name", "", R"({"name": "N", "created": true})", "N: created\n"},
    {"NameThatWasThere",
     {"ns", "create"},
     "POST /v1/name",
     "",
     R"({"name": "N", "created": false})",
     "N: was there already\n"},
    {"Versions",
     {"version", "parse", "[1],[3-5]"},
     "POST /v1/versions",
     R"({"text":"[1],[3-5]"})",
     R"({"result": 0, "versions": [1, 3, 4, 5], "explanation": null})",
     "1 3 4 5\n"},
    {"NoVersions",
     {"version", "parse", ""},
     "POST /v1/versions",
     R"({"text":""})",
     R"({"result": 0, "versions": [], "explanation": null})",
     "no versions\n"},
    {"ControlAddresses",
     {"ctrl-ips", "10.0.0.1", "::1"},
     "POST /v1/ctrl-ips",
     R"({"addresses":["10.0.0.1","::1"]})",
     R"({"addresses": [{"address": "10.0.0.1", "ls_id": 0}, {"address": "::1", "ls_id": null}]})",
     "CONTROL ADDRESS       LS\n"
     "10.0.0.1               0\n"
     "::1              unknown\n"},
};

INSTANTIATE_TEST_SUITE_P(Questions, AnsweredCommand, testing::ValuesIn(kRows), rowName);

class Refusal : public NasctlTest {};

TEST_F(Refusal, OfAVersionTextTellsWhatTheNodeLogged)
{
    node_.answer(R"({"result": -1, "versions": [1], "explanation": "PROTOCOL: wrong"})");
    EXPECT_EQ(run({"version", "parse", "[1]["}),
              (Outcome{"", "nasctl: version parse: the text is wrong (-1): PROTOCOL: wrong\n", 1}));
}

TEST_F(Refusal, OfPartOfAVersionTextIsToldBesideItsVersions)
{
    node_.answer(R"({"result": 0, "versions": [1], "explanation": "PROTOCOL: rest"})");
    EXPECT_EQ(run({"version", "parse", "[1]x"}), (Outcome{"1\n", "nasctl: version parse: PROTOCOL: rest\n", 0}));
}

TEST_F(Refusal, OfAnFlThatIsNoNumberAsksNobody)
{
    EXPECT_EQ(run({"ns", "publish", "4294967296"}),
              (Outcome{"", "nasctl: ns publish: FL: \"4294967296\" is not a number from 0 to 4294967295\n", 2}));
}

TEST_F(Refusal, OfAStoreThatDoesNotAnswerSaysWhy)
{
    node_.answer(R"({"error": "cluster store http://a:1: gone"})", 503);
    EXPECT_EQ(run({"ns", "read"}),
              (Outcome{"", "nasctl: ns read: the node is busy: cluster store http://a:1: gone; ask again\n", 1}));
}

TEST_F(Refusal, OfAQuestionTellsItsCode)
{
    node_.answer(R"({"question": "zone", "code": -110, "reason": "Connection timed out", "answer": null})");
    EXPECT_EQ(run({"hdfs", "zone"}),
              (Outcome{"",
                       "nasctl: hdfs zone: the question failed with -110 (Connection timed out); is the storage-side "
                       "service running?\n",
                       1}));
}

TEST_F(Refusal, OfTheServiceIsAFailureAfterItsAnswer)
{
    node_.answer(R"({"question": "tenant", "code": 0, "reason": null,)"
                 R"( "answer": {"result": -2, "tenant_id": 0, "rest": null}})");
    EXPECT_EQ(run({"hdfs", "tenant", "::1"}),
              (Outcome{"result     -2\ntenant id  0\n",
                       "nasctl: hdfs tenant: the storage-side service answered with result -2; its data has no such "
                       "thing\n",
                       1}));
}

TEST_F(Refusal, IsExitCode1WithJsonToo)
{
    const std::string answer = R"({"question": "zone", "code": 5, "reason": "x", "answer": null})";
    node_.answer(answer);
    EXPECT_EQ(
        run({"hdfs", "zone", "--json"}),
        (Outcome{answer + "\n",
                 "nasctl: hdfs zone: the question failed with 5 (x); nasctl storage status shows its data and faults\n",
                 1}));
}

TEST_F(Refusal, OfALookUpIsAPortThatThereIsNot)
{
    node_.answer(R"({"id": "6", "index": 8, "known": false})");
    EXPECT_EQ(run({"lif", "find", "6"}),
              (Outcome{"", "nasctl: lif find: 6: no such LIF port; nasctl lif ls lists them\n", 1}));
}

TEST_F(Refusal, OfAVpcIdIsOneThatNoRecordHas)
{
    node_.answer(R"({"id": "b", "known": false})");
    EXPECT_EQ(run({"vpc", "check", "b"}),
              (Outcome{"", "nasctl: vpc check: b: no record has this id; nasctl vpc ls lists them\n", 1}));
}

TEST_F(Refusal, OfADeletionNamesThePortThatStays)
{
    node_.answer(R"({"removed": [], "left": ["5", "6"]})");
    EXPECT_EQ(run({"lif", "del", "::1", "--time", "1"}),
              (Outcome{"",
                       "nasctl: lif del: ::1: port 5 was added later than --time and stays; nasctl lif ls shows its "
                       "time\n",
                       1}));
}

TEST_F(Refusal, OfABusyNodeSaysToAskAgain)
{
    node_.answer(R"({"error": "the lock of port 5 in the LIF table is held"})", 503);
    EXPECT_EQ(
        run({"lif", "name", "5"}),
        (Outcome{"", "nasctl: lif name: the node is busy: the lock of port 5 in the LIF table is held; ask again\n",
                 1}));
}

} // namespace
