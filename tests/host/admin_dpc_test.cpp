/*
 * What the admin door answers about the parallel clients, and what it lets them do. The cluster store is a real file
 * with a clock of the test's own; the CM client is scripted.
 */
#include "admin/routes.h"
#include "admin_node.h"
#include "cluster/cm_client.h"
#include "cluster/dpc_clients.h"
#include <atomic>
#include <filesystem>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace {

using testing::HasSubstr;
using Json = nlohmann::json;
using namespace std::chrono_literals;

class AdminDpc : public testing::Test {
protected:
    void SetUp() override
    {
        resetNode();
        char pattern[] = "/tmp/nasctrl-dpc-XXXXXX";
        directory_ = mkdtemp(pattern);
    }
    void TearDown() override
    {
        host::stopClusterStore();
        resetNode();
        std::filesystem::remove_all(directory_);
    }
    void startStore()
    {
        host::StoreSettings settings;
        settings.file = directory_ + "/cluster.db";
        settings.timeout = std::chrono::seconds(30); // a slow disk fails no test
        settings.clock = [this] { return std::chrono::milliseconds(now_); };
        host::startClusterStore(settings);
    }
    void takeStoreAway() const { std::filesystem::rename(directory_ + "/cluster.db", directory_ + "/cluster.db.away"); }
    void passTime(std::chrono::milliseconds time) { now_ += time.count(); }
    // The view as it is stored.
    static host::DpcView stored() { return host::readView(*host::clusterStore()).value_or(host::DpcView{}); }

    static host::admin::Answer call(const std::string &method, const std::string &target, const std::string &body = "")
    {
        return host::admin::answerRequest({method, target, body});
    }
    static void expectRefusal(const host::admin::Answer &answer, unsigned status, const std::string &line)
    {
        EXPECT_EQ(answer.status, status);
        EXPECT_EQ(answer.body, R"({"error":")" + line + R"("})");
    }

private:
    std::string directory_;
    std::atomic<int64_t> now_ = 1'000'000;
};

// ---- what the node knows

TEST_F(AdminDpc, ShowsTheViewAsTheNodeKnowsIt)
{
    g_node.cm.connected = true;
    g_node.cm.master = 3;
    host::DpcView view{12, "w", {}};
    view.put({7, 100, host::kFaulty, host::kHeartBreak, 2, 1, {{"ip", "10.0.0.1"}}});
    view.put({8, 18446744073709551615U, host::kRunning, host::kNoFault, 0, 2, {}});
    view.put({9, 1, host::kRunning, host::kProcessFault, 1, 2, {}});
    view.put({10, 1, host::kFaulty, 77, 1, 2, {}});
    g_node.view = std::make_shared<const host::DpcView>(view);

    EXPECT_EQ(call("GET", "/v1/view").body,
              R"({"version":12,"connected":true,"master":3,"clients":[)"
              R"({"ls":7,"state":"faulty","last_fault":"heart break","faults":2,"session":"100","node":1,)"
              R"("attributes":{"ip":"10.0.0.1"}},)"
              R"({"ls":8,"state":"running","last_fault":null,"faults":0,"session":"18446744073709551615","node":2,)"
              R"("attributes":{}},)"
              R"({"ls":9,"state":"running","last_fault":"process fault","faults":1,"session":"1","node":2,)"
              R"("attributes":{}},)"
              R"({"ls":10,"state":"faulty","last_fault":"reason 77","faults":1,"session":"1","node":2,)"
              R"("attributes":{}}]})");
    EXPECT_EQ(call("GET", "/v1/dpc/8").body,
              R"({"ls":8,"state":"running","last_fault":null,"faults":0,"session":"18446744073709551615","node":2,)"
              R"("attributes":{}})");
    expectRefusal(call("GET", "/v1/dpc/11"), 404, "LS 11 is not in the view; nasctl dpc ls lists its clients");
}

TEST_F(AdminDpc, ShowsThatNoViewWasReadYet)
{
    EXPECT_EQ(call("GET", "/v1/view").body, R"({"version":null,"connected":false,"master":null,"clients":[]})");
    expectRefusal(call("GET", "/v1/dpc/7"), 404, "LS 7 is not in the view; nasctl dpc ls lists its clients");
}

