#include "message/server.h"

#include "message/counters.h"
#include "platform/log.h"

#include <algorithm>
#include <csignal>
#include <pthread.h>
#include <stdexcept>

namespace host {

namespace {

constexpr std::chrono::milliseconds kAcceptPause{100};

// Signals are for the thread that waits for them; a thread inherits this mask from the one that starts it.
void blockSignals()
{
    sigset_t all{};
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
}

} // namespace

Server::Server(const std::string &path, unsigned clients)
    : listener_(path), io_(1), acceptor_(io_, boost::asio::local::stream_protocol(), listener_.release()), retry_(io_),
      open_(clients)
{
    accept();
    acceptThread_ = std::thread([this] {
        blockSignals();
        pthread_setname_np(pthread_self(), "message-accept");
        io_.run();
    });
}

Server::~Server()
{
    io_.stop();
    acceptThread_.join();
    std::unique_lock hold(lock_);
    for (const auto &connection : open_) {
        if (connection != nullptr) {
            connection->shutDown();
        }
    }
    closed_.wait(hold, [this] { return std::count(open_.begin(), open_.end(), nullptr) == std::ssize(open_); });
}

void Server::accept()
{
    acceptor_.async_accept([this](const boost::system::error_code &error, Connection::Socket socket) {
        onAccept(error, std::move(socket));
    });
}

void Server::onAccept(const boost::system::error_code &error, Connection::Socket socket)
{
    if (error) {
        if (!refusing_) {
            HOST_LOG(NASCTRL_LOG_ERROR, "message: no connection can be accepted: %s", error.message().c_str());
        }
        refusing_ = true;
        acceptLater();
        return;
    }
    refusing_ = false;
    admit(std::move(socket));
    accept();
}

// The client waits in the backlog meanwhile, so that trying again at once would only spin.
void Server::acceptLater()
{
    retry_.expires_after(kAcceptPause);
    retry_.async_wait([this](const boost::system::error_code &) { accept(); });
}

void Server::admit(Connection::Socket socket)
{
    const UnixPeer client = peerOf(socket.native_handle());
    if (!client.trusted) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is refused: it runs as user %u", client.pid, client.user);
        return;
    }
    Connection *const connection = open(std::move(socket), client.pid);
    if (connection == nullptr) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is refused: %zu are connected", client.pid, open_.size());
        return;
    }
    ++counters.accepted;
    try {
        std::thread([this, connection] { serve(*connection); }).detach();
    } catch (const std::system_error &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is refused: no thread for it: %s", client.pid, error.what());
        close(*connection);
    }
}

// Null when every slot is taken, and the socket stays the caller's.
Connection *Server::open(Connection::Socket &&socket, pid_t client)
{
    const std::scoped_lock hold(lock_);
    const auto free = std::find(open_.begin(), open_.end(), nullptr);
    if (free == open_.end()) {
        return nullptr;
    }
    *free = std::make_unique<Connection>(std::move(socket), client, static_cast<unsigned>(free - open_.begin()));
    ++counters.connections;
    return free->get();
}

void Server::serve(Connection &connection)
{
    pthread_setname_np(pthread_self(), ("message-" + std::to_string(connection.slot())).c_str());
    try {
        connection.serve();
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: a connection is closed: %s", error.what());
    }
    close(connection);
}

// The last that a connection's thread does with this server, which may end as soon as the lock is free.
void Server::close(const Connection &connection)
{
    const std::scoped_lock hold(lock_);
    --counters.connections;
    open_[connection.slot()].reset();
    closed_.notify_all();
}

} // namespace host
