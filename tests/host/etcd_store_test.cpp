// What the cluster store makes of etcd's own ways: several end points, a member that hangs, answers that make no sense.
#include "store_backends.h"

#include <algorithm>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using host::StoreResult;
using store_test::EtcdBackend;
using store_test::Events;
using store_test::kPatient;
using store_test::told;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using std::chrono::milliseconds;

std::unique_ptr<host::Store> open(std::vector<std::string> endpoints, milliseconds timeout = kPatient)
{
    host::StoreSettings settings;
    settings.endpoints = std::move(endpoints);
    settings.timeout = timeout;
    return host::openStore(settings);
}

// An HTTP server that answers each request with the next text, and those behind the last one with that. An empty text
// closes the connection instead of an answer; the others leave it open.
class ScriptedEndpoint {
public:
    explicit ScriptedEndpoint(std::string answer) : ScriptedEndpoint(std::vector{std::move(answer)}) {}
    explicit ScriptedEndpoint(std::vector<std::string> answers) : answers_(std::move(answers))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        socklen_t length = sizeof address;
        bind(listener_, reinterpret_cast<sockaddr *>(&address), length);
        getsockname(listener_, reinterpret_cast<sockaddr *>(&address), &length);
        listen(listener_, 16);
        url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedEndpoint()
    {
        shutdown(listener_, SHUT_RDWR);
        thread_.join();
        close(listener_);
        for (const int peer : peers_) {
            close(peer);
        }
    }
    ScriptedEndpoint(const ScriptedEndpoint &) = delete;
    ScriptedEndpoint &operator=(const ScriptedEndpoint &) = delete;
    const std::string &url() const { return url_; }
    int requests() const { return requests_; }

private:
    void serve()
    {
        for (int peer = accept(listener_, nullptr, nullptr); peer >= 0; peer = accept(listener_, nullptr, nullptr)) {
            peers_.push_back(peer);
            std::string request(4096, '\0');
            if (recv(peer, request.data(), request.size(), 0) > 0) {
                const auto next = static_cast<size_t>(requests_++);
                const std::string &answer = answers_[std::min(next, answers_.size() - 1)];
                send(peer, answer.data(), answer.size(), MSG_NOSIGNAL);
                if (answer.empty()) {
                    shutdown(peer, SHUT_RDWR);
                }
            }
        }
    }

    const std::vector<std::string> answers_;
    std::vector<int> peers_; // of the thread, until it has ended
    std::string url_;
    int listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::atomic<int> requests_ = 0;
    std::thread thread_;
};

