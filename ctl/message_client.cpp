#include "message_client.h"
#include "failure.h"
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace ctl {

namespace {

static_assert(std::endian::native == std::endian::little, "frames are little-endian, words are copied as they are");

struct FrameHead {
    uint32_t length; // of what follows this word
    uint32_t module;
    uint32_t opcode;
    uint32_t sequence;
    uint32_t direction;
    int32_t result;
};
static_assert(sizeof(FrameHead) == 24);

constexpr uint32_t kHeadRest = sizeof(FrameHead) - sizeof(uint32_t);

int openSocket(const Session &session)
{
    const std::string &path = session.messageSocket;
    sockaddr_un address = {};
    if (path.size() >= sizeof(address.sun_path)) {
        throw unreachable(path, ENAMETOOLONG);
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        throw unreachable(path, errno);
    }
    // Bounds the connect, which waits while the node's queue of new connections is full.
    const auto ms = session.timeout.count();
    const timeval limit = {static_cast<time_t>(ms / 1000), static_cast<suseconds_t>(ms % 1000 * 1000)};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        const int error = errno;
        close(fd);
        throw error == EAGAIN ? timedOut(path, session.timeout) : unreachable(path, error);
    }
    return fd;
}

Failure malformed(const std::string &socketPath, const std::string &why)
{
    return Failure("the answer on " + socketPath + " is malformed (" + why +
                   "); is another program than nasctrld listening there?");
}

void checkHead(const FrameHead &head, uint32_t sequence, const std::string &socketPath)
{
    if (head.length < kHeadRest || head.length > kHeadRest + kMaxPayload) {
        throw malformed(socketPath, "length " + std::to_string(head.length));
    }
    if (head.sequence != sequence) {
        throw malformed(socketPath,
                        "sequence " + std::to_string(head.sequence) + " instead of " + std::to_string(sequence));
    }
    if (head.direction != kReply && (head.direction != kNoReply || head.length != kHeadRest)) {
        throw malformed(socketPath, "direction " + std::to_string(head.direction) + " with " +
                                        std::to_string(head.length - kHeadRest) + " bytes of payload");
    }
}

} // namespace

MessageClient::MessageClient(const Session &session)
    : session_(session), firstDeadline_(std::chrono::steady_clock::now() + session.timeout),
      socket_(openSocket(session))
{
}

MessageClient::~MessageClient()
{
    close(socket_);
}

void MessageClient::wait(short events, Deadline deadline) const
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd waited = {socket_, events, 0};
    if (left <= 0 || poll(&waited, 1, static_cast<int>(left)) == 0) {
        throw timedOut(session_.messageSocket, session_.timeout);
    }
}

void MessageClient::send(std::string_view bytes, Deadline deadline) const
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent >= 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
        } else if (errno == EAGAIN) {
            wait(POLLOUT, deadline);
        } else if (errno != EINTR) {
            throw closedEarly(session_.messageSocket);
        }
    }
}

std::string MessageClient::receive(size_t length, Deadline deadline) const
{
    std::string bytes(length, '\0');
    size_t have = 0;
    while (have < length) {
        const ssize_t got = recv(socket_, bytes.data() + have, length - have, MSG_DONTWAIT);
        if (got > 0) {
            have += static_cast<size_t>(got);
        } else if (got < 0 && errno == EAGAIN) {
            wait(POLLIN, deadline);
        } else if (got == 0 || errno != EINTR) {
            throw closedEarly(session_.messageSocket);
        }
    }
    return bytes;
}

MessageAnswer MessageClient::call(uint32_t module, uint32_t opcode, std::string_view payload)
{
    const bool first = sequence_ == 0;
    const Deadline deadline = first ? firstDeadline_ : std::chrono::steady_clock::now() + session_.timeout;
    const FrameHead request = {
        kHeadRest + static_cast<uint32_t>(payload.size()), module, opcode, ++sequence_, kRequest, 0};
    std::string frame(sizeof(request), '\0');
    std::memcpy(frame.data(), &request, sizeof(request));
    frame += payload;
    send(frame, deadline);

    FrameHead answer;
    std::memcpy(&answer, receive(sizeof(answer), deadline).data(), sizeof(answer));
    checkHead(answer, sequence_, session_.messageSocket);
    return {answer.direction, answer.result, receive(answer.length - kHeadRest, deadline)};
}

std::string resultText(int32_t result)
{
    const std::string text = "result " + std::to_string(result);
    if (result == -ENOENT) {
        return text + " (no such module)";
    }
    // -1 is a handler's plain failure, and the smallest number has no counterpart above 0.
    const bool isErrno = result < -1 && result != INT32_MIN;
    return isErrno ? text + " (" + std::strerror(-result) + ")" : text;
}

} // namespace ctl
