/*
 * Moves of FSPs through the library, one at a time, each with an account of what moved, who was told of it and when.
 *
 * On plain threads only, because they wait for what is told.
 */
#pragma once

#include "fmm/shard_table.h"
#include "notify/told.h"
#include <chrono>
#include <mutex>
#include <stdexcept>
#include <vector>

namespace host {

// Somebody holds the index's lock; nothing was done.
class IndexBusy : public std::runtime_error {
public:
    IndexBusy() : std::runtime_error("the lock of the shard index is held") {}
};

struct MovedFsp {
    uint32_t fsp;
    uint32_t fromShard;
    uint32_t toShard;
    uint64_t version; // after the move

    bool operator==(const MovedFsp &) const = default;
};

struct MoveReport {
    uint32_t result = 0;                        // of the library's call: 0, or 1 when it failed, the log tells why
    bool emptyIndex = false;                    // there was no FSP to move, so nothing was marked or told
    std::optional<std::vector<MovedFsp>> moved; // nothing when the index was busy afterwards
    std::chrono::microseconds took{0};          // until the library's call came back
    TellingOutcome telling;                     // what the moved FSPs led to
};

// All FSPs of from's shard to to's. A fault marks from's shard, a failback clears to's. Throws IndexBusy. LS ids that
// the table does not have make the result 1.
enum class MoveReason { fault, failback };
MoveReport migrateLs(uint32_t from, uint32_t to, MoveReason reason);

// One FSP, which gets into the index if need be.
MoveReport moveFsp(uint32_t fsp, uint32_t to);

// Keeps migrateLs and moveFsp waiting as long as it lives, for a move that a command of the library makes.
[[nodiscard]] std::unique_lock<std::mutex> holdMoves();

} // namespace host
