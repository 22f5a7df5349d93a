/*
 * Owns the connections to the storage-side service that no call uses at the moment; poolLock guards them and the
 * settings, and is never held during a call. A call has its connection for itself, so that no call waits for another.
 *
 * An answer may come after its call was given up: the connection is used again, and whatever frame does not carry the
 * sequence of the call that reads is dropped.
 */
#include "message/storage_client.h"

#include "message/frame.h"
#include "message/storage_statistics.h"
#include "platform/log.h"
#include "platform/unix_listener.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <nasctrl/host/memory.h>
#include <nasctrl/host/message.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxIdle = 16;

class StorageConnection {
public:
    StorageConnection(int fd, uint64_t settingsSerial) : settingsSerial_(settingsSerial), fd_(fd) {}
    ~StorageConnection() { close(fd_); }
    StorageConnection(const StorageConnection &) = delete;
    StorageConnection &operator=(const StorageConnection &) = delete;

    // Writes a request whole. Returns 0 or a negative errno, after which the connection is of no more use.
    int send(const FrameHeader &header, const void *payload, Clock::time_point deadline);
    // Waits for the answer to that request. Returns 0 and its header, and its payload until the next call; -ETIMEDOUT,
    // after which the connection may be used again; or another negative errno, after which it may not.
    int receive(const FrameHeader &request, FrameHeader &header, std::span<const std::byte> &payload,
                Clock::time_point deadline);
    bool isAlive() const;
    uint64_t settingsSerial() const { return settingsSerial_; }

private:
    int wait(int16_t events, Clock::time_point deadline) const;
    int readSome(Clock::time_point deadline);

    uint64_t settingsSerial_;
    int fd_;
    ReceiveBuffer in_;
    size_t done_ = 0; // bytes of in_ that the previous receive handed out
};

struct Settings {
    std::string path;
    std::chrono::milliseconds timeout{};
    uint64_t serial = 0; // goes up with each configuration
};

std::mutex poolLock;
Settings settings;
std::vector<std::unique_ptr<StorageConnection>> idle;
std::atomic<uint32_t> localNodeId{1};
std::atomic<uint32_t> lastSequence;

// 0 when one of the events is there, or the connection has ended, or a negative errno.
int StorageConnection::wait(int16_t events, Clock::time_point deadline) const
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd state{fd_, events, 0};
        const int ready = poll(&state, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready > 0) {
            return 0;
        }
        if (ready == 0) {
            return -ETIMEDOUT;
        }
        if (errno != EINTR) {
            return -errno;
        }
    }
}

int StorageConnection::send(const FrameHeader &header, const void *payload, Clock::time_point deadline)
{
    std::array<iovec, 2> pieces{iovec{const_cast<FrameHeader *>(&header), sizeof header},
                                iovec{const_cast<void *>(payload), frameSize(header) - sizeof header}};
    msghdr message{};
    message.msg_iov = pieces.data();
    message.msg_iovlen = pieces.size();
    size_t left = frameSize(header);
    while (left > 0) {
        const ssize_t sent = sendmsg(fd_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno == EAGAIN) {
            if (const int error = wait(POLLOUT, deadline)) {
                return error;
            }
            continue;
        }
        if (sent < 0 && errno != EINTR) {
            return -errno;
        }
        auto taken = static_cast<size_t>(std::max<ssize_t>(sent, 0));
        left -= taken;
        for (iovec &piece : pieces) {
            const size_t ofPiece = std::min(taken, piece.iov_len);
            piece.iov_base = static_cast<std::byte *>(piece.iov_base) + ofPiece;
            piece.iov_len -= ofPiece;
            taken -= ofPiece;
        }
    }
    return 0;
}

// The sequence is the request's, and the rest of its name is not.
bool answersAnotherQuestion(const FrameHeader &answer, const FrameHeader &request)
{
    return answer.sequence == request.sequence && (answer.module != request.module || answer.opcode != request.opcode);
}

