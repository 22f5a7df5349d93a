// The message service as its clients meet it: over its socket, byte by byte.
#include "message/message_service.h"

#include "counted_new.h"
#include "message_peer.h"
#include "recorded_log.h"
#include <atomic>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <nasctrl/host/message.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint32_t kScripted = 18;
constexpr uint32_t kZeros = 3;

using Behaviour = std::function<uint32_t(svr_msg_t *)>;

std::mutex behaviourLock;
Behaviour behaviour;

uint32_t scriptedHandler(svr_msg_t *record)
{
    Behaviour now;
    {
        const std::scoped_lock hold(behaviourLock);
        now = behaviour;
    }
    return now(record);
}

uint32_t zerosHandler(svr_msg_t *record)
{
    const uint64_t zeros = 0;
    return SvrSendResponse(record, &zeros, sizeof zeros);
}

svr_module_reg_t registration(uint32_t module, uint32_t (*handler)(svr_msg_t *))
{
    svr_module_reg_t record{};
    record.module = module;
    record.handler = handler;
    record.flag = 1;
    return record;
}

uint32_t echo(svr_msg_t *record)
{
    return SvrSendResponse(record, record->buffer, record->length);
}

std::string payloadOf(const svr_msg_t *record)
{
    return {static_cast<const char *>(record->buffer), record->length};
}

// Waits, without a clock of its own, for something that no socket or log line tells.
template <class Condition>
bool eventually(Condition condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition() && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    return condition();
}

class MessageService : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        static const bool once = [] {
            const auto scripted = registration(kScripted, scriptedHandler);
            const auto zeros = registration(kZeros, zerosHandler);
            return svr_regist_module(&scripted) == 0 && svr_regist_module(&zeros) == 0;
        }();
        ASSERT_TRUE(once);
    }

    void SetUp() override
    {
        recorded::clear();
        handle(echo);
        settings.socketPath = dir.file("message.sock");
    }

    void TearDown() override { host::stopMessageService(); }

    static void handle(const Behaviour &next)
    {
        const std::scoped_lock hold(behaviourLock);
        behaviour = next;
    }

    void start() { host::startMessageService(settings); }
    Peer client() const { return Peer::connectTo(settings.socketPath); }

    std::string startFailure()
    {
        try {
            start();
        } catch (const std::runtime_error &error) {
            return error.what();
        }
        return "started";
    }

    TempDir dir;
    host::MessageSettings settings;
};

std::string ownPid()
{
    return std::to_string(getpid());
}

// ---- requests and answers

TEST_F(MessageService, AnswersARequestWithTheReplyOfItsModule)
{
    start();
    const Peer peer = client();

    EXPECT_EQ(peer.ask(std::string("\x18\0\0\0\x03\0\0\0\x0a\0\0\0\x07\0\0\0\0\0\0\0\0\0\0\0\x0a\0\0\0", 28)),
              std::string("\x1c\0\0\0\x03\0\0\0\x0a\0\0\0\x07\0\0\0\x01\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", 32));
}

TEST_F(MessageService, GivesTheHandlerTheWholeMessage)
{
    svr_msg_t seen{};
    std::string payload;
    handle([&](svr_msg_t *record) {
        seen = *record;
        payload = payloadOf(record);
        return 0U;
    });
    start();

    client().ask(frame(kScripted, 41, 77, "hello"));

    EXPECT_EQ(payload, "hello");
    EXPECT_EQ(seen.length, 5U);
    EXPECT_EQ(seen.module, kScripted);
    EXPECT_EQ(seen.opcode, 41U);
    EXPECT_EQ(seen.sequence, 77U);
    EXPECT_EQ(seen.direction, 0U);
}

TEST_F(MessageService, AnswersWithTheResultAloneWhenTheHandlerSendsNoReply)
{
    for (const int32_t result : {0, 1, -22}) {
        SCOPED_TRACE(result);
        handle([=](svr_msg_t *) { return static_cast<uint32_t>(result); });
        start();

        EXPECT_EQ(client().ask(frame(kScripted, 3, 5, "x")), frame(kScripted, 3, 5, "", 2, result));
        host::stopMessageService();
    }
}

