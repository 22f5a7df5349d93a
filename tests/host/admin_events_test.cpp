/*
 * What the admin door answers about events and file locks. The calls are asked without a socket; stream and lock table
 * are the real ones.
 */
#include "admin/routes.h"
#include "nlm/file_locks.h"
#include "notify/notify.h"

#include <future>
#include <gmock/gmock.h>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/notify.h>

namespace {

using host::admin::Answer;
using host::admin::Lane;
using testing::HasSubstr;

Answer call(const std::string &method, const std::string &target, const std::string &body = "")
{
    return host::admin::answerRequest({method, target, body});
}

uint64_t newest()
{
    return host::readEvents(UINT64_MAX, 0).newest;
}

// A number as it would be the last of an answer's times: they are real and replaced by T.
std::string withoutTimes(std::string text)
{
    const std::string mark = "\"time_ms\":";
    for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos;) {
        at += mark.size();
        text.replace(at, text.find(',', at) - at, "T");
    }
    return text;
}

class AdminEvents : public testing::Test {
protected:
    void SetUp() override { host::allowEventWaits(true); }
    // The answer to a query that follows "after=" and the number of the newest event when the test began.
    std::string after(const std::string &rest = "") const
    {
        return withoutTimes(call("GET", "/v1/events?after=" + std::to_string(before_) + rest).body);
    }
    std::string number(uint64_t offset) const { return std::to_string(before_ + offset); }

private:
    const uint64_t before_ = newest();
};

TEST_F(AdminEvents, ComeInOrderWithAllThatTheyCarry)
{
    host::recordEvent({.module = "FMM", .name = "NODE_FAULT", .data = UINT64_MAX});
    host::recordEvent(
        {.module = "DLG", .name = "VNODE_MOVEIN", .text = "a\xff", .moves = {{1, 2, 3, 4}}, .moveCount = 9});
    EXPECT_EQ(after(), R"({"events":[{"number":)" + number(1) +
                           R"(,"time_ms":T,"module":"FMM","event":"NODE_FAULT","data":"18446744073709551615",)"
                           R"("text":"","moves":[],"move_count":0},{"number":)" +
                           number(2) +
                           R"(,"time_ms":T,"module":"DLG","event":"VNODE_MOVEIN","data":"0","text":"a)"
                           "\xef\xbf\xbd"
                           R"(","moves":[{"fsp":1,"shard":2,"from":3,"to":4}],"move_count":9}],"missed":0,"newest":)" +
                           number(2) + "}");
}

TEST_F(AdminEvents, AreLimitedToAPage)
{
    host::recordEvent({.module = "FMM", .name = "NODE_FAULT"});
    host::recordEvent({.module = "FMM", .name = "NODE_FAULT"});
    EXPECT_THAT(after("&limit=1"), HasSubstr(R"("move_count":0}],"missed":0,"newest":)" + number(2)));
    EXPECT_THAT(after("&limit=1"), testing::Not(HasSubstr("\"number\":" + number(2))));
    EXPECT_EQ(after("&limit=0"), R"({"events":[],"missed":0,"newest":)" + number(2) + "}");
}

TEST_F(AdminEvents, ThatAreKeptNoMoreAreCountedAsMissed)
{
    for (size_t i = 0; i < host::kMaxEvents + 2; ++i) {
        host::recordEvent({.module = "FMM", .name = "NODE_FAULT"});
    }
    EXPECT_THAT(after("&limit=0"), HasSubstr(R"("missed":2,)"));
}

TEST_F(AdminEvents, AreWaitedFor)
{
    auto answer = std::async(std::launch::async, [this] { return after("&wait=30000"); });
    host::recordEvent({.module = "FMM", .name = "NODE_FAULT", .data = 7});
    EXPECT_THAT(answer.get(), HasSubstr(R"("data":"7")"));
    EXPECT_EQ(withoutTimes(call("GET", "/v1/events?wait=1&after=" + number(1)).body),
              R"({"events":[],"missed":0,"newest":)" + number(1) + "}");
}

struct BadCall {
    std::string method;
    std::string target;
    std::string body;
    unsigned status;
    std::string error;
};

