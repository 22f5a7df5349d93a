// Every question to the storage-side service, from nasctl through a node to a nasstored of its own and back; and what
// an operator sees when that service is reloaded, gone, slow, silent, curt or failing.
#include "node.h"

#include <csignal>
#include <future>
#include <gmock/gmock.h>

namespace integration {
namespace {

using nlohmann::json;
using testing::HasSubstr;

constexpr const char *kData = R"({
    "addresses": [{"address": "127.0.0.1", "protocol_type": 9, "working": false}],
    "interfaces": [{"name": "data0", "index": 101, "loopback": true, "mtu": 9000, "address": "10.1.0.1",
                    "prefix_length": 24}],
    "hdfs": [{"address": "10.1.0.1", "fs_id": 7, "tenant_id": 4, "subnet": "blue-a", "dtree_path": "/fs7/blue"}],
    "tenants": [{"address": "fd00::1", "tenant_id": 4294967295}],
    "neighbors": [{"eds_ls_id": 2, "addresses": [{"address": "10.1.0.2"}, {"address": "10.1.0.3"}]}],
    "zone_addresses": [{"address": "10.1.0.4"}],
    "global_zones": [{"fs_id": 7, "tenant_id": 4, "subnet": "blue-a", "addresses": [{"address": "10.1.0.5"}]}],
    "subnets": [{"fs_id": 0, "tenant_id": 0, "subnet": "blue-b", "addresses": [{"address": "10.1.0.6"}]}],
    "global_zone_node_ids": ["node-1", "node-2"],
    "contacted_zone": {"zone_id": 1, "fs_id": 7, "tenant_id": 4},
    "zone_domain": "zone-a.nas.example"
})";

json addressRow(const std::string &address, unsigned type = 3, unsigned status = 1)
{
    return {{"address", address}, {"protocol_type", type}, {"work_status", status}};
}

template <class... Rows>
json list(const Rows &...rows)
{
    return {{"result", 0}, {"count", sizeof...(rows)}, {"entries", json::array({rows...})}, {"rest", nullptr}};
}

struct Question {
    unsigned type;
    std::vector<std::string> command;
    json answer;
};

std::vector<Question> questions()
{
    return {
        {1, {"ip", "node"}, list(addressRow("127.0.0.1", 9, 0))},
        {3,
         {"hdfs", "conf", "10.1.0.1"},
         {{"result", 0},
          {"fs_id", 7},
          {"dtree_path", "/fs7/blue"},
          {"subnet", "blue-a"},
          {"tenant_id", 4},
          {"rest", nullptr}}},
        {4, {"hdfs", "neighbors", "2"}, list(addressRow("10.1.0.2"), addressRow("10.1.0.3"))},
        {5, {"hdfs", "zone"}, list(addressRow("10.1.0.4"))},
        {6,
         {"ifaces"},
         list(json{{"name", "data0"},
                   {"index", 101},
                   {"flags", 7},
                   {"mtu", 9000},
                   {"prefix_length", 24},
                   {"address", "10.1.0.1"}})},
        {9, {"hdfs", "global-zone", "blue-a", "--fs-id", "7", "--tenant-id", "4"}, list(addressRow("10.1.0.5"))},
        {10, {"hdfs", "node-ids"}, list(json{{"node_id", "node-1"}}, json{{"node_id", "node-2"}})},
        {11, {"hdfs", "tenant", "fd00:0::1"}, {{"result", 0}, {"tenant_id", 4294967295}, {"rest", nullptr}}},
        {13, {"hdfs", "contacted"}, {{"result", 0}, {"zone_id", 1}, {"fs_id", 7}, {"tenant_id", 4}, {"rest", nullptr}}},
        {14, {"hdfs", "subnet", "blue-b"}, list(addressRow("10.1.0.6"))},
        {15, {"hdfs", "domain"}, {{"result", 0}, {"domain", "zone-a.nas.example"}, {"rest", nullptr}}},
    };
}

