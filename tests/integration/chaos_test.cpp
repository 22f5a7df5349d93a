// Three nodes on an etcd of three members, while clients, nodes and etcd's leader are killed and come back in an order
// that a seed decides. NASCTRL_CHAOS_SECONDS and NASCTRL_CHAOS_SEED choose another length and another order.
#include "cluster_member.h"

#include <algorithm>
#include <cstdlib>
#include <gmock/gmock.h>
#include <iostream>
#include <memory>
#include <random>
#include <set>
#include <thread>

namespace integration {
namespace {

using nlohmann::json;
using std::chrono::milliseconds;

constexpr uint32_t kNodes = 3;
constexpr uint32_t kClients = 4; // LS 11 to 14
constexpr uint32_t kFirstClient = 11;
constexpr std::chrono::seconds kTtl{1};
constexpr std::chrono::seconds kLastTtl{600};
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

class Chaos : public testing::Test {
protected:
    void SetUp() override
    {
        for (uint32_t i = 0; i < kNodes; ++i) {
            members_.push_back(std::make_unique<Member>(i + 1, etcd_.storeOption()));
            members_.back()->start();
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
            client.join(members_[step.where]->node(), kTtl);
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
        for (const auto &client : clients_) {
            client->kill();
        }
        EXPECT_TRUE(support::eventually([this] { return everyClientRuns() && allAgree(); })) << whatNodesSee();
    }
    // Joins those that are down, for so long that nothing changes any more; one whose lease lives still is refused, and
    // joins the next time.
    bool everyClientRuns()
    {
        const Node &node = members_[0]->node();
        std::set<std::string> sessions;
        for (const auto &client : clients_) {
            if (!client->lives()) {
                client->join(node, kLastTtl);
            }
            sessions.insert(client->session());
        }
        const json view = members_[0]->view();
        return view.at("clients").size() == kClients && std::ranges::all_of(view.at("clients"), [&](const json &row) {
                   return row.at("state") == "running" && sessions.contains(row.at("session"));
               });
    }
    bool allAgree() const
    {
        const json first = members_[0]->view();
        return first.at("connected") == true && !first.at("master").is_null() &&
               std::ranges::all_of(members_, [&](const auto &member) { return member->view() == first; });
    }
    std::string whatNodesSee() const
    {
        std::string text;
        for (const auto &member : members_) {
            text += member->view().dump() + "\n";
        }
        return text;
    }

    void checkAll()
    {
        const ClusterRecord record(etcd_.history("nasctrl/"));
        std::vector<Publication> published;
        for (const auto &member : members_) {
            EXPECT_THAT(member->published(), testing::Not(testing::IsEmpty()));
            published.insert(published.end(), member->published().begin(), member->published().end());
            record.checkLife(member->readWhole(record));
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
            publishers.emplace_back([&member](const std::stop_token &stop) { member->publishUntil(stop); });
        }
        for (const auto &client : clients_) {
            client->join(members_[0]->node(), kTtl);
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
