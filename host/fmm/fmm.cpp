// Owns the record of faulty processes and the shard-change subscription. Its lock guards both and is not held while the
// library is called.

#include "fmm/fmm.h"

#include "platform/log.h"

#include <array>
#include <cerrno>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <nasctrl/fmm.h>
#include <nasctrl/host/fmm.h>
#include <new>
#include <semaphore.h>

namespace host {
namespace {

using Clock = std::chrono::steady_clock;

// How an LS id travels through the library, which only hands the pointer back.
void *asArgument(uint32_t lsId)
{
    return reinterpret_cast<void *>(static_cast<uintptr_t>(lsId)); // NOLINT(performance-no-int-to-ptr)
}

uint32_t lsIdOf(const void *argument)
{
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(argument));
}

std::mutex s_lock;
bool s_subscribed;
uint64_t s_shardChanges;
uint64_t s_recoveries;
std::map<uint32_t, Clock::time_point> s_faulty; // time of the fault by LS id

std::chrono::milliseconds ageOf(Clock::time_point fault)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - fault);
}

// False when there is no room or no memory for it.
bool keepFault(uint32_t lsId)
{
    try {
        const std::lock_guard hold(s_lock);
        if (s_faulty.size() >= kMaxFaultyProcesses && !s_faulty.contains(lsId)) {
            return false;
        }
        s_faulty.try_emplace(lsId, Clock::now());
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
}

// False when it was not raised in time.
bool awaitRaise(sem_t &sem, std::chrono::milliseconds patience)
{
    using namespace std::chrono;
    const auto until = (Clock::now() + patience).time_since_epoch();
    const auto wholeSeconds = duration_cast<seconds>(until);
    const timespec time{wholeSeconds.count(), nanoseconds(until - wholeSeconds).count()};
    int result = 0;
    do {
        result = sem_clockwait(&sem, CLOCK_MONOTONIC, &time);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

using MoveCallback = int32_t (*)(uint64_t data, void *sem);
// In the order of FmmMove.
constexpr std::array<MoveCallback, 4> kMoves = {nas_fmm_vnode_movein_callback, nas_fmm_vnode_moveout_callback,
                                                nas_fmm_shard_movein_callback, nas_fmm_shard_moveout_callback};

} // namespace

FmmState fmmState()
{
    const std::lock_guard hold(s_lock);
    FmmState state{s_subscribed, s_shardChanges, s_recoveries, {}};
    for (const auto &[lsId, fault] : s_faulty) {
        state.faulty.push_back({lsId, ageOf(fault)});
    }
    return state;
}

bool announceShardChange()
{
    {
        const std::lock_guard hold(s_lock);
        if (!s_subscribed) {
            return false;
        }
        ++s_shardChanges;
    }
    nas_fmm_shard_change_callback();
    return true;
}

void announceProcessFault(uint32_t lsId)
{
    if (keepFault(lsId)) {
        HOST_LOG(NASCTRL_LOG_PROGRESS, "fmm: the process of LS %u failed", lsId);
    } else {
        HOST_LOG(NASCTRL_LOG_ERROR, "fmm: the process of LS %u failed, but there is no room to record it", lsId);
    }
}

void announceProcessRecovery(uint32_t lsId)
{
    nas_fmm_process_recover_callback(asArgument(lsId));
}

void announceMove(FmmMove move, std::chrono::milliseconds patience)
{
    auto told = std::make_unique<sem_t>();
    sem_init(told.get(), 0, 0);
    kMoves.at(static_cast<size_t>(move))(0, told.get());
    if (awaitRaise(*told, patience)) {
        sem_destroy(told.get());
        return;
    }
    HOST_LOG(NASCTRL_LOG_ERROR, "fmm: DLG and FMM were not told of a move within %lld ms",
             static_cast<long long>(patience.count()));
    [[maybe_unused]] const sem_t *left = told.release(); // whoever tells them raises it yet
}

} // namespace host

void NasFmmRegShardChgNotifyOnetrack(void)
{
    {
        const std::lock_guard hold(host::s_lock);
        host::s_subscribed = true;
    }
    HOST_LOG(NASCTRL_LOG_INFO, "fmm: subscribed to shard changes");
}

void NasFmmCmdInitOnetrack(void)
{
    nsa_fmm_cmd_init();
}

// What a failed process left to be done, done for its LS: here it is the record of its fault. The record that FMM was
// told with names no LS.
void NasFmmProcessRevertOnetrack(void *arg, notify_arg_t * /*notify_arg*/)
{
    const uint32_t lsId = host::lsIdOf(arg);
    long long age = -1;
    {
        const std::lock_guard hold(host::s_lock);
        ++host::s_recoveries;
        const auto found = host::s_faulty.find(lsId);
        if (found != host::s_faulty.end()) {
            age = host::ageOf(found->second).count();
            host::s_faulty.erase(found);
        }
    }
    if (age >= 0) {
        HOST_LOG(NASCTRL_LOG_PROGRESS, "fmm: the process of LS %u has recovered after %lld ms", lsId, age);
    } else {
        HOST_LOG(NASCTRL_LOG_PROGRESS, "fmm: the process of LS %u has recovered, no fault of it was on record", lsId);
    }
}
