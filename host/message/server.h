/*
 * The listening side of the message service: its socket, its threads and its connections.
 */
#pragma once

#include "message/connection.h"
#include "platform/unix_listener.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <thread>

namespace host {

class Server {
public:
    // Throws std::runtime_error.
    Server(const std::string &path, unsigned threads);
    // Closes every connection, waits for handlers that run, removes the socket.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

private:
    using Strand = boost::asio::strand<boost::asio::io_context::executor_type>;

    void startThreads(unsigned threads);
    void stop();
    void accept();
    void onAccept(const boost::system::error_code &error, Connection::Socket socket);
    void acceptLater();
    void admit(Connection::Socket socket);

    UnixListener listener_;
    boost::asio::io_context io_;
    Strand strand_; // of the acceptor and its timer
    boost::asio::basic_socket_acceptor<boost::asio::local::stream_protocol, Strand> acceptor_;
    boost::asio::basic_waitable_timer<std::chrono::steady_clock, boost::asio::wait_traits<std::chrono::steady_clock>,
                                      Strand>
        retry_;
    bool refusing_ = false; // the last accept failed, and was logged
    Connections connections_;
    std::vector<std::thread> threads_;
};

} // namespace host