int StorageConnection::receive(const FrameHeader &request, FrameHeader &header, std::span<const std::byte> &payload,
                               Clock::time_point deadline)
{
    in_.consume(std::exchange(done_, 0));
    for (;;) {
        const FrameState state = peekFrame(in_.arrived(), header);
        if (state == FrameState::Incomplete) {
            if (const int error = readSome(deadline)) {
                return error;
            }
            continue;
        }
        if (state == FrameState::BadLength || header.direction != kReply || header.result > 0 ||
            answersAnotherQuestion(header, request)) {
            HOST_LOG(NASCTRL_LOG_ERROR, "storage: the connection is closed: its answer is malformed");
            return -EPROTO;
        }
        if (header.sequence == request.sequence) {
            payload = in_.arrived().subspan(sizeof header, frameSize(header) - sizeof header);
            done_ = frameSize(header);
            return 0;
        }
        HOST_LOG(NASCTRL_LOG_INFO, "storage: answer %u is dropped: call %u waits", header.sequence, request.sequence);
        in_.consume(frameSize(header));
    }
}

int StorageConnection::readSome(Clock::time_point deadline)
{
    for (;;) {
        const auto room = in_.room();
        const ssize_t count = recv(fd_, room.data(), room.size(), MSG_DONTWAIT);
        if (count > 0) {
            in_.commit(static_cast<size_t>(count));
            return 0;
        }
        if (count == 0) {
            return -EPIPE;
        }
        if (errno == EAGAIN) {
            if (const int error = wait(POLLIN, deadline)) {
                return error;
            }
        } else if (errno != EINTR) {
            return -errno;
        }
    }
}

bool StorageConnection::isAlive() const
{
    pollfd state{fd_, POLLRDHUP, 0};
    return poll(&state, 1, 0) == 0;
}

Settings currentSettings()
{
    const std::scoped_lock hold(poolLock);
    return settings;
}

std::unique_ptr<StorageConnection> takeIdle()
{
    const std::scoped_lock hold(poolLock);
    while (!idle.empty()) {
        auto connection = std::move(idle.back());
        idle.pop_back();
        if (connection->isAlive()) {
            return connection;
        }
    }
    return nullptr;
}

void giveBack(std::unique_ptr<StorageConnection> connection)
{
    const std::scoped_lock hold(poolLock);
    if (connection->settingsSerial() == settings.serial && idle.size() < kMaxIdle) {
        idle.push_back(std::move(connection));
    }
}

// A connection that is open, or null and a negative errno.
std::unique_ptr<StorageConnection> connectionFor(const Settings &now, int &error)
{
    error = -ECONNREFUSED;
    if (now.path.empty()) {
        return nullptr;
    }
    if (auto connection = takeIdle()) {
        return connection;
    }
    const int fd = connectUnix(now.path, now.timeout);
    if (fd >= 0) {
        return std::make_unique<StorageConnection>(fd, now.serial);
    }
    error = fd == -EAGAIN ? -ETIMEDOUT : fd;
    HOST_LOG(NASCTRL_LOG_ERROR, "storage: cannot connect to %s: %s", now.path.c_str(), strerror(-error));
    return nullptr;
}

// Hands the answer to the caller as a block of the pool; an empty one as no block.
int copyAnswer(std::span<const std::byte> payload, void **response, uint32_t *length)
{
    if (payload.empty()) {
        return 0;
    }
    void *block = nas_mem_comm_alloc(payload.size(), "svr_upcall_sync", __LINE__);
    if (block == nullptr) {
        return -ENOMEM;
    }
    memcpy(block, payload.data(), payload.size());
    *response = block;
    *length = static_cast<uint32_t>(payload.size());
    return 0;
}

// The library takes the number of rows of this type on trust, and reads each to its NUL.
bool isCutShort(uint32_t type, std::span<const std::byte> payload)
{
    constexpr uint32_t kZoneNodeIds = 10;
    constexpr size_t kRowSize = 3072;
    struct {
        int32_t result;
        uint32_t rows;
    } head{};
    if (type != kZoneNodeIds || payload.size() < sizeof head) {
        return false;
    }
    memcpy(&head, payload.data(), sizeof head);
    if (head.result != 0 || head.rows == 0) {
        return false;
    }
    const size_t whole = sizeof head + head.rows * kRowSize;
    return payload.size() < whole || std::ranges::count(payload.subspan(whole - kRowSize, kRowSize), std::byte{0}) == 0;
}

