/*
 * What nasctl says to command lines that are wrong, before it asks anybody.
 */
#include "named_row.h"
#include "scripted_node.h"

namespace {

struct WrongLine : NamedRow {
    std::vector<std::string> words;
    std::string error;
};

class Usage : public testing::TestWithParam<WrongLine> {};

TEST_P(Usage, WrongCommandLineIsAnsweredWithOneLineAndExitCode2)
{
    const WrongLine &row = GetParam();
    EXPECT_EQ(runNasctl(row.words), (Outcome{"", "nasctl: " + row.error + "\n", 2}));
}

const WrongLine kWrongLines[] = {
    {"NoCommand",
     {},
     "which command? choose from status, power, config, mem, ip, cluster, msg, cmd, log, "
     "storage, view, master, dpc, ns, version, lif, vpc, hdfs, ifaces, ctrl-ips, events, locks, shard, fmm"},
    {"MisspeltCommand", {"statsu"}, "statsu: no such command; did you mean status?"},
    {"StrangeCommand",
     {"frobnicate"},
     "frobnicate: no such command; there are status, power, config, mem, ip, cluster, msg, cmd, log, "
     "storage, view, master, dpc, ns, version, lif, vpc, hdfs, ifaces, ctrl-ips, events, locks, shard, fmm"},
    {"EmptyCommand",
     {""},
     "\"\": no such command; there are status, power, config, mem, ip, cluster, msg, cmd, log, "
     "storage, view, master, dpc, ns, version, lif, vpc, hdfs, ifaces, ctrl-ips, events, locks, shard, fmm"},
    {"CommandOfTwoLines", {"stat\nus"}, "stat\\nus: no such command; did you mean status?"},
    {"NoFaultAtAll",
     {"storage", "fault"},
     "storage fault: [TYPE|all] none|slow MS|timeout|short BYTES|fail CODE is required; nasctl storage fault --help "
     "tells the form"},
    {"NoFaultOfAType",
     {"storage", "fault", "3"},
     "storage fault: which fault? there are none, slow MS, timeout, short BYTES, fail CODE"},
    {"MisspeltFault", {"storage", "fault", "3", "slwo", "5"}, "storage fault: slwo: no such fault; did you mean slow?"},
    {"StrangeFault",
     {"storage", "fault", "explode"},
     "storage fault: explode: no such fault; there are none, slow, timeout, short, fail"},
    {"FaultWithoutItsValue", {"storage", "fault", "slow"}, "storage fault: slow takes one number, MS"},
    {"FaultWithAValueTooMany", {"storage", "fault", "timeout", "5"}, "storage fault: timeout takes nothing"},
    {"FaultWithAValueOutOfRange",
     {"storage", "fault", "3", "fail", "-4096"},
     "storage fault: CODE: \"4096\" is not a number from 1 to 4095"},
    {"TypeOutOfRange",
     {"storage", "fault", "0", "none"},
     "storage fault: TYPE: \"0\" is not a number from 1 to 4294967295"},
    {"NoSubcommand", {"ip"}, "ip: which command? choose from ls, add, del, monitor, explain, node"},
    {"SubcommandFarFromAny",
     {"ip", "help"},
     "ip: help: no such command; there are ls, add, del, monitor, explain, node"},
    {"MappedAddress",
     {"ip", "add", "::1", "::FFFF:1.2.3.4"},
     "ip add: ::FFFF:1.2.3.4 is an IPv4-mapped address; give the IPv4 address, 1.2.3.4"},
    {"MisspeltSubcommand", {"ip", "dell"}, "ip: dell: no such command; did you mean del?"},
    {"StrangeSubcommand", {"power", "cycle"}, "power: cycle: no such command; there are on, off, status"},
    {"MisspeltGlobalOption", {"--jsno", "status"}, "status: --jsno: no such option; did you mean --json?"},
    {"MisspeltOptionAfterCommand",
     {"status", "--tiemout-ms=5"},
     "status: --tiemout-ms: no such option; did you mean --timeout-ms?"},
    {"MisspeltOptionOfCommand", {"mem", "--al"}, "mem: --al: no such option; did you mean --all?"},
    {"MisspeltOptionInsteadOfArgument",
     {"ip", "add", "--jsno"},
     "ip add: --jsno: no such option; did you mean --json?"},
    {"StrangeOption", {"log", "level", "-x"}, "log level: -x: no such option; nasctl log level --help tells the form"},
    {"StrangeOptionWithoutCommand", {"-x"}, "-x: no such option; nasctl --help tells the form"},
    {"OptionWithoutValue", {"--root"}, "--root needs a value"},
    {"FlagWithValue", {"status", "--json=5"}, "status: --json takes no value"},
    {"EmptyRoot",
     {"--root", "", "status"},
     "status: --root and the sockets' options need a path, an empty one was given"},
    {"TimeoutThatIsNoNumber",
     {"--timeout-ms", "soon", "status"},
     "status: --timeout-ms: \"soon\" is not a number from 1 to 3600000"},
    {"TimeoutOfNothing",
     {"--timeout-ms", "0", "status"},
     "status: --timeout-ms: \"0\" is not a number from 1 to 3600000"},
    {"TooManyArguments", {"status", "all"}, "status: all: one argument too many; nasctl status --help tells the form"},
    {"SecondCommand",
     {"power", "on", "status"},
     "power on: status: one argument too many; nasctl power on --help tells the form"},
    {"EventsAfterNoNumber",
     {"events", "--after", "now"},
     "events: --after: \"now\" is not a number from 0 to 18446744073709551615"},
    {"LockWithoutClient",
     {"locks", "take", "/a", "0", "1"},
     "locks take: --ls is required; nasctl locks take --help tells the form"},
    {"LockOfNoClient",
     {"locks", "take", "--ls", "0", "/a", "0", "1"},
     "locks take: --ls: \"0\" is not a number from 1 to 4294967295"},
    {"LockOfAPartOfARange",
     {"locks", "take", "--ls", "1", "/a", "0"},
     "locks take: FILE, START and LEN are needed; nasctl locks take --help tells the form"},
    {"LockOfNoFile", {"locks", "take", "--ls", "1", "", "0", "1"}, "locks take: FILE: an empty text is no file"},
    {"LockFromNoByte",
     {"locks", "take", "--ls", "1", "/a", "-1", "1"},
     "locks take: START: \"-1\" is not a number from 0 to 18446744073709551615"},
    {"ReleaseOfNoLength",
     {"locks", "release", "--ls", "1", "/a", "1", "all"},
     "locks release: LEN: \"all\" is not a number from 0 to 18446744073709551615"},
    {"ReleaseOfAPartOfARange",
     {"locks", "release", "--ls", "1", "/a"},
     "locks release: FILE, START and LEN are needed; nasctl locks release --help tells the form"},
    {"NoClientCommand", {"dpc"}, "dpc: which command? choose from ls, show, join, leave, kill, fault"},
    {"MisspeltClientCommand", {"dpc", "jion", "7"}, "dpc: jion: no such command; did you mean join?"},
    {"NoClient", {"dpc", "show"}, "dpc show: LS is required; nasctl dpc show --help tells the form"},
    {"ClientThatIsNoNumber", {"dpc", "leave", "x"}, "dpc leave: LS: \"x\" is not a number from 0 to 4294967295"},
    {"ClientBeyond32Bits",
     {"dpc", "join", "4294967296"},
     "dpc join: LS: \"4294967296\" is not a number from 0 to 4294967295"},
    {"LeaseOfNothing", {"dpc", "join", "7", "--ttl", "0"}, "dpc join: --ttl: \"0\" is not a number from 1 to 3600"},
    {"FaultForNoReason",
     {"dpc", "fault", "7", "--reason", "-1"},
     "dpc fault: --reason: \"-1\" is not a number from 0 to 2147483647"},
    {"MasterOfWhat", {"master", "7"}, "master: 7: one argument too many; nasctl master --help tells the form"},
    {"NoShardCommand",
     {"shard"},
     "shard: which command? choose from ls, fsp, show, migrate, failback, move-fsp, policy"},
    {"MisspeltShardCommand", {"shard", "migrat", "1"}, "shard: migrat: no such command; did you mean migrate?"},
    {"NoFsp", {"shard", "fsp"}, "shard fsp: FSP is required; nasctl shard fsp --help tells the form"},
    {"FspOfText", {"shard", "fsp", "root"}, "shard fsp: FSP: \"root\" is not a number from 0 to 4294967294"},
    {"FspThatMarksAFreePlace",
     {"shard", "fsp", "0xffffffff"},
     "shard fsp: FSP: \"0xffffffff\" is not a number from 0 to 4294967294"},
    {"NoLsToMigrate",
     {"shard", "migrate"},
     "shard migrate: LS is required; nasctl shard migrate --help tells the form"},
    {"JunkBehindAnLs",
     {"shard", "migrate", "12abc"},
     "shard migrate: LS: \"12abc\" is not a number from 0 to 4294967295"},
    {"MigrationToNowhere",
     {"shard", "migrate", "1", "--to", ""},
     "shard migrate: --to: \"\" is not a number from 0 to 4294967295"},
    {"LsBeyond32Bits",
     {"shard", "failback", "4294967296"},
     "shard failback: LS: \"4294967296\" is not a number from 0 to 4294967295"},
    {"FspMoveToNowhere",
     {"shard", "move-fsp", "5"},
     "shard move-fsp: --to is required; nasctl shard move-fsp --help tells the form"},
    {"NegativeFsp",
     {"shard", "move-fsp", "-5", "--to", "1"},
     "shard move-fsp: FSP: \"-5\" is not a number from 0 to 4294967294"},
    {"PolicyOfText", {"shard", "policy", "auto"}, "shard policy: auto: the policy is on or off"},
    {"DryRunOfNothing",
     {"shard", "policy", "off", "--dry-run"},
     "shard policy: --dry-run: a policy that is off does nothing; nasctl shard policy shows what it would do"},
    {"NeverSteady",
     {"shard", "policy", "on", "--steady", "0"},
     "shard policy: --steady: \"0\" is not a number from 1 to 86400"},
    {"NoFmmEvent",
     {"fmm"},
     "fmm: which command? choose from status, shard-change, vnode-move-in, vnode-move-out, node-fault, node-recover"},
    {"FaultOfNoNode",
     {"fmm", "node-fault"},
     "fmm node-fault: LS is required; nasctl fmm node-fault --help tells the form"},
    {"FaultOfText",
     {"fmm", "node-fault", "node-1"},
     "fmm node-fault: LS: \"node-1\" is not a number from 0 to 4294967295"},
    {"ShardChangeOfAnLs",
     {"fmm", "shard-change", "5"},
     "fmm shard-change: 5: one argument too many; nasctl fmm shard-change --help tells the form"},
    {"NoAddressToAdd", {"ip", "add"}, "ip add: ADDR is required; nasctl ip add --help tells the form"},
    {"NoAddressToDelete", {"ip", "del"}, "ip del: ADDR is required; nasctl ip del --help tells the form"},
    {"NoClusterToAdd", {"cluster", "add"}, "cluster add: ID is required; nasctl cluster add --help tells the form"},
    {"NoClusterToRemove", {"cluster", "rm"}, "cluster rm: ID is required; nasctl cluster rm --help tells the form"},
    {"LocalCluster",
     {"cluster", "add", "5", "0"},
     "cluster add: ID: \"0\" is not a number from 1 to 18446744073709551615"},
    {"NegativeCluster",
     {"cluster", "rm", "-5"},
     "cluster rm: ID: \"-5\" is not a number from 1 to 18446744073709551615"},
    {"ClusterBeyond64Bits",
     {"cluster", "add", "18446744073709551616"},
     "cluster add: ID: \"18446744073709551616\" is not a number from 1 to 18446744073709551615"},
    {"MessageWithoutModule", {"msg", "--opcode", "1"}, "msg: --module is required; nasctl msg --help tells the form"},
    {"MessageWithoutOpcode", {"msg", "--module", "3"}, "msg: --opcode is required; nasctl msg --help tells the form"},
    {"MessageModuleBeyond32Bits",
     {"msg", "--module", "4294967296", "--opcode", "1"},
     "msg: --module: \"4294967296\" is not a number from 0 to 4294967295"},
    {"MessageOpcodeWithoutDigits",
     {"msg", "--module", "3", "--opcode", "0x"},
     "msg: --opcode: \"0x\" is not a number from 0 to 4294967295"},
    {"MessageWithHalfAByte",
     {"msg", "--module", "3", "--opcode", "1", "0a1"},
     "msg: HEX: the digit at character 3 stands alone; a byte takes two hex digits"},
    {"MessageThatIsNotHex",
     {"msg", "--module", "3", "--opcode", "1", "0x0a"},
     "msg: HEX: character 2 is \"x\", not a hex digit"},
    {"CommandWithoutItsName",
     {"cmd", "-m", "nas_fmm"},
     "cmd: -c COMMAND is missing; nasctl cmd alone lists the modules and their commands"},
    {"CommandWithoutModule",
     {"cmd", "-c", "dump"},
     "cmd: -m MODULE is missing; nasctl cmd alone lists the modules and their commands"},
    {"ValueWithoutCommand",
     {"cmd", "-v", "1"},
     "cmd: -m MODULE is missing; nasctl cmd alone lists the modules and their commands"},
    {"CommandThatIsNotUtf8", {"cmd", "-m", "nas_fmm", "-c", "\xff"}, "cmd: an argument is not UTF-8 text"},
    {"LevelTooHigh", {"log", "level", "8"}, "log level: LEVEL: \"8\" is not a number from 0 to 7"},
    {"EmptyLevel", {"log", "level", ""}, "log level: LEVEL: \"\" is not a number from 0 to 7"},
    {"NoSuchClass", {"log", "level", "--class", "4"}, "log level: --class: \"4\" is not a number from 0 to 3"},
    {"PeriodTooLong",
     {"ip", "monitor", "--period", "601"},
     "ip monitor: --period: \"601\" is not a number from 1 to 600"},
    {"NothingToExplain", {"ip", "explain"}, "ip explain: ADDR is required; nasctl ip explain --help tells the form"},
    {"ExplanationOfText", {"ip", "explain", "eth0"}, "ip explain: eth0 is not an IPv4 or IPv6 address"},
    {"NoLifCommand", {"lif"}, "lif: which command? choose from ls, add, del, find, name"},
    {"HalfAPort",
     {"lif", "add", "5", "eth0"},
     "lif add: ID, NAME and ADDRESS are needed; nasctl lif add --help tells the form"},
    {"PortZero",
     {"lif", "add", "0", "eth0", "::1"},
     "lif add: ID: \"0\" is not a number from 1 to 18446744073709551615"},
    {"PortWithALongName", {"lif", "add", "5", std::string(257, 'n'), "::1"}, "lif add: NAME: longer than 256 bytes"},
    {"PortWithoutAddress", {"lif", "add", "5", "eth0", "here"}, "lif add: here is not an IPv4 or IPv6 address"},
    {"PortWithABadTime",
     {"lif", "del", "::1", "--time", "now"},
     "lif del: --time: \"now\" is not a number from 0 to 18446744073709551615"},
    {"IndexOfNoNumber",
     {"lif", "find", "eth0"},
     "lif find: ID: \"eth0\" is not a number from 1 to 18446744073709551615"},
    {"NoVpcCommand", {"vpc"}, "vpc: which command? choose from ls, add, lookup, check, clear, save, reload"},
    {"HalfAVpcRecord", {"vpc", "add", "a"}, "vpc add: ID and NETWORK are needed; nasctl vpc add --help tells the form"},
    {"EmptyVpcId", {"vpc", "add", "", "10.0.0.0/8"}, "vpc add: ID: must have 1 to 127 bytes"},
    {"VpcIdOf128Bytes", {"vpc", "add", std::string(128, 'i'), "10.0.0.0/8"}, "vpc add: ID: must have 1 to 127 bytes"},
    {"VpcIdOfTwoParts",
     {"vpc", "check", "a;b"},
     "vpc check: ID: must hold neither ; nor control characters, which its file could not keep"},
    {"VpcIdOfTwoLines",
     {"vpc", "check", "a\nb"},
     "vpc check: ID: must hold neither ; nor control characters, which its file could not keep"},
    {"NetworkWithoutALength",
     {"vpc", "add", "a", "10.0.0.0"},
     "vpc add: 10.0.0.0 is not a network, which is an IPv4 address and a length: 10.1.0.0/16"},
    {"NetworkOf33Bits",
     {"vpc", "add", "a", "10.0.0.0/33"},
     "vpc add: 10.0.0.0/33 is not a network, which is an IPv4 address and a length: 10.1.0.0/16"},
    {"NetworkOfNegativeLength",
     {"vpc", "add", "a", "10.0.0.0/-8"},
     "vpc add: 10.0.0.0/-8 is not a network, which is an IPv4 address and a length: 10.1.0.0/16"},
    {"NetworkOfIpv6",
     {"vpc", "add", "a", "fd00::/8"},
     "vpc add: fd00::/8 is not a network, which is an IPv4 address and a length: 10.1.0.0/16"},
    {"NoNetwork",
     {"vpc", "add", "a", ""},
     "vpc add: \"\" is not a network, which is an IPv4 address and a length: 10.1.0.0/16"},
    {"LookUpOfIpv6", {"vpc", "lookup", "::1"}, "vpc lookup: ::1 is not an IPv4 address"},
    {"MisspeltQuestion", {"hdfs", "zones"}, "hdfs: zones: no such command; did you mean zone?"},
    {"ConfigurationOfText", {"hdfs", "conf", "x"}, "hdfs conf: x is not an IPv4 or IPv6 address"},
    {"SubnetTooLong", {"hdfs", "subnet", std::string(64, 's')}, "hdfs subnet: SUBNET: longer than 63 bytes"},
    {"FileSystemBeyond32Bits",
     {"hdfs", "global-zone", "s", "--fs-id", "4294967296"},
     "hdfs global-zone: --fs-id: \"4294967296\" is not a number from 0 to 4294967295"},
    {"NegativeLs", {"hdfs", "neighbors", "-1"}, "hdfs neighbors: LS: \"-1\" is not a number from 0 to 2147483647"},
    {"OneBadControlAddress", {"ctrl-ips", "::1", "x"}, "ctrl-ips: x is not an IPv4 or IPv6 address"},
    {"NoSuchClassToSet",
     {"log", "level", "5", "--class", "x"},
     "log level: --class: \"x\" is not a number from 0 to 3"},
};

INSTANTIATE_TEST_SUITE_P(Lines, Usage, testing::ValuesIn(kWrongLines), rowName);

TEST(Help, VersionIsOneLine)
{
    EXPECT_EQ(runNasctl({"--version"}), (Outcome{"nasctl " NASCTL_VERSION "\n", "", 0}));
}

TEST(Help, NamesEveryCommandAndTheExitCodes)
{
    const Outcome outcome = runNasctl({"--help"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    for (const char *word :
         {"\n  status ", "\n  power ", "\n  config ", "\n  mem ", "\n  ip ", "\n  cluster ", "\n  msg ", "\n  cmd ",
          "\n  log ", "\n  lif ", "\n  vpc ", "\n  hdfs ", "\n  ifaces ", "\n  ctrl-ips ", "\n  shard ", "\n  fmm ",
          "--root DIR", "--json", "Exit codes: 0 done, 1 failed, 2 "}) {
        EXPECT_NE(outcome.out.find(word), std::string::npos) << word;
    }
}

TEST(Help, OfACommandTellsItsOwnOptions)
{
    EXPECT_EQ(runNasctl({"log", "level", "--help"}), (Outcome{"Print the levels, or set one\n"
                                                              "Usage: nasctl log level [OPTIONS] [LEVEL]\n"
                                                              "\n"
                                                              "Positionals:\n"
                                                              "  LEVEL                       New level, 0 to 7\n"
                                                              "\n"
                                                              "Options:\n"
                                                              "  -h,--help                   Print this help\n"
                                                              "  --class N                   Of this class, 0 to 3, "
                                                              "instead of the threshold\n"
                                                              "\n",
                                                              "", 0}));
}

} // namespace
