// Faults, the control requests and the reload of the data, without sockets.
#include "message_peer.h"
#include "recorded_log.h"

#include <cerrno>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <storage/responder.h>
#include <system_error>

using testing::ElementsAre;
using testing::IsEmpty;

namespace storage {
namespace {

using nlohmann::json;

class ResponderTest : public testing::Test {
protected:
    ResponderTest() { recorded::clear(); }

    void write(const std::string &text) const { std::ofstream(path()) << text; }
    std::string path() const { return dir_.file("data.json"); }

    static std::string textOf(const Payload &payload)
    {
        return {reinterpret_cast<const char *>(payload.data()), payload.size()};
    }
    static std::optional<Reply> send(Responder &responder, uint32_t module, uint32_t opcode, const std::string &request)
    {
        const host::FrameHeader header{
            .length = 0, .module = module, .opcode = opcode, .sequence = 1, .direction = 0, .result = 0};
        return responder.respond(header, std::as_bytes(std::span(request)));
    }
    static std::optional<Reply> ask(Responder &responder, uint32_t type)
    {
        return send(responder, 18, type, std::string(4, '\0'));
    }
    // The domain in the answer to type 15.
    static std::string domain(Responder &responder)
    {
        return textOf(ask(responder, kZoneDomain)->payload).substr(4).c_str();
    }
    static json control(Responder &responder, uint32_t opcode, const std::string &request)
    {
        const auto reply = send(responder, 100, opcode, request);
        EXPECT_EQ(reply->result, 0);
        return json::parse(textOf(reply->payload));
    }
    // Type, fault and value of every question that has a fault.
    static std::vector<std::string> faults(const json &status)
    {
        std::vector<std::string> listed;
        for (const json &question : status.at("questions")) {
            if (question.at("fault") != "none") {
                listed.push_back(question.at("type").dump() + " " + question.at("fault").get<std::string>() + " " +
                                 question.at("value").dump());
            }
        }
        return listed;
    }

private:
    TempDir dir_;
};

TEST_F(ResponderTest, AnswersNothingButCallsAndControl)
{
    Responder responder("");
    for (const uint32_t module : {0U, 3U, 17U, 99U, 101U}) {
        const auto reply = send(responder, module, 1, std::string(4, '\0'));
        EXPECT_EQ(reply->result, -ENOENT) << module;
        EXPECT_THAT(reply->payload, IsEmpty()) << module;
    }
    EXPECT_EQ(send(responder, 100, 3, "")->result, -EOPNOTSUPP);
    EXPECT_EQ(ask(responder, 2)->result, -EOPNOTSUPP);
}

TEST_F(ResponderTest, TellsItsStateWholly)
{
    write(R"({"zone_domain": "a"})");
    Responder responder(path());
    ask(responder, kZoneDomain);
    ask(responder, kZoneDomain);
    json expected = {{"pid", getpid()}, {"data", path()}, {"error", ""}, {"questions", json::array()}};
    const std::pair<int, const char *> names[] = {
        {1, "node addresses"},  {3, "HDFS configuration"},    {4, "neighbour addresses"},   {5, "zone addresses"},
        {6, "node interfaces"}, {9, "global zone addresses"}, {10, "global zone node ids"}, {11, "tenant"},
        {13, "contacted zone"}, {14, "subnet addresses"},     {15, "zone domain"}};
    for (const auto &[type, name] : names) {
        expected["questions"].push_back(
            {{"type", type}, {"name", name}, {"fault", "none"}, {"value", nullptr}, {"requests", type == 15 ? 2 : 0}});
    }
    EXPECT_EQ(control(responder, 1, ""), expected);
}

TEST_F(ResponderTest, KeepsAFaultPerTypeAndShowsIt)
{
    Responder responder("");
    EXPECT_THAT(faults(control(responder, 2, R"({"type": 3, "fault": "slow", "value": 250})")),
                ElementsAre("3 slow 250"));
    EXPECT_THAT(faults(control(responder, 2, R"({"type": 15, "fault": "timeout"})")),
                ElementsAre("3 slow 250", "15 timeout null"));
    EXPECT_THAT(faults(control(responder, 1, "")), ElementsAre("3 slow 250", "15 timeout null"));
    EXPECT_EQ(faults(control(responder, 2, R"({"type": "all", "fault": "fail", "value": 5})")).size(), 11U);
    EXPECT_THAT(faults(control(responder, 2, R"({"type": "all", "fault": "none"})")), IsEmpty());
    EXPECT_THAT(recorded::lines(),
                ElementsAre("4 the fault of type 3 is slow 250", "4 the fault of type 15 is timeout 0",
                            "4 the fault of all types is fail 5", "4 the fault of all types is none 0"));
}

TEST_F(ResponderTest, AnswersAsItsFaultsTell)
{
    write(R"({"zone_domain": "a.example"})");
    Responder responder(path());

    control(responder, 2, R"({"type": 15, "fault": "slow", "value": 250})");
    EXPECT_EQ(ask(responder, 15)->delay, std::chrono::milliseconds(250));
    EXPECT_EQ(ask(responder, 15)->payload.size(), 258U);
    EXPECT_EQ(ask(responder, 13)->delay, std::chrono::milliseconds(0));

    control(responder, 2, R"({"type": 15, "fault": "timeout"})");
    EXPECT_FALSE(ask(responder, 15));
    EXPECT_TRUE(ask(responder, 13));

    control(responder, 2, R"({"type": 15, "fault": "short", "value": 7})");
    EXPECT_EQ(textOf(ask(responder, 15)->payload), std::string("\0\0\0\0a.e", 7));
    control(responder, 2, R"({"type": 15, "fault": "short", "value": 0})");
    EXPECT_THAT(ask(responder, 15)->payload, IsEmpty());
    control(responder, 2, R"({"type": 15, "fault": "short", "value": 259})");
    EXPECT_EQ(ask(responder, 15)->payload.size(), 258U);

    control(responder, 2, R"({"type": 15, "fault": "fail", "value": 110})");
    EXPECT_EQ(ask(responder, 15)->result, -110);
    EXPECT_THAT(ask(responder, 15)->payload, IsEmpty());

    control(responder, 2, R"({"type": 15, "fault": "none"})");
    EXPECT_EQ(domain(responder), "a.example");
}

TEST_F(ResponderTest, RefusesFaultsThatAreNoneInOneLineAndChangesNothing)
{
    Responder responder("");
    const std::string types = "type: must be one of 1, 3, 4, 5, 6, 9, 10, 11, 13, 14, 15, or \"all\"";
    const std::pair<const char *, std::string> rows[] = {
        {"", "line 1: this is no JSON: syntax error while parsing value - unexpected end of input; expected '[', '{', "
             "or a literal"},
        {"[]", "the request is not a JSON object"},
        {R"({"fault": "none"})", types},
        {R"({"type": 2, "fault": "none"})", types},
        {R"({"type": -1, "fault": "none"})", types},
        {R"({"type": 4294967297, "fault": "none"})", types},
        {R"({"type": "3", "fault": "none"})", types},
        {R"({"type": 3})", "fault: must be one of none, slow, timeout, short, fail"},
        {R"({"type": 3, "fault": "slwo"})", "fault: must be one of none, slow, timeout, short, fail"},
        {R"({"type": 3, "fault": "slow"})", "value: must be a whole number from 0 to 3600000 with slow"},
        {R"({"type": 3, "fault": "slow", "value": 3600001})",
         "value: must be a whole number from 0 to 3600000 with slow"},
        {R"({"type": 3, "fault": "short", "value": 1048577})",
         "value: must be a whole number from 0 to 1048576 with short"},
        {R"({"type": 3, "fault": "fail", "value": 0})", "value: must be a whole number from 1 to 4095 with fail"},
        {R"({"type": 3, "fault": "fail", "value": -5})", "value: must be a whole number from 1 to 4095 with fail"},
        {R"({"type": 3, "fault": "fail", "value": 4096})", "value: must be a whole number from 1 to 4095 with fail"},
        {R"({"type": 3, "fault": "none", "value": 1})", "value: is not possible with none"},
        {R"({"type": 3, "fault": "none", "fualt": 1})", "\"fualt\": is not a field of this request"},
        {R"({"type": 3, "type": 4, "fault": "none"})", "type: is given twice"},
    };
    for (const auto &[request, line] : rows) {
        EXPECT_EQ(control(responder, 2, request), (json{{"error", line}})) << request;
    }
    EXPECT_THAT(faults(control(responder, 1, "")), IsEmpty());
}

TEST_F(ResponderTest, TakesNewDataAsAWhole)
{
    write(R"({"zone_domain": "old"})");
    Responder responder(path());
    write(R"({"zone_domain": "new"})");
    EXPECT_EQ(domain(responder), "old");

    EXPECT_TRUE(responder.reload());

    EXPECT_EQ(domain(responder), "new");
    EXPECT_THAT(recorded::lines(), ElementsAre("4 " + path() + " was read anew"));
}

TEST_F(ResponderTest, KeepsTheOldDataWholeWhenTheNewIsRefusedAndSaysSoUntilAReloadSucceeds)
{
    write(R"({"zone_domain": "old"})");
    Responder responder(path());
    write("{\"zone_domain\": \"new\",\n\"tenants\": 5}");

    EXPECT_FALSE(responder.reload());

    const std::string why = path() + " line 2: tenants: must be a list in [ ]";
    EXPECT_EQ(domain(responder), "old");
    EXPECT_EQ(control(responder, 1, "")["error"], why);
    EXPECT_THAT(recorded::lines(), ElementsAre("3 the data stays as it was: " + why));
    write(R"({"zone_domain": "newest"})");
    EXPECT_TRUE(responder.reload());
    EXPECT_EQ(control(responder, 1, "")["error"], "");
    EXPECT_EQ(domain(responder), "newest");
}

TEST_F(ResponderTest, AReloadLeavesFaultsAsTheyAre)
{
    write("{}");
    Responder responder(path());
    control(responder, 2, R"({"type": 3, "fault": "timeout"})");
    EXPECT_TRUE(responder.reload());
    EXPECT_THAT(faults(control(responder, 1, "")), ElementsAre("3 timeout null"));
}

TEST_F(ResponderTest, WithoutAFileAReloadChangesNothing)
{
    Responder responder("");
    EXPECT_TRUE(responder.reload());
    EXPECT_THAT(recorded::lines(), ElementsAre("4 there is no data file to read anew"));
}

TEST_F(ResponderTest, AsksTheMachineItselfAsLongAsNobodyFollowsIt)
{
    write(R"({"address_sources": [{"interface": "lo", "network": "127.0.0.1/32"}]})");
    Responder responder(path());
    const std::string expected = std::string("\0\0\0\0\1\0\0\0\3\0\0\0"
                                             "127.0.0.1",
                                             21);
    EXPECT_EQ(textOf(ask(responder, 1)->payload).substr(0, 21), expected);
    responder.followMachine();
    EXPECT_EQ(textOf(ask(responder, 1)->payload).substr(0, 21), expected);
}

// Nobody tells of a change that has been told already, so the next question makes up for it.
TEST_F(ResponderTest, AsksTheMachineAgainAfterAReadingThatFailed)
{
    write(R"({"address_sources": [{"interface": "lo", "network": "127.0.0.1/32"}]})");
    bool works = false;
    Responder responder(path(), [&] {
        return works ? readMachineInterfaces() : throw std::system_error(EMFILE, std::generic_category(), "getifaddrs");
    });
    const auto count = [&] { return textOf(ask(responder, 1)->payload).at(4); };
    responder.followMachine();
    EXPECT_EQ(count(), 0);
    works = true;
    EXPECT_EQ(count(), 1);
    const std::string failed = "3 the machine's interfaces stay as they were: getifaddrs: Too many open files";
    EXPECT_THAT(recorded::lines(), ElementsAre(failed, failed));
}

} // namespace
} // namespace storage
