#include "fmm/shard_table.h"

#include "platform/locks.h"
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <nasctrl/shard_view.h>

namespace host {

namespace {

constexpr std::chrono::milliseconds kMaxWait{50};

// The library sets the status words without a lock.
uint32_t readWord(uint32_t &word)
{
    return std::atomic_ref(word).load(std::memory_order_relaxed);
}

uint32_t shardCount()
{
    return std::min<uint32_t>(g_shardviewTbl.number_of_shards, NAS_SHARDS_MAX);
}

const shard_node *nodeOf(const void *link)
{
    return reinterpret_cast<const shard_node *>(static_cast<const char *>(link) - offsetof(shard_node, bucket_link));
}

void collect(const list_link &bucket, std::vector<IndexedFsp> &fsps)
{
    // An index that was never built has heads of zeros.
    for (const void *link = bucket.next; link != nullptr && link != &bucket;
         link = static_cast<const list_link *>(link)->next) {
        const shard_node &node = *nodeOf(link);
        const uint32_t lsId = node.shardId < shardCount() ? g_shardviewTbl.entries[node.shardId].lsId : NAS_INVALID;
        fsps.push_back({node.fspId, node.shardId, lsId, node.version});
    }
}

} // namespace

std::vector<Shard> readShards()
{
    std::vector<Shard> shards;
    for (uint32_t i = 0; i < shardCount(); ++i) {
        shards.push_back({i, g_shardviewTbl.entries[i].lsId,
                          std::string(shard_addr_list[i], strnlen(shard_addr_list[i], NAS_SHARD_ADDR_SIZE)),
                          readWord(shardViewStatus[i].status) != NAS_SHARD_NORMAL,
                          readWord(shardViewStatus[i].takeoverLs)});
    }
    return shards;
}

std::optional<std::vector<IndexedFsp>> readFspIndex()
{
    const TimedReadHold hold(&shardViewList.lock, kMaxWait);
    if (!hold.held()) {
        return std::nullopt;
    }
    std::vector<IndexedFsp> fsps;
    for (const list_link &bucket : shardViewList.buckets) {
        collect(bucket, fsps);
    }
    return fsps;
}

bool canWriteFspIndex()
{
    const bool taken = writeLockInTime(&shardViewList.lock, kMaxWait);
    if (taken) {
        kvos_rwlock_write_unlock(&shardViewList.lock);
    }
    return taken;
}

} // namespace host
