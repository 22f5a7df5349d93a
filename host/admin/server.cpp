/*
 * Everything here but the answering of calls that may wait runs on the input and output thread, so no lock is needed:
 * the set of sessions and each session belong to that thread.
 */
#include "admin/server.h"

#include "platform/unix_listener.h"

#include <array>
#include <atomic>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <optional>
#include <pthread.h>
#include <thread>
#include <unordered_set>

namespace host::admin {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Protocol = asio::local::stream_protocol;
using ErrorCode = boost::system::error_code;

// How long a peer that was refused in the middle of its sending may go on, so that it can read why.
constexpr std::chrono::seconds kDrainTime{2};
// How long answers under way may take to be sent when the server ends.
constexpr std::chrono::seconds kEndTime{1};
// Until the next try when the system refuses a connection, for want of descriptors for example.
constexpr std::chrono::milliseconds kAcceptRetry{100};

class Session;

// What a session needs of its server.
struct Host {
    ServerSettings settings;
    asio::io_context io{1};
    asio::thread_pool changes{1};
    asio::thread_pool questions{kMaxQuestions};
    asio::thread_pool followers{kMaxFollowers};
    size_t following = 0; // calls on the thread pool before; on the thread of io
    asio::thread_pool service{1};
    std::atomic<bool> ending{false};
    std::function<void(const std::shared_ptr<Session> &)> ended; // on the thread of io

    // Of a lane that may wait.
    asio::thread_pool &threadsOf(Lane lane)
    {
        return lane == Lane::change ? changes : lane == Lane::service ? service : questions;
    }
};

std::string whyMalformed(const ErrorCode &error)
{
    if (error == http::error::body_limit) {
        return "the body is larger than " + std::to_string(kMaxBody) + " bytes";
    }
    if (error == http::error::header_limit) {
        return "the header is larger than " + std::to_string(kMaxHeader) + " bytes";
    }
    return "malformed HTTP: " + error.message();
}

bool isMalformed(const ErrorCode &error)
{
    return error != http::error::end_of_stream &&
           error.category() == make_error_code(http::error::bad_method).category();
}

// One connection: reads a request, has it answered, sends the answer, and so on. Each step holds the session alive.
class Session : public std::enable_shared_from_this<Session> {
public:
    Session(Host &host, Protocol::socket socket)
        : host_(host), stream_(std::move(socket)), allowed_(peerOf(stream_.socket().native_handle()).trusted)
    {
    }

    void read()
    {
        answering_ = false;
        parser_.emplace();
        parser_->header_limit(kMaxHeader);
        parser_->body_limit(kMaxBody);
        stream_.expires_after(host_.settings.idleTimeout);
        http::async_read(stream_, buffer_, *parser_,
                         [self = shared_from_this()](const ErrorCode &error, size_t) { self->onRead(error); });
    }

    // No further request is read; an answer under way is still sent.
    void finish()
    {
        if (!answering_) {
            stream_.close();
        }
    }

    void abort() { stream_.close(); }

private:
    void onRead(const ErrorCode &error)
    {
        answering_ = true;
        if (isMalformed(error)) {
            keepAlive_ = false;
            send(errorAnswer(kBadRequest, whyMalformed(error)));
        } else if (error || host_.ending) {
            end();
        } else {
            answer();
        }
    }

    void answer()
    {
        auto &message = parser_->get();
        keepAlive_ = allowed_ && message.keep_alive();
        Request request{std::string(message.method_string()), std::string(message.target()), std::move(message.body())};
        if (!allowed_) {
            send(errorAnswer(kForbidden, "only the node's own user and root may call"));
            return;
        }
        const Lane lane = host_.settings.lane(request);
        if (lane == Lane::read) {
            send(host_.settings.answer(request));
        } else if (lane == Lane::follow) {
            follow(std::move(request));
        } else {
            answerOn(host_.threadsOf(lane), std::move(request));
        }
    }

    void follow(Request request)
    {
        if (host_.following == kMaxFollowers) {
            send(errorAnswer(kBusy, std::to_string(kMaxFollowers) + " calls wait for events already"));
            return;
        }
        ++host_.following;
        follows_ = true;
        answerOn(host_.followers, std::move(request));
    }

    void answerOn(asio::thread_pool &threads, Request request)
    {
        stream_.expires_never();
        asio::post(threads, [self = shared_from_this(), request = std::move(request)]() mutable {
            std::optional<Answer> answer;
            if (!self->host_.ending) {
                answer = self->host_.settings.answer(request);
            }
            auto &io = self->host_.io;
            asio::post(io, [self = std::move(self), answer = std::move(answer)] { self->onAnswered(answer); });
        });
    }

    // Nothing is answered for a call that the end of the server left undone.
    void onAnswered(const std::optional<Answer> &answer)
    {
        host_.following -= follows_ ? 1 : 0;
        follows_ = false;
        if (answer) {
            send(*answer);
        } else {
            end();
        }
    }

