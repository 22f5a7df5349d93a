#include "message/connection.h"

#include "message/counters.h"
#include "message/dispatch.h"
#include "platform/log.h"

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/write.hpp>
#include <sys/socket.h>

namespace host {

namespace asio = boost::asio;

namespace {

constexpr size_t kPayloadAlignment = 8;
constexpr size_t kKeptCopy = 65536;

bool isAligned(const std::byte *address)
{
    return reinterpret_cast<uintptr_t>(address) % kPayloadAlignment == 0;
}

// Why a frame is no request, or an empty text.
std::string fault(FrameState state, const FrameHeader &frame)
{
    if (state == FrameState::BadLength) {
        return "length " + std::to_string(frame.length) + " is not " + std::to_string(kMinFrameLength) + " to " +
               std::to_string(kMaxFrameLength);
    }
    if (frame.direction != kRequest) {
        return "direction " + std::to_string(frame.direction) + " is not " + std::to_string(kRequest);
    }
    return {};
}

} // namespace

Connection::Connection(Socket socket, pid_t client, unsigned slot)
    : socket_(std::move(socket)), client_(client), slot_(slot)
{
}

void Connection::serve()
{
    while (read() && answerAll()) {
    }
}

void Connection::shutDown()
{
    shutDown_ = true;
    ::shutdown(socket_.native_handle(), SHUT_RDWR);
}

// False when the client is gone.
bool Connection::read()
{
    const auto room = in_.room();
    boost::system::error_code error;
    const size_t count = socket_.read_some(asio::buffer(room.data(), room.size()), error);
    if (!error) {
        in_.commit(count);
        return true;
    }
    if (!in_.arrived().empty() && !shutDown_) {
        malformed("it left in the middle of a frame");
    }
    return false;
}

// Answers the requests that have arrived whole. False when the connection is at its end.
bool Connection::answerAll()
{
    while (true) {
        FrameHeader request{};
        const FrameState state = peekFrame(in_.arrived(), request);
        if (state == FrameState::Incomplete) {
            return true;
        }
        if (const std::string reason = fault(state, request); !reason.empty()) {
            malformed(reason);
            return false;
        }
        if (!answer(request)) {
            return false;
        }
    }
}

// False when the client is gone.
bool Connection::answer(const FrameHeader &request)
{
    std::span<std::byte> payload = in_.arrived().subspan(sizeof request, frameSize(request) - sizeof request);
    if (!isAligned(payload.data())) {
        aligned_.assign(payload.begin(), payload.end());
        payload = aligned_;
    }
    const Answer answer = dispatch(request, payload, {slot_, socket_.native_handle()});
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

// Waits until the socket has taken all of it. False when the client is gone.
bool Connection::send(const FrameHeader &header, std::span<const std::byte> payload)
{
    const std::array<asio::const_buffer, 2> pieces{asio::buffer(&header, sizeof header),
                                                   asio::buffer(payload.data(), payload.size())};
    boost::system::error_code error;
    asio::write(socket_, pieces, error);
    return !error;
}

void Connection::malformed(const std::string &reason) const
{
    ++counters.malformed;
    HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is closed: %s", client_, reason.c_str());
}

} // namespace host
