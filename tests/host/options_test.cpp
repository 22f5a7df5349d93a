#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <options.h>
#include <sstream>
#include <unistd.h>

namespace {

using host::NodeOptions;
using host::parseOptions;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;

NodeOptions parse(const std::vector<std::string> &arguments)
{
    std::ostringstream out;
    return parseOptions(arguments, "1.0.0", out).value();
}

// The line of the usage error that the arguments make.
std::string refusal(const std::vector<std::string> &arguments)
{
    try {
        parse(arguments);
    } catch (const host::UsageError &error) {
        return error.what();
    }
    return "(accepted)";
}

class OptionFile : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nasctrl-options-XXXXXX";
        directory_ = mkdtemp(pattern);
    }
    void TearDown() override { std::filesystem::remove_all(directory_); }
    std::string write(const std::string &text)
    {
        std::ofstream(directory_ + "/node.conf") << text;
        return directory_ + "/node.conf";
    }

private:
    std::string directory_;
};

TEST(Options, HaveDefaultsForANodeOfItsOwn)
{
    const NodeOptions options = parse({});
    EXPECT_EQ(options.root, "");
    EXPECT_EQ(options.nodeId, 1U);
    EXPECT_EQ(options.messages.nodeId, 1U);
    EXPECT_EQ(options.messages.socketPath, "/run/nasctrl/message.sock");
    EXPECT_EQ(options.adminSocket, "/run/nasctrl/admin.sock");
    EXPECT_EQ(options.messages.storageSocketPath, "/run/nasctrl/storage.sock");
    EXPECT_TRUE(options.embedsStorage);
    EXPECT_EQ(options.storageData, "");
    EXPECT_EQ(options.messages.storageTimeout, std::chrono::milliseconds(3000));
    EXPECT_FALSE(options.adapters.hasStorage);
    EXPECT_EQ(options.store.file, "/var/lib/nasctrl/cluster.db");
    EXPECT_THAT(options.adapters.lsIds, ElementsAre(1));
    EXPECT_EQ(options.lwtBackend, host::kDefaultLwtBackend);
    EXPECT_TRUE(options.log.console);
    EXPECT_THAT(options.log.classLevels, ElementsAre(6, 4, 4, 3));
    EXPECT_EQ(options.period, std::nullopt);
    EXPECT_EQ(options.readyFd, std::nullopt);
}

TEST(Options, PutTheSocketsUnderTheRoot)
{
    const NodeOptions options = parse({"--root", "/srv/node1/"});
    EXPECT_EQ(options.messages.socketPath, "/srv/node1/run/message.sock");
    EXPECT_EQ(options.adminSocket, "/srv/node1/run/admin.sock");
    EXPECT_EQ(options.messages.storageSocketPath, "/srv/node1/run/storage.sock");
}

TEST(Options, StorageDataMakesTheEmbeddedServiceTheSourceOfTheAddresses)
{
    const NodeOptions options = parse({"--storage-data", "/d.json"});
    EXPECT_EQ(options.storageData, "/d.json");
    EXPECT_TRUE(options.embedsStorage);
    EXPECT_TRUE(options.adapters.hasStorage);
}

TEST(Options, AStorageSocketIsThatOfAnotherProcess)
{
    const NodeOptions options = parse({"--root", "/r", "--storage-socket", "/s"});
    EXPECT_EQ(options.messages.storageSocketPath, "/s");
    EXPECT_FALSE(options.embedsStorage);
    EXPECT_TRUE(options.adapters.hasStorage);
}

