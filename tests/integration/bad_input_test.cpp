#include "node.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <memory>

namespace integration {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// One node that has to survive what a test throws at it.
class BadMessages : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(node_.start()) << node_.startOutput(); }
    void TearDown() override
    {
        const MessageClient client(node_);
        EXPECT_EQ(client.call(18, 2, "x"), (Answer{18, 2, 1, 1, 0, word(0) + word(2)})) << "the node goes on";
        EXPECT_TRUE(node_.running());
    }
    Node node_;
};

TEST_F(BadMessages, MalformedFramesCloseTheirConnection)
{
    const std::pair<const char *, std::string> rows[] = {
        {"length 0", word(0)},
        {"shorter than its header", word(19) + std::string(19, 'x')},
        {"a huge length", word(0xFFFFFFFFU) + std::string(20, 'x')},
        {"just over the limit", word(20 + 1048576 + 1) + std::string(20, 'x')},
        {"a reply", word(20) + word(18) + word(2) + word(1) + word(1) + word(0)},
        {"noise", std::string(64, '\xAA')},
    };
    for (const auto &[name, bytes] : rows) {
        const MessageClient client(node_);
        client.sendBytes(bytes);
        EXPECT_EQ(client.receive(), std::nullopt) << name;
    }
}

TEST_F(BadMessages, AFrameCutShortAndAClientThatVanishesLeaveNothingBehind)
{
    {
        const MessageClient client(node_);
        client.sendBytes(frame(18, 1, 1, notice("ip_add_event", "127.0.0.1")).substr(0, 300));
    }
    {
        const MessageClient client(node_);
        client.send(18, 1, 1, notice("notify_eds_change_ip", ""));
    }
    EXPECT_TRUE(Node::eventually([&] { return node_.json({"status"})["messages"]["connections"] == 0; }));
}

TEST_F(BadMessages, UnknownModulesAndOpcodesAreAnswered)
{
    const MessageClient client(node_);
    EXPECT_EQ(client.call(99, 1, "x"), (Answer{99, 1, 1, 2, -2, ""}));
    EXPECT_EQ(client.call(18, 77, "x"), (Answer{18, 77, 1, 2, 1, ""}));
    EXPECT_EQ(client.call(18, 2, ""), (Answer{18, 2, 1, 2, 1, ""}));
    EXPECT_EQ(client.call(3, 0, "abc"), (Answer{3, 0, 1, 2, 1, ""}));
}

TEST_F(BadMessages, NoticesOfAnotherLengthGetNoReply)
{
    const MessageClient client(node_);
    const std::string whole = notice("ip_add_event", Node::address(51));
    EXPECT_EQ(client.call(18, 1, whole.substr(0, 515)), (Answer{18, 1, 1, 2, 1, ""}));
    EXPECT_EQ(client.call(18, 1, whole + "x"), (Answer{18, 1, 1, 2, 1, ""}));
    EXPECT_EQ(node_.json({"status"})["addresses"]["total"], 0);
}

TEST_F(BadMessages, NoticesWithUnterminatedTextsAreEchoedAndTouchNothing)
{
    const MessageClient client(node_);
    const std::string full(516, 'k');
    EXPECT_EQ(client.call(18, 1, full), (Answer{18, 1, 1, 1, 0, full}));
    EXPECT_EQ(node_.json({"status"})["addresses"]["total"], 0);
}

TEST_F(BadMessages, AddressesThatAreNoneAreListedPendingOrLeftOutAsTheirLengthAllows)
{
    const MessageClient client(node_);
    const std::string longest(45, 'a');
    const std::string tooLong(46, 'a');
    for (const std::string &address :
         {longest, tooLong, std::string("node.example"), std::string("::ffff:127.0.0.1")}) {
        const std::string sent = notice("ip_add_event", address);
        EXPECT_EQ(client.call(18, 1, sent), (Answer{18, 1, 1, 1, 0, sent})) << address;
    }
    std::vector<std::string> listed;
    EXPECT_TRUE(Node::eventually([&] { return node_.json({"ip", "ls"})["addresses"].size() == 3; }));
    const nlohmann::json shown = node_.json({"ip", "ls"});
    for (const auto &row : shown["addresses"]) {
        listed.push_back(row["address"]);
    }
    EXPECT_THAT(listed, testing::UnorderedElementsAre(longest, "node.example", "::ffff:127.0.0.1"));
    EXPECT_THAT(node_.log(), HasSubstr("PROTOCOL: Invalid nas IP(addr node.example, protoType 3)."));
}