TEST_F(MessageService, SendsTheReplyOfAHandlerThatFailsAfterItTogetherWithItsResult)
{
    handle([](svr_msg_t *record) { return echo(record) + 1; });
    start();

    EXPECT_EQ(client().ask(frame(kScripted, 1, 2, "abc")), frame(kScripted, 1, 2, "abc", 1, 1));
}

TEST_F(MessageService, AnswersForAModuleThatNobodyRegistered)
{
    start();

    EXPECT_EQ(client().ask(frame(99, 6, 8, "abc")), frame(99, 6, 8, "", 2, -ENOENT));
    EXPECT_THAT(recorded::lines(), ElementsAre("3 message: opcode 6: no module 99"));
    EXPECT_EQ(host::messageCounters().undelivered, 1U);
    EXPECT_EQ(host::messageCounters().messages, 0U);
}

TEST_F(MessageService, PutsAFrameTogetherFromSingleBytes)
{
    start();
    const Peer peer = client();

    for (const char byte : frame(kScripted, 1, 9, "piece by piece")) {
        peer.send(std::string(1, byte));
    }

    EXPECT_EQ(peer.receiveFrame(), frame(kScripted, 1, 9, "piece by piece", 1));
}

TEST_F(MessageService, AnswersFramesThatArriveTogetherInTheirOrderEachWithAnAlignedBuffer)
{
    std::atomic<unsigned> crooked = 0;
    handle([&](svr_msg_t *record) {
        crooked += reinterpret_cast<uintptr_t>(record->buffer) % 8 != 0 ? 1 : 0;
        return echo(record);
    });
    start();
    std::string requests;
    std::string answers;
    for (uint32_t i = 0; i < 500; ++i) {
        const std::string payload(i % 41, static_cast<char>('a' + i % 26));
        requests += frame(kScripted, 1, i, payload);
        answers += frame(kScripted, 1, i, payload, 1);
    }
    const Peer peer = client();

    peer.send(requests);

    EXPECT_EQ(peer.receive(answers.size()), answers);
    EXPECT_EQ(crooked, 0U);
}

TEST_F(MessageService, CarriesTheLargestPayload)
{
    start();
    std::string payload(1048576, '\0');
    for (size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<char>(i * 7 + i / 256);
    }
    const Peer peer = client();

    for (uint32_t sequence = 0; sequence < 3; ++sequence) {
        EXPECT_TRUE(peer.ask(frame(kScripted, 1, sequence, payload)) == frame(kScripted, 1, sequence, payload, 1));
    }
}

TEST_F(MessageService, AnswersAClientThatHasFinishedSending)
{
    start();
    const Peer peer = client();

    peer.send(frame(kScripted, 1, 1, "a") + frame(kScripted, 1, 2, "b"));
    shutdown(peer.fd(), SHUT_WR);

    EXPECT_EQ(peer.receiveFrame(), frame(kScripted, 1, 1, "a", 1));
    EXPECT_EQ(peer.receiveFrame(), frame(kScripted, 1, 2, "b", 1));
    EXPECT_TRUE(peer.isClosedByPeer());
    EXPECT_THAT(recorded::lines(), IsEmpty());
}

TEST_F(MessageService, CountsWhatItDoes)
{
    start();
    const Peer first = client();
    first.ask(frame(kScripted, 1, 1, "a"));
    handle([](svr_msg_t *) { return 0U; });
    const Peer second = client();
    second.ask(frame(kScripted, 1, 1, "a"));
    second.ask(frame(50, 1, 1, "a"));

    const host::MessageCounters counters = host::messageCounters();

    EXPECT_EQ(counters.connections, 2U);
    EXPECT_EQ(counters.accepted, 2U);
    EXPECT_EQ(counters.messages, 2U);
    EXPECT_EQ(counters.replies, 1U);
    EXPECT_EQ(counters.malformed, 0U);
    EXPECT_EQ(counters.undelivered, 1U);
}