    void send(const Answer &answer)
    {
        response_ = {};
        response_.result(answer.status);
        response_.version(parser_->get().version());
        response_.set(http::field::content_type, answer.type);
        if (!answer.allow.empty()) {
            response_.set(http::field::allow, answer.allow);
        }
        response_.keep_alive(keepAlive_);
        response_.body() = answer.body;
        response_.prepare_payload();
        if (parser_->get().method() == http::verb::head) {
            response_.body().clear();
        }
        stream_.expires_after(host_.settings.idleTimeout);
        http::async_write(stream_, response_,
                          [self = shared_from_this()](const ErrorCode &error, size_t) { self->onSent(error); });
    }

    void onSent(const ErrorCode &error)
    {
        if (error || host_.ending) {
            end();
        } else if (keepAlive_) {
            read();
        } else {
            answering_ = false;
            ErrorCode ignored;
            stream_.socket().shutdown(Protocol::socket::shutdown_send, ignored);
            stream_.expires_after(kDrainTime);
            drain();
        }
    }

    // Closing a Unix socket with unread input would take the answer from a peer that is still sending.
    void drain()
    {
        stream_.async_read_some(asio::buffer(drained_), [self = shared_from_this()](const ErrorCode &error, size_t) {
            if (error) {
                self->end();
            } else {
                self->drain();
            }
        });
    }

    void end()
    {
        stream_.close();
        host_.ended(shared_from_this());
    }

    Host &host_;
    beast::basic_stream<Protocol> stream_;
    const bool allowed_;
    bool answering_ = false; // between a request and the end of its answer
    bool keepAlive_ = false;
    bool follows_ = false; // counted in host_.following
    beast::flat_buffer buffer_;
    std::optional<http::request_parser<http::string_body>> parser_;
    http::response<http::string_body> response_;
    std::array<char, 4096> drained_{};
};

} // namespace

class Server::Impl {
public:
    explicit Impl(const ServerSettings &settings)
        : listener_(settings.socketPath), acceptor_(host_.io, Protocol(), listener_.release()), timer_(host_.io)
    {
        host_.settings = settings;
        host_.ended = [this](const std::shared_ptr<Session> &session) { forget(session); };
        accept();
        thread_ = std::thread([this] { host_.io.run(); });
        pthread_setname_np(thread_.native_handle(), "admin");
    }

    ~Impl()
    {
        host_.ending = true;
        asio::post(host_.io, [this] { beginEnd(); });
        host_.settings.endFollowing();
        host_.changes.join();
        host_.questions.join();
        host_.followers.join();
        host_.service.join();
        asio::post(host_.io, [this] { limitEnd(); });
        working_.reset();
        thread_.join();
    }

    Impl(const Impl &) = delete;
    Impl &operator=(const Impl &) = delete;

private:
    void accept()
    {
        accepting_ = sessions_.size() < kMaxConnections;
        if (accepting_) {
            acceptor_.async_accept([this](const ErrorCode &error, Protocol::socket socket) {
                if (!host_.ending) {
                    onAccepted(error, std::move(socket));
                }
            });
        }
    }

    void onAccepted(const ErrorCode &error, Protocol::socket socket)
    {
        if (error) {
            timer_.expires_after(kAcceptRetry);
            timer_.async_wait([this](const ErrorCode &cancelled) {
                if (!cancelled) {
                    accept();
                }
            });
            return;
        }
        const auto session = std::make_shared<Session>(host_, std::move(socket));
        sessions_.insert(session);
        session->read();
        accept();
    }

    void forget(const std::shared_ptr<Session> &session)
    {
        sessions_.erase(session);
        if (host_.ending) {
            if (sessions_.empty()) {
                timer_.cancel();
            }
        } else if (!accepting_) {
            accept();
        }
    }

    void beginEnd()
    {
        ErrorCode ignored;
        acceptor_.close(ignored);
        timer_.cancel();
        for (const auto &session : sessions_) {
            session->finish();
        }
    }

    void limitEnd()
    {
        if (sessions_.empty()) {
            return;
        }
        timer_.expires_after(kEndTime);
        timer_.async_wait([this](const ErrorCode &) {
            for (const auto &session : sessions_) {
                session->abort();
            }
        });
    }

    // The sessions refer to host_, and their streams to its io_context: it is the last to go but the file.
    UnixListener listener_;
    Host host_;
    Protocol::acceptor acceptor_;
    asio::steady_timer timer_; // of the next accept; of the end
    asio::executor_work_guard<asio::io_context::executor_type> working_{host_.io.get_executor()};
    std::unordered_set<std::shared_ptr<Session>> sessions_;
    bool accepting_ = false;
    std::thread thread_;
};

Server::Server(const ServerSettings &settings) : impl_(std::make_unique<Impl>(settings)) {}

Server::~Server() = default;

} // namespace host::admin
