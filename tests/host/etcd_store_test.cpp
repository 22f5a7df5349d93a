// What the cluster store makes of etcd's own ways: several end points, a member that hangs, answers that make no sense.
#include "store_backends.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using host::StoreResult;
using store_test::EtcdBackend;
using store_test::Events;
using store_test::told;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

using std::chrono::milliseconds;

std::unique_ptr<host::Store> open(std::vector<std::string> endpoints, milliseconds timeout = milliseconds(2000))
{
    host::StoreSettings settings;
    settings.endpoints = std::move(endpoints);
    settings.timeout = timeout;
    return host::openStore(settings);
}

// An HTTP server that answers every request with the same text, or closes the connection instead of an answer.
class ScriptedEndpoint {
public:
    explicit ScriptedEndpoint(std::string answer) : answer_(std::move(answer))
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
    }
    ScriptedEndpoint(const ScriptedEndpoint &) = delete;
    ScriptedEndpoint &operator=(const ScriptedEndpoint &) = delete;
    const std::string &url() const { return url_; }
    int requests() const { return requests_; }

private:
    void serve()
    {
        for (int peer = accept(listener_, nullptr, nullptr); peer >= 0; peer = accept(listener_, nullptr, nullptr)) {
            std::string request(4096, '\0');
            if (recv(peer, request.data(), request.size(), 0) > 0) {
                ++requests_;
                send(peer, answer_.data(), answer_.size(), MSG_NOSIGNAL);
            }
            close(peer);
        }
    }

    std::string answer_;
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
    const auto store = open({hanging.endpoint(), etcd.endpoint()}, milliseconds(1000));
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
    store->create("a", "one");
    etcd.hang();
    EXPECT_EQ(store->write("a", "two", 1).result, StoreResult::unknown);
    EXPECT_FALSE(store->status().reachable);
    etcd.goOn();
    const auto patient = open({etcd.endpoint()});
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

} // namespace
