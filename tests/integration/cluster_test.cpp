/*
 * Parallel clients that join, fail and return at real nodes on a cluster store in a file: what the nodes tell their
 * modules, and what becomes of the clients' locks. A client is a process, so it can be killed.
 */
#include "node.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <unistd.h>
#include <utility>

namespace {

using integration::Node;
using testing::HasSubstr;

// nasctl dpc join.
class Client {
public:
    Client(const Node &node, const std::string &lsId)
    {
        const support::Pipe out;
        out_ = out.read;
        pid_ = support::spawn({NASCTL, "--root", node.root(), "dpc", "join", lsId, "--ttl", "3"},
                              {.out = out.write, .err = out.write});
        close(out.write);
    }
    ~Client()
    {
        if (pid_ > 0) {
            end(SIGKILL);
        }
        close(out_);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // Sends the signal, 0 for none, and returns the exit code.
    int end(int signal)
    {
        kill(pid_, signal);
        return support::exitCodeOf(std::exchange(pid_, -1));
    }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

// The state of a client in a node's view; "" when it is not there.
std::string stateOf(const Node &node, int lsId)
{
    const nlohmann::json view = node.json({"view"});
    for (const auto &client : view["clients"]) {
        if (client["ls"] == lsId) {
            return client["state"];
        }
    }
    return "";
}

bool becomes(const Node &node, int lsId, const std::string &state)
{
    return Node::eventually([&] { return stateOf(node, lsId) == state; });
}

// "MODULE EVENT" of all that a node was told of a client, in order.
std::vector<std::string> told(const Node &node, int lsId)
{
    std::vector<std::string> events;
    const std::string text = node.ctl({"--json", "events"}).out;
    for (size_t begin = 0; begin < text.size(); begin = text.find('\n', begin) + 1) {
        const auto event = nlohmann::json::parse(text.substr(begin, text.find('\n', begin) - begin));
        if (event["data"] == std::to_string(lsId)) {
            events.push_back(event["module"].get<std::string>() + " " + event["event"].get<std::string>());
        }
    }
    return events;
}

bool wasTold(const Node &node, int lsId, const std::vector<std::string> &events)
{
    return Node::eventually([&] { return told(node, lsId) == events; });
}

size_t lockCount(const Node &node)
{
    return node.json({"locks", "ls"})["locks"].size();
}

void takeLock(const Node &node, const std::string &lsId)
{
    EXPECT_EQ(node.ctl({"locks", "take", "--ls", lsId, "/a", lsId, "1"}).exitCode, 0);
}

const std::vector<std::string> kJoined = {"CM JOINED"};

std::vector<std::string> after(std::vector<std::string> events, const std::vector<std::string> &more)
{
    events.insert(events.end(), more.begin(), more.end());
    return events;
}

const std::vector<std::string> kBroken =
    after(kJoined, {"CM HEART_BREAK", "DLG NODE_FAULT", "FMM NODE_FAULT", "NLM LOCKS_RELEASED"});
const std::vector<std::string> kRecovery = {"CM RETURNED", "DLG NODE_RECOVER", "FMM NODE_RECOVER"};

// One node with a store of its own.
class OneNode : public testing::Test {
protected:
    void SetUp() override
    {
        node_.option("--lease", "2");
        ASSERT_TRUE(node_.start()) << node_.startOutput();
        ASSERT_TRUE(connects(node_));
    }
    static bool connects(const Node &node)
    {
        return Node::eventually([&] { return node.json({"view"})["connected"] == true; });
    }
    bool logs(const std::string &text) const
    {
        return Node::eventually([&] { return node_.log().find(text) != std::string::npos; });
    }

    Node node_;
};

TEST_F(OneNode, TurnsAKilledClientIntoAHeartBreakAndReleasesItsLocksOnce)
{
    Client killed(node_, "12");
    const Client living(node_, "13");
    ASSERT_TRUE(becomes(node_, 12, "running") && becomes(node_, 13, "running"));
    takeLock(node_, "12");
    takeLock(node_, "13");

    killed.end(SIGKILL);

    ASSERT_TRUE(becomes(node_, 12, "faulty"));
    EXPECT_TRUE(wasTold(node_, 12, kBroken));
    EXPECT_EQ(told(node_, 13), kJoined);
    EXPECT_EQ(node_.json({"dpc", "show", "12"})["last_fault"], "heart break");
    EXPECT_EQ(lockCount(node_), 1U);
}

TEST_F(OneNode, TellsOfTheReturnOfAClient)
{
    Client killed(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));
    const nlohmann::json before = node_.json({"dpc", "show", "12"});
    killed.end(SIGKILL);
    ASSERT_TRUE(becomes(node_, 12, "faulty"));

    const Client back(node_, "12");

    ASSERT_TRUE(becomes(node_, 12, "running"));
    EXPECT_TRUE(Node::eventually([&] {
        auto events = told(node_, 12);
        std::erase(events, "NLM LOCKS_RELEASED"); // which runs beside the rest
        return events == after({"CM JOINED", "CM HEART_BREAK", "DLG NODE_FAULT", "FMM NODE_FAULT"}, kRecovery);
    }));
    EXPECT_NE(node_.json({"dpc", "show", "12"})["session"], before["session"]);
}

TEST_F(OneNode, TakesAReportedDeathForAProcessFault)
{
    Client client(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));
    takeLock(node_, "12");

