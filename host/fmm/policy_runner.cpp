// Owns the policy and its thread. The lock guards the policy and the wish to stop; it is not held while FSPs move.

#include "fmm/policy_runner.h"

#include "fmm/shard_moves.h"
#include "platform/log.h"
#include <common/counted.h>
#include <condition_variable>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;
using Action = PolicyStep::Action;

// Between two looks at the shards while an LS is on report: FSPs come to a faulty LS without anybody telling, and a
// time runs off.
constexpr std::chrono::milliseconds kLookPeriod{500};

std::mutex s_lock;
std::condition_variable s_changed;
ShardPolicy s_policy;
bool s_stop = false;
bool s_news = false; // since the thread looked last
// The LS that the step under way moves, until an operator moves the FSPs of that LS too.
std::optional<uint32_t> s_ownMove;
std::thread s_thread;

void wake()
{
    s_news = true;
    s_changed.notify_all();
}

std::string nameOf(const PolicyStep &step)
{
    return step.action == Action::migrate ? "MIGRATE" : "FAIL_BACK";
}

void tell(const PolicyStep &step, const std::string &name, const std::string &outcome)
{
    const std::string text =
        outcome + " from LS " + std::to_string(step.from) + " to LS " + std::to_string(step.to) + ": " + step.why;
    HOST_LOG(NASCTRL_LOG_PROGRESS, "policy: %s", text.c_str());
    recordEvent({.module = "POLICY", .name = name, .data = step.lsId, .text = text});
}

// True when it was done.
bool move(const PolicyStep &step)
{
    const auto reason = step.action == Action::migrate ? MoveReason::fault : MoveReason::failback;
    try {
        const MoveReport report = migrateLs(step.from, step.to, reason);
        if (report.result == 0 && !report.emptyIndex) {
            tell(step, nameOf(step), common::counted(report.moved ? report.moved->size() : step.fsps, "FSP"));
            return true;
        }
        tell(step, nameOf(step) + "_FAILED", "the library moved nothing, or not all,");
    } catch (const IndexBusy &error) {
        tell(step, nameOf(step) + "_FAILED", std::string(error.what()) + ", nothing moved");
    }
    return false;
}

// With the lock held but for the move itself.
void take(const PolicyStep &step, std::unique_lock<std::mutex> &hold)
{
    if (s_policy.mode() == PolicyMode::dryRun) {
        s_policy.announced(step);
        tell(step, "WOULD_" + nameOf(step), common::counted(step.fsps, "FSP") + " would move");
        return;
    }
    s_ownMove = step.lsId;
    hold.unlock();
    const bool done = move(step);
    hold.lock();
    if (!done) {
        s_policy.failed(step, Clock::now());
    } else if (s_ownMove) {
        s_policy.moved(step);
    }
}

// With the lock held. False when there is nothing to do yet.
bool doNext(std::unique_lock<std::mutex> &hold)
{
    if (s_policy.mode() == PolicyMode::off || s_policy.reports().empty()) {
        return false;
    }
    const auto fsps = readFspIndex();
    const auto step = fsps ? s_policy.next(readShards(), *fsps, Clock::now()) : std::nullopt;
    if (step) {
        take(*step, hold);
    }
    return step.has_value();
}

// With the lock held. False also without memory, which a later look may have.
bool tryNext(std::unique_lock<std::mutex> &hold)
{
    try {
        return doNext(hold);
    } catch (const std::bad_alloc &) {
        if (!hold.owns_lock()) {
            hold.lock();
        }
        HOST_LOG(NASCTRL_LOG_ERROR, "policy: no memory for the next step");
        return false;
    }
}

void run()
{
    std::unique_lock hold(s_lock);
    while (!s_stop) {
        s_news = false;
        if (tryNext(hold)) {
            continue;
        }
        const auto changed = [] { return s_stop || s_news; };
        if (s_policy.mode() == PolicyMode::off || s_policy.reports().empty()) {
            s_changed.wait(hold, changed);
        } else {
            s_changed.wait_for(hold, kLookPeriod, changed);
        }
    }
}

} // namespace

void startShardPolicy()
{
    s_stop = false;
    s_thread = std::thread(run);
}

void stopShardPolicy()
{
    {
        const std::lock_guard hold(s_lock);
        s_stop = true;
        wake();
    }
    if (s_thread.joinable()) {
        s_thread.join();
    }
}

void reportStorageLs(uint32_t lsId, bool faulty)
{
    if (shardOf(readShards(), lsId) == nullptr) {
        return;
    }
    const std::lock_guard hold(s_lock);
    s_policy.report(lsId, faulty, Clock::now());
    wake();
}

void noteMoveByHand(uint32_t lsId)
{
    const std::lock_guard hold(s_lock);
    s_policy.movedByHand(lsId);
    if (s_ownMove == lsId) {
        s_ownMove.reset();
    }
}

PolicySettings policySettings()
{
    const std::lock_guard hold(s_lock);
    return {s_policy.mode(), s_policy.steady()};
}

void setPolicy(const PolicySettings &settings)
{
    const std::lock_guard hold(s_lock);
    s_policy.setMode(settings.mode);
    s_policy.setSteady(settings.steady);
    wake();
}

PolicyView policyView()
{
    const auto fsps = readFspIndex();
    const std::lock_guard hold(s_lock);
    PolicyView view{{s_policy.mode(), s_policy.steady()}, s_policy.reports(), std::nullopt, Clock::now()};
    if (fsps) {
        view.plan = s_policy.plan(readShards(), *fsps, view.now);
    }
    return view;
}

} // namespace host
