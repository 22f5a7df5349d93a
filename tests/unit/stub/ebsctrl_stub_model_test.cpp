// Random look-ups, moves, migrations and failbacks on the shard view against a plain model of it, with memory and the
// queue failing at times. A failure names its seed; SHARD_MODEL_SEED=<seed> runs that one alone.
#include "ebsctrl_stub_handlers.h"

#include <cstdlib>
#include <deque>
#include <random>

using shard::kNone;
using shard::Texts;

namespace {

constexpr uint64_t kSeedsEach = 500; // of each of the processes among which the seeds are spread
constexpr int kOperations = 40;

// Which allocation and which submission of an operation fail; 0 = none.
struct Faults {
    uint64_t allocation = 0;
    uint64_t submission = 0;
    uint64_t allocations = 0;
    uint64_t submissions = 0;

    bool allocate() { return ++allocations != allocation; }
    bool enqueue() { return ++submissions != submission; }
};

struct Shard {
    uint32_t lsId = 0;
    uint32_t status = 0;
    uint32_t takeoverLs = 0;
};

// What the view should be, kept in the plainest way.
class Model {
public:
    using Hash = std::function<uint32_t(uint64_t, uint32_t)>;

    Model(std::vector<Shard> table, size_t nodes, Hash hash, uint32_t local)
        : shards(std::move(table)), free_(nodes), hash_(std::move(hash)), local_(local)
    {
    }

    struct Node {
        uint32_t fspId;
        uint32_t shardId;
        uint64_t version;
    };

    Node *find(uint32_t fspId)
    {
        for (Node &node : buckets_[hash_(fspId, 8)]) {
            if (node.fspId == fspId) {
                return &node;
            }
        }
        return nullptr;
    }

    Node *lookUp(uint32_t fspId)
    {
        if (Node *node = find(fspId)) {
            return node;
        }
        if (free_ == 0) {
            return nullptr;
        }
        --free_;
        auto &bucket = buckets_[hash_(fspId, 8)];
        bucket.push_back({fspId, hash_(fspId, static_cast<uint32_t>(shards.size())), 0});
        return &bucket.back();
    }

    uint32_t shardOf(uint32_t lsId) const
    {
        for (uint32_t i = 0; i < shards.size(); ++i) {
            if (shards[i].lsId == lsId) {
                return i;
            }
        }
        return kNone;
    }

    uint32_t nextLs(uint32_t shardId) const
    {
        return shardId < shards.size() ? shards[(shardId + 1) % shards.size()].lsId : kNone;
    }

    uint32_t migrate(uint32_t src, uint32_t dst, int32_t failback, Faults &faults)
    {
        const uint32_t from = shardOf(src);
        const uint32_t to = shardOf(dst);
        if (from == kNone || to == kNone) {
            return 1;
        }
        if (nodes() == 0) {
            return 0;
        }
        if (!faults.allocate()) {
            return 1;
        }
        Texts records;
        for (auto &bucket : buckets_) {
            for (Node &node : bucket) {
                if (node.shardId == from) {
                    node.shardId = to;
                    ++node.version;
                    records.push_back(recordOf(node.fspId, to, src, dst));
                }
            }
        }
        if (!faults.allocate() || !faults.allocate()) {
            return 1;
        }
        if (local_ == src && !submit({moved("moveout", records)}, faults)) {
            return 1;
        }
        if (failback == 0) {
            shards[from].status = 1;
            shards[from].takeoverLs = dst;
            if (!submit(notices(5, src), faults)) {
                return 1;
            }
        }
        if (!submit({"notifyCall(1, 0, 0)"}, faults) ||
            (local_ == dst && !submit({moved("movein", records)}, faults))) {
            return 1;
        }
        if (failback != 1) {
            return 0;
        }
        shards[to].status = 0;
        shards[to].takeoverLs = kNone;
        return submit(notices(6, dst), faults) ? 0 : 1;
    }

