/*
 * One client's connection: its requests are read, handled and answered one after the other.
 *
 * A connection has at most one asynchronous operation under way, a read or a wait for room to write, so that its code
 * never runs on two threads at once; requests are handled and answered on the thread that read them, with one write
 * each. While an answer has not gone out whole, nothing more is read: a client that does not take its answers holds
 * up itself alone, and costs one answer of memory.
 */
#pragma once

#include "message/frame.h"

#include <utility>

#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <memory>
#include <mutex>
#include <unordered_set>
#include <vector>

namespace host {

class Connection;

// The open connections of a service. From any thread.
class Connections {
public:
    // False once closeAll was called: the connection must not be started then.
    bool add(const std::shared_ptr<Connection> &connection);
    void remove(const std::shared_ptr<Connection> &connection);
    // Lets every connection come to its end, after the handler that it runs.
    void closeAll();
    bool closing() const;

private:
    mutable std::mutex lock_;
    bool closing_ = false;
    std::unordered_set<std::shared_ptr<Connection>> open_;
};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Socket =
        boost::asio::basic_stream_socket<boost::asio::local::stream_protocol, boost::asio::io_context::executor_type>;

    Connection(Connections &connections, Socket socket, pid_t client);

    void read();
    // Wakes what the connection waits for. The one function for other threads; only while Connections holds it.
    void shutDown();

private:
    void onRead(const boost::system::error_code &error, size_t count);
    void serve();
    bool answer(const FrameHeader &request);
    bool send(const FrameHeader &header, std::span<const std::byte> payload);
    void awaitRoom();
    void onRoom();
    void malformed(const char *reason);
    void close();

    Connections &connections_;
    Socket socket_;
    pid_t client_;
    ReceiveBuffer in_;
    std::vector<std::byte> aligned_; // a payload that does not lie at a multiple of 8 in in_
    std::vector<std::byte> out_;     // the rest of an answer
    size_t sent_ = 0;                // of out_
};

} // namespace host