TEST(Options, TakeEveryFlag)
{
    const NodeOptions options = parse({"--node-id",
                                       "7",
                                       "--node-name",
                                       "seven",
                                       "--module",
                                       "0:nfs:3:20049",
                                       "--module",
                                       "1:hdfs:3,4:28020",
                                       "--message-socket",
                                       "/m",
                                       "--admin-socket",
                                       "/a",
                                       "--storage-socket",
                                       "/s",
                                       "--storage-timeout-ms",
                                       "250",
                                       "--lease",
                                       "30",
                                       "--message-clients",
                                       "5",
                                       "--log-file",
                                       "/l",
                                       "--log-level",
                                       "4",
                                       "--log-class",
                                       "0:3",
                                       "--log-class",
                                       "3:7",
                                       "--lwt",
                                       "threads",
                                       "--lwt-workers",
                                       "3",
                                       "--ls-ids",
                                       "7,9",
                                       "--tenant",
                                       "4:blue:sea",
                                       "--control-ip",
                                       "fe80::1=9",
                                       "--period",
                                       "30",
                                       "--ready-fd",
                                       "5",
                                       "--no-console"});
    EXPECT_EQ(options.nodeId, 7U);
    EXPECT_EQ(options.adapters.nodeName, "seven");
    ASSERT_EQ(options.modules.size(), 2U);
    EXPECT_EQ(options.modules[1].name, "hdfs");
    EXPECT_THAT(options.modules[1].protoTypes, ElementsAre(3, 4));
    EXPECT_EQ(options.messages.socketPath, "/m");
    EXPECT_EQ(options.adminSocket, "/a");
    EXPECT_EQ(options.messages.storageSocketPath, "/s");
    EXPECT_EQ(options.messages.storageTimeout, std::chrono::milliseconds(250));
    EXPECT_EQ(options.lease, std::chrono::seconds(30));
    EXPECT_EQ(options.messages.clients, 5U);
    EXPECT_TRUE(options.adapters.hasStorage);
    EXPECT_EQ(options.log.file, "/l");
    EXPECT_EQ(options.log.threshold, 4U);
    EXPECT_THAT(options.log.classLevels, ElementsAre(3, 4, 4, 7));
    EXPECT_FALSE(options.log.console);
    EXPECT_EQ(options.lwtBackend, host::LwtBackend::threads);
    EXPECT_EQ(options.lwtWorkers, 3U);
    EXPECT_THAT(options.adapters.lsIds, ElementsAre(7, 9));
    EXPECT_THAT(options.adapters.tenants, ElementsAre(Pair(4, "blue:sea")));
    EXPECT_THAT(options.adapters.controlIps, ElementsAre(Pair("fe80::1", 9)));
    EXPECT_EQ(options.period, 30U);
    EXPECT_EQ(options.readyFd, 5);
}

TEST(Options, TakeAFileOrEndPointsForTheClusterStore)
{
    EXPECT_EQ(parse({"--root", "/r"}).store.file, "/r/var/cluster.db");
    EXPECT_EQ(parse({"--root", "/r", "--store", "sqlite:/s/../c.db"}).store.file, "/c.db");
    EXPECT_EQ(parse({"--store", "sqlite:c.db"}).store.file, (std::filesystem::current_path() / "c.db").string());
    const NodeOptions options = parse({"--root", "/r", "--store", "etcd:http://a:2379,http://b:2379"});
    EXPECT_EQ(options.store.file, "");
    EXPECT_THAT(options.store.endpoints, ElementsAre("http://a:2379", "http://b:2379"));
}

TEST(Options, MakeRelativePathsAbsolute)
{
    EXPECT_EQ(parse({"--root", "node1"}).root, (std::filesystem::current_path() / "node1").string());
}

struct RefusalRow {
    const char *name;
    std::vector<std::string> arguments;
    const char *line;
};

