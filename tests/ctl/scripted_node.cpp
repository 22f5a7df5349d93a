#include "scripted_node.h"
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

void sendAll(int connection, const std::string &bytes)
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t count = send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) {
            return;
        }
        sent += static_cast<size_t>(count);
    }
}

// What has arrived, at most size bytes; empty at the end of the connection.
std::string receiveSome(int connection, size_t size)
{
    std::string bytes(size, '\0');
    const ssize_t count = recv(connection, bytes.data(), size, 0);
    bytes.resize(count > 0 ? static_cast<size_t>(count) : 0);
    return bytes;
}

std::string receiveExactly(int connection, size_t size)
{
    std::string bytes;
    while (bytes.size() < size) {
        const std::string part = receiveSome(connection, size - bytes.size());
        if (part.empty()) {
            return "";
        }
        bytes += part;
    }
    return bytes;
}

void waitForEnd(int connection)
{
    while (!receiveSome(connection, 4096).empty()) {
    }
}

size_t bodyLength(const std::string &headers)
{
    constexpr char name[] = "Content-Length: ";
    const size_t found = headers.find(name);
    return found == std::string::npos ? 0 : std::stoul(headers.substr(found + std::strlen(name)));
}

const char *reason(int status)
{
    return status == 200 ? "OK" : "Refused";
}

} // namespace

SocketServer::SocketServer(const std::string &path, std::function<void(int)> serve)
    : listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(listener_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        listen(listener_, 8) != 0) {
        throw std::runtime_error("cannot listen on " + path);
    }
    thread_ = std::thread([this, serve = std::move(serve)] {
        int connection = -1;
        while ((connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
            serve(connection);
            close(connection);
        }
    });
}

SocketServer::~SocketServer()
{
    shutdown(listener_, SHUT_RDWR);
    thread_.join();
    close(listener_);
}

std::string encode(const Frame &frame)
{
    const uint32_t head[] = {static_cast<uint32_t>(20 + frame.payload.size()),
                             frame.module,
                             frame.opcode,
                             frame.sequence,
                             frame.direction,
                             static_cast<uint32_t>(frame.result)};
    std::string bytes(sizeof(head), '\0');
    std::memcpy(bytes.data(), head, sizeof(head));
    return bytes + frame.payload;
}

ScriptedNode::ScriptedNode(const std::string &root)
{
    std::filesystem::create_directory(root + "/run");
    admin_ = std::make_unique<SocketServer>(root + "/run/admin.sock", [this](int fd) { serveHttp(fd); });
    messages_ = std::make_unique<SocketServer>(root + "/run/message.sock", [this](int fd) { serveMessages(fd); });
}

void ScriptedNode::answer(const std::string &json, int status)
{
    answerRaw("HTTP/1.1 " + std::to_string(status) + " " + reason(status) +
              "\r\nContent-Type: application/json\r\nContent-Length: " + std::to_string(json.size()) + "\r\n\r\n" +
              json);
}

void ScriptedNode::answerRaw(const std::string &bytes)
{
    const std::lock_guard guard(lock_);
    answers_.push_back(bytes);
}

void ScriptedNode::staySilent()
{
    answerRaw("");
}

std::vector<HttpRequest> ScriptedNode::requests() const
{
    const std::lock_guard guard(lock_);
    return requests_;
}

void ScriptedNode::answerMessage(const Answer &answer)
{
    const std::lock_guard guard(lock_);
    messageSteps_.push_back({answer, false});
}

void ScriptedNode::answerMessageAndClose(const Answer &answer)
{
    const std::lock_guard guard(lock_);
    messageSteps_.push_back({answer, true});
}

std::vector<Frame> ScriptedNode::frames() const
{
    const std::lock_guard guard(lock_);
    return frames_;
}

void ScriptedNode::serveHttp(int connection)
{
    std::string text;
    while (text.find("\r\n\r\n") == std::string::npos) {
        const std::string part = receiveSome(connection, 4096);
        if (part.empty()) {
            return;
        }
        text += part;
    }
    const size_t lineEnd = text.find("\r\n");
    const size_t bodyStart = text.find("\r\n\r\n") + 4;
    const size_t missing = bodyStart + bodyLength(text.substr(0, bodyStart)) - text.size();
    text += receiveExactly(connection, missing);
    std::string bytes;
    {
        const std::lock_guard guard(lock_);
        requests_.push_back(
            {text.substr(0, lineEnd), text.substr(bodyStart), text.substr(lineEnd, bodyStart - lineEnd)});
        if (answers_.empty()) {
            return;
        }
        bytes = answers_.front();
        answers_.pop_front();
    }
    if (bytes.empty()) {
        waitForEnd(connection);
    }
    sendAll(connection, bytes);
}

void ScriptedNode::serveMessages(int connection)
{
    for (;;) {
        const std::string head = receiveExactly(connection, 24);
        if (head.empty()) {
            return;
        }
        uint32_t words[6];
        std::memcpy(words, head.data(), sizeof(words));
        const std::string payload = receiveExactly(connection, words[0] - 20);
        MessageStep step;
        {
            const std::lock_guard guard(lock_);
            frames_.push_back({words[1], words[2], words[3], words[4], static_cast<int32_t>(words[5]), payload});
            if (messageSteps_.empty()) {
                return;
            }
            step = messageSteps_.front();
            messageSteps_.pop_front();
        }
        const std::string bytes =
            step.answer({words[1], words[2], words[3], words[4], static_cast<int32_t>(words[5]), payload});
        if (bytes.empty()) {
            waitForEnd(connection);
            return;
        }
        sendAll(connection, bytes);
        if (step.close) {
            return;
        }
    }
}

Outcome NasctlTest::run(std::vector<std::string> arguments, const RunOptions &options)
{
    arguments.insert(arguments.begin(), {"--root", dir_.path()});
    return runNasctl(arguments, options);
}

std::string echo(const Frame &request)
{
    Frame answer = request;
    answer.direction = 1;
    return encode(answer);
}

ScriptedNode::Answer noReply(int32_t result)
{
    return [result](const Frame &request) {
        return encode({request.module, request.opcode, request.sequence, 2, result, ""});
    };
}
