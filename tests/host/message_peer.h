/*
 * The far ends of the message service's sockets, made of plain blocking calls and frames put together byte by byte.
 */
#pragma once

#include "temp_dir.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>

inline void appendWord(std::string &bytes, uint32_t word)
{
    for (unsigned shift = 0; shift < 32; shift += 8) {
        bytes.push_back(static_cast<char>((word >> shift) & 0xFFU));
    }
}

inline uint32_t wordAt(const std::string &bytes, size_t offset)
{
    uint32_t word = 0;
    memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

inline std::string frame(uint32_t module, uint32_t opcode, uint32_t sequence, const std::string &payload = "",
                         uint32_t direction = 0, int32_t result = 0)
{
    std::string bytes;
    appendWord(bytes, 20 + static_cast<uint32_t>(payload.size()));
    appendWord(bytes, module);
    appendWord(bytes, opcode);
    appendWord(bytes, sequence);
    appendWord(bytes, direction);
    appendWord(bytes, static_cast<uint32_t>(result));
    return bytes + payload;
}

inline sockaddr_un unixAddress(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

// One end of a connection. A receive that takes 20 seconds fails.
class Peer {
public:
    explicit Peer(int fd) : fd_(fd)
    {
        const timeval limit{20, 0};
        setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    }
    Peer(Peer &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;
    ~Peer() { hangUp(); }

    static Peer connectTo(const std::string &path)
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un address = unixAddress(path);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error(std::string("connect: ") + strerror(errno));
        }
        return Peer(fd);
    }

    int fd() const { return fd_; }

    void hangUp()
    {
        if (fd_ >= 0) {
            close(std::exchange(fd_, -1));
        }
    }

    void send(const std::string &bytes) const
    {
        for (size_t done = 0; done < bytes.size();) {
            const ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (sent <= 0) {
                throw std::runtime_error(std::string("send: ") + strerror(errno));
            }
            done += static_cast<size_t>(sent);
        }
    }

    // That many bytes, or fewer when the connection ends.
    std::string receive(size_t count) const
    {
        std::string bytes(count, '\0');
        size_t done = 0;
        while (done < count) {
            const ssize_t got = recv(fd_, bytes.data() + done, count - done, 0);
            if (got < 0 && errno == EAGAIN) {
                throw std::runtime_error("nothing arrives");
            }
            if (got <= 0) {
                break;
            }
            done += static_cast<size_t>(got);
        }
        bytes.resize(done);
        return bytes;
    }

    std::string receiveFrame() const
    {
        const std::string head = receive(4);
        return head.size() < 4 ? head : head + receive(wordAt(head, 0));
    }

    bool isClosedByPeer() const { return receive(1).empty(); }

    std::string ask(const std::string &request) const
    {
        send(request);
        return receiveFrame();
    }

private:
    int fd_;
};
