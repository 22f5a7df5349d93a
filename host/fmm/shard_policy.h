/*
 * When to move the FSPs of a storage LS away and back: away to the next LS when it is reported faulty, back when it has
 * been running again for a set time. Decides only; time and reports are handed in, and nothing is moved here.
 *
 * One thread at a time.
 */
#pragma once

#include "fmm/shard_table.h"
#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace host {

enum class PolicyMode : uint8_t {
    off,
    dryRun, // decides, and moves nothing
    on,
};

struct PolicyStep {
    enum class Action : uint8_t { migrate, failBack };

    Action action = Action::migrate;
    uint32_t lsId = 0; // that was reported
    uint32_t from = 0;
    uint32_t to = 0;
    uint64_t fsps = 0; // that would move
    // When it is to be done; nothing as long as something that may change stands against it.
    std::optional<std::chrono::steady_clock::time_point> due = {};
    std::string why;
};

struct StorageReport {
    bool faulty = false;
    std::chrono::steady_clock::time_point since; // of this state
    bool moved = false;                          // its FSPs are away by this policy's doing
};

constexpr std::chrono::seconds kDefaultSteady{60};
constexpr std::chrono::seconds kMaxSteady{86400};
// After a move that failed.
constexpr std::chrono::seconds kPolicyRetry{5};

class ShardPolicy {
public:
    using Time = std::chrono::steady_clock::time_point;
    using Index = std::vector<IndexedFsp>;

    PolicyMode mode() const { return mode_; }
    std::chrono::seconds steady() const { return steady_; }
    // What was announced in a dry run is announced again.
    void setMode(PolicyMode mode);
    // How long an LS has to run before its FSPs go back.
    void setSteady(std::chrono::seconds steady) { steady_ = steady; }

    // An LS failed or runs again. The same state again changes nothing, and who never failed needs no record.
    void report(uint32_t lsId, bool faulty, Time now);
    // By LS id.
    const std::map<uint32_t, StorageReport> &reports() const { return reports_; }

    // Everything that there is to do, whatever the mode, in the order of the shards.
    std::vector<PolicyStep> plan(const std::vector<Shard> &shards, const Index &fsps, Time now) const;
    // The first step of the plan that is due, unless it failed just now or was announced already.
    std::optional<PolicyStep> next(const std::vector<Shard> &shards, const Index &fsps, Time now) const;

    // What became of a step.
    void moved(const PolicyStep &step);
    void failed(const PolicyStep &step, Time now);
    void announced(const PolicyStep &step);
    // An operator moved the FSPs of an LS: where they go next is up to him.
    void movedByHand(uint32_t lsId);

private:
    struct Pause {
        Time until;             // of retries
        bool announced = false; // in this dry run, since the last report
    };

    std::optional<PolicyStep> away(const Shard &shard, const std::vector<Shard> &shards, const Index &fsps) const;
    std::optional<PolicyStep> back(const Shard &shard, const std::vector<Shard> &shards, const Index &fsps,
                                   Time now) const;
    const Shard *destination(const Shard &shard, const std::vector<Shard> &shards) const;
    bool usable(const Shard &shard) const;

    PolicyMode mode_ = PolicyMode::off;
    std::chrono::seconds steady_ = kDefaultSteady;
    std::map<uint32_t, StorageReport> reports_;
    std::map<uint32_t, Pause> pauses_; // by LS id
};

} // namespace host
