// Nodes of a cluster in one process: agents on one store, and one clock that a test moves.
#include "cluster/cluster_agent.h"
#include "recorded_log.h"
#include "temp_dir.h"

#include <atomic>
#include <filesystem>
#include <gmock/gmock.h>
#include <thread>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

namespace {

// A store that can be cut off from one node, or be taken for another.
class CuttableStore : public host::Store {
public:
    explicit CuttableStore(host::Store &inner) : inner_(&inner) {}
    std::atomic<bool> cut = false;
    int callsBeforeLoss = -1; // the call after that many is lost; -1 = none
    host::StoreCallback tell; // the callback of the last watch

    // From then on it is another store.
    void become(host::Store &other) { inner_ = &other; }

    host::StoreWrite create(const std::string &key, const std::string &value, host::StoreLease lease) override
    {
        return lost() ? host::StoreWrite{} : inner_->create(key, value, lease);
    }
    host::StoreRead read(const std::string &key) override { return lost() ? host::StoreRead{} : inner_->read(key); }
    host::StoreRead readBack(const std::string &key, uint64_t version) override
    {
        return lost() ? host::StoreRead{} : inner_->readBack(key, version);
    }
    host::StoreWrite write(const std::string &key, const std::string &value, uint64_t version,
                           host::StoreLease lease) override
    {
        return lost() ? host::StoreWrite{} : inner_->write(key, value, version, lease);
    }
    host::StoreWrite remove(const std::string &key, uint64_t version) override
    {
        return lost() ? host::StoreWrite{} : inner_->remove(key, version);
    }
    host::StoreList list(const std::string &prefix) override
    {
        return lost() ? host::StoreList{} : inner_->list(prefix);
    }
    host::StoreGrant grant(std::chrono::seconds ttl) override
    {
        return lost() ? host::StoreGrant{} : inner_->grant(ttl);
    }
    host::StoreGrant keepAlive(host::StoreLease lease) override
    {
        return lost() ? host::StoreGrant{} : inner_->keepAlive(lease);
    }
    host::StoreResult revoke(host::StoreLease lease) override
    {
        return lost() ? host::StoreResult::unknown : inner_->revoke(lease);
    }
    std::unique_ptr<host::StoreWatch> watch(const std::string &prefix, uint64_t revision,
                                            host::StoreCallback callback) override
    {
        tell = callback;
        return inner_->watch(prefix, revision, [this, callback](const host::StoreEvent &event) {
            if (!cut) {
                callback(event);
            }
        });
    }
    host::StoreStatus status() const override { return inner_->status(); }

private:
    bool lost() { return callsBeforeLoss-- == 0 || cut; }

    host::Store *inner_;
};

std::string shown(const host::DpcView &view)
{
    std::string text;
    for (const host::DpcClient &client : view.clients) {
        text += (text.empty() ? "" : " ") + std::to_string(client.lsId) +
                (client.runState == host::kRunning ? "+" : "-" + std::to_string(client.faultReason));
    }
    return "[" + text + "]";
}

// A node: what it tells its library becomes lines. It connects at once, on the thread of its rounds.
class Node : host::AgentListener {
public:
    Node(host::Store &shared, uint32_t id, const host::SteadyClock &clock, const std::string &name = "node")
        : store(shared), agent(store, {id, name, 5s}, clock, *this)
    {
    }

    // Rounds until a line is there; the watch is the only thing that is waited for.
    bool roundsUntil(const std::string &line)
    {
        const auto until = std::chrono::steady_clock::now() + 30s;
        while (std::ranges::find(told, line) == told.end() && std::chrono::steady_clock::now() < until) {
            agent.round();
            std::this_thread::sleep_for(1ms);
        }
        return std::ranges::find(told, line) != told.end();
    }

