/*
 * 1,000 additions whose module takes 10 ms, beside the ideal of the arithmetic: 40 groups of 25 at 10 ms. And what
 * repeated addition and deletion leaves behind.
 */
#include "modules/modules.h"
#include "platform/log.h"
#include "platform/memory.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <nasctrl/nasctrl.h>
#include <semaphore.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t kAddresses = 1000;
constexpr uint32_t kType = 3;
constexpr auto kHookTime = std::chrono::milliseconds(10);
constexpr double kIdealMs = 40 * 10;

uint32_t slowHook(uint32_t, const char *, uint32_t)
{
    std::this_thread::sleep_for(kHookTime);
    return 0;
}

uint32_t quickHook(uint32_t, const char *, uint32_t)
{
    return 0;
}

// The library as it is once started, without its own threads: the benchmark drives the additions itself.
void prepare(ip_event_hook hook)
{
    host::LogSettings settings;
    settings.console = false;
    settings.threshold = NASCTRL_LOG_ERROR;
    host::openLog(settings);
    host::configureModules({{0, "bench", {kType}, 1}});
    sem_init(&g_SockIpSem, 0, 0);
    NasIpMgrRegisterIpEvent(0, hook);
}

node_ip_list *addressList(uint32_t count)
{
    auto *list = static_cast<node_ip_list *>(
        nas_mem_comm_zalloc(sizeof(node_ip_list) + count * sizeof(node_ip_entry), __func__, __LINE__));
    list->count = count;
    for (uint32_t i = 0; i < count; ++i) {
        list->entries[i].proto_type = kType;
        snprintf(list->entries[i].addr, sizeof list->entries[i].addr, "10.1.%u.%u", i / 250, i % 250 + 1);
        SetDefaultIpWorkstatus(&list->entries[i]);
    }
    return list;
}

void addAll(const node_ip_list *list)
{
    pthread_mutex_lock(&g_ipSockIpLockMutex);
    NasIpMgrAddNewIpInParallel(list);
    pthread_mutex_unlock(&g_ipSockIpLockMutex);
}

void deleteAll(const node_ip_list *list)
{
    for (uint32_t i = 0; i < list->count; ++i) {
        NasIpMgrDeleteFromList(list->entries[i].addr, list->entries[i].proto_type);
    }
}

// What the arithmetic comes to on this machine, whose timers are late too.
void fortyHooksInARow(benchmark::State &state)
{
    for (auto _ : state) {
        for (int hook = 0; hook < 40; ++hook) {
            slowHook(0, "", 0);
        }
    }
}
BENCHMARK(fortyHooksInARow)->Iterations(5)->UseRealTime()->Unit(benchmark::kMillisecond);

void thousandSlowAdditions(benchmark::State &state)
{
    prepare(slowHook);
    node_ip_list *list = addressList(kAddresses);
    double total = 0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        addAll(list);
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        total += took.count() * 1000;
        deleteAll(list);
    }
    state.counters["ideal_ms"] = kIdealMs;
    state.counters["over_ideal_percent"] = 100 * (total / static_cast<double>(state.iterations()) / kIdealMs - 1);
    FreeCurNodeIpList(list);
}
BENCHMARK(thousandSlowAdditions)->UseManualTime()->Iterations(5)->Unit(benchmark::kMillisecond);

uint64_t liveBlocks()
{
    uint64_t blocks = 0;
    for (const auto &account : host::memoryAccounts()) {
        blocks += account.liveBlocks;
    }
    return blocks;
}

double residentKiB()
{
    std::ifstream statm("/proc/self/statm");
    uint64_t size = 0;
    uint64_t resident = 0;
    statm >> size >> resident;
    return static_cast<double>(resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE))) / 1024;
}

void repeatedAddAndDelete(benchmark::State &state)
{
    prepare(quickHook);
    node_ip_list *list = addressList(kAddresses);
    for (int round = 0; round < 20; ++round) { // until the allocator and the thread stacks have settled
        addAll(list);
        deleteAll(list);
    }
    const uint64_t blocks = liveBlocks();
    const double resident = residentKiB();
    for (auto _ : state) {
        addAll(list);
        deleteAll(list);
    }
    state.counters["blocks_grown"] = static_cast<double>(liveBlocks()) - static_cast<double>(blocks);
    state.counters["resident_grown_KiB"] = residentKiB() - resident;
    FreeCurNodeIpList(list);
}
BENCHMARK(repeatedAddAndDelete)->Iterations(200)->Unit(benchmark::kMillisecond);

} // namespace
