/*
 * nasctl events, which reads page by page and may go on until it is stopped, and nasctl locks.
 */
#include "answered_command.h"
#include <csignal>
#include <support/process.h>
#include <unistd.h>

namespace {

constexpr char kFault[] =
    R"({"number":41,"time_ms":1700000000007,"module":"DLG","event":"NODE_FAULT","data":"12","text":"","move_count":0,)"
    R"("moves":[]})";
constexpr char kFaultLine[] = "41  2023-11-14 22:13:20.007Z  DLG NODE_FAULT 12\n";

constexpr char kReleased[] =
    R"({"number":42,"time_ms":1700000000999,"module":"NLM","event":"LOCKS_RELEASED","data":"12",)"
    R"("text":"3 file\n locks released","move_count":0,"moves":[]})";
constexpr char kReleasedLine[] = "42  2023-11-14 22:13:20.999Z  NLM LOCKS_RELEASED 12  3 file\\n locks released\n";

constexpr char kMoved[] =
    R"({"number":43,"time_ms":1700000001000,"module":"FMM","event":"VNODE_MOVEIN","data":"0","text":"","move_count":3,)"
    R"("moves":[{"fsp":5,"shard":7,"from":1,"to":2},{"fsp":6,"shard":8,"from":1,"to":2}]})";
constexpr char kMovedLine[] = "43  2023-11-14 22:13:21.000Z  FMM VNODE_MOVEIN 0  3 moved; FSP 5 to shard 7, LS 1 to 2; "
                              "FSP 6 to shard 8, LS 1 to 2; ...\n";

std::string page(const std::string &events, unsigned missed, unsigned newest)
{
    return R"({"events":[)" + events + R"(],"missed":)" + std::to_string(missed) + R"(,"newest":)" +
           std::to_string(newest) + "}";
}

class Events : public NasctlTest {
protected:
    std::vector<std::string> asked() const
    {
        std::vector<std::string> lines;
        for (const HttpRequest &request : node_.requests()) {
            lines.push_back(request.line);
        }
        return lines;
    }
};

TEST_F(Events, AreALineEach)
{
    node_.answer(page(std::string(kFault) + "," + kReleased + "," + kMoved, 0, 43));
    EXPECT_EQ(run({"events"}), (Outcome{std::string(kFaultLine) + kReleasedLine + kMovedLine, "", 0}));
    EXPECT_EQ(asked(), std::vector<std::string>{"GET /v1/events?after=0 HTTP/1.1"});
}

TEST_F(Events, AreAnObjectOnALineEachWithJsonWithTheMembersInTheNodesOrder)
{
    node_.answer(page(std::string(kFault) + "," + kReleased + "," + kMoved, 0, 43));
    EXPECT_EQ(run({"events", "--json"}),
              (Outcome{std::string(kFault) + "\n" + kReleased + "\n" + kMoved + "\n", "", 0}));
}

TEST_F(Events, AreReadPageByPageUpToTheNewest)
{
    node_.answer(page(kFault, 0, 43));
    node_.answer(page(kReleased, 0, 43));
    node_.answer(page(kMoved, 0, 43));
    EXPECT_EQ(run({"events", "--after", "0x28"}),
              (Outcome{std::string(kFaultLine) + kReleasedLine + kMovedLine, "", 0}));
    EXPECT_EQ(asked(), (std::vector<std::string>{"GET /v1/events?after=40 HTTP/1.1", "GET /v1/events?after=41 HTTP/1.1",
                                                 "GET /v1/events?after=42 HTTP/1.1"}));
}

TEST_F(Events, ThatTheNodeDoesNotHaveAreNoLines)
{
    node_.answer(page("", 0, 0));
    EXPECT_EQ(run({"events"}), (Outcome{"", "", 0}));
}

TEST_F(Events, MissedAfterANumberAreToldOf)
{
    node_.answer(page(kFault, 35, 41));
    EXPECT_EQ(
        run({"events", "--after", "5"}),
        (Outcome{kFaultLine, "nasctl: events: 35 events were missed, the node does not keep them any more\n", 0}));
}

TEST_F(Events, BeforeTheOldestThatIsKeptAreNotMissedByWhoAsksForAll)
{
    node_.answer(page(kFault, 40, 41));
    EXPECT_EQ(run({"events"}), (Outcome{kFaultLine, "", 0}));
}

TEST_F(Events, MissedBetweenTwoPagesAreToldOf)
{
    node_.answer(page(kFault, 40, 43));
    node_.answer(page(kMoved, 1, 43));
    EXPECT_EQ(run({"events"}),
              (Outcome{std::string(kFaultLine) + kMovedLine,
                       "nasctl: events: 1 event was missed, the node does not keep them any more\n", 0}));
}

TEST_F(Events, OfANodeThatHasStartedAnewAreReadFromTheFirst)
{
    node_.answer(page("", 0, 41));
    node_.answer(page(kFault, 0, 41));
    EXPECT_EQ(run({"events", "--after", "99"}),
              (Outcome{kFaultLine, "nasctl: events: the node has started anew, its newest event is 41\n", 0}));
}

TEST_F(Events, AreFollowedUntilTheNodeIsGone)
{
    node_.answer(page(kFault, 0, 41));
    node_.answer(page("", 0, 41));
    node_.answer(page(kReleased, 0, 42));
    EXPECT_EQ(
        run({"events", "--follow", "--after", "40"}),
        (Outcome{std::string(kFaultLine) + kReleasedLine,
                 "nasctl: events: the node closed the connection on " + adminSocket() +
                     " before its answer was whole; it serves its own user and root only, and its log tells more\n",
                 1}));
    EXPECT_EQ(asked(), (std::vector<std::string>{"GET /v1/events?after=40&wait=5000 HTTP/1.1",
                                                 "GET /v1/events?after=41&wait=5000 HTTP/1.1",
                                                 "GET /v1/events?after=41&wait=5000 HTTP/1.1",
                                                 "GET /v1/events?after=42&wait=5000 HTTP/1.1"}));
}

TEST_F(Events, AreFollowedUntilASignalEndsItCleanly)
{
    for (const int signal : {SIGINT, SIGTERM}) {
        const size_t before = node_.requests().size();
        node_.answer(page(kFault, 0, 41));
        node_.staySilent();
        const support::Pipe out;
        const pid_t child = support::spawn({NASCTL_PROGRAM, "--root", root(), "events", "--follow"},
                                           {.out = out.write, .err = out.write});
        close(out.write);
        EXPECT_TRUE(support::eventually([&] { return node_.requests().size() == before + 2; }));
        kill(child, signal);
        EXPECT_EQ(support::readAll(out.read), kFaultLine);
        EXPECT_EQ(support::exitCodeOf(child), 0);
    }
}

constexpr char kLocks[] =
    R"({"locks": [{"ls_id": 12, "file": "/a", "start": "5", "length": "10", "shared": true},)"
    R"( {"ls_id": 13, "file": "/b", "start": "18446744073709551615", "length": "0", "shared": false}]})";

constexpr char kLockTable[] = "LS  FILE                 START      LENGTH  KIND\n"
                              "12  /a                       5          10  shared\n"
                              "13  /b    18446744073709551615  to the end  exclusive\n";

const AnsweredRow kRows[] = {
    {"Locks", {"locks", "ls"}, "GET /v1/locks", "", kLocks, kLockTable},
    {"NoLocks", {"locks", "ls"}, "GET /v1/locks", "", R"({"locks": []})", "no file locks\n"},
    {"LockTaken",
     {"locks", "take", "--ls", "12", "/a", "5", "0x10"},
     "POST /v1/locks",
     R"({"file":"/a","length":"16","ls_id":12,"shared":false,"start":"5"})",
     kLocks,
     kLockTable},
    {"SharedLockTaken",
     {"locks", "take", "/a", "5", "0", "--shared", "--ls", "12"},
     "POST /v1/locks",
     R"({"file":"/a","length":"0","ls_id":12,"shared":true,"start":"5"})",
     kLocks,
     kLockTable},
    {"RangeReleased",
     {"locks", "release", "--ls", "12", "/a", "5", "1"},
     "DELETE /v1/locks",
     R"({"file":"/a","length":"1","ls_id":12,"start":"5"})",
     kLocks,
     kLockTable},
    {"AllReleased",
     {"locks", "release", "--ls", "12"},
     "DELETE /v1/locks",
     R"({"ls_id":12})",
     R"({"locks": []})",
     "LS 12 holds no file locks\n"},
};

INSTANTIATE_TEST_SUITE_P(Locks, AnsweredCommand, testing::ValuesIn(kRows), rowName);

class Locks : public NasctlTest {};

TEST_F(Locks, InTheWayAreNamed)
{
    node_.answer(R"({"error": "LS 13 holds exclusive bytes 0 to the end"})", 409);
    EXPECT_EQ(run({"locks", "take", "--ls", "12", "/a", "0", "1"}),
              (Outcome{"", "nasctl: locks take: refused by the node: LS 13 holds exclusive bytes 0 to the end\n", 1}));
}

} // namespace