    CuttableStore store;
    std::vector<std::string> told;
    host::ClusterAgent agent;

private:
    void connected() override
    {
        told.emplace_back("connected");
        if (agent.fetchView() != host::StoreResult::unknown) {
            agent.followFetched();
        }
    }
    void disconnected() override { told.emplace_back("disconnected"); }
    void masterChanged(std::optional<uint32_t> master) override
    {
        told.push_back("master " + (master ? std::to_string(*master) : "unknown"));
    }
    void command(int32_t type) override { told.push_back("command " + std::to_string(type)); }
    void firstView(const host::DpcView &now) override { told.push_back("first " + shown(now)); }
    void changed(const host::DpcView &was, const host::DpcView &now) override
    {
        told.push_back("changed " + shown(was) + " " + shown(now));
    }
    void missed(const host::DpcView &was, const host::DpcView &now) override
    {
        told.push_back("missed " + shown(was) + " " + shown(now));
    }
};

class Cluster : public testing::Test {
protected:
    void SetUp() override
    {
        recorded::clear();
        host::StoreSettings settings;
        settings.file = dir.file("store.db");
        settings.timeout = 30s; // a slow disk fails no test
        settings.clock = clock;
        store = host::openStore(settings);
    }

    host::Membership join(uint32_t lsId, std::chrono::seconds ttl = 3s)
    {
        return host::joinClient(*store, {lsId, 1, ttl, {}});
    }
    std::string view() { return shown(host::readView(*store).value_or(host::DpcView{})); }
    template <typename Call>
    static std::string refusal(Call call)
    {
        try {
            call();
        } catch (const std::exception &error) {
            return error.what();
        }
        return "done";
    }

