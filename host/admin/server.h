/*
 * HTTP/1.1 on a Unix socket, for whoever answers requests. Knows no call.
 *
 * One thread does all input and output and answers the requests that only read; another runs those that change
 * something, one after the other, a few more those that wait for somebody else, one those that look at the storage-side
 * service, and some those that wait for something to happen, so that none delays a reading or another kind.
 */
#pragma once

#include "admin/answer.h"
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

namespace host::admin {

constexpr size_t kMaxBody = 1024UL * 1024;
constexpr size_t kMaxHeader = 8UL * 1024;
constexpr size_t kMaxQuestions = 4;     // at once
constexpr size_t kMaxFollowers = 16;    // at once; the next is refused
constexpr size_t kMaxConnections = 512; // more wait in the socket's queue

struct ServerSettings {
    std::string socketPath;
    std::function<Lane(const Request &)> lane;
    std::function<Answer(const Request &)> answer; // must not throw
    // Has the calls that follow return, those that come later too; the server is about to end.
    std::function<void()> endFollowing = [] {};
    std::chrono::milliseconds idleTimeout{60'000}; // of a connection that neither sends nor takes anything
};

class Server {
public:
    // Throws std::runtime_error with one clear line when the socket cannot be had.
    explicit Server(const ServerSettings &settings);
    // Waits for the calls that run, not for those that wait; sends the answers under way; removes
    // the socket.
    ~Server();
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace host::admin