// ---- clients beside each other

TEST_F(MessageService, LetsOtherClientsThroughWhileAHandlerBlocks)
{
    std::promise<void> entered;
    std::promise<void> release;
    handle([&](svr_msg_t *record) {
        entered.set_value();
        release.get_future().wait();
        return echo(record);
    });
    start();
    const Peer blocked = client();
    blocked.send(frame(kScripted, 1, 1, "slow"));
    entered.get_future().wait();

    for (uint32_t i = 0; i < 20; ++i) {
        EXPECT_EQ(client().ask(frame(kZeros, 10, i)), frame(kZeros, 10, i, std::string(8, '\0'), 1));
    }
    release.set_value();

    EXPECT_EQ(blocked.receiveFrame(), frame(kScripted, 1, 1, "slow", 1));
}

TEST_F(MessageService, HandlesTheRequestsOfOneConnectionOneAfterTheOther)
{
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    handle([&](svr_msg_t *record) {
        overlaps += ++inside > 1 ? 1 : 0;
        std::this_thread::yield();
        --inside;
        return echo(record);
    });
    start();
    const Peer peer = client();

    for (uint32_t i = 0; i < 200; ++i) {
        peer.send(frame(kScripted, 1, i, "x"));
    }
    for (uint32_t i = 0; i < 200; ++i) {
        ASSERT_EQ(peer.receiveFrame(), frame(kScripted, 1, i, "x", 1));
    }

    EXPECT_EQ(overlaps, 0);
}

TEST_F(MessageService, AnswersAThousandConnectionsAtOnce)
{
    rlimit low{};
    getrlimit(RLIMIT_NOFILE, &low);
    if (low.rlim_max < 2200) {
        GTEST_SKIP() << "this process may not have 2,000 descriptors";
    }
    low.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &low);
    start(); // raises the limit again
    std::vector<Peer> peers;

    for (uint32_t i = 0; i < 1000; ++i) {
        peers.push_back(client());
        peers.back().send(frame(kScripted, 1, i, std::to_string(i)));
    }
    for (uint32_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(peers[i].receiveFrame(), frame(kScripted, 1, i, std::to_string(i), 1));
    }

    EXPECT_EQ(host::messageCounters().connections, 1000U);
}

TEST_F(MessageService, RefusesAClientBeyondItsLimit)
{
    settings.clients = 2;
    start();
    const Peer first = client();
    {
        const Peer second = client();
        EXPECT_EQ(second.ask(frame(kZeros, 10, 2)).size(), 32U);

        EXPECT_TRUE(client().isClosedByPeer());
    }

    EXPECT_THAT(recorded::lines(), ElementsAre("3 message: client " + ownPid() + " is refused: 2 are connected"));
    ASSERT_TRUE(eventually([] { return host::messageCounters().connections == 1; }));
    EXPECT_EQ(client().ask(frame(kZeros, 10, 3)).size(), 32U);
    EXPECT_EQ(first.ask(frame(kZeros, 10, 4)).size(), 32U);
}

// ---- replies

// What SvrSendResponse answered to the handler's second, improper, reply, and the line that it wrote.
struct Improper {
    uint32_t result = 0;
    std::string line;
};

Improper improperReply(svr_msg_t *record, const void *reply, uint32_t length)
{
    recorded::clear();
    Improper seen;
    seen.result = SvrSendResponse(record, reply, length);
    const auto lines = recorded::lines();
    seen.line = lines.size() == 1 ? lines[0] : std::to_string(lines.size()) + " lines";
    return seen;
}

TEST_F(MessageService, TakesOneReplyToAMessage)
{
    Improper second;
    handle([&](svr_msg_t *record) {
        const uint32_t result = SvrSendResponse(record, "first", 5);
        second = improperReply(record, "second", 6);
        return result;
    });
    start();

    EXPECT_EQ(client().ask(frame(kScripted, 4, 1)), frame(kScripted, 4, 1, "first", 1));
    EXPECT_EQ(second.result, 1U);
    EXPECT_EQ(second.line, "3 message: no reply is sent to opcode 4 of module 18: it is answered already");
}

