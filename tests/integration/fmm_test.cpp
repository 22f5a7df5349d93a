// The shard view and the FMM commands of a running node, as an operator uses them.
#include "node.h"

#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sstream>

namespace {

using integration::Node;
using integration::Outcome;
using testing::ElementsAre;
using testing::HasSubstr;

Outcome command(const Node &node, const std::string &name, const std::vector<std::string> &value = {})
{
    std::vector<std::string> arguments = {"cmd", "-m", "nas_fmm", "-c", name};
    if (!value.empty()) {
        arguments.insert(arguments.end(), {"-v", value[0]});
    }
    return node.ctl(arguments);
}

// The words of each line.
std::vector<std::string> rows(const std::string &table)
{
    std::vector<std::string> found;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string row;
        for (std::string word; words >> word;) {
            row += (row.empty() ? "" : " ") + word;
        }
        found.push_back(row);
    }
    return found;
}

TEST(FmmCommands, AreListedWithTheirUsage)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    const nlohmann::json listed = node.json({"cmd"});
    std::vector<std::string> names;
    for (const auto &entry : listed["commands"]) {
        if (entry["module"] == "nas_fmm") {
            names.push_back(entry["command"]);
        }
    }
    EXPECT_THAT(names, testing::UnorderedElementsAre("shard_change", "node_fault", "node_recover",
                                                     "modify_fsp_shardview", "set_node_fault", "show_fsp_shardview",
                                                     "get_node_info", "failback_shard_view"));
}

TEST(FmmCommands, FailAStorageNodeOverAndBack)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    const Outcome before = command(node, "get_node_info");
    EXPECT_EQ(before.exitCode, 0) << before.err;
    EXPECT_THAT(rows(before.out), ElementsAre("NODE node id ip status dest", "Node0 1 127.0.0.1 NORMAL 0",
                                              "Node1 2 127.0.0.2 NORMAL 0", "Node2 3 127.0.0.3 NORMAL 0"));
    EXPECT_THAT(rows(command(node, "show_fsp_shardview").out), ElementsAre("NODE FSP Version"));
    // A view in which no FSP was looked up moves nothing, and so marks nothing.
    EXPECT_EQ(command(node, "set_node_fault", {"2"}).exitCode, 0);
    EXPECT_EQ(command(node, "modify_fsp_shardview", {"5"}).exitCode, 0);
    EXPECT_EQ(rows(command(node, "show_fsp_shardview").out).size(), 2U);
    EXPECT_EQ(command(node, "set_node_fault", {"0x2"}).exitCode, 0);
    EXPECT_THAT(rows(command(node, "get_node_info").out), testing::Contains("Node1 2 127.0.0.2 FAULT 3"));
    EXPECT_EQ(command(node, "failback_shard_view", {"02"}).exitCode, 0);
    EXPECT_THAT(rows(command(node, "get_node_info").out), testing::Contains("Node1 2 127.0.0.2 NORMAL 0"));
}

TEST(FmmCommands, RefuseAValueThatIsMissingOrNoNumber)
{
    Node node;
    ASSERT_TRUE(node.start()) << node.startOutput();
    for (const char *name : {"modify_fsp_shardview", "set_node_fault", "failback_shard_view", "node_fault"}) {
        const Outcome refused = command(node, name);
        EXPECT_EQ(refused.exitCode, 1) << name;
        EXPECT_THAT(refused.err, HasSubstr("result 1")) << name;
    }
    EXPECT_EQ(command(node, "set_node_fault", {"2x"}).exitCode, 1);
    EXPECT_EQ(command(node, "set_node_fault", {"99"}).exitCode, 1) << "there is no such LS";
    EXPECT_TRUE(node.running());
}

TEST(ShardViewConfiguration, IsNeededAtTheStart)
{
    Node node;
    std::ifstream in(node.configFile("dpc.conf"));
    std::string text;
    for (std::string row; std::getline(in, row);) {
        text += row.starts_with("ebsserver_ip_list") ? "" : row + "\n";
    }
    in.close();
    std::ofstream(node.configFile("dpc.conf")) << text;
    EXPECT_FALSE(node.start());
    EXPECT_THAT(node.startOutput(), HasSubstr("stub_initShardView failed with 1"));
}

} // namespace
