/*
 * The commands that speak over the message socket.
 */
#include "named_row.h"
#include "scripted_node.h"

namespace {

std::string notice(const std::string &key, const std::string &value)
{
    std::string bytes(516, '\0');
    bytes.replace(4, key.size(), key);
    bytes.replace(260, value.size(), value);
    return bytes;
}

ScriptedNode::Answer reply(int32_t result, const std::string &payload)
{
    return [=](const Frame &request) {
        return encode({request.module, request.opcode, request.sequence, 1, result, payload});
    };
}

class Addresses : public NasctlTest {};

TEST_F(Addresses, AreAddedByOneNoticeEach)
{
    node_.answerMessage(echo);
    node_.answerMessage(echo);
    EXPECT_EQ(run({"ip", "add", "192.168.1.10", "FE80::1"}),
              (Outcome{"192.168.1.10: addition queued\nFE80::1: addition queued\n", "", 0}));
    EXPECT_EQ(node_.frames(), (std::vector<Frame>{{18, 1, 1, 0, 0, notice("ip_add_event", "192.168.1.10")},
                                                  {18, 1, 2, 0, 0, notice("ip_add_event", "FE80::1")}}));
}

TEST_F(Addresses, AreDeletedByOneNoticeEach)
{
    node_.answerMessage(echo);
    EXPECT_EQ(run({"ip", "del", "192.168.1.10"}), (Outcome{"192.168.1.10: deletion queued\n", "", 0}));
    EXPECT_EQ(node_.frames(), (std::vector<Frame>{{18, 1, 1, 0, 0, notice("ip_del_event", "192.168.1.10")}}));
}

TEST_F(Addresses, ResultsWithJsonNameEachAddress)
{
    node_.answerMessage(echo);
    node_.answerMessage(echo);
    EXPECT_EQ(run({"--json", "ip", "add", "10.0.0.1", "::2"}),
              (Outcome{R"({"results":[{"address":"10.0.0.1","queued":true},{"address":"::2","queued":true}]})"
                       "\n",
                       "", 0}));
}

TEST_F(Addresses, NothingIsSentWhenOneIsBad)
{
    EXPECT_EQ(run({"ip", "add", "10.0.0.1", "10.0.0.300"}),
              (Outcome{"", "nasctl: ip add: 10.0.0.300 is not an IPv4 or IPv6 address\n", 2}));
    EXPECT_EQ(run({"ip", "del", "10.0.0.1", ""}),
              (Outcome{"", "nasctl: ip del: \"\" is not an IPv4 or IPv6 address\n", 2}));
    EXPECT_EQ(node_.frames(), std::vector<Frame>());
}

TEST_F(Addresses, ARefusedOneDoesNotKeepBackThoseBehindIt)
{
    node_.answerMessage(noReply(-2));
    node_.answerMessage(echo);
    EXPECT_EQ(run({"ip", "add", "10.0.0.1", "10.0.0.2"}),
              (Outcome{"10.0.0.2: addition queued\n",
                       "nasctl: ip add: 10.0.0.1: refused by the node with result -2 (no such module); nasctl status "
                       "tells how its start went\n",
                       1}));
}

TEST_F(Addresses, ARefusedOneHasItsReasonInJson)
{
    node_.answerMessage(noReply(1));
    node_.answerMessage(echo);
    EXPECT_EQ(
        run({"ip", "add", "10.0.0.1", "10.0.0.2", "--json"}),
        (Outcome{R"({"results":[{"address":"10.0.0.1","queued":false,"error":"refused by the node with result 1; )"
                 R"(nasctl status tells how its start went"},{"address":"10.0.0.2","queued":true}]})"
                 "\n",
                 "nasctl: ip add: 10.0.0.1: refused by the node with result 1; nasctl status tells how its start "
                 "went\n",
                 1}));
}

struct Objection : NamedRow {
    ScriptedNode::Answer answer;
    std::string error;
};

class Objections : public NasctlTest, public testing::WithParamInterface<Objection> {};

TEST_P(Objections, AnAnswerThatIsNotTheEchoIsAFailure)
{
    node_.answerMessage(GetParam().answer);
    EXPECT_EQ(run({"ip", "del", "::1"}), (Outcome{"", "nasctl: ip del: ::1: " + GetParam().error + "\n", 1}));
}

const Objection kObjections[] = {
    {"OtherAddress", reply(0, notice("ip_del_event", "::2")),
     "the node's answer is not the notice that was sent; nasctl ip ls tells what became of it"},
    {"CutNotice", reply(0, notice("ip_del_event", "::1").substr(0, 515)),
     "the node's answer is not the notice that was sent; nasctl ip ls tells what became of it"},
    {"EchoWithResult", reply(-12, notice("ip_del_event", "::1")),
     "refused by the node with result -12 (Cannot allocate memory); nasctl status tells how its start went"},
    {"NoReply", noReply(0), "refused by the node with result 0; nasctl status tells how its start went"},
};

INSTANTIATE_TEST_SUITE_P(Answers, Objections, testing::ValuesIn(kObjections), rowName);

TEST_F(Addresses, AClosedConnectionEndsTheCommandAfterWhatWasQueued)
{
    node_.answerMessage(echo);
    EXPECT_EQ(run({"ip", "add", "10.0.0.1", "10.0.0.2", "10.0.0.3"}),
              (Outcome{"10.0.0.1: addition queued\n",
                       "nasctl: ip add: 10.0.0.2: the node closed the connection on " + messageSocket() +
                           " before its answer was whole; it serves its own user and root only, and its log tells "
                           "more\n",
                       1}));
}

class Message : public NasctlTest {};

