#include "node.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>

namespace integration {
namespace {

using testing::HasSubstr;

TEST(Node, StartsShowsItselfAndStopsCleanlyOnEachSignal)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        Node node;
        ASSERT_TRUE(node.start()) << node.startOutput();
        const Outcome status = node.ctl({"status"});
        EXPECT_EQ(status.exitCode, 0) << status.err;
        EXPECT_EQ(node.json({"status"})["power"]["name"], "on");
        EXPECT_EQ(node.stop(signal), 0);
        EXPECT_FALSE(std::filesystem::exists(node.messageSocket()));
        EXPECT_FALSE(std::filesystem::exists(node.adminSocket()));
    }
}

TEST(Node, RunsTheStartStepsInOrderAndRecordsThem)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    std::vector<std::string> library;
    const nlohmann::json status = node.json({"status"});
    for (const auto &step : status["start"]) {
        EXPECT_EQ(step["result"], 0) << step;
        library.push_back(step["step"]);
    }
    const std::vector<std::string> expected = {"DpcInitExternStub",    "extern_stub_init",   "nas_ctrl_init",
                                               "nas_ctrl_handler_reg", "NasCtrlClusterInit", "stub_initShardView",
                                               "nas_fmm_module_init",  "NasIpMgrInitModule", "NasLifMgrModuleStart",
                                               "nas_ctrl_power_on",    "NasCloudAdaptInit"};
    size_t next = 0;
    for (const auto &step : library) {
        next += next < expected.size() && step == expected[next] ? 1 : 0;
    }
    EXPECT_EQ(next, expected.size()) << testing::PrintToString(library);
}

TEST(Node, ListensOnEveryAddressThatIsAddedAndClosesTheDeleted)
{
    const uint16_t nfs = Node::freePort();
    const uint16_t hdfs = static_cast<uint16_t>(nfs == 65535 ? 1024 : nfs + 1);
    Node node({{0, "nfs", "1,3", nfs}, {1, "hdfs", "3", hdfs}, {2, "other", "7", nfs}});
    ASSERT_TRUE(node.start()) << node.startOutput();

    const std::vector<std::string> addresses = {Node::address(11), Node::address(12), Node::address(13)};
    const Outcome added = node.ctl({"ip", "add", addresses[0], addresses[1], addresses[2]});
    ASSERT_EQ(added.exitCode, 0) << added.err;
    for (const auto &address : addresses) {
        EXPECT_TRUE(Node::eventually([&] { return accepts(address, nfs) && accepts(address, hdfs); })) << address;
        EXPECT_TRUE(Node::eventually([&] { return node.moduleState(address, "hdfs") == "listening"; })) << address;
        EXPECT_EQ(node.moduleState(address, "other"), "") << "does not serve type 3";
    }

    ASSERT_EQ(node.ctl({"ip", "del", addresses[1]}).exitCode, 0);
    EXPECT_TRUE(Node::eventually([&] { return !accepts(addresses[1], nfs) && !accepts(addresses[1], hdfs); }));
    EXPECT_TRUE(Node::eventually([&] { return node.moduleState(addresses[1], "nfs").empty(); }));
    EXPECT_TRUE(accepts(addresses[0], nfs));
}

TEST(Node, APortInUseFailsThatModuleAloneAndARetryRepairsIt)
{
    const uint16_t nfs = Node::freePort();
    const uint16_t hdfs = static_cast<uint16_t>(nfs == 65535 ? 1024 : nfs + 1);
    Node node({{0, "nfs", "3", nfs}, {1, "hdfs", "3", hdfs}});
    ASSERT_TRUE(node.start()) << node.startOutput();
    const std::string address = Node::address(21);
    {
        const PortHolder foreign(address, nfs);
        ASSERT_EQ(node.ctl({"ip", "add", address}).exitCode, 0);
        EXPECT_TRUE(Node::eventually([&] { return node.moduleState(address, "nfs") == "failing"; }));
        EXPECT_EQ(node.moduleState(address, "hdfs"), "listening");
        EXPECT_EQ(node.json({"ip", "ls"})["addresses"][0]["status"], 62);
        EXPECT_THAT(node.ctl({"ip", "ls"}).out, HasSubstr("Address already in use"));
    }
    // Adding a known address retries the modules that failed, without waiting for the monitor.
    ASSERT_EQ(node.ctl({"ip", "add", address}).exitCode, 0);
    EXPECT_TRUE(Node::eventually([&] { return node.moduleState(address, "nfs") == "listening"; }));
    EXPECT_EQ(node.json({"ip", "ls"})["addresses"][0]["status"], 63);
    EXPECT_TRUE(accepts(address, nfs));
}

