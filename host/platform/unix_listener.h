/*
 * A listening Unix stream socket in the file system, for this user alone.
 */
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>

namespace host {

class UnixListener {
public:
    // Listens at the path, in place of a socket that nobody listens on any more. Throws std::runtime_error with one
    // line that begins with the path.
    explicit UnixListener(std::string path);
    // Closes the socket unless it was released, and removes the file if it is still this socket's.
    ~UnixListener();
    UnixListener(const UnixListener &) = delete;
    UnixListener &operator=(const UnixListener &) = delete;

    // Hands the socket to the caller, who closes it; the file stays this object's.
    int release();

private:
    std::string path_;
    int fd_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// Opens a socket and connects it to the path; wait bounds the wait for a listener with a full backlog, 0 means not to
// wait at all. Returns the socket, or a negative errno: -EAGAIN for a backlog that stayed full, -ECONNREFUSED also for
// a file that is not there.
int connectUnix(const std::string &path, std::chrono::microseconds wait);

// Who is at the other end of a connected socket.
struct UnixPeer {
    pid_t pid = 0;
    uid_t user = 0;
    // This process's own user or root, both as this process sees them. A user that its namespace does not know appears
    // as the overflow user and is not trusted.
    bool trusted = false;
};
UnixPeer peerOf(int socket);

} // namespace host