TEST(Options, AreRefusedInOneLineThatSaysWhatTheValueIsNot)
{
    const RefusalRow rows[] = {
        {"two storage services",
         {"--storage-socket", "/s", "--storage-data", "/d"},
         "--storage-data: not together with --storage-socket, whose service has data of its own"},
        {"letters", {"--node-id", "abc"}, "--node-id: abc is not a whole number from 1 to 4294967295"},
        {"zero id", {"--node-id", "0"}, "--node-id: 0 is not a whole number from 1 to 4294967295"},
        {"trailing text", {"--node-id", "1x"}, "--node-id: 1x is not a whole number from 1 to 4294967295"},
        {"period", {"--period", "601"}, "--period: 601 is not a whole number from 1 to 600"},
        {"log level", {"--log-level", "8"}, "--log-level: 8 is not a whole number from 0 to 7"},
        {"log class", {"--log-class", "4:3"}, "--log-class: 4 is not a whole number from 0 to 3"},
        {"log class form", {"--log-class", "4"}, "--log-class: 4 is not of the form CLASS:LEVEL"},
        {"back end",
         {"--lwt", "green"},
         "--lwt: green is not a kind of light-weight threads, choose fibers or threads"},
        {"empty LS id", {"--ls-ids", "1,"}, "--ls-ids:  is not a whole number from 1 to 4294967295"},
        {"tenant", {"--tenant", "4:"}, "--tenant: 4: is not of the form ID:NAME with a name of 1 to 63 characters"},
        {"tenant id", {"--tenant", "1025:x"}, "--tenant: 1025 is not a whole number from 0 to 1024"},
        {"control address",
         {"--control-ip", "10.0.0.300=1"},
         "--control-ip: 10.0.0.300 is not an IPv4 or IPv6 address"},
        {"second module in a slot",
         {"--module", "0:nfs:3:20049", "--module", "0:hdfs:3:28020"},
         "--module: 0:hdfs:3:28020 is not possible, slot 0 is that of module nfs"},
        {"store",
         {"--store", "mysql:x"},
         "--store: mysql:x is not a cluster store, write sqlite:PATH or etcd:URL[,URL...]"},
        {"end point", {"--store", "etcd:a:2379"}, "--store: a:2379 is not an end point of the form http://HOST:PORT"},
        {"misspelt", {"--nod-id", "4"}, "--nod-id: no such option; did you mean --node-id?"},
        {"misspelt with value", {"--perod=4"}, "--perod: no such option; did you mean --period?"},
        {"an extra letter", {"--periood=4"}, "--periood: no such option; did you mean --period?"},
        {"four extra letters", {"--periodical=4"}, "--periodical: no such option; nasctrld --help tells the form"},
        {"three extra letters at the end", {"--rootxyz"}, "--rootxyz: no such option; nasctrld --help tells the form"},
        {"far from any", {"--frobnicate"}, "--frobnicate: no such option; nasctrld --help tells the form"},
        {"three letters of another", {"--foo"}, "--foo: no such option; nasctrld --help tells the form"},
        {"stray word", {"start"}, "start: one argument too many; nasctrld --help tells the form"},
        {"empty word", {""}, "\"\": one argument too many; nasctrld --help tells the form"},
        {"stray word after an option",
         {"--root", "/r", "extra"},
         "extra: one argument too many; nasctrld --help tells the form"},
        {"stray word after a repeatable option",
         {"--module", "0:nfs:3:20049", "extra"},
         "extra: one argument too many; nasctrld --help tells the form"},
        {"no value", {"--node-id"}, "--node-id needs a value"},
        {"given twice", {"--node-id", "1", "--node-id", "2"}, "--node-id is given more than once"},
        {"flag with a value", {"--no-console=maybe"}, "--no-console takes no value"},
        {"LS ids without the node's own",
         {"--node-id", "1", "--ls-ids", "2,3"},
         "--ls-ids: the node's own id 1 is not among them; add it, or name the node by another --node-id"},
        {"no such file",
         {"--config", "/nonexistent/n.conf"},
         "--config: /nonexistent/n.conf is not a file that can be read"},
    };
    for (const RefusalRow &row : rows) {
        EXPECT_EQ(refusal(row.arguments), row.line) << row.name;
    }
}

TEST(Options, NameABadModule)
{
    EXPECT_THAT(refusal({"--module", "6:x:3:1"}), StartsWith("--module: "));
}