TEST(Node, TakesABurstOfSixtyAddresses)
{
    const uint16_t nfs = Node::freePort();
    Node node({{0, "nfs", "3", nfs}});
    ASSERT_TRUE(node.start()) << node.startOutput();
    std::vector<std::string> command = {"ip", "add"};
    for (unsigned host = 100; host < 160; ++host) {
        command.push_back(Node::address(host));
    }
    ASSERT_EQ(node.ctl(command).exitCode, 0);
    EXPECT_TRUE(Node::eventually([&] {
        const auto status = node.json({"status"});
        return status["addresses"]["total"] == 60 && status["addresses"]["pending"] == 0;
    }));
    for (unsigned host = 100; host < 160; ++host) {
        EXPECT_TRUE(accepts(Node::address(host), nfs)) << host;
    }
}

TEST(Node, TwoNodesLiveSideBySide)
{
    const uint16_t port = Node::freePort();
    Node first({{0, "nfs", "3", port}});
    Node second({{0, "nfs", "3", port}});
    ASSERT_TRUE(first.start()) << first.startOutput();
    ASSERT_TRUE(second.start()) << second.startOutput();
    ASSERT_EQ(first.ctl({"ip", "add", Node::address(31)}).exitCode, 0);
    ASSERT_EQ(second.ctl({"ip", "add", Node::address(32)}).exitCode, 0);
    EXPECT_TRUE(Node::eventually([&] { return first.moduleState(Node::address(31), "nfs") == "listening"; }));
    EXPECT_TRUE(Node::eventually([&] { return second.moduleState(Node::address(32), "nfs") == "listening"; }));
    EXPECT_EQ(first.moduleState(Node::address(32), "nfs"), "");
}

TEST(Node, ASecondNodeOnTheSameRootIsRefused)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    const Outcome second = run({NASCTRLD, "--root", node.root(), "--no-console"});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_EQ(std::count(second.err.begin(), second.err.end(), '\n'), 1) << second.err;
    EXPECT_THAT(second.err, HasSubstr("another process listens on it"));
    EXPECT_EQ(node.ctl({"status"}).exitCode, 0) << "the first goes on";
}

TEST(Node, PowersOffAndOnAgain)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(node.ctl({"power", "off"}).exitCode, 0);
    EXPECT_EQ(node.json({"power", "status"})["state"], 0);
    EXPECT_EQ(node.ctl({"power", "on"}).exitCode, 0);
    EXPECT_EQ(node.json({"power", "status"})["state"], 1);
}

TEST(Node, KeepsRemoteClusters)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(node.ctl({"cluster", "add", "5"}).exitCode, 0);
    EXPECT_EQ(node.ctl({"cluster", "add", "18446744073709551615"}).exitCode, 0);
    EXPECT_EQ(node.json({"cluster", "ls"})["clusters"], (nlohmann::json{"5", "18446744073709551615"}));
    EXPECT_EQ(node.ctl({"cluster", "rm", "5"}).exitCode, 0);
    EXPECT_EQ(node.json({"cluster", "ls"})["clusters"], (nlohmann::json{"18446744073709551615"}));
}

TEST(Node, ChangesItsLogLevelsWhileItRuns)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    EXPECT_EQ(node.ctl({"log", "level", "3"}).exitCode, 0);
    EXPECT_EQ(node.ctl({"log", "level", "--class", "0", "4"}).exitCode, 0);
    const auto levels = node.json({"log", "level"});
    EXPECT_EQ(levels["threshold"], 3);
    EXPECT_EQ(levels["classes"][0], 4);
}

TEST(Node, RunsRegisteredCommandsAndAccountsForItsMemory)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    ASSERT_EQ(node.ctl({"ip", "add", Node::address(41)}).exitCode, 0);
    EXPECT_TRUE(Node::eventually([&] {
        return node.ctl({"cmd", "-m", "sysctrl", "-c", "ip_show"}).out.find(Node::address(41)) != std::string::npos;
    }));
    bool listed = false;
    const auto accounts = node.json({"mem"});
    for (const auto &account : accounts["accounts"]) {
        listed = listed || (account["function"] == "NasIpMgrCreateListNode" && account["live_blocks"] == 1);
    }
    EXPECT_TRUE(listed) << accounts;
}

TEST(Messages, OfModuleEighteenAndThreeGetTheirReplies)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    const MessageClient client(node);
    EXPECT_EQ(client.call(18, 2, "x"), (Answer{18, 2, 1, 1, 0, word(0) + word(2)}));
    EXPECT_EQ(client.call(18, 3, "x"), (Answer{18, 3, 1, 2, 0, ""}));
    EXPECT_EQ(client.call(3, 0, word(10)), (Answer{3, 0, 1, 1, 0, std::string(8, '\0')}));
    EXPECT_EQ(client.call(3, 0, word(11)), (Answer{3, 0, 1, 2, 1, ""}));
    const std::string change = notice("notify_eds_change_ip", "");
    EXPECT_EQ(client.call(18, 1, change), (Answer{18, 1, 1, 1, 0, change}));
}

} // namespace
} // namespace integration