std::string http(const std::string &status, const std::string &body)
{
    return "HTTP/1.1 " + status + "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

TEST(EtcdStore, GoesToTheNextEndPointWhenOneIsDown)
{
    EtcdBackend etcd;
    const auto store = open({EtcdBackend::deadEndpoint(), etcd.endpoint()});
    EXPECT_EQ(store->create("a", "one").result, StoreResult::done);
    EXPECT_EQ(store->status().place, etcd.endpoint());
    Events events;
    const auto other = open({EtcdBackend::deadEndpoint(), etcd.endpoint()});
    const auto watch = other->watch("a", 0, events.callback());
    EXPECT_THAT(told(events.wait(1)), ElementsAre("put a one v1"));
    EXPECT_EQ(other->read("a").item.value, "one");
}

TEST(EtcdStore, AReadGoesToTheNextEndPointWhenOneHangs)
{
    EtcdBackend hanging;
    EtcdBackend etcd;
    open({etcd.endpoint()})->create("a", "one");
    const auto store = open({hanging.endpoint(), etcd.endpoint()}, milliseconds(8000));
    hanging.hang();
    EXPECT_EQ(store->read("a").item.value, "one");
    hanging.goOn();
}

TEST(EtcdStore, AWatchLeavesAnEndPointThatHangs)
{
    EtcdBackend hanging;
    EtcdBackend etcd;
    const auto store = open({hanging.endpoint(), etcd.endpoint()}, milliseconds(300));
    Events events;
    const auto watch = store->watch("", 0, events.callback());
    open({hanging.endpoint()})->create("a", "here");
    events.wait(1);
    hanging.hang();
    const auto other = open({etcd.endpoint()});
    other->create("a", "one");
    other->create("b", "there");
    other->create("c", "there");
    EXPECT_TRUE(events.waitFor([](const host::StoreEvent &event) { return told(event) == "put c there v1"; }));
    hanging.goOn();
}

// A write that hangs may still be made when the member goes on, or not: made again, it is there once either way.
TEST(EtcdStore, AWriteToAnEndPointThatHangsIsUnknownAndMadeOnceWhenItIsMadeAgain)
{
    EtcdBackend etcd;
    const auto store = open({etcd.endpoint()}, milliseconds(300));
    const auto patient = open({etcd.endpoint()});
    patient->create("a", "one");
    etcd.hang();
    EXPECT_EQ(store->write("a", "two", 1).result, StoreResult::unknown);
    EXPECT_FALSE(store->status().reachable);
    etcd.goOn();
    EXPECT_NE(patient->write("a", "two", 1).result, StoreResult::unknown);
    const auto found = patient->read("a");
    EXPECT_EQ(found.item.value, "two");
    EXPECT_EQ(found.item.version, 2U);
}

TEST(EtcdStore, AChangeIsNotSentToAnotherEndPointOnceItWasSent)
{
    const ScriptedEndpoint first("");
    const ScriptedEndpoint second("");
    const auto store = open({first.url(), second.url()});
    EXPECT_EQ(store->create("a", "one").result, StoreResult::unknown);
    EXPECT_EQ(first.requests() + second.requests(), 1);
    EXPECT_EQ(store->read("a").result, StoreResult::unknown);
    EXPECT_GE(first.requests() + second.requests(), 3);
}

TEST(EtcdStore, WhatIsNoAnswerOfEtcdIsUnknown)
{
    struct Row {
        const char *name;
        std::string answer;
        const char *error;
    };
    const Row rows[] = {
        {"not HTTP", "nonsense\r\n\r\n", ""},
        {"not JSON", http("200 OK", "<html>"), "HTTP status 200 without an answer of etcd"},
        {"a bare number", http("200 OK", "7"), "HTTP status 200 without an answer of etcd"},
        {"a gateway's page", http("502 Bad Gateway", ""), "HTTP status 502 without an answer of etcd"},
        {"no leader", http("503 Service Unavailable", R"({"error":"etcdserver: no leader","code":14})"),
         "etcdserver: no leader"},
        {"an error that is no text", http("500 Internal Server Error", R"({"error":{}})"), "HTTP status 500"},
        {"a code that is no number", http("400 Bad Request", R"({"error":"no","code":"5"})"), "no"},
        {"a code beyond 32 bits", http("400 Bad Request", R"({"error":"no","code":4294967301})"), "no"},
        {"a number that is none", http("200 OK", R"({"succeeded":true,"header":{"revision":"1x"},"kvs":[]})"), ""},
        {"fields of other types", http("200 OK", R"({"succeeded":1,"header":[],"kvs":{},"result":3})"), ""},
    };
    for (const Row &row : rows) {
        const ScriptedEndpoint endpoint(row.answer);
        const auto store = open({endpoint.url()});
        EXPECT_EQ(store->create("a", "one").result, StoreResult::unknown) << row.name;
        EXPECT_THAT(store->status().error, HasSubstr(row.error)) << row.name;
        EXPECT_EQ(store->read("a").result, StoreResult::unknown) << row.name;
        EXPECT_EQ(store->list("a").result, StoreResult::unknown) << row.name;
        EXPECT_EQ(store->keepAlive(7).result, StoreResult::unknown) << row.name;
        EXPECT_FALSE(store->status().reachable) << row.name;
    }
}

// White space may stand before an answer, so only its size makes this one none.
std::string behindTooMuch(const std::string &answer)
{
    return std::string(64U << 20, ' ') + answer;
}

TEST(EtcdStore, AnAnswerThatIsTooLargeIsUnknown)
{
    const ScriptedEndpoint endpoint(http("200 OK", behindTooMuch(R"({"header":{"revision":"1"}})")));
    const auto store = open({endpoint.url()});
    EXPECT_EQ(store->read("a").result, StoreResult::unknown);
    EXPECT_EQ(store->status().error, "cluster store " + endpoint.url() + ": the answer is too large");
}

// ---- watches

std::string compactedAt(const std::string &revision)
{
    return R"({"result":{"canceled":true,"compact_revision":")" + revision + "\"}}\n";
}

TEST(EtcdStore, AWatchAsksAnewWhenALineIsTooLong)
{
    const std::string put = R"({"result":{"events":[{"kv":{"key":"YQ==","version":"1","mod_revision":"2"}}]}})";
    const ScriptedEndpoint endpoint({http("200 OK", behindTooMuch(put + "\n")), http("200 OK", put + "\n")});
    const auto store = open({endpoint.url()});
    Events events;
    const auto watch = store->watch("", 0, events.callback());
    EXPECT_THAT(told(events.wait(1)).front(), "put a  v1");
    EXPECT_GE(endpoint.requests(), 2);
}

TEST(EtcdStore, AWatchGoesOnWhenItsEndPointAnswersWithWhatEtcdDoesNotSay)
{
    const std::string silence = "HTTP/1.1 200 OK\r\n";
    const std::string refusal = http("500 Internal Server Error", R"({"error":{}})");
    const ScriptedEndpoint endpoint({silence, refusal, http("200 OK", compactedAt("9"))});
    const auto store = open({endpoint.url()}, milliseconds(100));
    Events events;
    const auto watch = store->watch("", 1, events.callback());
    EXPECT_EQ(told(events.wait(1)).front(), "lost");
}

TEST(EtcdStore, AWatchFromTheBeginningThatGotAheadTellsOfALoss)
{
    const std::string progress = R"({"result":{"header":{"revision":"5"}}})";
    const ScriptedEndpoint endpoint(
        {http("200 OK", progress + "\n" + compactedAt("9")), http("200 OK", compactedAt("20"))});
    const auto store = open({endpoint.url()});
    Events events;
    const auto watch = store->watch("", 0, events.callback());
    EXPECT_EQ(events.wait(1).front().item.revision, 9U);
}

} // namespace