void expectRefused(const BadCall &row)
{
    const Answer answer = call(row.method, row.target, row.body);
    EXPECT_EQ(answer.status, row.status) << row.target << row.body;
    EXPECT_EQ(answer.body, "{\"error\":\"" + row.error + "\"}") << row.target << row.body;
}

TEST_F(AdminEvents, AreRefusedToAQueryThatIsNotOne)
{
    const BadCall rows[] = {
        {"GET", "/v1/events?after=-1", "", 400, "after: must be a whole number from 0 to 18446744073709551615"},
        {"GET", "/v1/events?after", "", 400, "after: must be a whole number from 0 to 18446744073709551615"},
        {"GET", "/v1/events?after=18446744073709551616", "", 400,
         "after: must be a whole number from 0 to 18446744073709551615"},
        {"GET", "/v1/events?limit=1001", "", 400, "limit: must be a whole number from 0 to 1000"},
        {"GET", "/v1/events?wait=30001", "", 400, "wait: must be a whole number from 0 to 30000"},
        {"GET", "/v1/events?limit=1&limit=2", "", 400, "limit: is given twice"},
        {"GET", "/v1/events?afer=1", "", 400, "afer: is not part of this call's query"},
        {"GET", "/v1/events?&", "", 400, ": is not part of this call's query"},
        {"POST", "/v1/events?after=1", "", 405, "this path answers to GET only"},
        {"GET", "/v1/events/5", "", 404, "there is no such call in this version"},
        {"GET", "/v1/locks?after=1", "", 404, "there is no such call in this version"},
    };
    for (const BadCall &row : rows) {
        expectRefused(row);
    }
}

TEST_F(AdminEvents, HaveALaneOfTheirOwnOnlyWhenTheyAreWaitedFor)
{
    EXPECT_EQ(host::admin::laneOf({"GET", "/v1/events", ""}), Lane::read);
    EXPECT_EQ(host::admin::laneOf({"GET", "/v1/events?after=5", ""}), Lane::read);
    EXPECT_EQ(host::admin::laneOf({"GET", "/v1/events?after=5&wait=5", ""}), Lane::follow);
    EXPECT_EQ(host::admin::laneOf({"GET", "/v1/locks", ""}), Lane::read);
    EXPECT_EQ(host::admin::laneOf({"POST", "/v1/locks", ""}), Lane::change);
    EXPECT_EQ(host::admin::laneOf({"DELETE", "/v1/locks", ""}), Lane::change);
}

// ---- file locks

std::string lockBody(uint32_t lsId, const std::string &start, const std::string &length, const std::string &rest = "")
{
    return R"({"ls_id":)" + std::to_string(lsId) + R"(,"file":"/a","start":")" + start + R"(","length":")" + length +
           "\"" + rest + "}";
}

class AdminLocks : public testing::Test {
protected:
    void TearDown() override
    {
        for (const host::FileLock &lock : host::fileLocks()) {
            host::releaseFileLocks(lock.lsId);
        }
    }
};

TEST_F(AdminLocks, AreTakenListedAndReleased)
{
    EXPECT_EQ(call("GET", "/v1/locks").body, R"({"locks":[]})");
    EXPECT_EQ(call("POST", "/v1/locks", lockBody(12, "5", "10")).body,
              R"({"locks":[{"ls_id":12,"file":"/a","start":"5","length":"10","shared":false}]})");
    call("POST", "/v1/locks", lockBody(13, "18446744073709551615", "0", R"(,"shared":true)"));
    EXPECT_EQ(call("GET", "/v1/locks").body,
              R"({"locks":[{"ls_id":12,"file":"/a","start":"5","length":"10","shared":false},)"
              R"({"ls_id":13,"file":"/a","start":"18446744073709551615","length":"0","shared":true}]})");
    EXPECT_EQ(call("DELETE", "/v1/locks", lockBody(12, "0", "10")).body,
              R"({"locks":[{"ls_id":12,"file":"/a","start":"10","length":"5","shared":false}]})");
    EXPECT_EQ(call("DELETE", "/v1/locks", R"({"ls_id":13})").body, R"({"locks":[]})");
    EXPECT_EQ(call("GET", "/v1/locks").body,
              R"({"locks":[{"ls_id":12,"file":"/a","start":"10","length":"5","shared":false}]})");
}