    std::atomic<int64_t> now = 1'000'000;
    host::SteadyClock clock = [this] { return std::chrono::milliseconds(now); };
    TempDir dir;
    std::unique_ptr<host::Store> store;
};

// ---- clients

TEST_F(Cluster, ShowsAClientThatJoined)
{
    const host::Membership member = join(7);

    const host::DpcView stored = host::readView(*store).value();
    EXPECT_EQ(stored.version, 1U);
    EXPECT_EQ(shown(stored), "[7+]");
    EXPECT_EQ(stored.clients[0].session, member.session);
    EXPECT_EQ(stored.clients[0].node, 1U);
    EXPECT_EQ(member.ttl, 3s);
}

TEST_F(Cluster, KeepsItsClientsInTheOrderOfTheirIds)
{
    join(9);
    join(2);
    join(5);

    EXPECT_EQ(view(), "[2+ 5+ 9+]");
}

TEST_F(Cluster, RefusesASecondProcessOfAClientThatLives)
{
    join(7);

    EXPECT_EQ(refusal([this] { join(7); }), "a process of LS 7 lives already");
    EXPECT_EQ(host::readView(*store)->version, 1U);
}

TEST_F(Cluster, TellsAClientWhoseLeaseHasEnded)
{
    const host::Membership member = join(7);
    host::keepClientAlive(*store, member.lease);
    now += 3001;

    EXPECT_EQ(refusal([&] { host::keepClientAlive(*store, member.lease); }), "its lease has ended");
}

TEST_F(Cluster, ForgetsAClientThatLeaves)
{
    const host::Membership member = join(7);

    host::removeClient(*store, 7);

    EXPECT_EQ(view(), "[]");
    EXPECT_EQ(refusal([&] { host::keepClientAlive(*store, member.lease); }), "its lease has ended");
    EXPECT_EQ(refusal([this] { host::removeClient(*store, 7); }),
              "LS 7 is not in the view; nasctl dpc ls lists its clients");
}

TEST_F(Cluster, MarksAClientWhoseProcessDied)
{
    const host::Membership member = join(7);

    host::failClient(*store, 7, host::kProcessFault, true);

    EXPECT_EQ(view(), "[7-2]");
    EXPECT_EQ(refusal([&] { host::keepClientAlive(*store, member.lease); }), "its lease has ended");
    EXPECT_EQ(refusal([this] { host::failClient(*store, 7, host::kProcessFault, true); }), "LS 7 is faulty already");
    EXPECT_EQ(refusal([this] { host::failClient(*store, 8, host::kProcessFault, true); }),
              "LS 8 is not in the view; nasctl dpc ls lists its clients");
}

TEST_F(Cluster, EndsTheProcessOfAClientThatIsFaultyAlready)
{
    const host::Membership member = join(7);
    host::failClient(*store, 7, 9, false);

    host::failClient(*store, 7, host::kProcessFault, true);

    EXPECT_EQ(view(), "[7-9]") << "it is one fault";
    EXPECT_EQ(host::readView(*store)->clients[0].faults, 1U);
    EXPECT_EQ(refusal([&] { host::keepClientAlive(*store, member.lease); }), "its lease has ended");
}

TEST_F(Cluster, GivesAClientThatReturnsANewerSession)
{
    const uint64_t first = join(7).session;
    host::failClient(*store, 7, host::kProcessFault, true);

    const host::Membership second = join(7);

    EXPECT_EQ(view(), "[7+]");
    EXPECT_GT(second.session, first);
    EXPECT_EQ(host::readView(*store)->clients[0].faults, 1U);
}

TEST_F(Cluster, BreaksTheHeartsOfThoseWhoseLeaseEndedAndOfNoOther)
{
    join(1, 3s);
    join(2, 60s);
    join(3, 3s);
    now += 3001;

    EXPECT_EQ(host::breakHearts(*store), 2U);
    EXPECT_EQ(view(), "[1-3 2+ 3-3]");
    const uint64_t version = host::readView(*store)->version;
    EXPECT_EQ(host::breakHearts(*store), 0U);
    EXPECT_EQ(host::readView(*store)->version, version);
}

TEST_F(Cluster, BreaksTheHeartOfAnEarlierLifeBeforeAClientReturns)
{
    const uint64_t first = join(7).session;
    now += 3001;

    join(7);

    const host::DpcView stored = host::readView(*store).value();
    EXPECT_EQ(shown(stored), "[7+]");
    EXPECT_EQ(stored.version, 3U);
    EXPECT_EQ(stored.clients[0].faults, 1U);
    EXPECT_EQ(stored.clients[0].faultReason, host::kHeartBreak);
    EXPECT_GT(stored.clients[0].session, first);
}

TEST_F(Cluster, TakesAKeyThatIsNoClientsForNone)
{
    join(7);
    for (const char *text : {"", "{}", "[7]", R"({"session": "x"})", R"({"session": -1})"}) {
        store->remove(host::kClientPrefix + "8");
        ASSERT_EQ(store->create(host::kClientPrefix + "8", text).result, host::StoreResult::done);

        EXPECT_EQ(host::breakHearts(*store), 0U) << text;
    }
    EXPECT_EQ(view(), "[7+]");
}

TEST_F(Cluster, SaysThatItsStoreDoesNotAnswer)
{
    CuttableStore far(*store);
    join(7);
    far.cut = true;

    const std::string silent = "the cluster store does not answer";
    EXPECT_EQ(refusal([&] { host::joinClient(far, {8, 1, 3s, {}}); }), silent);
    EXPECT_EQ(refusal([&] { host::removeClient(far, 7); }), silent);
    EXPECT_EQ(refusal([&] { host::failClient(far, 7, 2, true); }), silent);
    EXPECT_EQ(refusal([&] { host::keepClientAlive(far, 1); }), silent);
    EXPECT_EQ(refusal([&] { host::readView(far); }), silent);
    EXPECT_EQ(view(), "[7+]");
}

TEST_F(Cluster, LeavesNoClientRunningThatHasNoProcessWhenAnyCallToTheStoreIsLost)
{
    std::string outcome = "lost";
    for (int calls = 0; outcome != "done"; ++calls) {
        ASSERT_LT(calls, 30);
        CuttableStore lossy(*store);
        lossy.callsBeforeLoss = calls;
        bool lossCame = true;
        outcome = refusal([&] {
            host::joinClient(lossy, {7, 1, 3s, {}});
            lossCame = lossy.callsBeforeLoss < 0;
        });
        if (outcome == "done" && lossCame) {
            outcome = "done in spite of the loss";
        }
        now += 3001;
        host::breakHearts(*store);

        EXPECT_THAT(view(), testing::AnyOf("[]", "[7-3]")) << "call " << calls;
        EXPECT_EQ(refusal([this] { join(7); }), "done") << "call " << calls;
        host::removeClient(*store, 7);
    }
}

TEST_F(Cluster, LosesNoChangeOfTwoThatChangeAtOnce)
{
    std::vector<std::jthread> writers;
    for (uint32_t writer = 0; writer < 4; ++writer) {
        writers.emplace_back([this, writer] {
            for (uint32_t i = 0; i < 5; ++i) {
                join(writer * 5 + i + 1);
            }
        });
    }
    writers.clear();

    EXPECT_EQ(host::readView(*store)->clients.size(), 20U);
    EXPECT_EQ(host::readView(*store)->version, 20U);
}

// ---- nodes

TEST_F(Cluster, ConnectsANodeThatBecomesMasterOfAnEmptyCluster)
{
    Node node(*store, 1, clock);

    node.agent.round();

    EXPECT_THAT(node.told, ElementsAre("connected", "first []", "master 1"));
    EXPECT_TRUE(node.agent.isConnected());
    EXPECT_TRUE(node.agent.isMaster());
}

TEST_F(Cluster, HasOneMasterUntilThatIsGone)
{
    Node first(*store, 1, clock);
    Node second(*store, 2, clock);
    first.agent.round();
    second.agent.round();
    EXPECT_EQ(second.agent.master(), 1U);

    first.agent.leave();
    now += 2000;
    second.agent.round();

    EXPECT_EQ(second.agent.master(), 2U);
    EXPECT_EQ(first.agent.master(), std::nullopt);
}

TEST_F(Cluster, TellsEveryNodeOfEveryChangeInOrder)
{
    Node first(*store, 1, clock);
    Node second(*store, 2, clock);
    first.agent.round();
    second.agent.round();

    join(7);
    host::failClient(*store, 7, host::kProcessFault, true);
    join(7);
    host::removeClient(*store, 7);

    for (Node *node : {&first, &second}) {
        ASSERT_TRUE(node->roundsUntil("changed [7+] []"));
        node->told.erase(node->told.begin(), node->told.begin() + 3);
        EXPECT_THAT(node->told,
                    ElementsAre("changed [] [7+]", "changed [7+] [7-2]", "changed [7-2] [7+]", "changed [7+] []"));
    }
}

TEST_F(Cluster, TurnsALostLeaseIntoAHeartBreakOnEveryNode)
{
    Node first(*store, 1, clock);
    Node second(*store, 2, clock);
    first.agent.round();
    second.agent.round();
    join(7);
    ASSERT_TRUE(first.roundsUntil("changed [] [7+]"));

    now += 3001;

    EXPECT_TRUE(first.roundsUntil("changed [7+] [7-3]"));
    EXPECT_TRUE(second.roundsUntil("changed [7+] [7-3]"));
}

TEST_F(Cluster, ShowsANewNodeTheViewAsItIs)
{
    join(7);
    host::failClient(*store, 7, host::kHeartBreak, true);
    join(8);
    Node node(*store, 1, clock);

    node.agent.round();

    EXPECT_THAT(node.told, ElementsAre("connected", "first [7-3 8+]", "master 1"));
}

TEST_F(Cluster, BelievesNothingThatItCannotRenew)
{
    Node node(*store, 1, clock);
    node.agent.round();
    node.store.cut = true;

    now += 4999;
    node.agent.round();
    EXPECT_TRUE(node.agent.isMaster());
    now += 1;
    EXPECT_FALSE(node.agent.isMaster());
    now += 1;
    node.agent.round();

    EXPECT_FALSE(node.agent.isConnected());
    EXPECT_THAT(node.told, ElementsAre("connected", "first []", "master 1", "disconnected", "master unknown"));
}

TEST_F(Cluster, LetsAnotherNodeTakeOverFromOneThatIsCutOff)
{
    Node first(*store, 1, clock);
    Node second(*store, 2, clock);
    first.agent.round();
    second.agent.round();
    join(7, 3s);
    ASSERT_TRUE(second.roundsUntil("changed [] [7+]"));
    first.store.cut = true;
    for (int i = 0; i < 4; ++i) {
        now += 1700;
        first.agent.round();
        second.agent.round();
    }

    EXPECT_TRUE(second.roundsUntil("changed [7+] [7-3]"));
    EXPECT_TRUE(second.agent.isMaster());
    EXPECT_EQ(first.agent.master(), std::nullopt);

    join(7);
    first.store.cut = false;
    now += 1700;
    const bool sawTheJoin = !first.agent.known()->clients.empty(); // before it was cut off
    EXPECT_TRUE(first.roundsUntil(sawTheJoin ? "missed [7+] [7+]" : "missed [] [7+]"));
    EXPECT_EQ(first.agent.master(), 2U);
    EXPECT_EQ(*first.agent.known(), *host::readView(*store));
}

TEST_F(Cluster, WaitsForTheLeaseOfAnEarlierLifeOfANode)
{
    {
        Node killed(*store, 1, clock);
        killed.agent.round();
    }
    Node node(*store, 1, clock);
    node.agent.round();
    EXPECT_FALSE(node.agent.isConnected());
    EXPECT_FALSE(node.agent.isMaster());
    EXPECT_THAT(recorded::lines(), ElementsAre("3 cluster: a node 1 is there already; waiting for its lease to end"));

    for (const int pause : {2500, 2501}) {
        now += pause;
        node.agent.round();
    }

    EXPECT_TRUE(node.agent.isConnected());
    EXPECT_TRUE(node.agent.isMaster());
    EXPECT_EQ(recorded::lines().size(), 1U);
}

TEST_F(Cluster, CountsTheTimeWithoutContactFromItsBeginning)
{
    const Node node(*store, 1, clock);
    now += 700;

    EXPECT_EQ(node.agent.sinceContact(), 700ms);
}

TEST_F(Cluster, TakesANewLeaseWhenItsOwnEnded)
{
    Node node(*store, 1, clock);
    node.agent.round();
    now += 5001;

    node.agent.round();

    EXPECT_TRUE(node.agent.isMaster());
    EXPECT_THAT(recorded::lines(), ElementsAre("3 cluster: the lease of node 1 ended; it takes a new one"));
}

TEST_F(Cluster, HandsCommandsOn)
{
    Node node(*store, 1, clock);
    node.agent.round();

    store->create(host::kCommandKey, R"({"type": 12})");

    EXPECT_TRUE(node.roundsUntil("command 12"));
}

TEST_F(Cluster, LeavesACommandThatIsNoneAlone)
{
    Node node(*store, 1, clock);
    node.agent.round();

    store->create(host::kCommandKey, R"({"type": "x"})");
    store->write(host::kCommandKey, "none", 1);
    store->write(host::kCommandKey, R"({"type": 3})", 2);

    EXPECT_TRUE(node.roundsUntil("command 3"));
    const std::string line = "3 cluster: what is stored as a command is not one";
    EXPECT_THAT(recorded::lines(), ElementsAre(line, line));
}

TEST_F(Cluster, TakesAnyBytesForANodesName)
{
    Node node(*store, 1, clock, "caf\xe9");

    node.agent.round();

    EXPECT_TRUE(node.agent.isMaster());
}

TEST_F(Cluster, LosesNoCommandWhenItReadsTheViewAnew)
{
    Node node(*store, 1, clock);
    node.agent.round();
    store->create(host::kCommandKey, R"({"type": 5})");

    node.agent.fetchView();
    node.agent.followFetched();

    EXPECT_TRUE(node.roundsUntil("command 5"));
    EXPECT_EQ(std::ranges::count(node.told, "command 5"), 1);
}

TEST_F(Cluster, TellsLaterOfWhatChangedWhileItReadTheView)
{
    Node node(*store, 1, clock);
    node.agent.round();
    node.agent.fetchView();
    join(7);
    store->create(host::kCommandKey, R"({"type": 5})");
    ASSERT_TRUE(node.roundsUntil("command 5")); // the watch is past the join

    node.agent.followFetched();

    EXPECT_EQ(node.told.back(), "changed [] [7+]");
    EXPECT_EQ(*node.agent.known(), *host::readView(*store));
}

TEST_F(Cluster, FollowsOnlyTheLastOfTwoThatReadTheViewAtOnce)
{
    Node node(*store, 1, clock);
    node.agent.round();
    join(7);
    node.agent.fetchView();
    join(8);
    node.agent.fetchView();

    node.agent.followFetched();
    node.agent.followFetched();

    EXPECT_EQ(node.told.back(), "missed [] [7+ 8+]");
    store->create(host::kCommandKey, R"({"type": 5})");
    ASSERT_TRUE(node.roundsUntil("command 5"));
    EXPECT_EQ(std::ranges::count_if(node.told, [](const std::string &line) { return line.starts_with("changed"); }), 0);
}

TEST_F(Cluster, ReadsTheViewAnewWhenItsWatchLostChanges)
{
    Node node(*store, 1, clock);
    node.agent.round();
    node.told.clear();
    join(7);

    host::StoreEvent lost;
    lost.kind = host::StoreEvent::Kind::lost;
    node.store.tell(lost);

    EXPECT_TRUE(node.roundsUntil("connected"));
    EXPECT_EQ(*node.agent.known(), *host::readView(*store));
    join(8);
    EXPECT_TRUE(node.roundsUntil("changed [7+] [7+ 8+]"));
}

TEST_F(Cluster, CountsWhatIsBetweenTwoVersionsAsMissed)
{
    Node node(*store, 1, clock);
    node.agent.round();
    host::DpcView later{5, "w", {}};
    later.put({7, 1, host::kRunning, host::kNoFault, 0, 1, {}});

    store->create(host::kViewKey, host::toText(later));

    EXPECT_TRUE(node.roundsUntil("missed [] [7+]"));
}

TEST_F(Cluster, FollowsAStoreThatWasPutBackToAnEarlierState)
{
    host::StoreSettings settings;
    settings.file = dir.file("earlier.db");
    settings.clock = clock;
    const auto earlier = host::openStore(settings);
    host::joinClient(*earlier, {9, 1, 3s, {}});
    Node node(*store, 1, clock);
    node.agent.round();
    join(7);
    join(8);
    ASSERT_TRUE(node.roundsUntil("changed [7+] [7+ 8+]"));
    node.store.become(*earlier);

    node.agent.fetchView();
    node.agent.followFetched();
    host::joinClient(*earlier, {10, 1, 3s, {}});

    EXPECT_TRUE(node.roundsUntil("changed [9+] [9+ 10+]"));
    EXPECT_EQ(std::ranges::count(node.told, "missed [7+ 8+] [9+]"), 1);
}

TEST_F(Cluster, LeavesAStoredViewThatIsNoneAlone)
{
    Node node(*store, 1, clock);
    node.agent.round();

    store->create(host::kViewKey, R"({"version": 1, "writer": "x", "clients": [{"ls": 1}]})");
    store->create(host::kCommandKey, R"({"type": 1})");

    ASSERT_TRUE(node.roundsUntil("command 1"));
    EXPECT_THAT(node.agent.known()->clients, IsEmpty());
    EXPECT_THAT(recorded::lines(),
                ElementsAre(testing::StartsWith("3 cluster: the stored view of the clients is not one: ")));
}

// ---- the view as text

TEST(View, IsTheSameAfterItWasText)
{
    host::DpcView view{12, "w", {}};
    view.put({9, 100, host::kFaulty, host::kHeartBreak, 3, 2, {{"ip", "10.0.0.1"}, {"ip2", "10.0.0.2@10.0.0.3"}}});
    view.put({3, UINT64_MAX, host::kRunning, host::kNoFault, 0, 1, {}});

    EXPECT_EQ(host::parseDpcView(host::toText(view)), view);
}

TEST(View, IsRefusedWhenItsTextIsNone)
{
    for (const char *text : {"", "[]", "{}", R"({"version": 1, "writer": "", "clients": 3})",
                             R"({"version": -1, "writer": "", "clients": []})"}) {
        EXPECT_THROW(host::parseDpcView(text), std::runtime_error) << text;
    }
    host::DpcView twice{1, "w", {}};
    twice.clients = {{5, 1, 0, 0, 0, 1, {}}, {5, 2, 0, 0, 0, 1, {}}};
    EXPECT_THROW(host::parseDpcView(host::toText(twice)), std::runtime_error);
    host::DpcView longName{1, "w", {}};
    longName.put({5, 1, 0, 0, 0, 1, {{std::string(32, 'n'), "v"}}});
    EXPECT_THROW(host::parseDpcView(host::toText(longName)), std::runtime_error);
}

TEST(View, GivesTheLibraryItsRecords)
{
    const host::DpcClient client{9,
                                 100,
                                 host::kFaulty,
                                 host::kHeartBreak,
                                 3,
                                 2,
                                 {{"ip", "10.0.0.1"}, {std::string(31, 'n'), std::string(255, 'v')}}};

    const cm_ls_entry entry = host::entryOf(client);

    EXPECT_EQ(entry.lsId, 9U);
    EXPECT_EQ(entry.sessionId, 100U);
    EXPECT_EQ(entry.rs, 1);
    EXPECT_EQ(host::faultReasonOf(entry), host::kHeartBreak);
    EXPECT_STREQ(entry.attrs[0].name, "ip");
    EXPECT_STREQ(entry.attrs[0].value, "10.0.0.1");
    EXPECT_EQ(entry.attrs[0].valueLen, 9U);
    EXPECT_EQ(entry.attrs[1].valueLen, 256U);
    EXPECT_STREQ(entry.attrs[2].name, "");
}

} // namespace
