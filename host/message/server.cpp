#include "message/server.h"

#include "message/counters.h"
#include "message/dispatch.h"
#include "platform/log.h"
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/post.hpp>
#include <pthread.h>

namespace host {

namespace asio = boost::asio;

namespace {

constexpr std::chrono::milliseconds kAcceptPause{100};

} // namespace

Server::Server(const std::string &path, unsigned threads)
    : listener_(path), io_(static_cast<int>(threads)), strand_(asio::make_strand(io_)),
      acceptor_(strand_, asio::local::stream_protocol(), listener_.release()), retry_(strand_)
{
    accept();
    startThreads(threads);
}

// A thread that cannot be joined leaves nothing to be done.
Server::~Server()
{
    try {
        stop();
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: the service does not stop cleanly: %s", error.what());
    }
}

void Server::startThreads(unsigned threads)
{
    try {
        for (unsigned i = 0; i < threads; ++i) {
            threads_.emplace_back([this, i] {
                pthread_setname_np(pthread_self(), ("message-" + std::to_string(i)).c_str());
                becomeMessageThread(i);
                io_.run();
            });
        }
    } catch (...) {
        stop();
        throw;
    }
}

// The threads end by themselves when the acceptor and the last connection are gone.
void Server::stop()
{
    connections_.closeAll();
    asio::post(strand_, [this] {
        acceptor_.close();
        retry_.cancel();
    });
    for (auto &thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

void Server::accept()
{
    acceptor_.async_accept(
        io_.get_executor(),
        asio::bind_executor(strand_, [this](const boost::system::error_code &error, Connection::Socket socket) {
            onAccept(error, std::move(socket));
        }));
}

void Server::onAccept(const boost::system::error_code &error, Connection::Socket socket)
{
    if (!acceptor_.is_open()) {
        return;
    }
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
    retry_.async_wait([this](const boost::system::error_code &) {
        if (acceptor_.is_open()) {
            accept();
        }
    });
}

void Server::admit(Connection::Socket socket)
{
    const UnixPeer client = peerOf(socket.native_handle());
    if (!client.trusted) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: client %d is refused: it runs as user %u", client.pid, client.user);
        return;
    }
    ++counters.accepted;
    auto connection = std::make_shared<Connection>(connections_, std::move(socket), client.pid);
    if (connections_.add(connection)) {
        connection->read();
    }
}

} // namespace host