TEST_F(AdminLocks, InTheWayAreNamed)
{
    call("POST", "/v1/locks", lockBody(12, "5", "10", R"(,"shared":true)"));
    call("POST", "/v1/locks", lockBody(13, "20", "0"));
    expectRefused({"POST", "/v1/locks", lockBody(14, "14", "1"), 409, "LS 12 holds shared bytes 5 to 14"});
    expectRefused({"POST", "/v1/locks", lockBody(14, "30", "1", R"(,"shared":true)"), 409,
                   "LS 13 holds exclusive bytes 20 to the end"});
}

TEST_F(AdminLocks, AreRefusedToABodyThatIsNotOne)
{
    const std::string number = "must be a decimal number of at most 64 bits, as a text";
    const std::string file = "file: must be a text of 1 to 1024 bytes";
    const BadCall rows[] = {
        {"POST", "/v1/locks", lockBody(0, "0", "0"), 400, "ls_id: must not be 0"},
        {"POST", "/v1/locks", R"({"ls_id":1})", 400, "file: is missing"},
        {"POST", "/v1/locks", R"({"ls_id":1,"file":""})", 400, file},
        {"POST", "/v1/locks", R"({"ls_id":1,"file":")" + std::string(1025, 'f') + "\"}", 400, file},
        {"POST", "/v1/locks", lockBody(1, "-1", "0"), 400, "start: " + number},
        {"POST", "/v1/locks", lockBody(1, "0", "18446744073709551616"), 400, "length: " + number},
        {"POST", "/v1/locks", lockBody(1, "2", "18446744073709551615"), 400,
         "length: passes the last byte that there can be"},
        {"POST", "/v1/locks", lockBody(1, "0", "0", R"(,"shared":1)"), 400, "shared: must be true or false"},
        {"DELETE", "/v1/locks", lockBody(1, "0", "0", R"(,"shared":true)"), 400, "shared: is not a field of this call"},
        {"DELETE", "/v1/locks", R"({"ls_id":1,"start":"0"})", 400, "file: is missing"},
        {"DELETE", "/v1/locks", "", 400, "the body is not a JSON object"},
    };
    for (const BadCall &row : rows) {
        expectRefused(row);
    }
    EXPECT_EQ(call("GET", "/v1/locks").body, R"({"locks":[]})");
}

// ---- metrics

// The value of the sample with that name and labels.
std::string metric(const std::string &name)
{
    const std::string text = "\n" + call("GET", "/metrics").body;
    const size_t at = text.find("\nnasctrl_" + name + " ");
    return at == std::string::npos
               ? "none"
               : text.substr(text.find(' ', at) + 1, text.find('\n', at + 1) - text.find(' ', at) - 1);
}

TEST(EventMetrics, CountByModuleAndEvent)
{
    EXPECT_EQ(metric(R"(events_total{module="METRIC",event="ONE"})"), "none");
    host::recordEvent({.module = "METRIC", .name = "ONE"});
    host::recordEvent({.module = "METRIC", .name = "ONE"});
    EXPECT_EQ(metric(R"(events_total{module="METRIC",event="ONE"})"), "2");
}

TEST(EventMetrics, CountRefusedNotifications)
{
    const int before = std::stoi(metric("notifications_refused_total"));
    notifyCall(host::kNotifyFmm, 29, nullptr);
    EXPECT_EQ(metric("notifications_refused_total"), std::to_string(before + 1));
}

TEST_F(AdminLocks, AreCountedAsHeldAndAsReleasedByFaults)
{
    const int released = std::stoi(metric("file_locks_released_by_faults_total"));
    const int lost = std::stoi(metric("clients_lost_total"));
    host::takeFileLock({"/a", 12, {0, 1}, false}, nullptr);
    host::takeFileLock({"/b", 12, {0, 1}, false}, nullptr);
    EXPECT_EQ(metric("file_locks"), "2");
    NlmE_NodeFaultEvent(12);
    EXPECT_EQ(metric("file_locks"), "0");
    EXPECT_EQ(metric("file_locks_released_by_faults_total"), std::to_string(released + 2));
    EXPECT_EQ(metric("clients_lost_total"), std::to_string(lost + 1));
}

} // namespace