TEST_F(MessageService, RefusesAReplyAfterTheHandlerHasReturned)
{
    svr_msg_t kept{};
    handle([&](svr_msg_t *record) {
        kept = *record;
        return 0U;
    });
    start();
    const Peer peer = client();
    peer.ask(frame(kScripted, 4, 1));

    const Improper late = improperReply(&kept, "late", 4);

    EXPECT_EQ(late.result, 1U);
    EXPECT_EQ(late.line, "3 message: no reply is sent to opcode 4 of module 18: its handler has returned");
    EXPECT_EQ(peer.ask(frame(kZeros, 10, 2)), frame(kZeros, 10, 2, std::string(8, '\0'), 1));
}

TEST_F(MessageService, RefusesAReplyToAClientThatHasVanished)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::promise<Improper> seen;
    handle([&](svr_msg_t *record) {
        entered.set_value();
        release.get_future().wait();
        seen.set_value(improperReply(record, "gone", 4));
        return 0U;
    });
    start();
    Peer peer = client();
    peer.send(frame(kScripted, 4, 1));
    entered.get_future().wait();
    peer.hangUp();
    release.set_value();

    const Improper reply = seen.get_future().get();

    EXPECT_EQ(reply.result, 1U);
    EXPECT_EQ(reply.line, "3 message: no reply is sent to opcode 4 of module 18: the client is gone");
    EXPECT_EQ(client().ask(frame(kZeros, 10, 2)), frame(kZeros, 10, 2, std::string(8, '\0'), 1));
}

TEST_F(MessageService, RefusesRepliesThatCannotBeSent)
{
    struct Row {
        const char *name;
        std::function<Improper(svr_msg_t *)> reply;
        std::string line;
    };
    const std::string large(1048577, 'x');
    const std::string start_ = "3 message: no reply is sent";
    const std::vector<Row> rows = {
        {"too long", [&](svr_msg_t *record) { return improperReply(record, large.data(), 1048577); },
         start_ + " to opcode 4 of module 18: the reply is too long"},
        {"no bytes", [](svr_msg_t *record) { return improperReply(record, nullptr, 1); },
         start_ + " to opcode 4 of module 18: there is no reply"},
        {"no record", [](svr_msg_t *) { return improperReply(nullptr, "x", 1); }, start_ + ": there is no record"},
        {"cleared record",
         [](svr_msg_t *record) {
             svr_msg_t other = *record;
             memset(other.reserved, 0, sizeof other.reserved);
             return improperReply(&other, "x", 1);
         },
         start_ + " to opcode 4 of module 18: it is no message of this service"},
        {"foreign record",
         [](svr_msg_t *record) {
             svr_msg_t other = *record;
             memset(other.reserved, 0xFF, sizeof other.reserved);
             return improperReply(&other, "x", 1);
         },
         start_ + " to opcode 4 of module 18: it is no message of this service"},
    };
    start();
    const Peer peer = client();
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        Improper seen;
        handle([&](svr_msg_t *record) {
            seen = row.reply(record);
            return seen.result;
        });

        EXPECT_EQ(peer.ask(frame(kScripted, 4, 1)), frame(kScripted, 4, 1, "", 2, 1));
        EXPECT_EQ(seen.line, row.line);
    }
}

TEST_F(MessageService, TakesAnEmptyReplyAsAReply)
{
    handle([](svr_msg_t *record) { return SvrSendResponse(record, nullptr, 0); });
    start();

    EXPECT_EQ(client().ask(frame(kScripted, 4, 1)), frame(kScripted, 4, 1, "", 1));
}

TEST_F(MessageService, TakesTheReplyFromAnotherThreadWhileTheHandlerWaitsForIt)
{
    handle([](svr_msg_t *record) {
        uint32_t result = 1;
        std::thread([&] { result = SvrSendResponse(record, "helped", 6); }).join();
        return result;
    });
    start();

    EXPECT_EQ(client().ask(frame(kScripted, 4, 1)), frame(kScripted, 4, 1, "helped", 1));
}

