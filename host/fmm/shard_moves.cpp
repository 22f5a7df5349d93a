// Owns the lock that lets moves through one at a time. It is taken before every lock of the library and held until what
// a move leads to was told.

#include "fmm/shard_moves.h"

#include "notify/notify.h"
#include <algorithm>
#include <functional>
#include <map>
#include <nasctrl/config.h>
#include <nasctrl/shard_view.h>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;
using Index = std::vector<IndexedFsp>;

std::mutex s_lock;

constexpr int32_t kFault = 0; // what FspMigrationNode calls failback
constexpr int32_t kFailback = 1;

Index indexForAMove()
{
    std::optional<Index> index = readFspIndex();
    if (!index || !canWriteFspIndex()) {
        throw IndexBusy();
    }
    return std::move(*index);
}

uint32_t startShard(uint32_t fsp)
{
    return hash_u64_id(fsp, g_shardviewTbl.number_of_shards);
}

// By the versions, which count the moves. A new FSP began on the shard of its hash.
std::vector<MovedFsp> movedBetween(const Index &before, const Index &after)
{
    std::map<uint32_t, IndexedFsp> known;
    for (const IndexedFsp &each : before) {
        known.emplace(each.fsp, each);
    }
    std::vector<MovedFsp> moved;
    for (const IndexedFsp &each : after) {
        const auto found = known.find(each.fsp);
        const IndexedFsp old = found != known.end() ? found->second : IndexedFsp{each.fsp, startShard(each.fsp), 0, 0};
        if (each.version != old.version) {
            moved.push_back({each.fsp, old.shard, each.shard, each.version});
        }
    }
    return moved;
}

void expectBoth(std::vector<Expected> &expected, const char *name, uint64_t data = 0)
{
    expected.push_back({"DLG", name, data});
    expected.push_back({"FMM", name, data});
}

// What a move from one LS to another is told as, but for the notice of a fault or a recovery.
std::vector<Expected> noticesOf(uint32_t from, uint32_t to)
{
    std::vector<Expected> expected = {{"FMM", "SHARD_CHG"}};
    if (getLocalLsID() == from) {
        expectBoth(expected, "VNODE_MOVEOUT");
    }
    if (getLocalLsID() == to) {
        expectBoth(expected, "VNODE_MOVEIN");
    }
    return expected;
}

MoveReport report(const Index &before, const std::vector<Expected> &expected, const std::function<uint32_t()> &call)
{
    MoveReport made;
    made.emptyIndex = before.empty();
    const TellingWatch watch;
    const auto begin = Clock::now();
    made.result = call();
    made.took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - begin);
    // A call that failed has told some at most, and nobody knows which.
    made.telling = watch.wait(expected, made.result == NAS_OK ? kTellingPatience : std::chrono::milliseconds(0));
    if (const auto after = readFspIndex()) {
        made.moved = movedBetween(before, *after);
    }
    return made;
}

} // namespace

MoveReport migrateLs(uint32_t from, uint32_t to, MoveReason reason)
{
    const std::lock_guard one(s_lock);
    const Index before = indexForAMove();
    std::vector<Expected> expected;
    if (!before.empty()) {
        expected = noticesOf(from, to);
        const bool fault = reason == MoveReason::fault;
        expectBoth(expected, fault ? "NODE_FAULT" : "NODE_RECOVER", fault ? from : to);
    }
    return report(before, expected,
                  [&] { return FspMigrationNode(from, to, reason == MoveReason::fault ? kFault : kFailback); });
}

MoveReport moveFsp(uint32_t fsp, uint32_t to)
{
    const std::lock_guard one(s_lock);
    const Index before = indexForAMove();
    const std::vector<Shard> shards = readShards();
    const auto known = std::ranges::find(before, fsp, &IndexedFsp::fsp);
    const uint32_t from = known != before.end() ? known->shard : startShard(fsp);
    const Shard *target = shardOf(shards, to);
    std::vector<Expected> expected;
    if (target != nullptr && target->number != from && from < shards.size()) {
        expected = noticesOf(shards[from].lsId, to);
    }
    MoveReport made = report(before, expected, [&] { return FspModifyShardView(fsp, to); });
    made.emptyIndex = false;
    return made;
}

std::unique_lock<std::mutex> holdMoves()
{
    return std::unique_lock(s_lock);
}

} // namespace host
