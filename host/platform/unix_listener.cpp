#include "platform/unix_listener.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

namespace host {

namespace {

[[noreturn]] void fail(const std::string &path, const std::string &reason)
{
    throw std::runtime_error(path + ": " + reason);
}

// False when the path does not fit.
bool fillAddress(const std::string &path, sockaddr_un &address)
{
    address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return false;
    }
    memcpy(address.sun_path, path.data(), path.size());
    return true;
}

// Removes a socket whose listener is dead.
void removeStale(const std::string &path)
{
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        return;
    }
    if (!S_ISSOCK(info.st_mode)) {
        fail(path, "exists and is not a socket");
    }
    const int probe = connectUnix(path, {});
    if (probe >= 0) {
        close(probe);
    }
    if (probe >= 0 || probe == -EAGAIN) {
        fail(path, "another process listens on it");
    }
    if (probe != -ECONNREFUSED) {
        fail(path, strerror(-probe));
    }
    unlink(path.c_str());
}

} // namespace

UnixListener::UnixListener(std::string path) : path_(std::move(path))
{
    sockaddr_un address{};
    if (!fillAddress(path_, address)) {
        fail(path_, "is empty or too long for a socket, 107 characters at most");
    }
    removeStale(path_);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    // The mode set before bind is the one the file is born with: it is at no time open to others.
    struct stat info {};
    if (fd_ < 0 || fchmod(fd_, 0600) != 0 || bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(fd_, SOMAXCONN) != 0 || lstat(path_.c_str(), &info) != 0) {
        const int error = errno;
        if (fd_ >= 0) {
            close(fd_);
        }
        fail(path_, strerror(error));
    }
    device_ = info.st_dev;
    inode_ = info.st_ino;
}

UnixListener::~UnixListener()
{
    if (fd_ >= 0) {
        close(fd_);
    }
    struct stat info {};
    if (lstat(path_.c_str(), &info) == 0 && info.st_dev == device_ && info.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

int UnixListener::release()
{
    return std::exchange(fd_, -1);
}

int connectUnix(const std::string &path, std::chrono::microseconds wait)
{
    sockaddr_un address{};
    if (!fillAddress(path, address)) {
        return -ENAMETOOLONG;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | (wait.count() > 0 ? 0 : SOCK_NONBLOCK), 0);
    if (fd < 0) {
        return -errno;
    }
    if (wait.count() > 0) {
        const timeval limit{wait.count() / 1000000, wait.count() % 1000000};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    int result = 0;
    do {
        result = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        const int error = errno == ENOENT ? ECONNREFUSED : errno;
        close(fd);
        return -error;
    }
    return fd;
}

UnixPeer peerOf(int socket)
{
    ucred peer{};
    socklen_t size = sizeof peer;
    const bool known = getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
    return {peer.pid, peer.uid, known && (peer.uid == geteuid() || peer.uid == 0)};
}

} // namespace host
