/*
 * One thread waits for the callers of all listening sockets. lock_ guards the sockets; it is held while one is
 * accepted, so that a socket is never closed under it.
 */
#include "modules/greeter.h"

#include "platform/log.h"
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace host {

namespace {

constexpr uint64_t kWakeId = 0;
constexpr int kAcceptPauseMs = 100;

int watch(int poll, int fd, uint64_t id)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = id;
    return epoll_ctl(poll, EPOLL_CTL_ADD, fd, &event);
}

bool isPassing(int error)
{
    return error == EAGAIN || error == EINTR || error == ECONNABORTED;
}

} // namespace

Greeter::Greeter() : poll_(epoll_create1(EPOLL_CLOEXEC)), wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    try {
        if (poll_ < 0 || wake_ < 0 || watch(poll_, wake_, kWakeId) != 0) {
            throw std::system_error(errno, std::generic_category());
        }
        thread_ = std::thread([this] { run(); });
    } catch (...) {
        close(poll_);
        close(wake_);
        throw;
    }
}

Greeter::~Greeter()
{
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(wake_, &one, sizeof one);
    thread_.join();
    for (const auto &[id, listener] : listeners_) {
        close(listener.socket);
    }
    close(poll_);
    close(wake_);
}

uint64_t Greeter::add(int socket, const std::string &greeting)
{
    const std::scoped_lock hold(lock_);
    const uint64_t id = ++lastId_;
    if (watch(poll_, socket, id) != 0) {
        const int error = errno;
        close(socket);
        errno = error;
        return 0;
    }
    listeners_.emplace(id, Listener{socket, greeting});
    return id;
}

void Greeter::remove(uint64_t id)
{
    const std::scoped_lock hold(lock_);
    if (const auto found = listeners_.find(id); found != listeners_.end()) {
        close(found->second.socket);
        listeners_.erase(found);
    }
}

void Greeter::run()
{
    pthread_setname_np(pthread_self(), "modules");
    for (;;) {
        std::array<epoll_event, 16> events{};
        const int count = epoll_wait(poll_, events.data(), events.size(), -1);
        for (int i = 0; i < count; ++i) {
            const uint64_t id = events[static_cast<size_t>(i)].data.u64;
            if (id == kWakeId) {
                return;
            }
            greet(id);
        }
    }
}

void Greeter::greet(uint64_t id)
{
    std::string greeting;
    int caller = -1;
    int error = 0;
    {
        const std::scoped_lock hold(lock_);
        const auto found = listeners_.find(id);
        if (found == listeners_.end()) {
            return;
        }
        caller = accept4(found->second.socket, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        error = errno;
        greeting = found->second.greeting;
    }
    if (caller < 0) {
        if (!isPassing(error)) {
            pauseAfter(error);
        }
        return;
    }
    refusing_ = false;
    // A new connection has room for a line; a caller that is gone already misses it.
    send(caller, greeting.data(), greeting.size(), MSG_NOSIGNAL);
    close(caller);
}

// The caller stays in the backlog, so that accepting at once again would only spin.
void Greeter::pauseAfter(int error)
{
    if (!refusing_) {
        HOST_LOG(NASCTRL_LOG_ERROR, "modules: no connection can be accepted: %s", strerror(error));
    }
    refusing_ = true;
    pollfd ending{wake_, POLLIN, 0};
    poll(&ending, 1, kAcceptPauseMs);
}

} // namespace host