    uint32_t modify(uint32_t fspId, uint32_t dst, Faults &faults)
    {
        const uint32_t to = shardOf(dst);
        Node *node = to == kNone ? nullptr : lookUp(fspId);
        if (node == nullptr) {
            return 1;
        }
        if (node->shardId == to) {
            return 0;
        }
        const uint32_t src = shards[node->shardId].lsId;
        node->shardId = to;
        ++node->version;
        if (!faults.allocate() || !faults.allocate() || !faults.allocate()) {
            return 1;
        }
        const Texts records = {recordOf(fspId, to, src, dst)};
        return (local_ != src || submit({moved("moveout", records)}, faults)) &&
                       submit({"notifyCall(1, 0, 0)"}, faults) &&
                       (local_ != dst || submit({moved("movein", records)}, faults))
                   ? 0
                   : 1;
    }

    size_t nodes() const
    {
        size_t count = 0;
        for (const auto &bucket : buckets_) {
            count += bucket.size();
        }
        return count;
    }

    Texts index() const
    {
        Texts texts;
        for (size_t i = 0; i < 8; ++i) {
            for (const Node &node : buckets_[i]) {
                texts.push_back(std::to_string(i) + ": " + std::to_string(node.fspId) + " on " +
                                std::to_string(node.shardId) + " v" + std::to_string(node.version));
            }
        }
        return texts;
    }

    std::string display() const
    {
        std::string text = "NODE                    FSP                     Version             \n";
        char line[100];
        for (const auto &bucket : buckets_) {
            for (const Node &node : bucket) {
                snprintf(line, sizeof line, "%-24u%-24u%-20llu\n",
                         node.shardId < shards.size() ? shards[node.shardId].lsId : 0, node.fspId,
                         static_cast<unsigned long long>(node.version));
                text += line;
            }
        }
        return text;
    }

    std::vector<Shard> shards;
    std::deque<Texts> jobs; // what each queued handler will tell
    size_t lostTasks = 0;

private:
    static std::string recordOf(uint32_t fspId, uint32_t shardId, uint32_t src, uint32_t dst)
    {
        return std::to_string(fspId) + " to " + std::to_string(shardId) + " of " + std::to_string(src % 65536) + "-" +
               std::to_string(dst % 65536);
    }
    static std::string moved(const std::string &name, const Texts &records)
    {
        std::string text;
        for (const auto &record : records) {
            text += (text.empty() ? "" : ", ") + record;
        }
        return name + "(" + text + ")";
    }
    static Texts notices(uint32_t event, uint32_t lsId)
    {
        const std::string rest = ", " + std::to_string(event) + ", " + std::to_string(lsId) + ")";
        return {"notifyCall(2" + rest, "notifyCall(1" + rest};
    }
    bool submit(const Texts &told, Faults &faults)
    {
        if (!faults.allocate()) {
            return false;
        }
        if (!faults.enqueue()) {
            ++lostTasks;
            return false;
        }
        jobs.push_back(told);
        return true;
    }

    std::vector<Node> buckets_[8];
    size_t free_;
    Hash hash_;
    uint32_t local_;
};

class ShardModel : public shard::Handlers, public testing::WithParamInterface<uint64_t> {
protected:
    uint32_t random(uint32_t limit) { return static_cast<uint32_t>(random_() % limit); }
    uint32_t someLs()
    {
        static constexpr uint32_t kIds[] = {0, 1, 2, 3, 70001, 4294967294U};
        return kIds[random(6)];
    }
    uint32_t someFsp() { return random(4) == 0 ? 4294967280U + random(16) : random(24); }

