// A node that takes its addresses from the machine's interfaces, in a network namespace of its own.
#include "node.h"

#include <fstream>
#include <gmock/gmock.h>

namespace integration {
namespace {

using nlohmann::json;

class MachineNode : public testing::Test {
protected:
    void SetUp() override
    {
        if (!network_.exists()) {
            GTEST_SKIP() << "this machine refuses network namespaces, or has no unshare, nsenter or ip";
        }
        std::ofstream(data()) << R"({"address_sources": [{"interface": "lo", "network": "10.77.0.0/16"}],
                                     "interface_sources": [{"interface": "lo"}]})";
        node_.option("--period", "1");
        node_.option("--storage-data", data());
        node_.enter(network_);
        ASSERT_TRUE(node_.start()) << node_.startOutput();
    }
    std::string data() const { return node_.root() + "/storage.json"; }
    void ip(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {"ip"};
        command.insert(command.end(), words.begin(), words.end());
        const Outcome outcome = network_.run(command);
        ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    // What the kernel of that network has listening there.
    std::string listener(const std::string &address) const
    {
        return network_.run({"ss", "-Hltn", "src = " + address}).out;
    }
    bool becomes(const std::string &address, const std::string &state) const
    {
        return Node::eventually(
            [&] { return node_.moduleState(address, "nfs") == state && listener(address).empty() == state.empty(); });
    }

    PrivateNetwork network_;
    Node node_{{{0, "nfs", "3", 2049}}};
};

TEST_F(MachineNode, ListensOnTheAddressesOfAnInterfaceAsTheyComeAndGo)
{
    const std::string address = "10.77.0.5";
    ip({"address", "add", address + "/32", "dev", "lo"});
    ip({"address", "add", "10.78.0.5/32", "dev", "lo"});
    EXPECT_TRUE(becomes(address, "listening"));
    EXPECT_THAT(listener(address), testing::HasSubstr("10.77.0.5:2049 "));
    EXPECT_EQ(node_.moduleState("10.78.0.5", "nfs"), "") << "in no network that is taken";
    const json told = node_.json({"ip", "node"})["answer"]["entries"];
    EXPECT_EQ(told, (json{{{"address", address}, {"protocol_type", 3}, {"work_status", 1}}}));

    ASSERT_EQ(node_.ctl({"lif", "add", "5", "lif-5", address}).exitCode, 0);
    ip({"address", "delete", address + "/32", "dev", "lo"});

    EXPECT_TRUE(becomes(address, ""));
    EXPECT_TRUE(Node::eventually([this] { return node_.json({"lif", "ls"})["ports"].empty(); }));
    EXPECT_EQ(node_.json({"ip", "explain", address})["why_unknown"], "it is not among the node's addresses");
}

TEST_F(MachineNode, DoesNotAddTheAddressesOfAnInterfaceThatIsDown)
{
    ip({"link", "set", "lo", "down"});
    ip({"address", "add", "10.77.0.6/32", "dev", "lo"});
    const auto why = [this] { return node_.json({"ip", "explain", "10.77.0.6"})["why_unknown"]; };
    EXPECT_TRUE(Node::eventually([&] { return why() == "it is among the node's addresses, but not working"; }));
    ip({"link", "set", "lo", "up"});
    EXPECT_TRUE(becomes("10.77.0.6", "listening"));
}

TEST_F(MachineNode, ShowsTheMachinesInterfaces)
{
    ip({"address", "add", "10.79.0.1/24", "dev", "lo"});
    json found;
    EXPECT_TRUE(Node::eventually([&] {
        const json entries = node_.json({"ifaces"})["answer"]["entries"];
        for (const auto &entry : entries) {
            found = entry["address"] == "10.79.0.1" ? entry : found;
        }
        return !found.is_null();
    }));
    EXPECT_EQ(found["name"], "lo");
    EXPECT_EQ(found["prefix_length"], 24);
    EXPECT_EQ(found["flags"], 7);
}

} // namespace
} // namespace integration
