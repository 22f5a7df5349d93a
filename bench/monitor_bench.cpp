/*
 * One monitor pass over addresses that are all known, each with a LIF port, so that the pass changes nothing: with only
 * errors logged, and with the pass's lines written to a file. What lies between the two is logging.
 */
#include "modules/modules.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "socket_echo.h"

#include <benchmark/benchmark.h>
#include <cstdio>
#include <nasctrl/nasctrl.h>
#include <numeric>

namespace {

constexpr uint32_t kType = 3;

void openLogOnce()
{
    static const bool opened = [] {
        host::LogSettings log;
        log.console = false;
        log.file = bench::temporaryDirectory() + "/node.log";
        host::openLog(log);
        host::configureModules({{0, "bench", {kType}, 1}});
        sem_init(&g_SockIpSem, 0, 0);
        return NasLifMgrModuleStart() == 0;
    }();
    benchmark::DoNotOptimize(opened);
}

std::string address(uint32_t number)
{
    return "10.1." + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
}

void setAddresses(uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        NasIpMgrAddToList(address(i).c_str(), kType, 63);
        nas_lifport_add_update(i + 1, "port", address(i).c_str(), 1);
    }
}

void dropAddresses(uint32_t count)
{
    const node_ip_entry none{};
    DeleteRedundancyLifInfoByIpList(&none, 0);
    for (uint32_t i = 0; i < count; ++i) {
        NasIpMgrDeleteFromList(address(i).c_str(), kType);
    }
}

uint64_t linesWritten()
{
    const auto counts = host::logLineCounts();
    return std::accumulate(counts.begin(), counts.end(), uint64_t{0});
}

void monitorPass(benchmark::State &state, uint32_t threshold)
{
    openLogOnce();
    const auto count = static_cast<uint32_t>(state.range(0));
    host::setLogThreshold(NASCTRL_LOG_ERROR);
    setAddresses(count);
    host::setLogThreshold(threshold);
    const uint64_t before = linesWritten();
    for (auto _ : state) {
        NasIpMgrIpStatusMonitor();
    }
    state.counters["lines"] = static_cast<double>(linesWritten() - before) / static_cast<double>(state.iterations());
    host::setLogThreshold(NASCTRL_LOG_ERROR);
    dropAddresses(count);
}
BENCHMARK_CAPTURE(monitorPass, errorsLogged, NASCTRL_LOG_ERROR)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(5000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(monitorPass, everythingLogged, NASCTRL_LOG_INFO)
    ->Arg(100)
    ->Arg(1000)
    ->Arg(5000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
