/*
 * What nasctl says when the node does not answer, or not as it should.
 */
#include "named_row.h"
#include "scripted_node.h"
#include <filesystem>
#include <fstream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

sockaddr_un addressOf(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// A socket that is bound and does not take connections: with a backlog it listens, without it refuses.
class DeadSocket {
public:
    explicit DeadSocket(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = addressOf(path);
        bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    }
    ~DeadSocket() { close(fd_); }
    DeadSocket(const DeadSocket &) = delete;
    DeadSocket &operator=(const DeadSocket &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

struct Door : NamedRow {
    std::vector<std::string> words;
    std::string who;
    std::string socket;
};

class Doors : public testing::TestWithParam<Door> {
protected:
    TempDir dir_;

    Outcome runWith(const std::string &socket)
    {
        std::vector<std::string> words = GetParam().words;
        words.insert(words.begin(), {"--" + GetParam().socket + "-socket", socket});
        return runNasctl(words);
    }
    Outcome failure(const std::string &text) { return {"", "nasctl: " + GetParam().who + ": " + text + "\n", 1}; }
};

TEST_P(Doors, WithoutASocketNoNodeAnswers)
{
    std::vector<std::string> words = GetParam().words;
    words.insert(words.end(), {"--root", dir_.path()});
    EXPECT_EQ(runNasctl(words), failure("no node answers on " + dir_.path() + "/run/" + GetParam().socket +
                                        ".sock (No such file or directory); start nasctrld or name its directory with "
                                        "--root"));
}

TEST_P(Doors, OfANodeThatEndedRefuse)
{
    const std::string path = dir_.path() + "/left.sock";
    const DeadSocket left(path);
    EXPECT_EQ(runWith(path), failure("no node answers on " + path +
                                     " (Connection refused); start nasctrld or name its directory with --root"));
}

TEST_P(Doors, WithTooLongAPathAreNamed)
{
    const std::string path = "/" + std::string(107, 'x');
    EXPECT_EQ(runWith(path),
              failure("no node answers on " + path +
                      " (File name too long); a socket's path has at most 107 characters: choose a shorter --root"));
    EXPECT_EQ(runWith(path.substr(0, 107)),
              failure("no node answers on " + path.substr(0, 107) +
                      " (No such file or directory); start nasctrld or name its directory with --root"));
}

const Door kDoors[] = {
    {"Admin", {"status"}, "status", "admin"},
    {"AdminWithJson", {"mem", "--json"}, "mem", "admin"},
    {"Message", {"ip", "add", "10.0.0.1"}, "ip add", "message"},
};

INSTANTIATE_TEST_SUITE_P(All, Doors, testing::ValuesIn(kDoors), rowName);

TEST(FullQueue, OfConnectionsToTheMessageSocketTimesOut)
{
    const TempDir dir;
    const std::string path = dir.path() + "/full.sock";
    const DeadSocket full(path);
    listen(full.fd(), 0);
    const int first = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = addressOf(path);
    connect(first, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    EXPECT_EQ(runNasctl({"msg", "--module", "3", "--opcode", "1", "--message-socket", path, "--timeout-ms", "50"}),
              (Outcome{"",
                       "nasctl: msg: no answer on " + path +
                           " within 50 ms; the node may be busy: try a longer --timeout-ms\n",
                       1}));
    close(first);
}

struct BadAnswer : NamedRow {
    std::string bytes;
    std::string error; // SOCKET stands for the admin socket's path
};

class BadAnswers : public NasctlTest, public testing::WithParamInterface<BadAnswer> {};

std::string http(int status, const std::string &body)
{
    return "HTTP/1.1 " + std::to_string(status) + " X\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
           body;
}

TEST_P(BadAnswers, AreOneLineOnStandardErrorAndExitCode1)
{
    std::string error = GetParam().error;
    const size_t place = error.find("SOCKET");
    if (place != std::string::npos) {
        error.replace(place, 6, adminSocket());
    }
    for (const bool json : {false, true}) {
        node_.answerRaw(GetParam().bytes);
        EXPECT_EQ(
            run(json ? std::vector<std::string>{"power", "on", "--json"} : std::vector<std::string>{"power", "on"}),
            (Outcome{"", "nasctl: power on: " + error + "\n", 1}));
    }
}

constexpr char kClosed[] =
    "the node closed the connection on SOCKET before its answer was whole; it serves its own user "
    "and root only, and its log tells more";

const BadAnswer kBadAnswers[] = {
    {"BadRequest", http(400, R"({"error": "no such action"})"), "refused by the node: no such action"},
    {"ErrorOfTwoLines", http(400, R"({"error": "one\ntwo\u001b"})"), "refused by the node: one\\ntwo\\x1b"},
    {"Forbidden", http(403, R"({"error": "uid 7 may not"})"),
     "refused by the node: uid 7 may not; run nasctl as the node's own user or as root"},
    {"NotFound", http(404, R"({"error": "no such thing"})"), "not known to the node: no such thing"},
    {"WrongMethod", http(405, R"({"error": "GET only"})"),
     "not offered by the node: GET only; node and nasctl are of different versions"},
    {"InternalError", http(500, R"({"error": "out of memory"})"), "the node failed: out of memory; its log tells more"},
    {"ErrorWithoutText", http(500, ""), "the node failed: HTTP status 500; its log tells more"},
    {"ErrorThatIsNoJson", http(400, "<html>"), "refused by the node: HTTP status 400"},
    {"ErrorOfAnotherShape", http(400, R"({"error": 7})"), "refused by the node: HTTP status 400"},
    {"ErrorThatIsAList", http(400, "[1]"), "refused by the node: HTTP status 400"},
    {"Redirection", http(302, ""),
     "the node answered in an unknown way: HTTP status 302; node and nasctl are of different versions"},
    {"MalformedJson", http(200, R"({"state": 1, "name")"),
     "the answer on SOCKET is not one of a node (no JSON); is another program than nasctrld listening there?"},
    {"NoBody", http(200, ""),
     "the answer on SOCKET is not one of a node (no JSON); is another program than nasctrld listening there?"},
    {"NotUtf8", http(200, "{\"name\": \"\xff\"}"),
     "the answer on SOCKET is not one of a node (no JSON); is another program than nasctrld listening there?"},
    {"NoHttp", "220 mail.example ready\r\n",
     "the answer on SOCKET is not one of a node (Unsupported protocol); is another program than nasctrld listening "
     "there?"},
    {"ClosedInTheMiddle", "HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\n{\"state\":", kClosed},
    // An empty answer to the HTTP library, which does not tell that the headers had no end.
    {"ClosedInTheHeaders", "HTTP/1.1 200 OK\r\nContent-",
     "the answer on SOCKET is not one of a node (no JSON); is another program than nasctrld listening there?"},
};

INSTANTIATE_TEST_SUITE_P(All, BadAnswers, testing::ValuesIn(kBadAnswers), rowName);

class Failures : public NasctlTest {};

TEST_F(Failures, AConnectionThatIsClosedWithoutAnAnswerIsSaidSo)
{
    EXPECT_EQ(run({"status"}), (Outcome{"",
                                        "nasctl: status: the node closed the connection on " + adminSocket() +
                                            " before its answer was whole; it serves its own user and root only, and "
                                            "its log tells more\n",
                                        1}));
}

TEST_F(Failures, AnAdminDoorThatSaysNothingTimesOut)
{
    node_.staySilent();
    EXPECT_EQ(run({"status", "--timeout-ms", "50"}),
              (Outcome{"",
                       "nasctl: status: no answer on " + adminSocket() +
                           " within 50 ms; the node may be busy: try a longer --timeout-ms\n",
                       1}));
}

TEST_F(Failures, AModuleThatSaysNothingTimesOut)
{
    node_.answerMessage([](const Frame &) { return std::string(); });
    EXPECT_EQ(run({"ip", "add", "::1", "--timeout-ms", "50"}),
              (Outcome{"",
                       "nasctl: ip add: ::1: no answer on " + messageSocket() +
                           " within 50 ms; the node may be busy: try a longer --timeout-ms\n",
                       1}));
}

std::string cutEcho(const Frame &request)
{
    return echo(request).substr(0, 30);
}

TEST_F(Failures, AnAnswerFrameThatIsCutIsSaidSo)
{
    node_.answerMessageAndClose(cutEcho);
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "0011223344556677"}),
              (Outcome{"",
                       "nasctl: msg: the node closed the connection on " + messageSocket() +
                           " before its answer was whole; it serves its own user and root only, and its log tells "
                           "more\n",
                       1}));
}

TEST_F(Failures, AnAnswerFrameThatStopsHalfwayTimesOut)
{
    node_.answerMessage(cutEcho);
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "0011223344556677", "--timeout-ms", "50"}),
              (Outcome{"",
                       "nasctl: msg: no answer on " + messageSocket() +
                           " within 50 ms; the node may be busy: try a longer --timeout-ms\n",
                       1}));
}