    EXPECT_EQ(node_.ctl({"dpc", "kill", "12"}).out, "LS 12: its process is reported dead\n");

    EXPECT_TRUE(
        wasTold(node_, 12, after(kJoined, {"CM FAULT", "DLG NODE_FAULT", "FMM NODE_FAULT", "NLM LOCKS_RELEASED"})));
    EXPECT_EQ(lockCount(node_), 0U);
    EXPECT_EQ(node_.json({"dpc", "show", "12"})["last_fault"], "process fault");
    EXPECT_TRUE(logs("[DPC_PROCESS_FAULT]Add dpc process fault event task lsid[12]"));
    EXPECT_EQ(client.end(0), 1) << "its lease has ended";
}

TEST_F(OneNode, EndsTheProcessOfAClientThatIsFaultyAlready)
{
    Client client(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));
    EXPECT_EQ(node_.ctl({"dpc", "fault", "12", "--reason", "9"}).out, "LS 12: reported faulty, reason 9\n");

    EXPECT_EQ(node_.ctl({"dpc", "kill", "12"}).out, "LS 12: its process is reported dead\n");

    EXPECT_EQ(client.end(0), 1) << "its lease has ended";
    EXPECT_EQ(node_.json({"dpc", "show", "12"})["faults"], 1);
    EXPECT_EQ(node_.ctl({"dpc", "kill", "12"}).err, "nasctl: dpc kill: refused by the node: LS 12 is faulty already\n");
}

TEST_F(OneNode, ScalesDownWhenAClientLeaves)
{
    Client client(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));
    takeLock(node_, "12");

    EXPECT_EQ(client.end(SIGTERM), 0);

    EXPECT_TRUE(wasTold(node_, 12, after(kJoined, {"CM LEFT", "DLG NODE_FAULT", "FMM NODE_FAULT"})));
    EXPECT_EQ(stateOf(node_, 12), "");
    EXPECT_TRUE(logs("DPC CM EVENT: Successfully cleaned up the view(lsId: 12)."));
    EXPECT_TRUE(logs("report Ds Business Status success, error code(0).")) << "the last client is gone";
    EXPECT_EQ(lockCount(node_), 1U) << "who leaves in good order releases its own";
}

TEST_F(OneNode, OutlivesAStoreThatIsGoneForAWhile)
{
    const std::string file = node_.root() + "/var/cluster.db";
    const Client client(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));

    std::filesystem::rename(file, file + ".away");

    EXPECT_TRUE(Node::eventually([&] { return node_.json({"view"})["connected"] == false; }));
    EXPECT_THAT(node_.ctl({"master"}).out, HasSubstr("the master is not known: no contact with the cluster for "));
    EXPECT_EQ(stateOf(node_, 12), "running") << "the last that it knows";
    EXPECT_THAT(node_.ctl({"dpc", "join", "13"}).err, HasSubstr("the cluster store does not answer"));

    std::filesystem::rename(file + ".away", file);

    EXPECT_TRUE(connects(node_));
    EXPECT_TRUE(Node::eventually([&] { return node_.json({"master"})["is_master"] == true; }));
    const Client other(node_, "13");
    EXPECT_TRUE(becomes(node_, 13, "running"));
    EXPECT_TRUE(node_.running());
}

