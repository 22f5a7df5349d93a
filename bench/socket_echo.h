/*
 * What the benchmarks of messages share: blocking sends and receives, and the reference, an echo over a bare pair of
 * sockets.
 */
#pragma once

#include "percentile.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace bench {

inline std::string temporaryDirectory()
{
    std::string name = "/tmp/nasctrl-bench.XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    return name;
}

inline void sendAll(int socket, const char *bytes, size_t length)
{
    if (send(socket, bytes, length, MSG_NOSIGNAL) != static_cast<ssize_t>(length)) {
        throw std::runtime_error("send");
    }
}

inline void receiveAll(int socket, char *bytes, size_t length)
{
    if (recv(socket, bytes, length, MSG_WAITALL) != static_cast<ssize_t>(length)) {
        throw std::runtime_error("recv");
    }
}

// A request and its reply, sent and received as they are.
inline void measureExchange(benchmark::State &state, int socket, const std::string &request, size_t replyLength)
{
    std::vector<char> reply(replyLength);
    measureMedian(state, [&] {
        sendAll(socket, request.data(), request.size());
        receiveAll(socket, reply.data(), reply.size());
    });
}

// The other end runs on a thread of its own and does nothing else.
inline void measureBareEcho(benchmark::State &state, size_t requestLength, size_t replyLength)
{
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) != 0) {
        throw std::runtime_error("socketpair");
    }
    std::thread echo([&] {
        std::vector<char> bytes(std::max(requestLength, replyLength));
        while (recv(ends[1], bytes.data(), requestLength, MSG_WAITALL) == static_cast<ssize_t>(requestLength)) {
            sendAll(ends[1], bytes.data(), replyLength);
        }
    });
    measureExchange(state, ends[0], std::string(requestLength, 'x'), replyLength);
    close(ends[0]);
    echo.join();
    close(ends[1]);
}

} // namespace bench
