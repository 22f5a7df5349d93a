// This node's calls to the storage-side service, against a service that the test plays.
#include "message/message_service.h"
#include "message/storage_client.h"
#include "message/storage_statistics.h"
#include "message_peer.h"
#include "recorded_log.h"

#include <atomic>
#include <functional>
#include <gmock/gmock.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/host/message.h>
#include <optional>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::atomic<int> liveBlocks;
std::atomic<bool> poolIsShort;

} // namespace

void *nas_mem_comm_alloc(size_t size, const char *, uint32_t)
{
    if (poolIsShort) {
        return nullptr;
    }
    ++liveBlocks;
    return malloc(size);
}

void nas_mem_comm_free(void *ptr, const char *, uint32_t)
{
    liveBlocks -= ptr != nullptr ? 1 : 0;
    free(ptr);
}

namespace {

// The listening socket of a storage-side service, and a thread that plays it.
class StorageService {
public:
    using Script = std::function<void(StorageService &)>;

    StorageService(const std::string &path, Script script) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        unlink(path.c_str());
        const sockaddr_un address = unixAddress(path);
        if (bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || listen(fd_, 64) != 0) {
            throw std::runtime_error("the service cannot listen");
        }
        thread_ = std::thread([this, script = std::move(script)] {
            script(*this);
            close(fd_);
        });
    }
    ~StorageService() { finish(); }
    StorageService(const StorageService &) = delete;
    StorageService &operator=(const StorageService &) = delete;

    Peer accept() const { return Peer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)); }

    // Waits for the end of the script.
    void finish()
    {
        if (thread_.joinable()) {
            thread_.join();
        }
    }

private:
    int fd_;
    std::thread thread_;
};

struct Outcome {
    int32_t result;
    std::optional<std::string> response; // absent when there is no block

    bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *out)
{
    *out << outcome.result << " " << (outcome.response ? testing::PrintToString(*outcome.response) : "no block");
}

svr_call_t callOf(uint32_t type, const std::string &request)
{
    svr_call_t call{};
    call.request = request.data();
    call.length = static_cast<uint32_t>(request.size());
    call.module = 18;
    call.type = type;
    call.const10 = 10;
    call.sid = 6;
    call.const9 = 9;
    call.local_nid = IpcGetLocalNid();
    return call;
}

Outcome ask(uint32_t type, const std::string &request)
{
    const svr_call_t call = callOf(type, request);
    int untouched = 0;
    void *response = &untouched;
    uint32_t length = 77;
    Outcome outcome{svr_upcall_sync(&call, &response, &length), std::nullopt};
    if (response != nullptr) {
        outcome.response = std::string(static_cast<char *>(response), length);
        nas_mem_comm_free(response, __func__, __LINE__);
    } else {
        EXPECT_EQ(length, 0U);
    }
    return outcome;
}

// The result of a call that is given up soon.
int32_t askBriefly(const std::string &request)
{
    const svr_call_t call = callOf(7, request);
    void *response = nullptr;
    uint32_t length = 0;
    return host::callStorage(call, std::chrono::milliseconds(200), &response, &length);
}

uint32_t sequenceOf(const std::string &request)
{
    return wordAt(request, 12);
}

// The answer to a request of the test's own module and type 7.
std::string answerTo(const std::string &request, const std::string &payload, int32_t result = 0)
{
    return frame(18, wordAt(request, 8), sequenceOf(request), payload, 1, result);
}

class StorageClient : public testing::Test {
protected:
    void SetUp() override
    {
        recorded::clear();
        poolIsShort = false;
        settings.socketPath = dir.file("message.sock");
        settings.storageSocketPath = dir.file("storage.sock");
        settings.storageTimeout = std::chrono::seconds(20);
        settings.nodeId = 42;
    }

    void TearDown() override
    {
        host::stopMessageService();
        EXPECT_EQ(liveBlocks, 0);
    }

    void start() { host::startMessageService(settings); }
    const std::string &path() const { return settings.storageSocketPath; }

    TempDir dir;
    host::MessageSettings settings;
};

