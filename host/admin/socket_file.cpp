#include "admin/socket_file.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace host::admin {

namespace {

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }

private:
    int fd_;
};

[[noreturn]] void fail(const std::string &path, const std::string &why)
{
    throw std::runtime_error("admin socket " + path + ": " + why);
}

[[noreturn]] void failErrno(const std::string &path)
{
    fail(path, std::generic_category().message(errno));
}

sockaddr_un addressOf(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    // An empty path would bind to a name of the kernel's choice.
    if (path.empty()) {
        fail(path, "the path is empty");
    }
    if (path.size() >= sizeof(address.sun_path)) {
        fail(path, "the path is longer than " + std::to_string(sizeof(address.sun_path) - 1) + " characters");
    }
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

const sockaddr *asSockaddr(const sockaddr_un &address)
{
    return reinterpret_cast<const sockaddr *>(&address);
}

Descriptor openSocket(const std::string &path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        failErrno(path);
    }
    return Descriptor(fd);
}

// Removes the file of a process that is gone: only then a connection is refused.
void removeStale(const std::string &path, const sockaddr_un &address)
{
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) {
        return;
    }
    if (!S_ISSOCK(file.st_mode)) {
        fail(path, "the file is not a socket");
    }
    const Descriptor probe = openSocket(path);
    // A full queue of connections (EAGAIN) belongs to a live process too.
    if (connect(probe.get(), asSockaddr(address), sizeof(address)) == 0 || errno == EAGAIN) {
        fail(path, "another process listens on it");
    }
    if (errno != ECONNREFUSED || unlink(path.c_str()) != 0) {
        failErrno(path);
    }
}

} // namespace

SocketFile::SocketFile(const std::string &path) : path_(path)
{
    const sockaddr_un address = addressOf(path);
    removeStale(path, address);
    Descriptor listening = openSocket(path);
    // Before bind, so that the file never exists with wider permissions.
    if (fchmod(listening.get(), S_IRUSR | S_IWUSR) != 0 ||
        bind(listening.get(), asSockaddr(address), sizeof(address)) != 0) {
        failErrno(path);
    }
    struct stat file {};
    if (listen(listening.get(), SOMAXCONN) != 0 || lstat(path.c_str(), &file) != 0) {
        failErrno(path);
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
    socket_ = listening.release();
}

SocketFile::~SocketFile()
{
    const Descriptor untaken(socket_);
    struct stat file {};
    if (lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_) {
        unlink(path_.c_str());
    }
}

int SocketFile::takeSocket()
{
    return std::exchange(socket_, -1);
}

bool isPeerAllowed(int socket)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
        return false;
    }
    return peer.uid == 0 || peer.uid == geteuid();
}

} // namespace host::admin
