#include "fmm/shard_policy.h"

#include <algorithm>

namespace host {

namespace {

using std::chrono::duration_cast;
using std::chrono::seconds;

std::string ls(uint32_t lsId)
{
    return "LS " + std::to_string(lsId);
}

std::string forSeconds(ShardPolicy::Time::duration time)
{
    return std::to_string(duration_cast<seconds>(time).count()) + " s";
}

uint64_t countOn(const ShardPolicy::Index &fsps, const Shard &shard)
{
    return static_cast<uint64_t>(std::ranges::count(fsps, shard.number, &IndexedFsp::shard));
}

} // namespace

void ShardPolicy::setMode(PolicyMode mode)
{
    mode_ = mode;
    for (auto &[lsId, pause] : pauses_) {
        pause.announced = false;
    }
}

void ShardPolicy::report(uint32_t lsId, bool faulty, Time now)
{
    if (!faulty && !reports_.contains(lsId)) {
        return;
    }
    const auto [found, isNew] = reports_.try_emplace(lsId, StorageReport{faulty, now, false});
    if (isNew || found->second.faulty != faulty) {
        found->second.faulty = faulty;
        found->second.since = now;
        pauses_.erase(lsId);
    }
}

bool ShardPolicy::usable(const Shard &shard) const
{
    const auto found = reports_.find(shard.lsId);
    return !shard.faulty && (found == reports_.end() || !found->second.faulty);
}

// The LS that took over already, or the next one that runs, as the shards stand in a ring.
const Shard *ShardPolicy::destination(const Shard &shard, const std::vector<Shard> &shards) const
{
    const Shard *taker = shard.faulty ? shardOf(shards, shard.takeoverLs) : nullptr;
    if (taker != nullptr && usable(*taker)) {
        return taker;
    }
    for (size_t i = 1; i < shards.size(); ++i) {
        const Shard &candidate = shards[(shard.number + i) % shards.size()];
        // An LS is reached through its first shard only, and an empty one has none.
        const bool reached = shardOf(shards, candidate.lsId) == &candidate && !candidate.address.empty();
        if (reached && candidate.lsId != shard.lsId && usable(candidate)) {
            return &candidate;
        }
    }
    return nullptr;
}

// A shard that is marked already is moved again when FSPs have come to it since.
std::optional<PolicyStep> ShardPolicy::away(const Shard &shard, const std::vector<Shard> &shards,
                                            const Index &fsps) const
{
    const uint64_t count = countOn(fsps, shard);
    if (fsps.empty() || (shard.faulty && count == 0)) {
        return std::nullopt;
    }
    PolicyStep step{.lsId = shard.lsId, .from = shard.lsId, .fsps = count, .why = ls(shard.lsId) + " is faulty"};
    const Shard *target = destination(shard, shards);
    if (target == nullptr) {
        step.to = shard.lsId;
        step.why += ", and no other LS is there to take over";
        return step;
    }
    step.to = target->lsId;
    step.due = reports_.at(shard.lsId).since;
    step.why += ", and " + ls(step.to) + " is the next that runs";
    return step;
}

std::optional<PolicyStep> ShardPolicy::back(const Shard &shard, const std::vector<Shard> &shards, const Index &fsps,
                                            Time now) const
{
    const StorageReport &report = reports_.at(shard.lsId);
    const Shard *taker = shard.faulty ? shardOf(shards, shard.takeoverLs) : nullptr;
    if (!report.moved || taker == nullptr) {
        return std::nullopt;
    }
    PolicyStep step{.action = PolicyStep::Action::failBack,
                    .lsId = shard.lsId,
                    .from = taker->lsId,
                    .to = shard.lsId,
                    .fsps = countOn(fsps, *taker),
                    .why = ls(shard.lsId) + " is back"};
    // What it took over went on to a third LS, from where it would come back to the wrong one.
    if (taker->faulty) {
        step.why += ", but " + ls(taker->lsId) + ", which took over, is away itself";
        return step;
    }
    step.due = report.since + steady_;
    const auto runs = now - report.since;
    step.why += runs >= steady_ ? ", and steady for " + forSeconds(runs)
                                : ", but has run for " + forSeconds(runs) + " of " + forSeconds(steady_) + " only";
    return step;
}

std::vector<PolicyStep> ShardPolicy::plan(const std::vector<Shard> &shards, const Index &fsps, Time now) const
{
    std::vector<PolicyStep> steps;
    for (const Shard &shard : shards) {
        const auto found = reports_.find(shard.lsId);
        if (found == reports_.end() || shardOf(shards, shard.lsId) != &shard) {
            continue;
        }
        const auto step = found->second.faulty ? away(shard, shards, fsps) : back(shard, shards, fsps, now);
        if (step) {
            steps.push_back(*step);
        }
    }
    return steps;
}

std::optional<PolicyStep> ShardPolicy::next(const std::vector<Shard> &shards, const Index &fsps, Time now) const
{
    for (const PolicyStep &step : plan(shards, fsps, now)) {
        const auto pause = pauses_.find(step.lsId);
        const bool paused = pause != pauses_.end() && (now < pause->second.until || pause->second.announced);
        if (step.due && *step.due <= now && !paused) {
            return step;
        }
    }
    return std::nullopt;
}

void ShardPolicy::moved(const PolicyStep &step)
{
    reports_[step.lsId].moved = step.action == PolicyStep::Action::migrate;
}

void ShardPolicy::failed(const PolicyStep &step, Time now)
{
    pauses_[step.lsId].until = now + kPolicyRetry;
}

void ShardPolicy::announced(const PolicyStep &step)
{
    pauses_[step.lsId].announced = true;
}

void ShardPolicy::movedByHand(uint32_t lsId)
{
    const auto found = reports_.find(lsId);
    if (found != reports_.end()) {
        found->second.moved = false;
    }
}

} // namespace host
