/*
 * A node without a node: an admin socket and a message socket that record what they are asked and answer in the order
 * of a script. What is asked beyond the script gets the connection closed.
 */
#pragma once

#include "run_nasctl.h"
#include <cstdint>
#include <deque>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// One thread that serves one connection after the other.
class SocketServer {
public:
    SocketServer(const std::string &path, std::function<void(int connection)> serve);
    ~SocketServer();
    SocketServer(const SocketServer &) = delete;
    SocketServer &operator=(const SocketServer &) = delete;

private:
    int listener_;
    std::thread thread_;
};

struct HttpRequest {
    std::string line; // "GET /v1/status HTTP/1.1"
    std::string body;
    std::string headers;

    bool operator==(const HttpRequest &) const = default;
};

struct Frame {
    uint32_t module;
    uint32_t opcode;
    uint32_t sequence;
    uint32_t direction;
    int32_t result;
    std::string payload;

    bool operator==(const Frame &) const = default;
};

std::string encode(const Frame &frame);

class ScriptedNode {
public:
    // Sockets in ROOT/run.
    explicit ScriptedNode(const std::string &root);

    // Admin door: the next answer, as JSON with a status, or byte by byte. Silence keeps the connection open and says
    // nothing.
    void answer(const std::string &json, int status = 200);
    void answerRaw(const std::string &bytes);
    void staySilent();
    std::vector<HttpRequest> requests() const;

    // Message socket: the next answer, made from the request; silence when it is empty.
    using Answer = std::function<std::string(const Frame &request)>;
    void answerMessage(const Answer &answer);
    // The same, after which the connection closes.
    void answerMessageAndClose(const Answer &answer);
    std::vector<Frame> frames() const;

private:
    struct MessageStep {
        Answer answer;
        bool close;
    };

    void serveHttp(int connection);
    void serveMessages(int connection);

    mutable std::mutex lock_;
    std::deque<std::string> answers_; // an empty one is silence
    std::deque<MessageStep> messageSteps_;
    std::vector<HttpRequest> requests_;
    std::vector<Frame> frames_;
    std::unique_ptr<SocketServer> admin_;
    std::unique_ptr<SocketServer> messages_;
};

// A scripted node in a directory of its own, and nasctl told to use it.
class NasctlTest : public testing::Test {
protected:
    Outcome run(std::vector<std::string> arguments, const RunOptions &options = {});
    std::string adminSocket() const { return dir_.path() + "/run/admin.sock"; }
    std::string messageSocket() const { return dir_.path() + "/run/message.sock"; }
    const std::string &root() const { return dir_.path(); }

private:
    TempDir dir_;

protected:
    ScriptedNode node_{dir_.path()};
};

// The frame as its receiver's echo: direction 1, result 0, the same payload.
std::string echo(const Frame &request);
// An answer without a reply.
ScriptedNode::Answer noReply(int32_t result);