    // A list of one to seven pairs, bad ones among them, and the shards that come of it.
    std::string someList(std::vector<Shard> &shards)
    {
        std::string list;
        const uint32_t count = 1 + random(7);
        for (uint32_t i = 0; i < count; ++i) {
            list += i == 0 ? "" : ",";
            if (random(6) == 0) {
                list += "x";
                continue;
            }
            const uint32_t lsId = someLs();
            shards.resize(i + 1);
            shards[i].lsId = lsId;
            list += std::to_string(lsId) + ":a";
        }
        return list;
    }

    // Leaves only the first so many nodes free.
    static void limitNodes(size_t nodes)
    {
        list_link *last = nodes == 0 ? &shardViewList.free_head : &shardNodeEntry[nodes - 1].free_link;
        last->next = &shardViewList.free_head;
        shardViewList.free_head.prev = last;
    }

    Model begin(uint64_t seed)
    {
        View::SetUp();
        shard::loseMoves(false);
        random_.seed(seed);
        const uint64_t factor = random_() | 1;
        const auto hash = [factor](uint64_t value, uint32_t modulus) {
            return modulus == 0 ? 0 : static_cast<uint32_t>(((value * factor) >> 32) % modulus);
        };
        fake::setHash(hash);
        std::vector<Shard> shards;
        start(someList(shards));
        const size_t nodes = random(3) == 0 ? 1 + random(12) : 4096;
        limitNodes(nodes);
        const uint32_t local = someLs();
        shard::setLocalLs(local);
        return {shards, nodes, hash, local};
    }

    Faults someFaults(uint32_t allocations, uint32_t submissions)
    {
        Faults faults;
        if (random(4) == 0) {
            faults.allocation = 1 + random(allocations);
            fake::failAllocation(faults.allocation);
        } else if (random(4) == 0) {
            faults.submission = 1 + random(submissions);
            shard::refuseSubmission(faults.submission);
        }
        return faults;
    }
    static void endFaults()
    {
        fake::failAllocation(0);
        shard::refuseSubmission(0);
    }

    void lookUp(Model &model)
    {
        const uint32_t fsp = someFsp();
        const Model::Node *node = model.lookUp(fsp);
        switch (random(3)) {
        case 0:
            EXPECT_EQ(FspGetShardIdByFsp(fsp), node != nullptr ? node->shardId : kNone);
            break;
        case 1:
            EXPECT_EQ(FspGetNextLsIdByFsp(fsp), model.nextLs(node != nullptr ? node->shardId : kNone));
            break;
        default: {
            uint32_t shardId = 77;
            uint64_t version = 77;
            EXPECT_EQ(FspGetShardInfoByFsp(fsp, &shardId, &version), node != nullptr ? 0U : 1U);
            EXPECT_EQ(shardId, node != nullptr ? node->shardId : 77);
            EXPECT_EQ(version, node != nullptr ? node->version : 77);
            if (node == nullptr) {
                kvos_rwlock_write_unlock(&shardViewList.lock); // which stays held on purpose
            }
        }
        }
    }

    void lookUpLs(Model &model)
    {
        const uint32_t lsId = someLs();
        const uint32_t shardId = model.shardOf(lsId);
        EXPECT_EQ(FspGetShardIdByLsId(lsId), shardId);
        EXPECT_EQ(FspGetNextLsIdByLs(lsId), model.nextLs(shardId));
        EXPECT_EQ(FspGetSrcLsByLsId(lsId), shardId != kNone ? model.shards[shardId].takeoverLs : kNone);
    }

    void place(Model &model)
    {
        const uint32_t fsp = someFsp();
        const Model::Node *node = model.find(fsp);
        shard_info info{77, {}, 77, 0, 0, 77};
        EXPECT_EQ(stubGetShardInfo(static_cast<int32_t>(fsp), &info), node != nullptr ? 0U : 1U);
        EXPECT_EQ(info.fspId, node != nullptr ? fsp : 77);
        EXPECT_EQ(info.version, node != nullptr ? node->version : 77);
        if (node != nullptr && node->shardId < model.shards.size()) {
            EXPECT_EQ(info.lsId, model.shards[node->shardId].lsId);
        }
    }

