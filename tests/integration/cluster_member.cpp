#include "cluster_member.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace integration {

using nlohmann::json;
using std::chrono::milliseconds;

namespace {

constexpr uint32_t kValuesOfANode = 1'000'000; // so that all values of a cluster differ
constexpr milliseconds kPause{10};             // between two publications
constexpr milliseconds kPauseAfterFailure{100};

} // namespace

Client::~Client()
{
    kill();
}

bool Client::lives()
{
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) != 0) {
        end();
    }
    return pid_ > 0;
}

void Client::end()
{
    pid_ = -1;
    close(std::exchange(output_, -1));
    said_.clear();
}

void Client::join(const Node &node, std::chrono::seconds ttl)
{
    const support::Pipe out;
    pid_ = support::spawn({NASCTL, "--json", "--root", node.root(), "dpc", "join", std::to_string(lsId_), "--ttl",
                           std::to_string(ttl.count())},
                          {.out = out.write, .err = out.write});
    close(out.write);
    output_ = out.read;
    fcntl(output_, F_SETFL, O_NONBLOCK);
}

void Client::kill()
{
    if (lives()) {
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        end();
    }
}

std::string Client::session()
{
    std::array<char, 1024> text{};
    for (ssize_t length = 0; lives() && (length = read(output_, text.data(), text.size())) > 0;) {
        said_.append(text.data(), static_cast<size_t>(length));
    }
    const json joined = json::parse(said_, nullptr, false);
    return joined.is_object() ? joined.at("session").get<std::string>() : "";
}

Member::Member(uint32_t number, const std::string &store) : number_(number)
{
    node_.option("--node-id", std::to_string(number));
    node_.option("--store", store);
    node_.option("--lease", "2");
}

void Member::start()
{
    ++lives_;
    taken_.clear();
    up_ = node_.start();
    EXPECT_TRUE(up_) << node_.startOutput();
}

NodeLife Member::kill()
{
    NodeLife life = read();
    node_.stop(SIGKILL);
    up_ = false;
    return life;
}

// Ranges with a byte between them stay apart.
void Member::lock(uint32_t lsId)
{
    const std::string start = std::to_string(2 * ++locks_);
    const Outcome took = node_.ctl({"locks", "take", "--ls", std::to_string(lsId), "/shared", start, "1"});
    if (took.exitCode == 0) {
        ++taken_[lsId];
    }
}

// The call may last as long as the node tries.
bool Member::publish()
{
    const uint32_t fl = kValuesOfANode * number_ + ++values_;
    const Outcome made = node_.ctl({"--json", "--timeout-ms", "60000", "ns", "publish", std::to_string(fl)});
    if (made.exitCode == 0) {
        published_.push_back({number_, fl, json::parse(made.out).at("version")});
    }
    return made.exitCode == 0;
}

void Member::publishUntil(const std::stop_token &stop)
{
    while (!stop.stop_requested()) {
        std::this_thread::sleep_for(publish() ? kPause : kPauseAfterFailure);
    }
}

std::vector<json> Member::events() const
{
    std::vector<json> events;
    std::istringstream lines(node_.ctl({"--json", "events"}).out);
    for (std::string line; std::getline(lines, line);) {
        events.push_back(json::parse(line));
    }
    return events;
}

NodeLife Member::read() const
{
    NodeLife life;
    life.name = "node " + std::to_string(number_) + " (life " + std::to_string(lives_) + ")";
    life.events = events();
    return life;
}

NodeLife Member::readWithLocks() const
{
    NodeLife life = read();
    life.whole = true;
    life.locksTaken = taken_;
    const json held = node_.json({"locks", "ls"});
    for (const json &lock : held.at("locks")) {
        ++life.locksHeld[lock.at("ls_id")];
    }
    return life;
}

// Locks are released after the node told of the fault, and told of after that.
NodeLife Member::readWhole(const ClusterRecord &record) const
{
    support::eventually([&] {
        const NodeLife life = readWithLocks();
        const auto released =
            std::ranges::count_if(life.events, [](const json &event) { return event.at("event") == "LOCKS_RELEASED"; });
        return static_cast<uint64_t>(released) >= record.releasesOf(life);
    });
    return readWithLocks();
}

} // namespace integration
