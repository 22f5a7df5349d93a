#include "node.h"

#include <arpa/inet.h>
#include <array>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <netinet/in.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace integration {

using support::exitCodeOf;
using support::Pipe;
using support::readAll;
using support::spawn;

namespace {

sockaddr_in ipv4(const std::string &address, uint16_t port)
{
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    inet_pton(AF_INET, address.c_str(), &result.sin_addr);
    return result;
}

} // namespace

Outcome run(const std::vector<std::string> &command)
{
    Pipe out;
    Pipe err;
    const pid_t child = spawn(command, {.out = out.write, .err = err.write});
    close(out.write);
    close(err.write);
    std::string errText;
    std::thread errReader([&] { errText = readAll(err.read); });
    const std::string outText = readAll(out.read);
    errReader.join();
    return {exitCodeOf(child), outText, errText};
}

TemporaryDirectory::TemporaryDirectory()
{
    std::string name = (std::filesystem::temp_directory_path() / "nasctrl.XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = name;
}

TemporaryDirectory::~TemporaryDirectory()
{
    std::filesystem::remove_all(path_);
}

PrivateNetwork::PrivateNetwork(const PrivateNetwork *beside)
{
    const Pipe in;
    const Pipe out;
    std::vector<std::string> command = {"unshare", "-Urn"};
    if (beside != nullptr) {
        command = beside->prefix();
        command.insert(command.end(), {"unshare", "-n"});
    }
    command.insert(command.end(), {"sh", "-c", "ip link set lo up && echo up && read end"});
    holder_ = spawn(command, {.in = in.read, .out = out.write});
    close(in.read);
    close(out.write);
    release_ = in.write;
    std::array<char, 3> said{};
    exists_ = ::read(out.read, said.data(), said.size()) == static_cast<ssize_t>(said.size());
    close(out.read);
}

PrivateNetwork::~PrivateNetwork()
{
    close(release_);
    waitpid(holder_, nullptr, 0);
}

std::vector<std::string> PrivateNetwork::prefix() const
{
    return {"nsenter", "--target", std::to_string(holder_), "--user", "--preserve-credentials", "--net"};
}

Outcome PrivateNetwork::run(const std::vector<std::string> &command) const
{
    std::vector<std::string> inside = prefix();
    inside.insert(inside.end(), command.begin(), command.end());
    return integration::run(inside);
}

Stored::Stored(const std::string &directory) : directory_(directory)
{
    write("{}");
}

Stored::~Stored()
{
    if (pid_ > 0) {
        stop(SIGKILL);
    }
}

void Stored::write(const std::string &data) const
{
    std::ofstream(this->data()) << data;
}

bool Stored::start()
{
    const Pipe ready;
    pid_ = spawn({NASSTORED, "--socket", socket(), "--data", data(), "--no-console", "--log-file",
                  directory_ + "/stored.log", "--ready-fd", std::to_string(ready.write)},
                 {.kept = ready.write});
    close(ready.write);
    return !readAll(ready.read).empty();
}

void Stored::signal(int number) const
{
    kill(pid_, number);
}

int Stored::stop(int signal)
{
    kill(pid_, signal);
    return exitCodeOf(std::exchange(pid_, -1));
}

Node::Node(std::vector<Module> modules) : modules_(std::move(modules))
{
    std::filesystem::copy(std::string(EXAMPLE_NODE) + "/opt", root() + "/opt",
                          std::filesystem::copy_options::recursive);
}

Node::~Node()
{
    if (running()) {
        stop(SIGKILL);
    }
}

void Node::option(const std::string &name, const std::string &value)
{
    options_.insert(options_.end(), {name, value});
}

void Node::signal(int number) const
{
    kill(pid_, number);
}

std::string Node::configFile(const std::string &name) const
{
    return root() + (name == "dpc.conf" ? "/opt/marovesta/brisqueta/conf/" : "/opt/ostrak/eds/eds-f/conf/") + name;
}

std::string Node::address(unsigned hostPart)
{
    const unsigned id = static_cast<unsigned>(getpid());
    return "127." + std::to_string(1 + id % 250) + "." + std::to_string(id / 250 % 250) + "." +
           std::to_string(hostPart);
}

uint16_t Node::freePort()
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in any = ipv4(address(1), 0);
    socklen_t length = sizeof any;
    const bool bound = bind(descriptor, reinterpret_cast<sockaddr *>(&any), length) == 0 &&
                       getsockname(descriptor, reinterpret_cast<sockaddr *>(&any), &length) == 0;
    close(descriptor);
    if (!bound) {
        throw std::runtime_error("no free port");
    }
    return ntohs(any.sin_port);
}

