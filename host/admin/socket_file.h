/*
 * A listening Unix socket and the file it stands for.
 */
#pragma once

#include <string>
#include <sys/types.h>

namespace host::admin {

class SocketFile {
public:
    // Listens on path with mode 0600. A file that a dead process left behind is replaced; std::runtime_error when
    // another process listens there, when the file is no socket, or when the system refuses.
    explicit SocketFile(const std::string &path);
    // Removes the file, unless somebody else has put theirs in its place.
    ~SocketFile();
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;

    // Hands the listening socket over; once.
    int takeSocket();

private:
    std::string path_;
    int socket_ = -1;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

// True when the peer of a connected socket runs as this process's user or as root.
bool isPeerAllowed(int socket);

} // namespace host::admin
