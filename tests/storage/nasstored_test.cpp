// The real nasstored as a process: started, asked, reloaded, stopped; and in a network of its own, followed.
#include "message_peer.h"

#include <csignal>
#include <fstream>
#include <gmock/gmock.h>
#include <support/process.h>

namespace {

using support::eventually;
using testing::HasSubstr;

const std::string kUnread(4, '\0');

// A program with a pipe for its input and one for its output and errors.
class Process {
public:
    explicit Process(std::vector<std::string> command)
    {
        const support::Pipe in;
        const support::Pipe out;
        pid_ = support::spawn(std::move(command), {.in = in.read, .out = out.write, .err = out.write});
        close(in.read);
        close(out.write);
        in_ = in.write;
        out_ = out.read;
    }
    ~Process()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            end();
        }
    }
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void signal(int number) const { kill(pid_, number); }
    void say(const std::string &line) const
    {
        ASSERT_EQ(::write(in_, line.data(), line.size()), static_cast<ssize_t>(line.size()));
    }
    // Waits for its end; its exit code, and all it said.
    std::pair<int, std::string> end()
    {
        close(std::exchange(in_, -1));
        const std::string said = support::readAll(out_);
        return {support::exitCodeOf(std::exchange(pid_, -1)), said};
    }

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
};

class Stored : public testing::Test {
protected:
    std::string socketPath() const { return dir_.file("run/storage.sock"); }
    std::string data() const { return dir_.file("data.json"); }
    void write(const std::string &text) const { std::ofstream(data()) << text; }
    std::vector<std::string> command() const
    {
        return {NASSTORED, "--socket", socketPath(), "--data", data(), "--no-console", "--log-file", dir_.file("log")};
    }
    bool listens() const
    {
        return eventually([this] {
            try {
                Peer::connectTo(socketPath());
                return true;
            } catch (const std::runtime_error &) {
                return false;
            }
        });
    }
    std::string ask(uint32_t type) const
    {
        return Peer::connectTo(socketPath()).ask(frame(18, type, 1, kUnread)).substr(24);
    }
    // The address texts of the answer to type 1.
    std::vector<std::string> addresses() const
    {
        const std::string payload = ask(1);
        std::vector<std::string> texts;
        for (uint32_t i = 0; i < wordAt(payload, 4); ++i) {
            texts.emplace_back(payload.substr(8 + i * 72 + 4, 64).c_str());
        }
        return texts;
    }

    TempDir dir_;
};

TEST_F(Stored, AnswersFromItsDataUntilASignalStopsIt)
{
    write(R"({"zone_domain": "a.example"})");
    for (const int signal : {SIGTERM, SIGINT}) {
        Process process(command());
        ASSERT_TRUE(listens());
        EXPECT_EQ(ask(15), std::string(4, '\0') + "a.example" + std::string(254 - 9, '\0'));
        process.signal(signal);
        EXPECT_EQ(process.end(), (std::pair(0, "nasstored: listens on " + socketPath() + " (data " + data() + ")\n")));
        EXPECT_FALSE(std::filesystem::exists(socketPath()));
    }
}

TEST_F(Stored, ReadsItsDataAnewOnSighupAsAWholeOrNotAtAll)
{
    write(R"({"addresses": [{"address": "10.0.0.1"}]})");
    const Process process(command());
    ASSERT_TRUE(listens());
    write(R"({"addresses": [{"address": "10.0.0.2"}]})");
    process.signal(SIGHUP);
    EXPECT_TRUE(eventually([this] { return addresses() == std::vector<std::string>{"10.0.0.2"}; }));

    write("{\"addresses\": [{\"address\": \"10.0.0.3\"},\n{\"address\": \"10.0.0\"}]}");
    process.signal(SIGHUP);
    EXPECT_TRUE(eventually([this] {
        return Peer::connectTo(socketPath())
                   .ask(frame(100, 1, 1))
                   .find("line 2: addresses[1].address: \\\"10.0.0\\\"") != std::string::npos;
    }));
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.0.0.2"});
}

TEST_F(Stored, EndsWithOneLineAndExitCodeOneForBadDataAndTwoForABadCommandLine)
{
    write("{\n\"zone\": 5}");
    EXPECT_EQ(Process(command()).end(),
              (std::pair(1, "nasstored: " + data() + " line 2: \"zone\" is not a field here\n")));
    EXPECT_EQ(Process({NASSTORED, "--dta", "x"}).end(),
              (std::pair(2, std::string("nasstored: --dta: no such option; did you mean --data?\n"))));
    const auto [code, said] = Process({NASSTORED, "--version"}).end();
    EXPECT_EQ(code, 0);
    EXPECT_THAT(said, HasSubstr("nasstored "));
}

// A nasstored in a network namespace of its own, and a shell there that changes its addresses.
TEST_F(Stored, FollowsTheAddressesOfTheMachineAsTheyChange)
{
    if (Process({"unshare", "-Urn", "ip", "link", "set", "lo", "up"}).end().first != 0) {
        GTEST_SKIP() << "this machine refuses network namespaces, or has no unshare or ip";
    }
    write(R"({"addresses": [{"address": "10.0.0.1"}],
              "address_sources": [{"interface": "lo", "network": "10.77.0.0/16"}],
              "interface_sources": [{"interface": "dum*"}]})");
    std::string line = "ip link set lo up; ";
    for (const std::string &word : command()) {
        line += "'" + word + "' ";
    }
    Process shell({"unshare", "-Urn", "sh", "-c", line + "& while read command; do $command; done; kill $!; wait $!"});
    ASSERT_TRUE(listens());
    EXPECT_EQ(addresses(), std::vector<std::string>{"10.0.0.1"});

    shell.say("ip addr add 10.77.0.5/32 dev lo\n");
    EXPECT_TRUE(eventually([this] { return addresses() == std::vector<std::string>{"10.0.0.1", "10.77.0.5"}; }));
    shell.say("ip addr add 10.77.0.6/32 dev lo label lo:six\n");
    EXPECT_TRUE(eventually([this] { return addresses().size() == 3; })) << "a label is no other interface";
    shell.say("ip addr del 10.77.0.5/32 dev lo\n");
    EXPECT_TRUE(eventually([this] { return addresses() == std::vector<std::string>{"10.0.0.1", "10.77.0.6"}; }));
    shell.say("ip link set lo down\n");
    EXPECT_TRUE(eventually([this] { return wordAt(ask(1), 8 + 72 + 68) == 0; })) << "not working while it is down";
    EXPECT_EQ(addresses(), (std::vector<std::string>{"10.0.0.1", "10.77.0.6"}));
    EXPECT_EQ(shell.end().first, 0);
}

} // namespace
