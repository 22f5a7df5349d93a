/*
 * nasctl view, master and dpc: what they ask and print, and how dpc join lives as a client's process.
 */
#include "answered_command.h"
#include <csignal>
#include <support/process.h>
#include <unistd.h>

namespace {

constexpr char kView[] =
    R"({"version": 12, "connected": true, "master": 2, "clients": [)"
    R"({"ls": 7, "state": "faulty", "last_fault": "heart break", "faults": 2, "session": "100", "node": 1,)"
    R"( "attributes": {}},)"
    R"( {"ls": 108, "state": "running", "last_fault": null, "faults": 0, "session": "1700000000000", "node": 2,)"
    R"( "attributes": {"ip": "10.0.0.1"}}]})";

constexpr char kClients[] = " LS  STATE    LAST FAULT   FAULTS  SESSION        NODE\n"
                            "  7  faulty   heart break       2  100            1\n"
                            "108  running  -                 0  1700000000000  2\n";

constexpr char kNoClients[] = "no clients\n";

constexpr char kClient[] =
    R"({"ls": 7, "state": "faulty", "last_fault": "heart break", "faults": 2, "session": "100", "node": 1,)"
    R"( "attributes": {"ip": "10.0.0.1\n"}})";

constexpr char kMember[] = R"({"ls": 7, "session": "100", "lease": "55", "ttl_ms": 60000})";
constexpr char kJoined[] = "LS 7 joined, session 100; it lives as long as this process\n";

std::string master(const std::string &master, const std::string &isMaster, const std::string &silence)
{
    return R"({"node": 2, "master": )" + master + R"(, "is_master": )" + isMaster +
           R"(, "connected": true, "ttl_s": 5, "since_contact_ms": )" + silence + "}";
}

const AnsweredRow kRows[] = {
    {"View", {"view"}, "GET /v1/view", "", kView, std::string("view 12, master LS 2\n") + kClients},
    {"ViewWithoutStore",
     {"view"},
     "GET /v1/view",
     "",
     R"({"version": null, "connected": false, "master": null, "clients": []})",
     std::string("view none read yet, master not known, no contact with the cluster\n") + kNoClients},
    {"Clients", {"dpc", "ls"}, "GET /v1/view", "", kView, kClients},
    {"Client",
     {"dpc", "show", "0x7"},
     "GET /v1/dpc/7",
     "",
     kClient,
     "LS              7\n"
     "state           faulty\n"
     "last fault      heart break\n"
     "faults          2\n"
     "session         100\n"
     "joined by node  1\n"
     "ip              10.0.0.1\\n\n"},
    {"OwnMaster", {"master"}, "GET /v1/master", "", master("2", "true", "15"), "LS 2, this node\n"},
    {"OtherMaster", {"master"}, "GET /v1/master", "", master("1", "false", "15"), "LS 1\n"},
    {"NoMaster",
     {"master"},
     "GET /v1/master",
     "",
     master("null", "false", "7999"),
     "the master is not known: no contact with the cluster for 7 s\n"},
    {"Leave", {"dpc", "leave", "7"}, "POST /v1/dpc/leave/7", "", R"({"ls": 7})", "LS 7 left\n"},
    {"Kill",
     {"dpc", "kill", "7"},
     "POST /v1/dpc/fault/7",
     R"({"ends_process":1,"reason":2})",
     R"({"ls": 7, "reason": 2})",
     "LS 7: its process is reported dead\n"},
    {"Fault",
     {"dpc", "fault", "7"},
     "POST /v1/dpc/fault/7",
     R"({"reason":2})",
     R"({"ls": 7, "reason": 2})",
     "LS 7: reported faulty, reason 2\n"},
    {"FaultForAReason",
     {"dpc", "fault", "7", "--reason", "9"},
     "POST /v1/dpc/fault/7",
     R"({"reason":9})",
     R"({"ls": 7, "reason": 9})",
     "LS 7: reported faulty, reason 9\n"},
};

INSTANTIATE_TEST_SUITE_P(Cluster, AnsweredCommand, testing::ValuesIn(kRows), rowName);

// ---- dpc join, a process that stays

class Join : public NasctlTest {
protected:
    void start(std::vector<std::string> words)
    {
        std::vector<std::string> command = {NASCTL_PROGRAM, "--root", root(), "dpc", "join"};
        command.insert(command.end(), words.begin(), words.end());
        const support::Pipe out;
        out_ = out.read;
        pid_ = support::spawn(command, {.out = out.write, .err = out.write});
        close(out.write);
    }
    // Its exit code; what it printed is in printed_.
    int end()
    {
        printed_ = support::readAll(out_);
        return support::exitCodeOf(pid_);
    }
    bool asked(size_t count)
    {
        return support::eventually([&] { return node_.requests().size() >= count; });
    }

