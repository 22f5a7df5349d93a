/*
 * One client's connection: its requests are read, handled and answered one after the other, on a thread of its own.
 *
 * A client whose handler blocks, or that does not take its answers, holds up itself alone and costs one answer of
 * memory: while an answer has not gone out whole, nothing more is read.
 */
#pragma once

#include "message/frame.h"

#include <atomic>
#include <boost/asio/local/stream_protocol.hpp>
#include <memory>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace host {

class Connection {
public:
    using Socket = boost::asio::local::stream_protocol::socket;

    // slot is the connection's own among those that are open.
    Connection(Socket socket, pid_t client, unsigned slot);

    // Serves the client until it leaves, sends what is no request, or is shut down.
    void serve();
    // Wakes serve from whatever it waits for but a handler. From any thread, while the connection lives.
    void shutDown();
    unsigned slot() const { return slot_; }

private:
    bool read();
    bool answerAll();
    bool answer(const FrameHeader &request);
    bool send(const FrameHeader &header, std::span<const std::byte> payload);
    void malformed(const std::string &reason) const;

    Socket socket_;
    const pid_t client_;
    const unsigned slot_;
    std::atomic<bool> shutDown_ = false;
    ReceiveBuffer in_;
    std::vector<std::byte> aligned_; // a payload that does not lie at a multiple of 8 in in_
};

} // namespace host
