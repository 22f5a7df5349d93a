// The service behind its socket.
#include "message_peer.h"
#include "recorded_log.h"

#include <gmock/gmock.h>
#include <storage/service.h>
#include <sys/stat.h>

namespace storage {
namespace {

const std::string kUnread(4, '\0');

std::string emptyList(uint32_t type, uint32_t sequence)
{
    return frame(18, type, sequence, std::string(8, '\0'), 1);
}

std::string setFault(const std::string &text)
{
    return frame(100, 2, 1, text);
}

class ServiceTest : public testing::Test {
protected:
    ServiceTest() { recorded::clear(); }
    std::string path() const { return dir_.file("storage.sock"); }

    TempDir dir_;
};

TEST_F(ServiceTest, AnswersEveryRequestOfEveryConnection)
{
    const Service service({path(), ""});
    const Peer first = Peer::connectTo(path());
    const Peer second = Peer::connectTo(path());
    EXPECT_EQ(first.ask(frame(18, 1, 7, kUnread)), emptyList(1, 7));
    EXPECT_EQ(second.ask(frame(18, 5, 8, kUnread)), emptyList(5, 8));
    EXPECT_EQ(first.ask(frame(18, 2, 9, kUnread)), frame(18, 2, 9, "", 1, -95));
    EXPECT_EQ(first.ask(frame(18, 1, 10, "")), frame(18, 1, 10, "", 1, -22));
    EXPECT_EQ(first.ask(frame(55, 1, 11, kUnread)), frame(55, 1, 11, "", 1, -2));
}

TEST_F(ServiceTest, AnswersManyRequestsSentAtOnceInTheirOrder)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    std::string requests;
    for (uint32_t sequence = 0; sequence < 500; ++sequence) {
        requests += frame(18, 1, sequence, kUnread);
    }
    peer.send(requests);
    for (uint32_t sequence = 0; sequence < 500; ++sequence) {
        ASSERT_EQ(peer.receiveFrame(), emptyList(1, sequence));
    }
}

TEST_F(ServiceTest, AnswersARequestThatArrivesByteByByteFromAClientThatThenSendsNoMore)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    for (const char byte : frame(18, 6, 3, kUnread)) {
        peer.send(std::string(1, byte));
    }
    shutdown(peer.fd(), SHUT_WR);
    EXPECT_EQ(peer.receiveFrame(), emptyList(6, 3));
    EXPECT_TRUE(peer.isClosedByPeer());
}

TEST_F(ServiceTest, ClosesAConnectionAtAMalformedFrameAndGoesOn)
{
    const Service service({path(), ""});
    const std::pair<const char *, std::string> rows[] = {
        {"too short", std::string("\x13\0\0\0", 4) + std::string(19, 'x')},
        {"too long", std::string("\xFF\xFF\xFF\xFF", 4)},
        {"a reply", frame(18, 1, 1, kUnread, 1)},
    };
    for (const auto &[name, bytes] : rows) {
        const Peer peer = Peer::connectTo(path());
        peer.send(bytes);
        EXPECT_TRUE(peer.isClosedByPeer()) << name;
    }
    EXPECT_EQ(Peer::connectTo(path()).ask(frame(18, 1, 2, kUnread)), emptyList(1, 2));
    EXPECT_TRUE(recorded::await("3 a client is closed: its request is malformed"));
}

TEST_F(ServiceTest, ASlowAnswerHoldsNoOtherUp)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    peer.ask(setFault(R"({"type": 1, "fault": "slow", "value": 50})"));
    peer.send(frame(18, 1, 1, kUnread) + frame(18, 5, 2, kUnread));
    EXPECT_EQ(peer.receiveFrame(), emptyList(5, 2));
    EXPECT_EQ(peer.receiveFrame(), emptyList(1, 1));
}

TEST_F(ServiceTest, AFaultCanBeEndedOnAConnectionOnWhichAnyNumberOfAnswersWait)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    peer.ask(setFault(R"({"type": 1, "fault": "slow", "value": 3600000})"));
    for (uint32_t sequence = 0; sequence < 200; ++sequence) {
        peer.send(frame(18, 1, sequence, kUnread));
    }
    peer.ask(setFault(R"({"type": 1, "fault": "none"})"));
    EXPECT_EQ(peer.ask(frame(18, 1, 777, kUnread)), emptyList(1, 777));
}

TEST_F(ServiceTest, SixtyFourAnswersOfAConnectionWaitAndFurtherOnesNeverCome)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    peer.ask(setFault(R"({"type": 1, "fault": "slow", "value": 50})"));
    std::string requests;
    for (uint32_t sequence = 0; sequence < 70; ++sequence) {
        requests += frame(18, 1, sequence, kUnread);
    }
    peer.send(requests);
    shutdown(peer.fd(), SHUT_WR);
    uint32_t received = 0;
    for (; !peer.receiveFrame().empty(); ++received) {
    }
    EXPECT_EQ(received, 64U);
}

TEST_F(ServiceTest, ATimeoutLeavesTheRequestAloneWithoutAnAnswer)
{
    const Service service({path(), ""});
    const Peer peer = Peer::connectTo(path());
    peer.ask(setFault(R"({"type": 1, "fault": "timeout"})"));
    peer.send(frame(18, 1, 1, kUnread) + frame(18, 5, 2, kUnread));
    EXPECT_EQ(peer.receiveFrame(), emptyList(5, 2));
}

TEST_F(ServiceTest, EndsWithAnswersStillHeldBackAndRemovesItsSocket)
{
    const Peer peer = [this] {
        const Service service({path(), ""});
        Peer connected = Peer::connectTo(path());
        struct stat info {};
        EXPECT_EQ(stat(path().c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777U, 0600U);
        connected.ask(setFault(R"({"type": 1, "fault": "slow", "value": 3600000})"));
        connected.send(frame(18, 1, 1, kUnread) + frame(18, 5, 2, kUnread));
        EXPECT_EQ(connected.receiveFrame(), emptyList(5, 2));
        return connected;
    }();
    EXPECT_TRUE(peer.isClosedByPeer());
    EXPECT_FALSE(std::filesystem::exists(path()));
}

TEST_F(ServiceTest, DoesNotStartBesideAnotherNorOnBadData)
{
    const Service service({path(), ""});
    const std::pair<ServiceSettings, std::string> rows[] = {
        {{path(), ""}, path() + ": another process listens on it"},
        {{dir_.file("other.sock"), "/nowhere.json"}, "/nowhere.json: cannot be read: No such file or directory"},
    };
    for (const auto &[settings, line] : rows) {
        try {
            const Service second(settings);
            ADD_FAILURE() << line << " was expected";
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), line);
        }
    }
}

} // namespace
} // namespace storage
