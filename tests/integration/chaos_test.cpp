// Three nodes on an etcd of three members, while clients, nodes and etcd's leader are killed and come back in an order
// that a seed decides. NASCTRL_CHAOS_SECONDS and NASCTRL_CHAOS_SEED choose another length and another order.
#include "cluster_record.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace integration {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr size_t kNodes = 3;
constexpr uint32_t kClients = 4; // LS 11 to 14
constexpr uint32_t kFirstClient = 11;
constexpr uint64_t kDefaultSeed = 20260131;
constexpr uint64_t kDefaultSeconds = 10;

uint64_t setting(const char *name, uint64_t otherwise)
{
    const char *text = std::getenv(name);
    return text == nullptr ? otherwise : std::stoull(text);
}

// ---- the order of the actions

// What is down comes back, and what is up is killed.
struct Step {
    enum class Kind { client, lock, node, leader };
    Kind kind;
    uint32_t who;   // client, or node
    uint32_t where; // the node by which a client joins, or on which it locks
    milliseconds pause;
};

std::vector<Step> plan(uint64_t seed, std::chrono::seconds length)
{
    using Kind = Step::Kind;
    constexpr Kind kDeck[] = {Kind::client, Kind::client, Kind::client, Kind::client, Kind::lock,
                              Kind::lock,   Kind::lock,   Kind::node,   Kind::node,   Kind::leader};
    std::mt19937_64 random(seed);
    const auto below = [&random](uint64_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::vector<Step> steps;
    for (milliseconds time{0}; time < length; time += steps.back().pause) {
        const Kind kind = kDeck[below(std::size(kDeck))];
        const uint32_t who = below(kind == Kind::node ? kNodes : kClients);
        const uint32_t where = below(kNodes);
        steps.push_back({kind, who, where, milliseconds(100 + below(500))});
    }
    return steps;
}

// ---- who takes part

// A process of nasctl dpc join.
class Client {
public:
    explicit Client(uint32_t lsId) : lsId_(lsId) {}
    ~Client() { kill(); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool lives()
    {
        if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) != 0) {
            pid_ = -1;
        }
        return pid_ > 0;
    }
    void join(const Node &node)
    {
        const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
        pid_ = support::spawn({NASCTL, "--root", node.root(), "dpc", "join", std::to_string(lsId_), "--ttl", "1"},
                              {.out = nowhere, .err = nowhere});
        close(nowhere);
    }
    void kill()
    {
        if (lives()) {
            ::kill(pid_, SIGKILL);
            waitpid(std::exchange(pid_, -1), nullptr, 0);
        }
    }

private:
    uint32_t lsId_;
    pid_t pid_ = -1;
};

// A node, the stream of its present life, and somebody who publishes through it all the time.
class Member {
public:
    Member(size_t number, const std::string &store) : number_(number)
    {
        node_.option("--node-id", std::to_string(number + 1));
        node_.option("--store", store);
        node_.option("--lease", "2");
        start();
    }

    const Node &node() const { return node_; }
    bool up() const { return up_; }
    void start()
    {
        ++lives_;
        taken_.clear();
        up_ = node_.start();
        EXPECT_TRUE(up_) << node_.startOutput();
    }
    NodeLife kill()
    {
        NodeLife life = read();
        node_.stop(SIGKILL);
        up_ = false;
        return life;
    }
    void lock(uint32_t lsId)
    {
        const std::string start = std::to_string(2 * ++locks_);
        const bool took =
            node_.ctl({"locks", "take", "--ls", std::to_string(lsId), "/shared", start, "1"}).exitCode == 0;
        taken_[lsId] += took ? 1 : 0;
    }
    NodeLife read() const
    {
        NodeLife life;
        life.name = "node " + std::to_string(number_ + 1) + " (life " + std::to_string(lives_) + ")";
        std::istringstream lines(node_.ctl({"--json", "events"}).out);
        for (std::string line; std::getline(lines, line);) {
            life.events.push_back(json::parse(line));
        }
        return life;
    }
    NodeLife readWhole() const
    {
        NodeLife life = read();
        life.whole = true;
        life.locksTaken = taken_;
        for (const json &lock : node_.json({"locks", "ls"})["locks"]) {
            ++life.locksHeld[lock.at("ls_id")];
        }
        return life;
    }

    void publish(const std::stop_token &stop)
    {
        for (auto fl = static_cast<uint32_t>(1'000'000 * (number_ + 1)); !stop.stop_requested(); ++fl) {
            const Outcome made =
                node_.ctl({"--json", "--timeout-ms", "60000", "ns", "publish", std::to_string(fl)});
            if (made.exitCode == 0) {
                published_.push_back({number_, fl, json::parse(made.out).at("version")});
            }
            std::this_thread::sleep_for(milliseconds(made.exitCode == 0 ? 10 : 100));
        }
    }
    // Once nobody publishes.
    const std::vector<Publication> &published() const { return published_; }

private:
    size_t number_;
    Node node_;
    bool up_ = false;
    int lives_ = 0;
    uint64_t locks_ = 0;
    std::map<uint32_t, uint64_t> taken_; // in this life
    std::vector<Publication> published_;
};

class Chaos : public testing::Test {
protected:
    void SetUp() override
    {
        for (size_t i = 0; i < kNodes; ++i) {
            members_.push_back(std::make_unique<Member>(i, etcd_.storeOption()));
        }
        for (uint32_t i = 0; i < kClients; ++i) {
            clients_.push_back(std::make_unique<Client>(kFirstClient + i));
        }
        const Node &first = members_[0]->node();
        ASSERT_TRUE(support::eventually([&] { return first.ctl({"ns", "create"}).exitCode == 0; }));
    }