TEST_F(OneNode, TellsOfAFaultyClientWhenItStartsAnew)
{
    {
        Client killed(node_, "12");
        ASSERT_TRUE(becomes(node_, 12, "running"));
    }
    ASSERT_TRUE(becomes(node_, 12, "faulty"));
    ASSERT_EQ(node_.stop(SIGKILL), 128 + SIGKILL);

    ASSERT_TRUE(node_.start()) << node_.startOutput();

    ASSERT_TRUE(connects(node_)) << "once the lease of its earlier life has ended";
    EXPECT_TRUE(wasTold(node_, 12, {"CM HEART_BREAK", "DLG NODE_FAULT", "FMM NODE_FAULT", "NLM LOCKS_RELEASED"}));
    const Client back(node_, "12");
    ASSERT_TRUE(becomes(node_, 12, "running"));
    EXPECT_TRUE(Node::eventually([&] {
        return told(node_, 12) ==
               after({"CM HEART_BREAK", "DLG NODE_FAULT", "FMM NODE_FAULT", "NLM LOCKS_RELEASED"}, kRecovery);
    }));
}

TEST_F(OneNode, ShowsItsClusterInItsStatus)
{
    const nlohmann::json cluster = node_.json({"status"})["cluster"];
    EXPECT_EQ(cluster["store"]["place"], node_.root() + "/var/cluster.db");
    EXPECT_EQ(cluster["store"]["reachable"], true);
    EXPECT_EQ(cluster["connected"], true);
    EXPECT_EQ(cluster["master"], 1);
}

// Two nodes on one file.
class TwoNodes : public testing::Test {
protected:
    void SetUp() override
    {
        unsigned id = 0;
        for (Node *node : {&first_, &second_}) {
            node->option("--node-id", std::to_string(++id));
            node->option("--lease", "2");
            node->option("--store", "sqlite:" + directory_.path() + "/cluster.db");
            ASSERT_TRUE(node->start()) << node->startOutput();
        }
        ASSERT_TRUE(Node::eventually([&] { return masterOf(first_) != 0 && masterOf(first_) == masterOf(second_); }));
    }
    // 0 = not known.
    static int masterOf(const Node &node)
    {
        const nlohmann::json master = node.json({"master"})["master"];
        return master.is_null() ? 0 : master.get<int>();
    }
    static int versionOf(const Node &node) { return node.json({"ns", "read"})["version"]; }

    integration::TemporaryDirectory directory_;
    Node first_;
    Node second_;
};

TEST_F(TwoNodes, SeeTheSameClientsAndAreBothToldOfAHeartBreak)
{
    Client one(first_, "12");
    const Client two(second_, "13");
    for (const Node *node : {&first_, &second_}) {
        ASSERT_TRUE(becomes(*node, 12, "running") && becomes(*node, 13, "running"));
        takeLock(*node, "12");
    }

    one.end(SIGKILL);

    for (const Node *node : {&first_, &second_}) {
        ASSERT_TRUE(becomes(*node, 12, "faulty"));
        EXPECT_TRUE(wasTold(*node, 12, kBroken));
        EXPECT_EQ(lockCount(*node), 0U);
    }
    EXPECT_EQ(first_.json({"view"})["clients"], second_.json({"view"})["clients"]);
}

TEST_F(TwoNodes, ElectAnotherMasterWhenTheirsIsKilled)
{
    Node &master = masterOf(first_) == 1 ? first_ : second_;
    Node &other = masterOf(first_) == 1 ? second_ : first_;
    const int otherId = masterOf(first_) == 1 ? 2 : 1;
    Client client(other, "12");
    ASSERT_TRUE(becomes(other, 12, "running"));

    master.stop(SIGKILL);
    client.end(SIGKILL);

    EXPECT_TRUE(Node::eventually([&] { return masterOf(other) == otherId; }));
    EXPECT_TRUE(becomes(other, 12, "faulty")) << "the new master looks after the clients";
    ASSERT_TRUE(master.start()) << master.startOutput();
    EXPECT_TRUE(Node::eventually([&] { return masterOf(master) == otherId; }));
    EXPECT_EQ(stateOf(master, 12), "faulty");
}

TEST_F(TwoNodes, LoseNoPublicationOfTwoAtOnce)
{
    constexpr int kEach = 5;
    const int before = versionOf(first_);
    const support::Pipe out;
    std::vector<pid_t> publishers;
    for (int i = 0; i < kEach; ++i) {
        for (const Node *node : {&first_, &second_}) {
            publishers.push_back(
                support::spawn({NASCTL, "--root", node->root(), "--timeout-ms", "60000", "ns", "publish", "7"},
                               {.out = out.write, .err = out.write}));
        }
    }
    close(out.write);
    const std::string said = support::readAll(out.read);
    for (const pid_t publisher : publishers) {
        EXPECT_EQ(support::exitCodeOf(publisher), 0) << said;
    }

    EXPECT_EQ(versionOf(first_), before + 2 * kEach);
    EXPECT_EQ(versionOf(second_), before + 2 * kEach);
}

} // namespace