    void migrate(Model &model)
    {
        const uint32_t src = someLs();
        const uint32_t dst = someLs();
        const auto failback = static_cast<int32_t>(random(3));
        Faults faults = someFaults(8, 4);
        EXPECT_EQ(FspMigrationNode(src, dst, failback), model.migrate(src, dst, failback, faults));
        endFaults();
    }

    void modify(Model &model)
    {
        const uint32_t fsp = someFsp();
        const uint32_t dst = someLs();
        // A later submission that is refused leaves handlers behind whose event is gone.
        Faults faults = someFaults(4, 1);
        EXPECT_EQ(FspModifyShardView(fsp, dst), model.modify(fsp, dst, faults));
        endFaults();
    }

    void handleOne(Model &model)
    {
        const size_t before = fake::calls().size();
        EXPECT_EQ(fake::runJob(), !model.jobs.empty());
        if (model.jobs.empty()) {
            return;
        }
        const Texts all = fake::calls();
        EXPECT_EQ(shard::toldAmong({all.begin() + static_cast<ptrdiff_t>(before), all.end()}), model.jobs.front());
        model.jobs.pop_front();
    }

    void step(Model &model)
    {
        switch (random(12)) {
        case 0:
        case 1:
        case 2:
            return lookUp(model);
        case 3:
            return lookUpLs(model);
        case 4:
            return place(model);
        case 5:
        case 6:
            return modify(model);
        case 7:
        case 8:
        case 9:
            return migrate(model);
        default:
            return handleOne(model);
        }
    }

    static void expectSame(const Model &model)
    {
        ASSERT_EQ(shard::index(), model.index());
        ASSERT_EQ(shardViewList.node_count, model.nodes());
        ASSERT_EQ(fake::queuedJobs(), model.jobs.size());
        ASSERT_EQ(fake::liveBlocks("FspSubmitLwt"), model.jobs.size() + model.lostTasks);
        ASSERT_EQ(fake::locksHeld(), 0);
        for (size_t i = 0; i < model.shards.size(); ++i) {
            ASSERT_EQ(g_shardviewTbl.entries[i].lsId, model.shards[i].lsId);
            ASSERT_EQ(shardViewStatus[i].status, model.shards[i].status);
            ASSERT_EQ(shardViewStatus[i].takeoverLs, model.shards[i].takeoverLs);
        }
    }

    void run(uint64_t seed)
    {
        Model model = begin(seed);
        ASSERT_EQ(g_shardviewTbl.number_of_shards, model.shards.size());
        for (int operation = 0; operation < kOperations && !HasFailure(); ++operation) {
            SCOPED_TRACE("SHARD_MODEL_SEED=" + std::to_string(seed) + ", operation " + std::to_string(operation));
            step(model);
            expectSame(model);
        }
        char text[8192];
        FspShowShardView(text, sizeof text);
        EXPECT_EQ(text, model.display()) << "SHARD_MODEL_SEED=" << seed;
        while (!model.jobs.empty() && !HasFailure()) {
            handleOne(model);
        }
        EXPECT_EQ(fake::liveBlocks(), model.lostTasks) << "SHARD_MODEL_SEED=" << seed;
    }

    std::mt19937_64 random_;
};

TEST_P(ShardModel, AgreesWithTheViewAfterEveryOperation)
{
    uint64_t first = GetParam() * kSeedsEach + 1;
    uint64_t last = first + kSeedsEach - 1;
    if (const char *only = std::getenv("SHARD_MODEL_SEED")) {
        first = last = std::strtoull(only, nullptr, 10);
    }
    for (uint64_t seed = first; seed <= last && !HasFailure(); ++seed) {
        run(seed);
    }
}

INSTANTIATE_TEST_SUITE_P(Seeds, ShardModel, testing::Range<uint64_t>(0, 6));

} // namespace