// What the answer means for its call; see copyAnswer.
int32_t takeAnswer(uint32_t type, const FrameHeader &answer, std::span<const std::byte> payload, void **response,
                   uint32_t *length)
{
    if (answer.result != 0) {
        return answer.result;
    }
    if (isCutShort(type, payload)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "storage: an answer of type %u is cut short: it has %zu bytes", type,
                 payload.size());
        return -EPROTO;
    }
    return copyAnswer(payload, response, length);
}

int32_t ask(const Settings &now, const svr_call_t &call, void **response, uint32_t *length)
{
    const auto deadline = Clock::now() + now.timeout;
    int error = 0;
    auto connection = connectionFor(now, error);
    if (!connection) {
        return error;
    }
    const FrameHeader request{.length = kMinFrameLength + call.length,
                              .module = call.module,
                              .opcode = call.type,
                              .sequence = ++lastSequence,
                              .direction = kRequest,
                              .result = 0};
    if (const int failed = connection->send(request, call.request, deadline)) {
        return failed;
    }
    FrameHeader answer{};
    std::span<const std::byte> payload;
    int32_t result = connection->receive(request, answer, payload, deadline);
    const bool reusable = result == 0 || result == -ETIMEDOUT;
    if (result == 0) {
        result = takeAnswer(call.type, answer, payload, response, length);
    }
    if (reusable) {
        giveBack(std::move(connection));
    }
    return result;
}

struct ResultRow {
    int32_t code;
    StorageResult result;
};

constexpr std::array kResults = {
    ResultRow{-ETIMEDOUT, StorageResult::timedOut}, ResultRow{-ECONNREFUSED, StorageResult::unreachable},
    ResultRow{-EPIPE, StorageResult::closed},       ResultRow{-ECONNRESET, StorageResult::closed},
    ResultRow{-EPROTO, StorageResult::malformed},
};

StorageResult resultOf(int32_t code, const void *response, uint32_t length)
{
    if (code != 0) {
        const auto *row = std::ranges::find(kResults, code, &ResultRow::code);
        return row == kResults.end() ? StorageResult::failed : row->result;
    }
    int32_t word = 0; // every response begins with the service's own result
    if (length < sizeof word) {
        return StorageResult::malformed;
    }
    memcpy(&word, response, sizeof word);
    return word == 0 ? StorageResult::ok : StorageResult::refused;
}

} // namespace

void configureStorageClient(const std::string &path, std::chrono::milliseconds timeout, uint32_t nodeId)
{
    const std::scoped_lock hold(poolLock);
    settings = {path, timeout, settings.serial + 1};
    idle.clear();
    localNodeId = nodeId;
}

int32_t callStorage(const svr_call_t &call, std::chrono::milliseconds timeout, void **response, uint32_t *length)
{
    Settings now = currentSettings();
    now.timeout = timeout;
    return ask(now, call, response, length);
}

} // namespace host

int32_t svr_upcall_sync(const svr_call_t *call, void **response, uint32_t *response_length)
{
    if (call == nullptr || response == nullptr || response_length == nullptr ||
        (call->request == nullptr && call->length > 0)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "storage: a call without a record, a request or a place for the answer is refused");
        return -EINVAL;
    }
    *response = nullptr;
    *response_length = 0;
    if (call->length > host::kMaxPayload) {
        HOST_LOG(NASCTRL_LOG_ERROR, "storage: a request of %u bytes is refused: %u at most", call->length,
                 host::kMaxPayload);
        return -EMSGSIZE;
    }
    const auto begin = host::Clock::now();
    const int32_t code = host::ask(host::currentSettings(), *call, response, response_length);
    host::countStorageCall(call->type, host::resultOf(code, *response, *response_length), host::Clock::now() - begin);
    return code;
}

uint32_t IpcGetLocalNid(void)
{
    return host::localNodeId;
}