TEST_F(Failures, AnAnswerOfAnotherShapeIsNamed)
{
    node_.answer(R"({"state": 1})");
    EXPECT_EQ(run({"power", "status"}),
              (Outcome{"",
                       "nasctl: power status: the node's answer has another shape than expected "
                       "([json.exception.out_of_range.403] key 'name' not found); node and nasctl are of different "
                       "versions\n",
                       1}));
}

TEST_F(Failures, EntriesOfDifferentShapesAreSaidSo)
{
    for (const char *second : {R"({"address": "::2"})", R"({"address": "::2", "protocol_type": 3, "more": 1})"}) {
        node_.answer(R"({"question": "zone", "code": 0, "reason": null, "answer": {"result": 0, "count": 2,)"
                     R"( "entries": [{"address": "::1", "protocol_type": 3}, )" +
                     std::string(second) + R"(], "rest": null}})");
        EXPECT_EQ(run({"hdfs", "zone"}), (Outcome{"",
                                                  "nasctl: hdfs zone: the node's answer has entries of different "
                                                  "shapes; node and nasctl are of different versions\n",
                                                  1}));
    }
}

TEST_F(Failures, APartOfAnotherTypeIsNamed)
{
    node_.answer(R"({"getters": [7]})");
    EXPECT_EQ(run({"config"}), (Outcome{"",
                                        "nasctl: config: the node's answer has another shape than expected "
                                        "([json.exception.type_error.304] cannot use at() with number); node and "
                                        "nasctl are of different versions\n",
                                        1}));
}

} // namespace
