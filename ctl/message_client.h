/*
 * The node's message socket: length-prefixed frames, each request answered by one.
 */
#pragma once

#include "session.h"
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace ctl {

constexpr size_t kMaxPayload = 1U << 20;

enum Direction : uint32_t { kRequest = 0, kReply = 1, kNoReply = 2 };

struct MessageAnswer {
    uint32_t direction; // kReply or kNoReply
    int32_t result;
    std::string payload; // empty with kNoReply
};

// One connection. Every way to get no answer is a Failure, after which the connection is of no use.
class MessageClient {
public:
    explicit MessageClient(const Session &session);
    ~MessageClient();
    MessageClient(const MessageClient &) = delete;
    MessageClient &operator=(const MessageClient &) = delete;

    // Sends a request of at most kMaxPayload bytes and waits for its answer. The first call's time began with the
    // connection.
    MessageAnswer call(uint32_t module, uint32_t opcode, std::string_view payload);

private:
    using Deadline = std::chrono::steady_clock::time_point;
    void send(std::string_view bytes, Deadline deadline) const;
    std::string receive(size_t length, Deadline deadline) const;
    void wait(short events, Deadline deadline) const;

    const Session &session_;
    Deadline firstDeadline_; // begins before the socket connects
    int socket_;
    uint32_t sequence_ = 0;
};

// "result -2 (no such module)": what the result of an answer without a reply means.
std::string resultText(int32_t result);

} // namespace ctl