    void take(const Step &step)
    {
        switch (step.kind) {
        case Step::Kind::client:
            toggleClient(step);
            break;
        case Step::Kind::lock:
            if (members_[step.where]->up() && clients_[step.who]->lives()) {
                members_[step.where]->lock(kFirstClient + step.who);
            }
            break;
        case Step::Kind::node:
            toggleNode(step.who);
            break;
        case Step::Kind::leader:
            toggleLeader();
            break;
        }
    }
    void toggleClient(const Step &step)
    {
        Client &client = *clients_[step.who];
        if (client.lives()) {
            client.kill();
        } else if (members_[step.where]->up()) {
            client.join(members_[step.where]->node());
        }
    }
    // One is down at a time, so that there are always nodes that live through it.
    void toggleNode(size_t who)
    {
        const auto down = std::ranges::find_if(members_, [](const auto &member) { return !member->up(); });
        if (down != members_.end()) {
            (*down)->start();
        } else {
            ended_.push_back(members_[who]->kill());
        }
    }
    void toggleLeader()
    {
        if (const auto down = etcd_.down()) {
            etcd_.start(*down);
        } else if (const auto leader = etcd_.leader()) {
            etcd_.kill(*leader);
        }
    }

    void heal()
    {
        if (const auto down = etcd_.down()) {
            etcd_.start(*down);
        }
        for (const auto &member : members_) {
            if (!member->up()) {
                member->start();
            }
        }
        EXPECT_TRUE(support::eventually([this] { return everyClientRuns() && allAgree(); })) << whatNodesSee();
    }
    // Joins those that are down; one whose lease lives still is refused, and joins the next time.
    bool everyClientRuns()
    {
        const json view = members_[0]->node().json({"view"});
        size_t running = 0;
        for (const json &row : view.at("clients")) {
            running += row.at("state") == "running" ? 1 : 0;
        }
        for (const auto &client : clients_) {
            if (!client->lives()) {
                client->join(members_[0]->node());
                running = 0;
            }
        }
        return running == kClients;
    }
    bool allAgree() const
    {
        const json first = members_[0]->node().json({"view"});
        return first.at("connected") == true && !first.at("master").is_null() &&
               std::ranges::all_of(members_, [&](const auto &member) { return member->node().json({"view"}) == first; });
    }
    std::string whatNodesSee() const
    {
        std::string text;
        for (const auto &member : members_) {
            text += member->node().ctl({"--json", "view"}).out;
        }
        return text;
    }

    // The locks of a client are released after the node told of its fault.
    NodeLife readWhole(const Member &member, const ClusterRecord &record) const
    {
        NodeLife life = member.readWhole();
        support::eventually([&] {
            life = member.readWhole();
            const auto released = std::ranges::count_if(
                life.events, [](const json &event) { return event.at("event") == "LOCKS_RELEASED"; });
            return static_cast<uint64_t>(released) >= record.releasesOf(life);
        });
        return life;
    }
    void checkAll()
    {
        const ClusterRecord record(etcd_.history("nasctrl/"));
        std::vector<Publication> published;
        for (const auto &member : members_) {
            EXPECT_THAT(member->published(), testing::Not(testing::IsEmpty()));
            published.insert(published.end(), member->published().begin(), member->published().end());
            record.checkLife(readWhole(*member, record));
        }
        for (const NodeLife &life : ended_) {
            record.checkLife(life);
        }
        record.checkPublications(published);
        record.checkViews();
        std::cout << published.size() << " publications, " << record.newestView() << " views, " << ended_.size()
                  << " nodes killed\n";
    }

    EtcdCluster etcd_{3, Node::address(1)};
    std::vector<std::unique_ptr<Member>> members_;
    std::vector<std::unique_ptr<Client>> clients_;
    std::vector<NodeLife> ended_;
};

TEST_F(Chaos, LosesNothingAndAgreesInTheEnd)
{
    const uint64_t seed = setting("NASCTRL_CHAOS_SEED", kDefaultSeed);
    const std::chrono::seconds length(setting("NASCTRL_CHAOS_SECONDS", kDefaultSeconds));
    SCOPED_TRACE("again with ./test --chaos " + std::to_string(seed));
    {
        std::vector<std::jthread> publishers;
        for (const auto &member : members_) {
            publishers.emplace_back([&member](const std::stop_token &stop) { member->publish(stop); });
        }
        for (const auto &client : clients_) {
            client->join(members_[0]->node());
        }
        for (const Step &step : plan(seed, length)) {
            take(step);
            std::this_thread::sleep_for(step.pause);
        }
        heal();
    }
    checkAll();
}

TEST(ChaosPlan, IsTheSameForTheSameSeedAndAnotherForAnother)
{
    const auto shown = [](uint64_t seed) {
        std::string text;
        for (const Step &step : plan(seed, std::chrono::seconds(60))) {
            text += std::to_string(static_cast<int>(step.kind)) + ":" + std::to_string(step.who) + ":" +
                    std::to_string(step.where) + ":" + std::to_string(step.pause.count()) + " ";
        }
        return text;
    };
    EXPECT_EQ(shown(1), shown(1));
    EXPECT_NE(shown(1), shown(2));
}

} // namespace
} // namespace integration
