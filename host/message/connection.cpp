#include "message/connection.h"

#include "message/counters.h"
#include "message/dispatch.h"
#include "platform/log.h"
#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <sys/uio.h>

namespace host {

namespace {

constexpr size_t kPayloadAlignment = 8;
constexpr size_t kKeptCopy = 65536;

bool isAligned(const std::byte *address)
{
    return reinterpret_cast<uintptr_t>(address) % kPayloadAlignment == 0;
}

// How many bytes of the pieces the socket took, 0 when it has no room, or -1 when the client is gone.
ssize_t sendNow(int fd, std::span<iovec> pieces)
{
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    ssize_t sent = 0;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent < 0 && (errno == EAGAIN || errno == ENOBUFS)) {
        return 0;
    }
    return sent;
}

} // namespace

bool Connections::add(const std::shared_ptr<Connection> &connection)
{
    const std::scoped_lock hold(lock_);
    if (closing_) {
        return false;
    }
    open_.insert(connection);
    ++counters.connections;
    return true;
}

void Connections::remove(const std::shared_ptr<Connection> &connection)
{
    const std::scoped_lock hold(lock_);
    if (open_.erase(connection) > 0) {
        --counters.connections;
    }
}

void Connections::closeAll()
{
    const std::scoped_lock hold(lock_);
    closing_ = true;
    for (const auto &connection : open_) {
        connection->shutDown();
    }
}

bool Connections::closing() const
{
    const std::scoped_lock hold(lock_);
    return closing_;
}

Connection::Connection(Connections &connections, Socket socket, pid_t client)
    : connections_(connections), socket_(std::move(socket)), client_(client)
{
    socket_.non_blocking(true);
}

void Connection::read()
{
    const auto room = in_.room();
    socket_.async_read_some(boost::asio::buffer(room.data(), room.size()),
                            [self = shared_from_this()](const boost::system::error_code &error, size_t count) {
                                self->onRead(error, count);
                            });
}

void Connection::shutDown()
{
    ::shutdown(socket_.native_handle(), SHUT_RDWR);
}

void Connection::onRead(const boost::system::error_code &error, size_t count)
{
    if (!error) {
        in_.commit(count);
        serve();
        return;
    }
    if (!in_.arrived().empty() && !connections_.closing()) {
        malformed("it left in the middle of a frame");
    }
    close();
}

// Answers what has arrived, then waits for more or, with an answer that is stuck, for room.
void Connection::serve()
{
    while (out_.empty()) {
        FrameHeader request{};
        const FrameState state = peekFrame(in_.arrived(), request);
        if (state == FrameState::Incomplete) {
            read();
            return;
        }
        std::array<char, 64> reason{};
        if (state == FrameState::BadLength) {
            snprintf(reason.data(), reason.size(), "length %u is not %u to %u", request.length, kMinFrameLength,
                     kMaxFrameLength);
        } else if (request.direction != kRequest) {
            snprintf(reason.data(), reason.size(), "direction %u is not %u", request.direction, kRequest);
        }
        if (reason[0] != '\0') {
            malformed(reason.data());
            close();
            return;
        }
        if (!answer(request)) {
            close();
            return;
        }
    }
    awaitRoom();
}

// False when the client is gone.
bool Connection::answer(const FrameHeader &request)
{
    std::span<std::byte> payload = in_.arrived().subspan(sizeof request, frameSize(request) - sizeof request);
    if (!isAligned(payload.data())) {
        aligned_.assign(payload.begin(), payload.end());
        payload = aligned_;
    }
    const Answer answer = dispatch(request, payload, socket_.native_handle());
    in_.consume(frameSize(request));
    if (aligned_.capacity() > kKeptCopy) {
        aligned_ = {};
    }
    const FrameHeader header{.length = kMinFrameLength + static_cast<uint32_t>(answer.payload.size()),
                             .module = request.module,
                             .opcode = request.opcode,
                             .sequence = request.sequence,
                             .direction = answer.direction,
                             .result = answer.result};
    return send(header, answer.payload);
}

// Sends what the socket takes and keeps the rest. False when the client is gone.
bool Connection::send(const FrameHeader &header, std::span<const std::byte> payload)
{
    const auto headerBytes = std::as_bytes(std::span(&header, 1));
    std::array<iovec, 2> pieces{iovec{const_cast<std::byte *>(headerBytes.data()), headerBytes.size()},
                                iovec{const_cast<std::byte *>(payload.data()), payload.size()}};
    const ssize_t sent = sendNow(socket_.native_handle(), pieces);
    if (sent < 0) {
        return false;
    }
    const auto taken = static_cast<size_t>(sent);
    if (taken == frameSize(header)) {
        return true;
    }
    const size_t ofHeader = std::min(taken, headerBytes.size());
    out_.assign(headerBytes.begin() + static_cast<ptrdiff_t>(ofHeader), headerBytes.end());
    out_.insert(out_.end(), payload.begin() + static_cast<ptrdiff_t>(taken - ofHeader), payload.end());
    sent_ = 0;
    return true;
}

void Connection::awaitRoom()
{
    socket_.async_wait(Socket::wait_write, [self = shared_from_this()](const boost::system::error_code &error) {
        if (error) {
            self->close();
        } else {
            self->onRoom();
        }
    });
}

void Connection::onRoom()
{
    std::array<iovec, 1> pieces{iovec{out_.data() + sent_, out_.size() - sent_}};
    const ssize_t sent = sendNow(socket_.native_handle(), pieces);
    if (sent < 0) {
        close();
        return;
    }
    sent_ += static_cast<size_t>(sent);
    if (sent_ < out_.size()) {
        awaitRoom();
        return;
    }
    out_ = {};
    serve();
}

void Connection::malformed(const char *reason)
{
    ++counters.malformed;
    HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is closed: %s", client_, reason);
}

void Connection::close()
{
    connections_.remove(shared_from_this());
    boost::system::error_code ignored;
    socket_.close(ignored);
}

} // namespace host
