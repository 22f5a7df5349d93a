/*
 * The library's shard view as the host reads it: the table of shards, and the index of FSPs under its own lock, for
 * which nobody waits long. A hold that is never given back costs the index and nothing else.
 *
 * From any thread but one that holds the index's lock.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace host {

struct Shard {
    uint32_t number;
    uint32_t lsId;
    std::string address;
    bool faulty;         // its FSPs were moved away
    uint32_t takeoverLs; // where to, while it is faulty
};

struct IndexedFsp {
    uint32_t fsp;
    uint32_t shard;
    uint32_t lsId; // of the shard
    uint64_t version;

    bool operator==(const IndexedFsp &) const = default;
};

// In the order of their numbers; none before the view is built.
std::vector<Shard> readShards();
// In the order in which the library prints them; nothing when the index is busy.
std::optional<std::vector<IndexedFsp>> readFspIndex();

// The shard on which the library serves an LS: its first. Null when the LS is not in the table.
inline const Shard *shardOf(const std::vector<Shard> &shards, uint32_t lsId)
{
    const auto found = std::ranges::find(shards, lsId, &Shard::lsId);
    return found == shards.end() ? nullptr : &*found;
}

// Whether the index's lock can be had by a writer, who waits for it without end.
bool canWriteFspIndex();

} // namespace host