// ---- registration

TEST_F(MessageService, RefusesModulesThatCannotBeRegistered)
{
    struct Row {
        const char *name;
        svr_module_reg_t record;
        const char *line;
    };
    const Row rows[] = {
        {"id 0", registration(0, zerosHandler), "3 message: module 0 is not registered: id 0 is no module"},
        {"no handler", registration(70, nullptr), "3 message: module 70 is not registered: it has no handler"},
        {"second time", registration(kScripted, zerosHandler),
         "3 message: module 18 is not registered: it is registered already"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        recorded::clear();

        EXPECT_NE(svr_regist_module(&row.record), 0);
        EXPECT_THAT(recorded::lines(), ElementsAre(row.line));
    }
    recorded::clear();
    EXPECT_NE(svr_regist_module(nullptr), 0);
    EXPECT_THAT(recorded::lines(), ElementsAre("3 message: no module is registered: there is no record"));
}

TEST_F(MessageService, DeliversToAModuleThatRegistersWhileItRuns)
{
    start();
    const Peer peer = client();
    const uint32_t module = 1000 + static_cast<uint32_t>(recorded::lines().size());
    peer.ask(frame(module, 1, 1));
    recorded::clear();

    const auto record = registration(module, zerosHandler);
    ASSERT_EQ(svr_regist_module(&record), 0);

    EXPECT_EQ(peer.ask(frame(module, 1, 2)), frame(module, 1, 2, std::string(8, '\0'), 1));
    EXPECT_THAT(recorded::lines(), ElementsAre("4 message: module 1000 is registered"));
}

// ---- bad clients

TEST_F(MessageService, ClosesAConnectionOnTheFirstMalformedFrameAfterAnsweringThoseBefore)
{
    struct Row {
        const char *name;
        std::string bytes;
        std::string reason;
    };
    const std::string full = frame(kScripted, 1, 2, "abc");
    const auto withLength = [&](uint32_t length) {
        std::string bytes;
        appendWord(bytes, length);
        return bytes + full.substr(4);
    };
    const std::vector<Row> rows = {
        {"length 0", withLength(0), "length 0 is not 20 to 1048596"},
        {"length 19", withLength(19), "length 19 is not 20 to 1048596"},
        {"one byte too long", withLength(1048597), "length 1048597 is not 20 to 1048596"},
        {"huge", withLength(0xFFFFFFFFU), "length 4294967295 is not 20 to 1048596"},
        {"the length alone", withLength(7).substr(0, 4), "length 7 is not 20 to 1048596"},
        {"a reply", frame(kScripted, 1, 2, "", 1), "direction 1 is not 0"},
        {"a no-reply", frame(kScripted, 1, 2, "abc", 2), "direction 2 is not 0"},
        {"cut in the length", full.substr(0, 3), "it left in the middle of a frame"},
        {"cut in the header", full.substr(0, 23), "it left in the middle of a frame"},
        {"cut in the payload", full.substr(0, 26), "it left in the middle of a frame"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        start();
        recorded::clear();
        const Peer peer = client();

        peer.send(frame(kScripted, 1, 1, "good") + row.bytes);
        shutdown(peer.fd(), SHUT_WR);

        EXPECT_EQ(peer.receiveFrame(), frame(kScripted, 1, 1, "good", 1));
        EXPECT_TRUE(peer.isClosedByPeer());
        EXPECT_THAT(recorded::lines(), ElementsAre("3 message: client " + ownPid() + " is closed: " + row.reason));
        EXPECT_EQ(host::messageCounters().malformed, 1U);
        EXPECT_EQ(host::messageCounters().messages, 1U);
        host::stopMessageService();
    }
}

TEST_F(MessageService, AllocatesForBytesThatArriveNotForALengthThatIsAnnounced)
{
    start();
    Peer peer = client();
    std::string announced;
    appendWord(announced, 1048596);
    announced += frame(kScripted, 1, 1).substr(4);
    recorded::clear();
    counted::largest = 0;

    peer.send(announced + std::string(1000, 'x'));
    peer.hangUp();

    ASSERT_TRUE(recorded::await("3 message: client " + ownPid() + " is closed: it left in the middle of a frame"));
    EXPECT_LE(counted::largest, 8192U);
}

TEST_F(MessageService, StopsReadingFromAClientThatDoesNotReadItsAnswers)
{
    start();
    const Peer deaf = client();
    const Peer other = client();
    const std::string payload(65536, 'p');
    constexpr uint32_t kRequests = 400;
    std::string requests;
    for (uint32_t i = 0; i < kRequests; ++i) {
        requests += frame(kScripted, 1, i, payload);
    }

    // The service has time for many a message of the other client whenever it does not take more of the deaf one's.
    size_t sent = 0;
    for (unsigned refusals = 0; refusals < 200 && sent < requests.size();) {
        const ssize_t count = ::send(deaf.fd(), requests.data() + sent, requests.size() - sent, MSG_DONTWAIT);
        refusals = count > 0 ? 0 : refusals + 1;
        sent += count > 0 ? static_cast<size_t>(count) : 0;
        ASSERT_EQ(other.ask(frame(kZeros, 10, 1)).size(), 32U);
    }
    EXPECT_LT(sent, requests.size() / 2);

    std::thread rest([&] { deaf.send(requests.substr(sent)); });
    for (uint32_t i = 0; i < kRequests; ++i) {
        EXPECT_TRUE(deaf.receiveFrame() == frame(kScripted, 1, i, payload, 1)) << i;
    }
    rest.join();
}

TEST_F(MessageService, ForgetsAClientThatVanishesWithoutHavingReadItsAnswers)
{
    start();
    {
        const Peer deaf = client();
        const std::string request = frame(kScripted, 1, 1, std::string(1048576, 'p'));
        deaf.send(request);
        ASSERT_TRUE(eventually([] { return host::messageCounters().messages == 1; }));
    }

    EXPECT_TRUE(eventually([] { return host::messageCounters().connections == 0; }));
    EXPECT_EQ(host::messageCounters().malformed, 0U);
}

TEST_F(MessageService, AcceptsAgainWhenDescriptorsAreFree)
{
    start();
    const Peer early = client();
    early.ask(frame(kZeros, 10, 1));
    const int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    rlimit usual{};
    getrlimit(RLIMIT_NOFILE, &usual);
    const rlimit none{static_cast<rlim_t>(waiting) + 1, usual.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const sockaddr_un address = unixAddress(settings.socketPath);
    ASSERT_EQ(connect(waiting, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    const Peer peer(waiting);
    peer.send(frame(kScripted, 1, 1, "patient"));

    EXPECT_TRUE(recorded::await("3 message: no connection can be accepted: Too many open files"));
    EXPECT_EQ(early.ask(frame(kZeros, 10, 2)), frame(kZeros, 10, 2, std::string(8, '\0'), 1));
    setrlimit(RLIMIT_NOFILE, &usual);

    EXPECT_EQ(peer.receiveFrame(), frame(kScripted, 1, 1, "patient", 1));
    EXPECT_EQ(recorded::lines().size(), 1U);
}

TEST_F(MessageService, RefusesAClientOfAnotherUser)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    start();
    chmod(dir.path().c_str(), 0755);
    chmod(settings.socketPath.c_str(), 0666);
    const Peer trusted = client();

    const pid_t child = fork();
    if (child == 0) {
        const bool other = setgid(65534) == 0 && setuid(65534) == 0;
        _exit(other && Peer::connectTo(settings.socketPath).isClosedByPeer() ? 7 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);

    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("3 message: client " + std::to_string(child) + " is refused: it runs as user 65534"));
    EXPECT_EQ(trusted.ask(frame(kZeros, 10, 2)), frame(kZeros, 10, 2, std::string(8, '\0'), 1));
}

// ---- the socket and the life of the service

TEST_F(MessageService, OpensItsSocketForItsOwnUserAlone)
{
    start();

    struct stat info {};
    ASSERT_EQ(stat(settings.socketPath.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777U, 0600U);
}

TEST_F(MessageService, ReplacesTheSocketOfADeadProcess)
{
    const int dead = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unixAddress(settings.socketPath);
    ASSERT_EQ(bind(dead, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    close(dead);

    start();

    EXPECT_EQ(client().ask(frame(kScripted, 1, 1, "x")), frame(kScripted, 1, 1, "x", 1));
}

TEST_F(MessageService, LeavesTheSocketOfALiveProcessAlone)
{
    const int live = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = unixAddress(settings.socketPath);
    ASSERT_EQ(bind(live, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
    ASSERT_EQ(listen(live, 1), 0);

    EXPECT_EQ(startFailure(), "message service: " + settings.socketPath + ": another process listens on it");
    EXPECT_NO_THROW(client());
    close(live);
}

TEST_F(MessageService, SaysWhyItCannotListen)
{
    struct Row {
        const char *name;
        std::string path;
        const char *reason;
    };
    const std::string file = dir.file("file");
    fclose(fopen(file.c_str(), "w"));
    const std::vector<Row> rows = {
        {"a file", file, "exists and is not a socket"},
        {"no directory", dir.file("none/message.sock"), "No such file or directory"},
        {"too long", dir.file(std::string(100, 'x')), "is empty or too long for a socket, 107 characters at most"},
        {"empty", "", "is empty or too long for a socket, 107 characters at most"},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        settings.socketPath = row.path;

        EXPECT_EQ(startFailure(), "message service: " + row.path + ": " + row.reason);
    }
    EXPECT_TRUE(std::filesystem::is_regular_file(file));
}

TEST_F(MessageService, RunsOnceAtATime)
{
    start();

    EXPECT_EQ(startFailure(), "message service: it runs already");
    EXPECT_EQ(client().ask(frame(kScripted, 1, 1, "x")), frame(kScripted, 1, 1, "x", 1));
}

TEST_F(MessageService, StopsByClosingEveryConnectionAndRemovingItsSocket)
{
    start();
    const Peer idle = client();
    idle.ask(frame(kScripted, 1, 1, "x"));
    const Peer unfinished = client();
    unfinished.ask(frame(kScripted, 1, 1, "x"));
    unfinished.send("\x30");

    host::stopMessageService();

    EXPECT_TRUE(idle.isClosedByPeer());
    EXPECT_TRUE(unfinished.isClosedByPeer());
    EXPECT_FALSE(std::filesystem::exists(settings.socketPath));
    EXPECT_THAT(recorded::lines(), IsEmpty());
    EXPECT_EQ(host::messageCounters().connections, 0U);
}

TEST_F(MessageService, StopsOnlyAfterTheHandlersThatRun)
{
    std::promise<void> entered;
    std::promise<void> release;
    std::atomic<bool> finished = false;
    handle([&](svr_msg_t *) {
        entered.set_value();
        release.get_future().wait();
        finished = true;
        return 0U;
    });
    start();
    const Peer peer = client();
    peer.send(frame(kScripted, 1, 1));
    entered.get_future().wait();

    std::thread stopper([] { host::stopMessageService(); });
    ASSERT_TRUE(peer.isClosedByPeer()); // the stop is under way
    EXPECT_FALSE(finished);
    release.set_value();
    stopper.join();

    EXPECT_TRUE(finished);
}

TEST_F(MessageService, LeavesASocketThatTookThePlaceOfItsOwnAlone)
{
    start();
    unlink(settings.socketPath.c_str());
    fclose(fopen(settings.socketPath.c_str(), "w"));

    host::stopMessageService();

    EXPECT_TRUE(std::filesystem::exists(settings.socketPath));
}

TEST_F(MessageService, StartsAfreshAfterAStop)
{
    start();
    client().ask(frame(kScripted, 1, 1, "x"));
    host::stopMessageService();

    start();

    EXPECT_EQ(host::messageCounters().messages, 0U);
    EXPECT_EQ(client().ask(frame(kScripted, 1, 1, "x")), frame(kScripted, 1, 1, "x", 1));
}

} // namespace
