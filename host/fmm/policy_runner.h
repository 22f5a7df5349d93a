/*
 * The shard policy at work in a node: a thread that does what the policy decides, and the place where storage LSs are
 * reported. Each step becomes an event of module POLICY: MIGRATE and FAIL_BACK when it was done, MIGRATE_FAILED and
 * FAIL_BACK_FAILED when it was not, WOULD_MIGRATE and WOULD_FAIL_BACK in a dry run; its data is the reported LS.
 */
#pragma once

#include "fmm/shard_policy.h"

namespace host {

// The thread, once the shard view is built. While the policy is off it sleeps.
void startShardPolicy();
// Ends it, after the step that it is at.
void stopShardPolicy();

// A storage LS failed, or runs again; one that serves no shard is passed over. From any thread; never waits for a move.
void reportStorageLs(uint32_t lsId, bool faulty);

// An operator moved the FSPs of an LS away or back; the policy leaves it to him to move them on.
void noteMoveByHand(uint32_t lsId);

struct PolicySettings {
    PolicyMode mode = PolicyMode::off;
    std::chrono::seconds steady = kDefaultSteady;
};

// From any thread, as the rest.
PolicySettings policySettings();
void setPolicy(const PolicySettings &settings);

struct PolicyView {
    PolicySettings settings;
    std::map<uint32_t, StorageReport> reports;   // by LS id
    std::optional<std::vector<PolicyStep>> plan; // nothing when the index is busy
    std::chrono::steady_clock::time_point now;   // to which the times relate
};

PolicyView policyView();

} // namespace host
