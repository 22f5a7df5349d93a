/*
 * A real node for a test: nasctrld under a root directory of its own, nasctl to talk to it, and a raw client of its
 * message socket. Its addresses are on the loopback interface and differ from those of every other test process.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <support/process.h>
#include <sys/types.h>
#include <vector>

namespace integration {

struct Outcome {
    int exitCode;
    std::string out;
    std::string err;
};

// Runs a program to its end.
Outcome run(const std::vector<std::string> &command);

// A directory that lives as long as the object.
class TemporaryDirectory {
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

struct Module {
    unsigned slot;
    std::string name;
    std::string types;
    uint16_t port;
};

// A network namespace of its own, with nothing but a loopback interface, that lives as long as the object.
class PrivateNetwork {
public:
    // Beside another one it has the same owner, so that a cable may join the two.
    explicit PrivateNetwork(const PrivateNetwork *beside = nullptr);
    ~PrivateNetwork();
    PrivateNetwork(const PrivateNetwork &) = delete;
    PrivateNetwork &operator=(const PrivateNetwork &) = delete;
    // False where the machine refuses one.
    bool exists() const { return exists_; }
    // By its process it can be named to ip.
    pid_t pid() const { return holder_; }
    // What a command is to begin with to run in it.
    std::vector<std::string> prefix() const;
    // Runs a command in it to its end.
    Outcome run(const std::vector<std::string> &command) const;

private:
    pid_t holder_ = -1;
    int release_ = -1; // the holder ends when it is closed
    bool exists_ = false;
};

// nasstored as a process of its own, for a node that is told its socket.
class Stored {
public:
    // In that directory: its socket, data file and log.
    explicit Stored(const std::string &directory);
    ~Stored();
    Stored(const Stored &) = delete;
    Stored &operator=(const Stored &) = delete;

    std::string socket() const { return directory_ + "/stored.sock"; }
    std::string data() const { return directory_ + "/stored.json"; }
    void write(const std::string &data) const;
    // Returns once it listens; false when it ended instead.
    bool start();
    void signal(int number) const;
    // Sends the signal and returns the exit code.
    int stop(int signal);
    pid_t pid() const { return pid_; }

private:
    std::string directory_;
    pid_t pid_ = -1;
};

class Node {
public:
    // Prepares the root directory from the example node; start() starts it.
    explicit Node(std::vector<Module> modules = {});
    ~Node();
    Node(const Node &) = delete;
    Node &operator=(const Node &) = delete;

    // Another option of its command line, for the starts that follow.
    void option(const std::string &name, const std::string &value);
    // For the starts that follow: in that network.
    void enter(const PrivateNetwork &network) { prefix_ = network.prefix(); }
    void signal(int number) const;

    const std::string &root() const { return directory_.path(); }
    std::string configFile(const std::string &name) const; // dpc.conf or EBSServer.cfg
    std::string messageSocket() const { return root() + "/run/message.sock"; }
    std::string adminSocket() const { return root() + "/run/admin.sock"; }
    // The host part'th address of this test's own loopback network.
    static std::string address(unsigned hostPart);
    // A port that nobody listens on at any address of this test.
    static uint16_t freePort();

    // Returns once the node says that it is ready; false when it ended instead.
    bool start();
    // Sends the signal and returns the exit code.
    int stop(int signal);
    bool running() const;
    const std::string &startOutput() const { return startOutput_; }
    std::string log() const;

    Outcome ctl(const std::vector<std::string> &arguments) const;
    nlohmann::json json(const std::vector<std::string> &arguments) const;

    // The state of a module for an address: "listening", "failing", "pending", or "" when it is not known.
    std::string moduleState(const std::string &address, const std::string &module) const;
    static bool eventually(const std::function<bool()> &condition) { return support::eventually(condition); }

private:
    std::vector<std::string> command() const;

    TemporaryDirectory directory_;
    std::vector<Module> modules_;
    std::vector<std::string> options_;
    std::vector<std::string> prefix_;
    pid_t pid_ = -1;
    std::string startOutput_;
};

// Whether the kernel accepts a TCP connection to the address.
bool accepts(const std::string &address, uint16_t port);

// A listener that holds a port, as a foreign process would.
class PortHolder {
public:
    PortHolder(const std::string &address, uint16_t port);
    ~PortHolder();
    PortHolder(const PortHolder &) = delete;
    PortHolder &operator=(const PortHolder &) = delete;

private:
    int socket_;
};

struct Answer {
    uint32_t module;
    uint32_t opcode;
    uint32_t sequence;
    uint32_t direction;
    int32_t result;
    std::string payload;
    bool operator==(const Answer &) const = default;
};

class MessageClient {
public:
    explicit MessageClient(const Node &node);
    ~MessageClient();
    MessageClient(const MessageClient &) = delete;
    MessageClient &operator=(const MessageClient &) = delete;

    void sendBytes(const std::string &bytes) const;
    void send(uint32_t module, uint32_t opcode, uint32_t sequence, const std::string &payload) const;
    // The next answer; nothing when the node closed the connection.
    std::optional<Answer> receive() const;
    std::optional<Answer> call(uint32_t module, uint32_t opcode, const std::string &payload) const;

private:
    int socket_;
};

// The words of a frame, and a whole request.
std::string word(uint32_t value);
std::string frame(uint32_t module, uint32_t opcode, uint32_t sequence, const std::string &payload);
// The 516 bytes of an address notice.
std::string notice(const std::string &key, const std::string &value);

} // namespace integration