TEST_F(BadMessages, AThousandConnectionsAtOnceAreAllServed)
{
    std::vector<std::unique_ptr<MessageClient>> clients;
    for (int i = 0; i < 1000; ++i) {
        clients.push_back(std::make_unique<MessageClient>(node_));
        clients.back()->send(18, 2, static_cast<uint32_t>(i), "x");
    }
    for (uint32_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(clients[i]->receive(), (Answer{18, 2, i, 1, 0, word(0) + word(2)})) << i;
    }
}

std::string failedStart(Node &node)
{
    EXPECT_FALSE(node.start());
    EXPECT_THAT(node.startOutput(), StartsWith("nasctrld: "));
    EXPECT_THAT(node.startOutput(), EndsWith("\n"));
    EXPECT_EQ(std::count(node.startOutput().begin(), node.startOutput().end(), '\n'), 1) << node.startOutput();
    return node.startOutput();
}

TEST(BadConfiguration, AMissingFileIsNamed)
{
    for (const std::string name : {"dpc.conf", "EBSServer.cfg"}) {
        Node node;
        std::filesystem::remove(node.configFile(name));
        EXPECT_THAT(failedStart(node), HasSubstr(name));
    }
}

void replaceValue(const std::string &file, const std::string &key, const std::string &line)
{
    std::ifstream in(file);
    std::string text;
    for (std::string row; std::getline(in, row);) {
        text += (row.starts_with(key) ? line : row) + "\n";
    }
    in.close();
    std::ofstream(file) << text;
}

TEST(BadConfiguration, AStepThatFailsIsNamedWithTheLastLineThatItLogged)
{
    Node node;
    replaceValue(node.configFile("dpc.conf"), "cm_cluster_id", "");
    EXPECT_EQ(failedStart(node), "nasctrld: NasCtrlClusterInit failed with 1: PROTOCOL: nas ctrl init app_data cluster "
                                 "failed 1; the log tells more\n");
}

TEST(BadConfiguration, AMalformedLineIsNamedWithFileAndNumber)
{
    Node node;
    std::ofstream(node.configFile("dpc.conf")) << "[GLOBAL]\ncluster_type = nas\nthis line says nothing\n";
    EXPECT_THAT(failedStart(node), HasSubstr("dpc.conf:3"));
}

TEST(BadConfiguration, ADirectoryInPlaceOfAFileIsNamed)
{
    Node node;
    std::filesystem::remove(node.configFile("dpc.conf"));
    std::filesystem::create_directory(node.configFile("dpc.conf"));
    EXPECT_THAT(failedStart(node), HasSubstr("dpc.conf"));
}

// The value and result of one getter.
nlohmann::json getter(const Node &node, const std::string &name)
{
    const nlohmann::json shown = node.json({"config", name});
    for (const auto &row : shown["getters"]) {
        if (row["name"] == name) {
            return row;
        }
    }
    return nullptr;
}

TEST(BadConfiguration, APairWithoutAColonAndAnEmptyValueFailTheirGetterAndNothingElse)
{
    Node node;
    replaceValue(node.configFile("dpc.conf"), "dio_ctrl_ip", "dio_ctrl_ip = 10.0.0.1");
    replaceValue(node.configFile("dpc.conf"), "cluster_type", "cluster_type =");
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(getter(node, "GetDioCtrlIp")["result"], 0xFFFFFFFFU);
    EXPECT_EQ(getter(node, "DpcGetClusterType")["result"], 1);
    EXPECT_EQ(getter(node, "getLocalIPAddr")["result"], 0);
    EXPECT_THAT(node.log(), HasSubstr("PROTOCOL: Bad format pair:10.0.0.1"));
}

TEST(BadConfiguration, AValueOfFiftyKilobytesArrivesWhole)
{
    Node node;
    const std::string value(50 * 1024, 'd');
    replaceValue(node.configFile("dpc.conf"), "ds_name", "ds_name = " + value);
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(getter(node, "DpcGetMDomainName")["value"], value);
}

TEST(BadOptions, EndInOneLineThatNamesThem)
{
    const std::vector<std::vector<std::string>> rows = {
        {"--no-such-option"},    {"--module", "9:nfs:3:2049"}, {"--module", "0:nfs:3:0"}, {"--module", "0:nfs"},
        {"--log-level", "loud"}, {"--node-id", "-1"},          {"--lwt", "magic"},        {"--root"},
        {"--ls-ids", "2,3"},
    };
    for (const auto &row : rows) {
        std::vector<std::string> command = {NASCTRLD};
        command.insert(command.end(), row.begin(), row.end());
        const Outcome outcome = run(command);
        EXPECT_EQ(outcome.exitCode, 2) << row[0];
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
        EXPECT_THAT(outcome.err, HasSubstr(row[0]));
    }
}

} // namespace
} // namespace integration