TEST(Options, WriteVersionAndHelpInsteadOfRunning)
{
    std::ostringstream version;
    EXPECT_EQ(parseOptions({"--version"}, "1.0.0", version), std::nullopt);
    EXPECT_EQ(version.str(), "nasctrld 1.0.0\n");
    std::ostringstream help;
    EXPECT_EQ(parseOptions({"--help"}, "1.0.0", help), std::nullopt);
    EXPECT_THAT(help.str(), HasSubstr("--module SLOT:NAME:TYPES:PORT"));
}

TEST_F(OptionFile, HoldsTheSameOptionsByName)
{
    const std::string file = write("# a node\n"
                                   "node-id = 4\n"
                                   "module = \"0:nfs:3,4:20049\"\n"
                                   "module = 1:hdfs:3:28020\n"
                                   "ls-ids = 4,5\n"
                                   "store = etcd:http://a:1,http://b:2\n"
                                   "no-console = true\n");
    const NodeOptions options = parse({"--config", file});
    EXPECT_THAT(options.store.endpoints, ElementsAre("http://a:1", "http://b:2"));
    EXPECT_EQ(options.nodeId, 4U);
    ASSERT_EQ(options.modules.size(), 2U);
    EXPECT_THAT(options.modules[0].protoTypes, ElementsAre(3, 4));
    EXPECT_EQ(options.modules[1].name, "hdfs");
    EXPECT_THAT(options.adapters.lsIds, ElementsAre(4, 5));
    EXPECT_FALSE(options.log.console);
}

TEST_F(OptionFile, YieldsToTheCommandLine)
{
    const std::string file = write("node-id = 4\nmodule = 0:nfs:3:20049\nperiod = 9\n");
    const NodeOptions options = parse({"--node-id", "6", "--config", file, "--module", "2:smb:3:445"});
    EXPECT_EQ(options.nodeId, 6U);
    ASSERT_EQ(options.modules.size(), 1U);
    EXPECT_EQ(options.modules[0].name, "smb");
    EXPECT_EQ(options.period, 9U);
}

TEST_F(OptionFile, IsRefusedWithItsNameAndLine)
{
    const std::string bad = write("node-id = 4\nmodule = 0:nfs:3:20049\n\nperiod = often\n");
    EXPECT_EQ(refusal({"--config", bad}), bad + " line 4: period: often is not a whole number from 1 to 600");
    const std::string unknown = write("node-id = 4\nperoid = 5\n");
    EXPECT_EQ(refusal({"--config", unknown}), unknown + " line 2: peroid: no such option; did you mean period?");
    const std::string truth = write("no-console = maybe\n");
    EXPECT_EQ(refusal({"--config", truth}), truth + " line 1: no-console: maybe is not true or false");
    const std::string section = write("[GLOBAL]\nnode-id = 4\n");
    EXPECT_THAT(refusal({"--config", section}), HasSubstr("GLOBAL.node-id: no such option"));
}

TEST_F(OptionFile, IsRefusedWithALineThatIsANameAlone)
{
    const std::string file = write("node-id = 4\n  period\t# often\n");
    EXPECT_EQ(refusal({"--config", file}), file + " line 2: period: needs a value, write period = SECONDS");
    const std::string second = write("module = 0:nfs:3:20049\nmodule\n");
    EXPECT_EQ(refusal({"--config", second}),
              second + " line 2: module: needs a value, write module = SLOT:NAME:TYPES:PORT");
}

TEST_F(OptionFile, TakesALineThatIsAFlagAlone)
{
    EXPECT_FALSE(parse({"--config", write("no-console\n")}).log.console);
}

TEST_F(OptionFile, IsRefusedWhenAValueOfARepeatedOptionIsWrong)
{
    const std::string file = write("tenant = 1:red\ntenant = 2:\n");
    EXPECT_EQ(refusal({"--config", file}),
              file + " line 2: tenant: 2: is not of the form ID:NAME with a name of 1 to 63 characters");
}

} // namespace