std::vector<std::string> Node::command() const
{
    std::vector<std::string> command = prefix_;
    const std::vector<std::string> own = {NASCTRLD,      "--root", root(), "--log-file", root() + "/node.log",
                                          "--no-console"};
    command.insert(command.end(), own.begin(), own.end());
    for (const auto &module : modules_) {
        command.emplace_back("--module");
        command.push_back(std::to_string(module.slot) + ":" + module.name + ":" + module.types + ":" +
                          std::to_string(module.port));
    }
    command.insert(command.end(), options_.begin(), options_.end());
    return command;
}

bool Node::start()
{
    Pipe out;
    Pipe ready;
    std::vector<std::string> line = command();
    line.emplace_back("--ready-fd");
    line.push_back(std::to_string(ready.write));
    pid_ = spawn(line, {.out = out.write, .err = out.write, .kept = ready.write});
    close(out.write);
    close(ready.write);
    const bool isReady = !readAll(ready.read).empty();
    if (!isReady) {
        startOutput_ = readAll(out.read);
        return false;
    }
    close(out.read);
    return true;
}

int Node::stop(int signal)
{
    kill(pid_, signal);
    const int code = exitCodeOf(pid_);
    pid_ = -1;
    return code;
}

bool Node::running() const
{
    return pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0;
}

std::string Node::log() const
{
    std::ostringstream text;
    text << std::ifstream(root() + "/node.log").rdbuf();
    return text.str();
}

Outcome Node::ctl(const std::vector<std::string> &arguments) const
{
    std::vector<std::string> command = {NASCTL, "--root", root()};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

nlohmann::json Node::json(const std::vector<std::string> &arguments) const
{
    std::vector<std::string> withJson = {"--json"};
    withJson.insert(withJson.end(), arguments.begin(), arguments.end());
    return nlohmann::json::parse(ctl(withJson).out);
}

std::string Node::moduleState(const std::string &address, const std::string &module) const
{
    const nlohmann::json listed = json({"ip", "ls"});
    if (listed["addresses"].is_null()) {
        return "";
    }
    for (const auto &row : listed["addresses"]) {
        if (row["address"] != address) {
            continue;
        }
        for (const auto &state : row["modules"]) {
            if (state["name"] == module) {
                return state["state"];
            }
        }
    }
    return "";
}

bool accepts(const std::string &address, uint16_t port)
{
    const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in target = ipv4(address, port);
    const bool connected = connect(descriptor, reinterpret_cast<const sockaddr *>(&target), sizeof target) == 0;
    close(descriptor);
    return connected;
}

PortHolder::PortHolder(const std::string &address, uint16_t port) : socket_(socket(AF_INET, SOCK_STREAM, 0))
{
    const sockaddr_in target = ipv4(address, port);
    if (bind(socket_, reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0 || listen(socket_, 1) != 0) {
        throw std::runtime_error("cannot hold the port");
    }
}

PortHolder::~PortHolder()
{
    close(socket_);
}

MessageClient::MessageClient(const Node &node) : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un target{};
    target.sun_family = AF_UNIX;
    std::strncpy(target.sun_path, node.messageSocket().c_str(), sizeof target.sun_path - 1);
    if (connect(socket_, reinterpret_cast<const sockaddr *>(&target), sizeof target) != 0) {
        throw std::runtime_error("cannot connect to " + node.messageSocket());
    }
}

MessageClient::~MessageClient()
{
    close(socket_);
}

void MessageClient::sendBytes(const std::string &bytes) const
{
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t written = ::send(socket_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (written <= 0) {
            return; // the node closed the connection; receive() tells
        }
        sent += static_cast<size_t>(written);
    }
}

void MessageClient::send(uint32_t module, uint32_t opcode, uint32_t sequence, const std::string &payload) const
{
    sendBytes(frame(module, opcode, sequence, payload));
}

std::optional<Answer> MessageClient::receive() const
{
    std::array<uint32_t, 6> header{};
    if (recv(socket_, header.data(), sizeof header, MSG_WAITALL) != static_cast<ssize_t>(sizeof header)) {
        return std::nullopt;
    }
    std::string payload(header[0] - 20, '\0');
    if (!payload.empty() &&
        recv(socket_, payload.data(), payload.size(), MSG_WAITALL) != static_cast<ssize_t>(payload.size())) {
        return std::nullopt;
    }
    return Answer{header[1], header[2], header[3], header[4], static_cast<int32_t>(header[5]), payload};
}

std::optional<Answer> MessageClient::call(uint32_t module, uint32_t opcode, const std::string &payload) const
{
    send(module, opcode, 1, payload);
    return receive();
}

std::string word(uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string frame(uint32_t module, uint32_t opcode, uint32_t sequence, const std::string &payload)
{
    return word(static_cast<uint32_t>(20 + payload.size())) + word(module) + word(opcode) + word(sequence) + word(0) +
           word(0) + payload;
}

std::string notice(const std::string &key, const std::string &value)
{
    std::string text(516, '\0');
    key.copy(&text[4], 255);
    value.copy(&text[260], 255);
    return text;
}

} // namespace integration