TEST_F(AdminDpc, ShowsTheMaster)
{
    g_node.cm.node = 3;
    g_node.cm.connected = true;
    g_node.cm.master = 3;
    g_node.cm.ttl = 5s;
    g_node.cm.sinceContact = 1234ms;
    EXPECT_EQ(call("GET", "/v1/master").body,
              R"({"node":3,"master":3,"is_master":true,"connected":true,"ttl_s":5,"since_contact_ms":1234})");
    g_node.cm.master = 1;
    EXPECT_THAT(call("GET", "/v1/master").body, HasSubstr(R"("master":1,"is_master":false)"));
    g_node.cm.master.reset();
    EXPECT_THAT(call("GET", "/v1/master").body, HasSubstr(R"("master":null,"is_master":false)"));
}

TEST_F(AdminDpc, ShowsWithoutWaitingAndChangesAsAQuestion)
{
    for (const char *path : {"/v1/view", "/v1/master", "/v1/dpc/7"}) {
        EXPECT_EQ(host::admin::laneOf({"GET", path, ""}), host::admin::Lane::read) << path;
    }
    for (const char *path : {"/v1/dpc/join/7", "/v1/dpc/keep/7", "/v1/dpc/leave/7", "/v1/dpc/fault/7"}) {
        EXPECT_EQ(host::admin::laneOf({"POST", path, ""}), host::admin::Lane::question) << path;
    }
}

// ---- what clients do

TEST_F(AdminDpc, LetsAClientJoinStayAndLeave)
{
    startStore();
    const auto joined =
        call("POST", "/v1/dpc/join/7", R"({"ttl_s": 2, "attributes": ["ip=10.0.0.1@10.0.0.2", "empty="]})");
    ASSERT_EQ(joined.status, 200U) << joined.body;
    const Json member = Json::parse(joined.body);
    const host::DpcClient client = stored().clients.at(0);
    EXPECT_EQ(member["ls"], 7);
    EXPECT_EQ(member["session"], std::to_string(client.session));
    EXPECT_EQ(member["ttl_ms"], 2000);
    EXPECT_EQ(client.node, 7U) << "the id of the node behind this door";
    EXPECT_THAT(client.attributes,
                testing::UnorderedElementsAre(testing::Pair("ip", "10.0.0.1@10.0.0.2"), testing::Pair("empty", "")));

    const std::string lease = Json{{"lease", member["lease"]}}.dump();
    passTime(1500ms);
    EXPECT_EQ(call("POST", "/v1/dpc/keep/7", lease).body, R"({"ls":7})");
    passTime(1500ms);
    EXPECT_EQ(call("POST", "/v1/dpc/keep/7", lease).status, 200U) << "the first renewal counts";

    EXPECT_EQ(call("POST", "/v1/dpc/leave/7").body, R"({"ls":7})");
    EXPECT_TRUE(stored().clients.empty());
    expectRefusal(call("POST", "/v1/dpc/keep/7", lease), 400, "its lease has ended");
    expectRefusal(call("POST", "/v1/dpc/leave/7"), 400, "LS 7 is not in the view; nasctl dpc ls lists its clients");
}

TEST_F(AdminDpc, JoinsForThreeSecondsUnlessToldOtherwise)
{
    startStore();
    EXPECT_EQ(Json::parse(call("POST", "/v1/dpc/join/7").body)["ttl_ms"], 3000);
    expectRefusal(call("POST", "/v1/dpc/join/7"), 400, "a process of LS 7 lives already");
}