TEST_F(Message, CarriesItsBytesToTheModule)
{
    node_.answerMessage(reply(0, std::string("\0\0\0\0\2\0\0\0", 8)));
    EXPECT_EQ(run({"msg", "--module", "18", "--opcode", "0x2", "00fF 0a"}), (Outcome{"direction  1 (reply)\n"
                                                                                     "result     0\n"
                                                                                     "payload    0000000002000000\n",
                                                                                     "", 0}));
    EXPECT_EQ(node_.frames(), (std::vector<Frame>{{18, 2, 1, 0, 0, std::string("\x00\xff\x0a", 3)}}));
}

TEST_F(Message, MayBeEmpty)
{
    node_.answerMessage(noReply(0));
    EXPECT_EQ(run({"msg", "--module=4294967295", "--opcode=0"}), (Outcome{"direction  2 (no reply)\n"
                                                                          "result     0\n"
                                                                          "payload    -\n",
                                                                          "", 0}));
    EXPECT_EQ(node_.frames(), (std::vector<Frame>{{4294967295, 0, 1, 0, 0, ""}}));
}

TEST_F(Message, IsReadFromStandardInput)
{
    node_.answerMessage(reply(0, "\x01"));
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "-", "--json"}, {.input = "0a00\n0000\n"}),
              (Outcome{"{\"direction\":1,\"result\":0,\"payload\":\"01\"}\n", "", 0}));
    EXPECT_EQ(node_.frames(), (std::vector<Frame>{{3, 1, 1, 0, 0, std::string("\x0a\0\0\0", 4)}}));
}

TEST_F(Message, OfTheLargestSizeGoesBothWays)
{
    node_.answerMessage(echo);
    const std::string hex(2U << 20, 'a');
    const Outcome outcome = run({"msg", "--module", "3", "--opcode", "1", "-", "--json"}, {.input = hex});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.err, "");
    EXPECT_TRUE(outcome.out == "{\"direction\":1,\"result\":0,\"payload\":\"" + hex + "\"}\n");
}

TEST_F(Message, AboveTheLargestSizeIsRefused)
{
    const std::string hex((2U << 20) + 2, 'a');
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "-"}, {.input = hex}),
              (Outcome{"", "nasctl: msg: HEX: 1048577 bytes; a message carries at most 1048576\n", 2}));
    const std::string blanks(6291457, ' ');
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "-"}, {.input = blanks}),
              (Outcome{"", "nasctl: msg: HEX: standard input has more than 6291456 characters\n", 2}));
    EXPECT_EQ(node_.frames(), std::vector<Frame>());
}

struct ResultRow : NamedRow {
    int32_t result;
    std::string meaning;
};

class Results : public NasctlTest, public testing::WithParamInterface<ResultRow> {};

TEST_P(Results, OtherThan0AreAFailure)
{
    node_.answerMessage(noReply(GetParam().result));
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1", "--json"}),
              (Outcome{"{\"direction\":2,\"result\":" + std::to_string(GetParam().result) + ",\"payload\":\"\"}\n",
                       "nasctl: msg: the node answered with " + GetParam().meaning + "; its log tells more\n", 1}));
}

const ResultRow kResults[] = {
    {"UnknownModule", -2, "result -2 (no such module)"},
    {"TimedOutInside", -110, "result -110 (Connection timed out)"},
    {"HandlersOwn", 1, "result 1"},
    {"HandlersFailure", -1, "result -1"},
    {"Smallest", INT32_MIN, "result -2147483648"},
};

INSTANTIATE_TEST_SUITE_P(Values, Results, testing::ValuesIn(kResults), rowName);

TEST_F(Message, AReplyWithAResultIsAFailureToo)
{
    node_.answerMessage(reply(7, "abc"));
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1"}),
              (Outcome{"direction  1 (reply)\nresult     7\npayload    616263\n",
                       "nasctl: msg: the node answered with result 7; its log tells more\n", 1}));
}

struct MalformedRow : NamedRow {
    uint32_t sequence; // added to the request's
    uint32_t direction;
    const char *payload; // taken as it is
    uint32_t length;     // of what follows the word; 0 = the true one
    std::string why;
};

class Malformed : public NasctlTest, public testing::WithParamInterface<MalformedRow> {};

TEST_P(Malformed, AnswerIsNotTakenForOne)
{
    node_.answerMessage([](const Frame &request) {
        std::string bytes =
            encode({3, 1, request.sequence + GetParam().sequence, GetParam().direction, 0, GetParam().payload});
        const uint32_t length = GetParam().length;
        if (length != 0) {
            bytes.replace(0, 4, reinterpret_cast<const char *>(&length), 4);
        }
        return bytes;
    });
    EXPECT_EQ(run({"msg", "--module", "3", "--opcode", "1"}),
              (Outcome{"",
                       "nasctl: msg: the answer on " + messageSocket() + " is malformed (" + GetParam().why +
                           "); is another program than nasctrld listening there?\n",
                       1}));
}

const MalformedRow kMalformed[] = {
    {"TooShort", 0, 1, "", 19, "length 19"},
    {"TooLong", 0, 1, "", 1048597, "length 1048597"},
    {"OtherSequence", 1, 1, "", 0, "sequence 2 instead of 1"},
    {"Request", 0, 0, "", 0, "direction 0 with 0 bytes of payload"},
    {"UnknownDirection", 0, 3, "ab", 0, "direction 3 with 2 bytes of payload"},
    {"NoReplyWithPayload", 0, 2, "a", 0, "direction 2 with 1 bytes of payload"},
};

INSTANTIATE_TEST_SUITE_P(Frames, Malformed, testing::ValuesIn(kMalformed), rowName);

} // namespace