TEST_F(StorageClient, KnowsItsNodeId)
{
    start();

    EXPECT_EQ(IpcGetLocalNid(), 42U);
}

TEST_F(StorageClient, SendsTheRequestAndHandsOutTheAnswerAsABlockOfThePool)
{
    std::string request;
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        request = peer.receiveFrame();
        peer.send(answerTo(request, "the answer"));
    });
    start();

    EXPECT_EQ(ask(7, "what?"), (Outcome{0, "the answer"}));
    service.finish();
    EXPECT_EQ(request, frame(18, 7, sequenceOf(request), "what?"));
}

TEST_F(StorageClient, AsksAgainOnTheSameConnectionUnderANewSequence)
{
    std::vector<uint32_t> sequences;
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        for (const char *answer : {"one", "two", "three"}) {
            const std::string request = peer.receiveFrame();
            sequences.push_back(sequenceOf(request));
            peer.send(answerTo(request, answer));
        }
    });
    start();

    EXPECT_EQ(ask(1, "x"), (Outcome{0, "one"}));
    EXPECT_EQ(ask(2, "x"), (Outcome{0, "two"}));
    EXPECT_EQ(ask(3, "x"), (Outcome{0, "three"}));
    service.finish();
    EXPECT_THAT(sequences, ElementsAre(sequences[0], sequences[0] + 1, sequences[0] + 2));
}

TEST_F(StorageClient, CarriesTheLargestRequestAndAnswer)
{
    const std::string large(1048576, 'q');
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        for (int i = 0; i < 2; ++i) {
            const std::string request = peer.receiveFrame();
            peer.send(answerTo(request, request.substr(24)));
        }
    });
    start();

    EXPECT_TRUE(ask(7, large) == (Outcome{0, large}));
    EXPECT_EQ(ask(7, "small"), (Outcome{0, "small"}));
}

TEST_F(StorageClient, GivesNoBlockForAnEmptyAnswerOrAnError)
{
    StorageService service(path(), [](StorageService &self) {
        const Peer peer = self.accept();
        peer.send(answerTo(peer.receiveFrame(), ""));
        peer.send(answerTo(peer.receiveFrame(), "ignored", -2));
        peer.send(answerTo(peer.receiveFrame(), "still there"));
    });
    start();

    EXPECT_EQ(ask(7, ""), (Outcome{0, std::nullopt}));
    EXPECT_EQ(ask(7, ""), (Outcome{-2, std::nullopt}));
    EXPECT_EQ(ask(7, ""), (Outcome{0, "still there"}));
}

TEST_F(StorageClient, SaysSoWhenThePoolIsShortAndGoesOnAfterwards)
{
    StorageService service(path(), [](StorageService &self) {
        const Peer peer = self.accept();
        peer.send(answerTo(peer.receiveFrame(), "lost"));
        peer.send(answerTo(peer.receiveFrame(), "kept"));
    });
    start();

    poolIsShort = true;
    EXPECT_EQ(ask(7, ""), (Outcome{-ENOMEM, std::nullopt}));
    poolIsShort = false;
    EXPECT_EQ(ask(7, ""), (Outcome{0, "kept"}));
}

// ---- answers that are not awaited

TEST_F(StorageClient, DropsTheAnswerToACallThatWasGivenUp)
{
    std::string late;
    std::string next;
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        late = peer.receiveFrame();
        next = peer.receiveFrame();
        peer.send(answerTo(late, "late") + answerTo(next, "in time"));
    });
    start();

    EXPECT_EQ(askBriefly("first"), -ETIMEDOUT);
    EXPECT_EQ(ask(7, "second"), (Outcome{0, "in time"}));
    service.finish();
    EXPECT_THAT(recorded::lines(), ElementsAre("6 storage: answer " + std::to_string(sequenceOf(late)) +
                                               " is dropped: call " + std::to_string(sequenceOf(next)) + " waits"));
}

TEST_F(StorageClient, DropsTheRestOfAnAnswerOfWhichHalfCameInTime)
{
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        const std::string late = answerTo(peer.receiveFrame(), "cut in two");
        peer.send(late.substr(0, 26));
        const std::string next = peer.receiveFrame();
        peer.send(late.substr(26) + answerTo(next, "whole"));
    });
    start();

    EXPECT_EQ(askBriefly("first"), -ETIMEDOUT);
    EXPECT_EQ(ask(7, "second"), (Outcome{0, "whole"}));
}

