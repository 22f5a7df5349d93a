/*
 * The host's side of the FMM events: what its components see is announced to the library, and what the library asks
 * the host for is kept on record.
 */
#pragma once

#include "notify/told.h"
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace host {

// Processes on record at once; a further one is only logged.
constexpr size_t kMaxFaultyProcesses = 4096;

struct FaultyProcess {
    uint32_t lsId;
    std::chrono::milliseconds age; // of its fault
};

struct FmmState {
    bool subscribed = false;           // the library wants to know of shard changes
    uint64_t shardChanges = 0;         // that were announced to it
    uint64_t recoveries = 0;           // processes whose work was reverted
    std::vector<FaultyProcess> faulty; // by LS id
};

// From any thread, as everything below.
FmmState fmmState();

// Shards changed owner. False, and nothing done, when the library has not subscribed.
bool announceShardChange();

// The process of an LS failed; it stays on record, with the time of its first fault, until its work is reverted.
void announceProcessFault(uint32_t lsId);
// It is back. The library tells FMM and then has its work reverted, on a light-weight thread.
void announceProcessRecovery(uint32_t lsId);

enum class FmmMove { vnodeIn, vnodeOut, shardIn, shardOut };

// A vnode or shard moves in or out, without records of what moves. Returns once DLG and FMM were told, or when that
// failed or takes longer than patience, of which the log tells; not from a light-weight thread.
void announceMove(FmmMove move, std::chrono::milliseconds patience = kTellingPatience);

} // namespace host
