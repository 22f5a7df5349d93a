/*
 * The listening side of the message service: its socket, and a thread for each client that is connected.
 */
#pragma once

#include "message/connection.h"
#include "platform/unix_listener.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

namespace host {

class Server {
public:
    // Serves at most so many clients at once. Throws std::runtime_error.
    Server(const std::string &path, unsigned clients);
    // Closes every connection, waits for handlers that run, removes the socket.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

private:
    void accept();
    void onAccept(const boost::system::error_code &error, Connection::Socket socket);
    void acceptLater();
    void admit(Connection::Socket socket);
    Connection *open(Connection::Socket &&socket, pid_t client);
    void serve(Connection &connection);
    void close(const Connection &connection);

    UnixListener listener_;
    boost::asio::io_context io_; // of the acceptor and its timer, run by acceptThread_ alone
    boost::asio::local::stream_protocol::acceptor acceptor_;
    boost::asio::steady_timer retry_;
    bool refusing_ = false; // the last accept failed, and was logged
    std::thread acceptThread_;

    std::mutex lock_;
    std::condition_variable closed_;
    std::vector<std::unique_ptr<Connection>> open_; // by slot; null = free
};

} // namespace host