TEST_F(StorageClient, TakesTheFirstOfTwoAnswers)
{
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        const std::string request = peer.receiveFrame();
        peer.send(answerTo(request, "first") + answerTo(request, "second"));
        peer.send(answerTo(peer.receiveFrame(), "third"));
    });
    start();

    EXPECT_EQ(ask(7, ""), (Outcome{0, "first"}));
    EXPECT_EQ(ask(7, ""), (Outcome{0, "third"}));
}

TEST_F(StorageClient, PassesOverAnAnswerOfAnotherSequence)
{
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        const std::string request = peer.receiveFrame();
        peer.send(frame(18, 7, sequenceOf(request) + 1000, "stray", 1) + answerTo(request, "own"));
    });
    start();

    EXPECT_EQ(ask(7, ""), (Outcome{0, "own"}));
}

// ---- failures

TEST_F(StorageClient, FailsAtOnceWithoutASocket)
{
    settings.storageSocketPath = "";
    start();

    EXPECT_EQ(ask(7, ""), (Outcome{-ECONNREFUSED, std::nullopt}));
    EXPECT_THAT(recorded::lines(), IsEmpty());
}

TEST_F(StorageClient, FailsAtOnceWhenNobodyListens)
{
    StorageService(path(), [](StorageService &) {}).finish();
    start();

    EXPECT_EQ(ask(7, ""), (Outcome{-ECONNREFUSED, std::nullopt}));
    unlink(path().c_str());
    EXPECT_EQ(ask(7, ""), (Outcome{-ECONNREFUSED, std::nullopt}));
    const std::string line = "3 storage: cannot connect to " + path() + ": Connection refused";
    EXPECT_THAT(recorded::lines(), ElementsAre(line, line));
}

