/*
 * Everything but reload() runs on the service's one thread. A connection lives as long as an operation of it is under
 * way: a read, a write or a wait for the time of a slow answer. While an answer has not gone out whole, nothing more is
 * read from that connection. Slow answers hold nothing up, so that a connection on which many wait still carries the
 * request that ends the fault; more than kMaxSlow at a time are not sent at all.
 */
#include "service.h"

#include "log.h"
#include "machine.h"
#include "platform/unix_listener.h"
#include "responder.h"

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>
#include <cstring>
#include <deque>
#include <pthread.h>
#include <stdexcept>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace storage {

namespace asio = boost::asio;

namespace {

using Socket = asio::local::stream_protocol::socket;
using Error = boost::system::error_code;

constexpr unsigned kMaxSlow = 64;
constexpr std::chrono::milliseconds kAcceptPause{100};

Payload frameOf(const host::FrameHeader &request, const Reply &reply)
{
    host::FrameHeader header = request;
    header.length = host::kMinFrameLength + static_cast<uint32_t>(reply.payload.size());
    header.direction = host::kReply;
    header.result = reply.result;
    Payload frame(sizeof header + reply.payload.size());
    memcpy(frame.data(), &header, sizeof header);
    std::ranges::copy(reply.payload, frame.begin() + sizeof header);
    return frame;
}

class Connection : public std::enable_shared_from_this<Connection> {
public:
    Connection(Responder &responder, Socket socket) : responder_(responder), socket_(std::move(socket)) {}

    // Answers what has arrived, as far as there is room for answers, and then waits for more.
    void serve()
    {
        while (out_.empty() && !reading_) {
            host::FrameHeader request{};
            const host::FrameState state = host::peekFrame(in_.arrived(), request);
            if (state == host::FrameState::Incomplete) {
                read();
            } else if (state == host::FrameState::BadLength || request.direction != host::kRequest) {
                STORAGE_LOG(NASCTRL_LOG_ERROR, "a client is closed: its request is malformed");
                close();
                return;
            } else {
                answer(request);
            }
        }
    }

private:
    void read()
    {
        reading_ = true;
        const auto room = in_.room();
        socket_.async_read_some(asio::buffer(room.data(), room.size()),
                                [self = shared_from_this()](const Error &error, size_t count) {
                                    if (error) {
                                        return; // what it asked before is still answered
                                    }
                                    self->reading_ = false;
                                    self->in_.commit(count);
                                    self->serve();
                                });
    }

    void answer(const host::FrameHeader &request)
    {
        const auto payload = in_.arrived().subspan(sizeof request, host::frameSize(request) - sizeof request);
        const std::optional<Reply> reply = responder_.respond(request, payload);
        in_.consume(host::frameSize(request));
        if (!reply) {
            return;
        }
        if (reply->delay.count() == 0) {
            send(frameOf(request, *reply));
        } else if (slow_ < kMaxSlow) {
            sendLater(frameOf(request, *reply), reply->delay);
        }
    }

    void sendLater(Payload frame, std::chrono::milliseconds delay)
    {
        ++slow_;
        auto timer = std::make_shared<asio::steady_timer>(socket_.get_executor(), delay);
        timer->async_wait([self = shared_from_this(), timer, frame = std::move(frame)](const Error &) mutable {
            --self->slow_;
            self->send(std::move(frame));
        });
    }

    void send(Payload frame)
    {
        out_.push_back(std::move(frame));
        if (out_.size() == 1) {
            write();
        }
    }

    void write()
    {
        asio::async_write(socket_, asio::buffer(out_.front()), [self = shared_from_this()](const Error &error, size_t) {
            if (error) {
                self->close();
                return;
            }
            self->out_.pop_front();
            if (!self->out_.empty()) {
                self->write();
            }
            self->serve();
        });
    }

    void close()
    {
        reading_ = true; // for good
        Error ignored;
        socket_.close(ignored);
    }

    Responder &responder_;
    Socket socket_;
    host::ReceiveBuffer in_;
    std::deque<Payload> out_; // the first is on its way
    unsigned slow_ = 0;
    bool reading_ = false;
};

} // namespace

class Service::Impl {
public:
    explicit Impl(const ServiceSettings &settings)
        : responder_(settings.dataFile), listener_(settings.socketPath),
          acceptor_(io_, asio::local::stream_protocol(), listener_.release()), retry_(io_), changes_(io_)
    {
        follow();
        accept();
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "storage");
            io_.run();
        });
    }

    ~Impl()
    {
        io_.stop();
        thread_.join();
    }

    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

    void reload() { responder_.reload(); }

private:
    void follow()
    {
        try {
            watch_ = std::make_unique<MachineWatch>();
            changes_.assign(dup(watch_->socket()));
            awaitChange();
            responder_.followMachine();
        } catch (const std::exception &error) {
            STORAGE_LOG(NASCTRL_LOG_ERROR, "the machine's interfaces are read at every question: %s", error.what());
        }
    }

    void awaitChange()
    {
        changes_.async_wait(asio::posix::stream_descriptor::wait_read, [this](const Error &error) {
            if (error) {
                return;
            }
            if (watch_->takeChanges()) {
                responder_.readMachine();
            }
            awaitChange();
        });
    }

    void accept()
    {
        acceptor_.async_accept([this](const Error &error, Socket socket) { onAccept(error, std::move(socket)); });
    }

    void onAccept(const Error &error, Socket socket)
    {
        if (error) {
            STORAGE_LOG(NASCTRL_LOG_ERROR, "no connection can be accepted: %s", error.message().c_str());
            acceptLater();
            return;
        }
        if (host::peerOf(socket.native_handle()).trusted) {
            std::make_shared<Connection>(responder_, std::move(socket))->serve();
        } else {
            STORAGE_LOG(NASCTRL_LOG_ERROR, "a client of another user is refused");
        }
        accept();
    }

    // The client waits in the backlog meanwhile, so that trying again at once would only spin.
    void acceptLater()
    {
        retry_.expires_after(kAcceptPause);
        retry_.async_wait([this](const Error &error) {
            if (!error) {
                accept();
            }
        });
    }

    Responder responder_;
    std::unique_ptr<MachineWatch> watch_;
    asio::io_context io_{1};
    host::UnixListener listener_;
    asio::local::stream_protocol::acceptor acceptor_;
    asio::steady_timer retry_;
    asio::posix::stream_descriptor changes_; // its own descriptor of watch_'s socket
    std::thread thread_;
};

Service::Service(const ServiceSettings &settings) : impl_(std::make_unique<Impl>(settings)) {}

Service::~Service() = default;

void Service::reload()
{
    impl_->reload();
}

} // namespace storage
