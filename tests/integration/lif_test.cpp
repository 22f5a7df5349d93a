// LIF ports of a real node: added, shown and removed by hand, and pruned when their address is no longer the node's.
#include "node.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>

namespace integration {
namespace {

using nlohmann::json;

class LifNode : public testing::Test {
protected:
    LifNode()
    {
        node_.option("--period", "1");
        node_.option("--storage-data", data());
    }
    std::string data() const { return node_.root() + "/storage.json"; }
    // The node's own addresses are these.
    void write(const std::vector<std::string> &addresses) const
    {
        json list = json::array();
        for (const std::string &address : addresses) {
            list.push_back({{"address", address}, {"working", false}});
        }
        std::ofstream(data()) << json{{"addresses", list}};
    }
    void add(const std::string &id, const std::string &name, const std::string &address) const
    {
        const Outcome outcome = node_.ctl({"lif", "add", id, name, address});
        ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    std::vector<std::string> ids() const
    {
        std::vector<std::string> found;
        const json listed = node_.json({"lif", "ls"});
        for (const auto &port : listed["ports"]) {
            found.push_back(port["id"]);
        }
        return found;
    }
    bool become(const std::vector<std::string> &expected) const
    {
        return Node::eventually([&] { return ids() == expected; });
    }

    Node node_;
};

TEST_F(LifNode, PrunesAPortWithThePassThatDoesNotFindItsAddress)
{
    const std::string address = Node::address(81);
    write({address});
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    add("5", "lif-5", address);
    add("6", "lif-6", Node::address(82));

    EXPECT_TRUE(become({"5"})) << "the address of 6 is not the node's, that of 5 is, working or not";
    EXPECT_EQ(node_.json({"lif", "find", "5"})["known"], true);
    EXPECT_EQ(node_.json({"lif", "name", "5"})["name"], "lif-5");
    EXPECT_EQ(node_.json({"lif", "ls"})["ports"][0]["performance"], true);
    EXPECT_EQ(node_.json({"ip", "explain", address})["lif_ports"], (json{{{"id", "5"}, {"name", "lif-5"}}}));

    write({});
    node_.signal(SIGHUP);

    EXPECT_TRUE(become({}));
    EXPECT_EQ(node_.json({"lif", "find", "5"})["known"], false);
    EXPECT_EQ(node_.ctl({"cmd", "-m", "sysctrl", "-c", "perf_list"}).out, "") << "its performance path is off";
    const std::string line = "PROTOCOL: Auto Detact: PERF_SWITCH Ip is (" + address + ") lifportid(id:5), (ret:0).";
    EXPECT_TRUE(Node::eventually([&] { return node_.log().find(line) != std::string::npos; }));
}

TEST_F(LifNode, KeepsItsPortsWhileTheServiceDoesNotAnswer)
{
    write({});
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    ASSERT_EQ(node_.ctl({"storage", "fault", "1", "fail", "5"}).exitCode, 0);
    const auto lastResult = [this] { return node_.json({"ip", "monitor"})["last_pass"]["result"]; };
    EXPECT_TRUE(Node::eventually([&] { return lastResult() == -5; }));
    add("5", "lif-5", Node::address(83));
    const auto asked = [this] { return node_.json({"storage", "status"})["questions"][0]["requests"].get<int>(); };
    const int before = asked();
    EXPECT_TRUE(Node::eventually([&] { return asked() > before; }));
    EXPECT_EQ(ids(), std::vector<std::string>{"5"});

    ASSERT_EQ(node_.ctl({"storage", "fault", "1", "none"}).exitCode, 0);
    EXPECT_TRUE(become({}));
}

TEST_F(LifNode, DeletesAPortByItsAddressAndSaysWhenThereIsNone)
{
    const std::string address = Node::address(84);
    write({address});
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    add("5", "lif-5", address);
    EXPECT_EQ(node_.json({"lif", "del", address})["removed"], json{"5"});
    const Outcome again = node_.ctl({"lif", "del", address});
    EXPECT_EQ(again.exitCode, 1);
    EXPECT_EQ(again.err, "nasctl: lif del: not known to the node: no LIF port has the address " + address +
                             "; nasctl lif ls lists them\n");
}

} // namespace
} // namespace integration