// A node whose storage-side service is a process of its own.
class Questions : public testing::Test {
protected:
    Questions() : port_(Node::freePort()), node_({{0, "nfs", "3", port_}}), stored_(node_.root())
    {
        node_.option("--period", "1");
        node_.option("--storage-socket", stored_.socket());
    }
    void start(const std::string &data)
    {
        stored_.write(data);
        ASSERT_TRUE(stored_.start());
        ASSERT_TRUE(node_.start()) << node_.startOutput();
    }
    json state(unsigned type) const
    {
        const json status = node_.json({"storage", "status"});
        for (const auto &row : status["questions"]) {
            if (row["type"] == type) {
                return row;
            }
        }
        return {};
    }
    bool becomes(const std::string &address, const std::string &state) const
    {
        return Node::eventually([&] {
            return node_.moduleState(address, "nfs") == state && accepts(address, port_) == (state == "listening");
        });
    }
    void fault(const std::vector<std::string> &words) const
    {
        std::vector<std::string> command = {"storage", "fault"};
        command.insert(command.end(), words.begin(), words.end());
        const Outcome outcome = node_.ctl(command);
        ASSERT_EQ(outcome.exitCode, 0) << outcome.err;
    }
    // The next passes have failed, with that code.
    bool passesFail(int code) const
    {
        return Node::eventually([&] { return node_.json({"ip", "monitor"})["last_pass"]["result"] == code; });
    }

    uint16_t port_;
    Node node_;
    Stored stored_;
};

TEST_F(Questions, OfEveryTypeAreAnsweredByTheOtherProcess)
{
    start(kData);
    EXPECT_EQ(node_.json({"storage", "status"})["pid"], stored_.pid());
    for (const Question &question : questions()) {
        const uint64_t before = state(question.type)["requests"];
        const json told = node_.json(question.command);
        EXPECT_EQ(told["code"], 0) << question.type;
        EXPECT_EQ(told["answer"], question.answer) << question.type;
        EXPECT_GT(state(question.type)["requests"], before) << question.type;
    }
}

TEST_F(Questions, AreAnsweredWithAnEmptyListOrNotAtAllWithoutData)
{
    start("{}");
    for (const Question &question : questions()) {
        const Outcome outcome = node_.ctl(question.command);
        const bool isList = question.type == 1 || question.type == 5 || question.type == 6 || question.type == 10;
        EXPECT_EQ(outcome.exitCode, isList ? 0 : 1) << question.type;
        EXPECT_THAT(outcome.err, HasSubstr(isList ? "" : "the storage-side service answered with result -2"));
        EXPECT_THAT(outcome.out, HasSubstr(isList ? "count   0\n" : "")) << question.type;
    }
}

TEST_F(Questions, AreAnsweredFromTheNewDataOnceItIsReadAndFromTheOldWhenItIsRefused)
{
    start(R"({"zone_domain": "old.example"})");
    const auto domain = [this] { return node_.json({"hdfs", "domain"})["answer"]["domain"]; };
    const auto error = [this] { return node_.json({"storage", "status"})["error"]; };

    stored_.write("{\"addresses\": [],\n\"zone_domain\": 5}");
    stored_.signal(SIGHUP);
    const std::string why = stored_.data() + " line 2: zone_domain: must be a text of 1 to 253 bytes without NUL";
    EXPECT_TRUE(Node::eventually([&] { return error() == why; }));
    EXPECT_EQ(domain(), "old.example");

    stored_.write(R"({"zone_domain": "new.example"})");
    stored_.signal(SIGHUP);
    EXPECT_TRUE(Node::eventually([&] { return error().get<std::string>().empty(); }));
    EXPECT_EQ(domain(), "new.example");
}

