/*
 * The look-up of an FSP at growing numbers of nodes, beside a hash map under one mutex, with the share that the walk of
 * its bucket takes; and the migration of all FSPs of an LS.
 */
#include "lwt/lwt.h"
#include "platform/log.h"

#include <absl/container/flat_hash_map.h>
#include <algorithm>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <mutex>
#include <nasctrl/nasctrl.h>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint32_t kNodes = 4096;
constexpr uint32_t kLocalLs = 9; // neither end of a migration

// When the library took its reference to the last migration's event, just after it let go of the index.
Clock::time_point s_unlocked;

} // namespace

// In front of the library's own, which do the same but for the time.
void FspGetFmmBuffer(fmm_buffer *b)
{
    if (std::atomic_ref<uint32_t>(b->refs).fetch_add(1) == 0) {
        s_unlocked = Clock::now();
    }
}
uint32_t getLocalLsID(void)
{
    return kLocalLs;
}

namespace {

// Two LSs with a shard each, and the first so many FSPs.
void prepare(uint32_t nodes)
{
    host::LogSettings settings;
    settings.console = false;
    settings.threshold = NASCTRL_LOG_ERROR;
    host::openLog(settings);
    char first[] = "1:10.0.0.1";
    char second[] = "2:10.0.0.2";
    stub_buildShardView(0, first);
    stub_buildShardView(1, second);
    FspInitShardView();
    for (uint32_t fsp = 0; fsp < nodes; ++fsp) {
        FspGetShardIdByFsp(fsp);
    }
}

// FSPs in an order that no cache knows.
std::vector<uint32_t> shuffled(uint32_t nodes)
{
    std::vector<uint32_t> fsps(nodes);
    for (uint32_t i = 0; i < nodes; ++i) {
        fsps[i] = i;
    }
    std::shuffle(fsps.begin(), fsps.end(), std::mt19937(1));
    return fsps;
}

// The best of several passes over all FSPs.
template <typename LookUp>
double secondsOf(const std::vector<uint32_t> &fsps, LookUp lookUp)
{
    std::chrono::duration<double> best = std::chrono::hours(1);
    for (int pass = 0; pass < 50; ++pass) {
        const auto start = Clock::now();
        for (const uint32_t fsp : fsps) {
            benchmark::DoNotOptimize(lookUp(fsp));
        }
        best = std::min<std::chrono::duration<double>>(best, Clock::now() - start);
    }
    return best.count();
}

// What of a look-up is the walk: the same look-ups under one hold of the lock, less the hash.
double walkPercent(const std::vector<uint32_t> &fsps)
{
    const double whole = secondsOf(fsps, FspGetShardIdByFsp);
    kvos_rwlock_write_lock(&shardViewList.lock);
    const double found = secondsOf(fsps, FspGetShardView);
    kvos_rwlock_write_unlock(&shardViewList.lock);
    const double hashed = secondsOf(fsps, [](uint32_t fsp) { return hash_u64_id(fsp, NAS_SHARD_BUCKETS); });
    return 100 * (found - hashed) / whole;
}

void fspLookup(benchmark::State &state)
{
    const auto nodes = static_cast<uint32_t>(state.range(0));
    prepare(nodes);
    const auto fsps = shuffled(nodes);
    size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(FspGetShardIdByFsp(fsps[at]));
        at = at + 1 < fsps.size() ? at + 1 : 0;
    }
    state.counters["walk_percent"] = walkPercent(fsps);
    state.counters["nodes_per_bucket"] = static_cast<double>(nodes) / NAS_SHARD_BUCKETS;
}
BENCHMARK(fspLookup)->Arg(64)->Arg(1024)->Arg(kNodes);

void mapUnderMutex(benchmark::State &state)
{
    const auto nodes = static_cast<uint32_t>(state.range(0));
    const auto fsps = shuffled(nodes);
    std::mutex mutex;
    absl::flat_hash_map<uint32_t, uint32_t> map;
    for (const uint32_t fsp : fsps) {
        map[fsp] = fsp % 2;
    }
    size_t at = 0;
    for (auto _ : state) {
        const std::lock_guard guard(mutex);
        benchmark::DoNotOptimize(map.find(fsps[at])->second);
        at = at + 1 < fsps.size() ? at + 1 : 0;
    }
}
BENCHMARK(mapUnderMutex)->Arg(64)->Arg(1024)->Arg(kNodes);

void startQueue()
{
    static const bool started = [] {
        host::startLwt(host::kDefaultLwtBackend, std::max(2U, std::thread::hardware_concurrency()));
        return true;
    }();
    benchmark::DoNotOptimize(started);
    g_fmmLwtQ = g_fmmLwtQ != nullptr ? g_fmmLwtQ : lwt_workqueue_create("Fmm LWT", 8, 8, 1000);
}

// All FSPs of one LS to the other and back again: the whole call, and how long of it the index is locked. That counts
// two look-ups of an LS and two allocations too many.
void migrationOfAllFsps(benchmark::State &state)
{
    prepare(kNodes);
    startQueue();
    FspMigrationNode(2, 1, 2);
    uint32_t src = 1;
    double total = 0;
    double locked = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const uint32_t ret = FspMigrationNode(src, 3 - src, 2);
        const std::chrono::duration<double> took = Clock::now() - start;
        if (ret != 0) {
            state.SkipWithError("a migration was refused");
            break;
        }
        state.SetIterationTime(took.count());
        total += took.count();
        locked += std::chrono::duration<double>(s_unlocked - start).count();
        src = 3 - src;
    }
    const auto rounds = static_cast<double>(state.iterations());
    state.counters["per_fsp_ns"] = total / rounds / kNodes * 1e9;
    state.counters["locked_us"] = locked / rounds * 1e6;
    state.counters["locked_percent"] = 100 * locked / total;
}
BENCHMARK(migrationOfAllFsps)->UseManualTime()->Iterations(500)->Unit(benchmark::kMicrosecond);

} // namespace