TEST_F(StorageClient, FailsAtOnceWhenTheServiceDiesDuringTheCall)
{
    struct Row {
        const char *name;
        std::function<void(const Peer &)> script;
    };
    const Row rows[] = {
        {"before the answer", [](const Peer &peer) { peer.receiveFrame(); }},
        {"within the header",
         [](const Peer &peer) { peer.send(answerTo(peer.receiveFrame(), "answer").substr(0, 10)); }},
        {"within the payload",
         [](const Peer &peer) { peer.send(answerTo(peer.receiveFrame(), "answer").substr(0, 27)); }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        StorageService service(path(), [&](StorageService &self) {
            row.script(self.accept());
            const Peer peer = self.accept();
            peer.send(answerTo(peer.receiveFrame(), "alive"));
        });
        start();

        EXPECT_EQ(ask(7, "request"), (Outcome{-EPIPE, std::nullopt}));
        EXPECT_EQ(ask(7, "request"), (Outcome{0, "alive"}));
        host::stopMessageService();
    }
}

TEST_F(StorageClient, ConnectsAnewWhenTheServiceWasStartedAgainBetweenCalls)
{
    const auto once = [](StorageService &self) {
        const Peer peer = self.accept();
        peer.send(answerTo(peer.receiveFrame(), "here"));
    };
    start();
    for (int i = 0; i < 3; ++i) {
        StorageService service(path(), once);

        EXPECT_EQ(ask(7, ""), (Outcome{0, "here"}));
    }
    EXPECT_THAT(recorded::lines(), IsEmpty());
}

TEST_F(StorageClient, GivesUpAConnectionWithAMalformedAnswer)
{
    struct Row {
        const char *name;
        std::function<std::string(const std::string &request)> answer;
    };
    const auto withLength = [](const std::string &request, uint32_t length) {
        std::string bytes;
        appendWord(bytes, length);
        return bytes + answerTo(request, "x").substr(4);
    };
    const Row rows[] = {
        {"short", [&](const std::string &request) { return withLength(request, 19); }},
        {"huge", [&](const std::string &request) { return withLength(request, 1048597); }},
        {"a request", [](const std::string &request) { return frame(18, 7, sequenceOf(request), "x"); }},
        {"a no-reply", [](const std::string &request) { return frame(18, 7, sequenceOf(request), "", 2); }},
        {"another type", [](const std::string &request) { return frame(18, 8, sequenceOf(request), "x", 1); }},
        {"another module", [](const std::string &request) { return frame(17, 7, sequenceOf(request), "x", 1); }},
        {"a positive result", [](const std::string &request) { return answerTo(request, "x", 5); }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        recorded::clear();
        StorageService service(path(), [&](StorageService &self) {
            const Peer bad = self.accept();
            bad.send(row.answer(bad.receiveFrame()));
            EXPECT_TRUE(bad.isClosedByPeer());
            const Peer good = self.accept();
            good.send(answerTo(good.receiveFrame(), "good"));
        });
        start();

        EXPECT_EQ(ask(7, "request"), (Outcome{-EPROTO, std::nullopt}));
        EXPECT_EQ(ask(7, "request"), (Outcome{0, "good"}));
        EXPECT_THAT(recorded::lines(), ElementsAre("3 storage: the connection is closed: its answer is malformed"));
        host::stopMessageService();
    }
}

// An answer of type 10 with that many bytes behind its result and number of rows.
std::string zoneNodes(uint32_t result, uint32_t rows, const std::string &rest)
{
    std::string payload;
    appendWord(payload, result);
    appendWord(payload, rows);
    return payload + rest;
}

TEST_F(StorageClient, HandsOutNoZoneNodesThatAreFewerThanTheirAnswerSays)
{
    const std::string row = "node" + std::string(3068, '\0');
    const struct {
        const char *name;
        std::string payload;
        bool whole;
    } rows[] = {
        {"none", zoneNodes(0, 0, ""), true},
        {"all", zoneNodes(0, 2, row + row), true},
        {"more", zoneNodes(0, 1, row + row), true},
        {"one too few", zoneNodes(0, 2, row), false},
        {"a byte too few", zoneNodes(0, 1, row.substr(1)), false},
        {"more than there can be", zoneNodes(0, UINT32_MAX, row), false},
        {"none of those that it says", zoneNodes(0, 1, ""), false},
        {"the last without an end", zoneNodes(0, 2, row + std::string(3072, 'x')), false},
        {"the first without an end", zoneNodes(0, 2, std::string(3072, 'x') + row), true},
        {"a result of its own", zoneNodes(5, 9, ""), true},
        {"too short for a number of rows", zoneNodes(0, 9, "").substr(0, 7), true},
    };
    StorageService service(path(), [&](StorageService &self) {
        const Peer peer = self.accept();
        for (const auto &each : rows) {
            peer.send(answerTo(peer.receiveFrame(), each.payload));
        }
    });
    start();

    for (const auto &each : rows) {
        recorded::clear();
        const Outcome expected = each.whole ? Outcome{0, each.payload} : Outcome{-EPROTO, std::nullopt};
        EXPECT_TRUE(ask(10, "") == expected) << each.name;
        EXPECT_EQ(recorded::lines(),
                  each.whole ? std::vector<std::string>()
                             : std::vector<std::string>{"3 storage: an answer of type 10 is cut short: it has " +
                                                        std::to_string(each.payload.size()) + " bytes"})
            << each.name;
    }
}

TEST_F(StorageClient, GivesUpARequestThatTheServiceDoesNotTakeInTime)
{
    StorageService service(path(), [&](StorageService &self) {
        const Peer deaf = self.accept();
        const Peer next = self.accept();
        next.send(answerTo(next.receiveFrame(), "next"));
    });
    start();

    EXPECT_EQ(askBriefly(std::string(1048576, 'x')), -ETIMEDOUT);
    EXPECT_EQ(ask(7, ""), (Outcome{0, "next"}));
}

TEST_F(StorageClient, RefusesCallsThatCannotBeMade)
{
    start();
    void *response = nullptr;
    uint32_t length = 0;
    const svr_call_t good = callOf(7, "x");
    svr_call_t withoutRequest = good;
    withoutRequest.request = nullptr;
    svr_call_t tooLong = good;
    tooLong.length = 1048577;

    EXPECT_EQ(svr_upcall_sync(nullptr, &response, &length), -EINVAL);
    EXPECT_EQ(svr_upcall_sync(&good, nullptr, &length), -EINVAL);
    EXPECT_EQ(svr_upcall_sync(&good, &response, nullptr), -EINVAL);
    EXPECT_EQ(svr_upcall_sync(&withoutRequest, &response, &length), -EINVAL);
    EXPECT_EQ(svr_upcall_sync(&tooLong, &response, &length), -EMSGSIZE);
    const std::string line = "3 storage: a call without a record, a request or a place for the answer is refused";
    EXPECT_THAT(recorded::lines(), ElementsAre(line, line, line, line,
                                               "3 storage: a request of 1048577 bytes is refused: 1048576 at most"));
}

// ---- several callers

// How often each result was counted for the types that the library does not send, in the order of their names.
std::array<uint64_t, host::kStorageResults> countedResults()
{
    return host::storageCallCounts().back().byResult;
}

TEST_F(StorageClient, CountsWhatEachCallCameTo)
{
    start();
    const auto before = countedResults();
    ask(7, "nobody listens");
    StorageService service(path(), [](StorageService &self) {
        const Peer peer = self.accept();
        for (const std::string &answer : {std::string(4, '\0'), std::string("\x05\0\0\0and more", 12), std::string()}) {
            peer.send(answerTo(peer.receiveFrame(), answer));
        }
        peer.send(answerTo(peer.receiveFrame(), "", -95));
        peer.send(answerTo(peer.receiveFrame(), "", -110));
        peer.receiveFrame();
    });
    for (const char *call : {"ok", "refused", "too short", "failed", "timed out", "closed"}) {
        ask(7, call);
    }
    service.finish();
    const auto after = countedResults();
    for (size_t result = 0; result < after.size(); ++result) {
        EXPECT_EQ(after[result] - before[result], 1U) << host::kStorageResultNames[result];
    }
}

TEST_F(StorageClient, GivesEachOfManyCallersItsOwnAnswer)
{
    constexpr int kCallers = 8;
    constexpr int kCalls = 100;
    std::atomic<int> answered = 0;
    // The last connection that it accepts is the test's own, and tells that no more will come.
    StorageService service(path(), [&](StorageService &self) {
        std::vector<std::thread> threads;
        for (bool last = false; !last;) {
            Peer peer = self.accept();
            const std::string first = peer.receiveFrame();
            last = first == "";
            threads.emplace_back([peer = std::move(peer), first] {
                for (std::string request = first; request.size() >= 24; request = peer.receiveFrame()) {
                    peer.send(answerTo(request, request.substr(24)));
                }
            });
        }
        for (auto &thread : threads) {
            thread.join();
        }
    });
    start();
    std::vector<std::thread> callers;
    for (int caller = 0; caller < kCallers; ++caller) {
        callers.emplace_back([&, caller] {
            for (int i = 0; i < kCalls; ++i) {
                const std::string own = std::to_string(caller) + "/" + std::to_string(i);
                answered += ask(7, own) == Outcome{0, own} ? 1 : 0;
            }
        });
    }
    for (auto &caller : callers) {
        caller.join();
    }
    EXPECT_EQ(answered, kCallers * kCalls);
    host::stopMessageService();
    Peer::connectTo(path()).hangUp();
}

TEST_F(StorageClient, DoesNotLetOneCallWaitForAnother)
{
    StorageService service(path(), [&](StorageService &self) {
        const Peer first = self.accept();
        const std::string held = first.receiveFrame();
        const Peer second = self.accept();
        second.send(answerTo(second.receiveFrame(), "second"));
        first.send(answerTo(held, "first"));
    });
    start();
    Outcome slow{};
    std::thread caller([&] { slow = ask(7, "a"); });

    const Outcome quick = ask(7, "b");
    caller.join();

    EXPECT_EQ(quick.result, 0);
    EXPECT_EQ(slow.result, 0);
    EXPECT_NE(quick.response, slow.response);
}

} // namespace