    pid_t pid_ = -1;
    int out_ = -1;
    std::string printed_;
};

TEST_F(Join, LeavesWhenItIsTold)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        node_.answer(kMember);
        node_.answer(R"({"ls": 7})");
        const size_t before = node_.requests().size();
        start({"7", "--ttl", "60", "--attribute", "ip=10.0.0.1", "b="});
        ASSERT_TRUE(asked(before + 1));
        kill(pid_, signal);

        EXPECT_EQ(end(), 0);
        EXPECT_EQ(printed_, kJoined + std::string("LS 7 left\n"));
        const auto requests = node_.requests();
        ASSERT_EQ(requests.size(), before + 2);
        EXPECT_EQ(requests[before].line, "POST /v1/dpc/join/7 HTTP/1.1");
        EXPECT_EQ(requests[before].body, R"({"attributes":["ip=10.0.0.1","b="],"ttl_s":60})");
        EXPECT_EQ(requests[before + 1].line, "POST /v1/dpc/leave/7 HTTP/1.1");
    }
}

TEST_F(Join, RenewsItsLeaseUntilThatHasEnded)
{
    node_.answer(R"({"ls": 7, "session": "100", "lease": "55", "ttl_ms": 30})");
    node_.answer(R"({"ls": 7})");
    node_.answer(R"({"error": "its lease has ended"})", 400);
    start({"7"});

    EXPECT_EQ(end(), 1);
    EXPECT_EQ(printed_, kJoined + std::string("nasctl: dpc join: refused by the node: its lease has ended\n"));
    const auto requests = node_.requests();
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(requests[0].body, R"({"attributes":[]})");
    EXPECT_EQ(requests[1].line, "POST /v1/dpc/keep/7 HTTP/1.1");
    EXPECT_EQ(requests[1].body, R"({"lease":"55"})");
}

TEST_F(Join, AsksABusyNodeAgain)
{
    node_.answer(R"({"ls": 7, "session": "100", "lease": "55", "ttl_ms": 3000})");
    node_.answer(R"({"error": "the cluster store does not answer"})", 503);
    node_.answer(R"({"error": "its lease has ended"})", 400);
    start({"7"});

    EXPECT_EQ(end(), 1);
    EXPECT_EQ(printed_, kJoined + std::string("nasctl: dpc join: refused by the node: its lease has ended\n"));
    EXPECT_EQ(node_.requests().size(), 3U);
}

TEST_F(Join, EndsWhenNobodyAnswersForAsLongAsItsLeaseLives)
{
    node_.answer(R"({"ls": 7, "session": "100", "lease": "55", "ttl_ms": 30})");
    for (int i = 0; i < 1000; ++i) {
        node_.answer(R"({"error": "the cluster store does not answer"})", 503);
    }
    start({"7"});

    EXPECT_EQ(end(), 1);
    EXPECT_EQ(printed_, kJoined + std::string("nasctl: dpc join: the node is busy: the cluster store does not answer; "
                                              "ask again\n"));
}

TEST_F(Join, EndsWhenItIsRefused)
{
    node_.answer(R"({"error": "a process of LS 7 lives already"})", 400);
    start({"7"});

    EXPECT_EQ(end(), 1);
    EXPECT_EQ(printed_, "nasctl: dpc join: refused by the node: a process of LS 7 lives already\n");
}

TEST_F(Join, PrintsOnlyTheAnswerWithJson)
{
    node_.answer(kMember);
    node_.answer(R"({"ls": 7})");
    start({"7", "--json"});
    ASSERT_TRUE(asked(1));
    kill(pid_, SIGTERM);

    EXPECT_EQ(end(), 0);
    EXPECT_EQ(printed_, kMember + std::string("\n"));
}

} // namespace