TEST_F(AdminDpc, TakesReportsOfFaults)
{
    startStore();
    const Json dead = Json::parse(call("POST", "/v1/dpc/join/7").body);
    const Json alive = Json::parse(call("POST", "/v1/dpc/join/8").body);

    EXPECT_EQ(call("POST", "/v1/dpc/fault/7", R"({"reason": 2, "ends_process": 1})").body, R"({"ls":7,"reason":2})");
    EXPECT_EQ(call("POST", "/v1/dpc/fault/8", R"({"reason": 9})").body, R"({"ls":8,"reason":9})");

    EXPECT_EQ(stored().find(7)->faultReason, host::kProcessFault);
    EXPECT_EQ(stored().find(8)->faultReason, 9);
    expectRefusal(call("POST", "/v1/dpc/keep/7", Json{{"lease", dead["lease"]}}.dump()), 400, "its lease has ended");
    EXPECT_EQ(call("POST", "/v1/dpc/keep/8", Json{{"lease", alive["lease"]}}.dump()).status, 200U);
    expectRefusal(call("POST", "/v1/dpc/fault/7", R"({"reason": 2})"), 400, "LS 7 is faulty already");
    expectRefusal(call("POST", "/v1/dpc/fault/9", R"({"reason": 2})"), 400,
                  "LS 9 is not in the view; nasctl dpc ls lists its clients");
}

struct WrongCall {
    const char *target;
    std::string body;
    std::string line;
};

TEST_F(AdminDpc, RefusesWhatIsWrong)
{
    startStore();
    const std::string tooLong = std::string(32, 'n') + "=v";
    const WrongCall calls[] = {
        {"/v1/dpc/join/4294967296", "", "id: must be below 4294967296"},
        {"/v1/dpc/join/7", R"({"ttl_s": 0})", "ttl_s: must not be 0"},
        {"/v1/dpc/join/7", R"({"attributes": ["ip"]})",
         "attributes: ip is not NAME=VALUE of at most 31 and 255 characters"},
        {"/v1/dpc/join/7", R"({"attributes": ["=v"]})",
         "attributes: =v is not NAME=VALUE of at most 31 and 255 characters"},
        {"/v1/dpc/join/7", R"({"attributes": [")" + tooLong + R"("]})",
         "attributes: " + tooLong + " is not NAME=VALUE of at most 31 and 255 characters"},
        {"/v1/dpc/fault/7", "{}", "reason: is missing"},
        {"/v1/dpc/keep/7", "{}", "lease: is missing"},
    };
    for (const WrongCall &wrong : calls) {
        SCOPED_TRACE(wrong.target + wrong.body);
        expectRefusal(call("POST", wrong.target, wrong.body), 400, wrong.line);
    }
    EXPECT_EQ(stored().version, 0U) << "nothing was changed";
}

TEST_F(AdminDpc, SaysThatTheStoreIsOutOfReach)
{
    const WrongCall calls[] = {{"/v1/dpc/join/7", "", ""},
                               {"/v1/dpc/keep/7", R"({"lease": "1"})", ""},
                               {"/v1/dpc/leave/7", "", ""},
                               {"/v1/dpc/fault/7", R"({"reason": 2})", ""}};
    for (const WrongCall &each : calls) {
        expectRefusal(call("POST", each.target, each.body), 503, "the node has no cluster store");
    }
    startStore();
    call("POST", "/v1/dpc/join/7");
    takeStoreAway();
    for (const WrongCall &each : calls) {
        expectRefusal(call("POST", each.target, each.body), 503, "the cluster store does not answer");
    }
}

TEST_F(AdminDpc, ShowsTheClusterInTheNodesStatus)
{
    EXPECT_THAT(call("GET", "/v1/status").body,
                HasSubstr(R"("cluster":{"store":null,"connected":false,"master":null,"view_version":null,)"
                          R"("clients":0},"busy")"));
    startStore();
    g_node.cm.connected = true;
    g_node.cm.master = 2;
    g_node.view = std::make_shared<const host::DpcView>(host::DpcView{4, "w", {host::DpcClient{}}});

    const std::string cluster = Json::parse(call("GET", "/v1/status").body)["cluster"].dump();
    EXPECT_THAT(cluster, HasSubstr(R"("clients":1,"connected":true,"master":2,)"));
    EXPECT_THAT(cluster, HasSubstr(R"("reachable":true},"view_version":4})"));
    takeStoreAway();
    call("POST", "/v1/dpc/join/7");
    EXPECT_THAT(call("GET", "/v1/status").body, HasSubstr(R"(cluster.db: the file was taken away"},"connected":true)"));
}

} // namespace