TEST_F(Questions, FailWhileTheServiceIsGoneAndWhatIsServedStaysUntilItIsBack)
{
    const std::string first = Node::address(71);
    const std::string second = Node::address(72);
    start(R"({"addresses": [{"address": ")" + first + R"("}]})");
    EXPECT_TRUE(becomes(first, "listening"));

    EXPECT_EQ(stored_.stop(SIGKILL), 128 + SIGKILL);
    const Outcome outcome = node_.ctl({"hdfs", "domain"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_EQ(outcome.err, "nasctl: hdfs domain: the question failed with -111 (Connection refused); is the "
                           "storage-side service running?\n");
    EXPECT_TRUE(passesFail(-111));
    EXPECT_TRUE(accepts(first, port_));

    stored_.write(R"({"addresses": [{"address": ")" + second + R"("}]})");
    ASSERT_TRUE(stored_.start());
    EXPECT_TRUE(becomes(second, "listening"));
    EXPECT_TRUE(becomes(first, ""));
}

TEST_F(Questions, ShowTheFaultsOfTheService)
{
    node_.option("--storage-timeout-ms", "200");
    start(R"({"zone_domain": "zone-a.nas.example"})");
    struct Row {
        std::vector<std::string> fault;
        int code;
        json domain;
    };
    const Row rows[] = {
        {{"15", "fail", "5"}, -5, nullptr},
        {{"15", "short", "20"}, 0, "zone-a.nas.examp"},
        {{"15", "short", "0"}, -12, nullptr},
        {{"15", "timeout"}, -110, nullptr},
        {{"15", "slow", "3600000"}, -110, nullptr},
        {{"all", "timeout"}, -110, nullptr},
        {{"15", "slow", "1"}, 0, "zone-a.nas.example"},
        {{"3", "timeout"}, 0, "zone-a.nas.example"},
    };
    for (const Row &row : rows) {
        fault({"all", "none"});
        fault(row.fault);
        const json told = node_.json({"hdfs", "domain"});
        EXPECT_EQ(told["code"], row.code) << testing::PrintToString(row.fault);
        EXPECT_EQ(told["code"] == 0 ? told["answer"]["domain"] : json(), row.domain)
            << testing::PrintToString(row.fault);
    }
    EXPECT_THAT(node_.log(), HasSubstr("PROTOCOL: Msg type(15) upcall failed(-110), try 3 times."));
}

TEST_F(Questions, OfTheMonitorMayFailInEveryWayAndTheAddressesStay)
{
    const std::string address = Node::address(73);
    node_.option("--storage-timeout-ms", "200");
    start(R"({"addresses": [{"address": ")" + address + R"("}]})");
    EXPECT_TRUE(becomes(address, "listening"));
    const std::pair<std::vector<std::string>, int> rows[] = {
        {{"1", "fail", "13"}, -13},
        {{"1", "timeout"}, -110},
        {{"1", "short", "0"}, -12},
        {{"1", "short", "79"}, -71},
    };
    for (const auto &[words, code] : rows) {
        fault(words);
        EXPECT_TRUE(passesFail(code)) << testing::PrintToString(words);
        EXPECT_TRUE(accepts(address, port_)) << testing::PrintToString(words);
    }
    fault({"1", "none"});
    EXPECT_TRUE(passesFail(0));
    EXPECT_EQ(node_.moduleState(address, "nfs"), "listening");
}

TEST_F(Questions, ThatWaitDoNotKeepAnOperatorFromEndingTheFault)
{
    node_.option("--storage-timeout-ms", "3600000");
    start(R"({"zone_domain": "zone-a.nas.example"})");
    fault({"15", "timeout"});
    std::vector<std::future<Outcome>> waiting;
    for (int i = 0; i < 6; ++i) {
        waiting.push_back(std::async(std::launch::async, [this] {
            return node_.ctl({"hdfs", "domain", "--timeout-ms", "1000"});
        }));
    }
    EXPECT_TRUE(Node::eventually([this] { return state(15)["requests"] >= 4; }));

    fault({"15", "none"});

    EXPECT_EQ(state(15)["fault"], "none");
    for (auto &outcome : waiting) {
        EXPECT_EQ(outcome.get().exitCode, 1);
    }
}

} // namespace
} // namespace integration
