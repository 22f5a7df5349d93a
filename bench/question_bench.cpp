/*
 * One HDFS question, from the library through the node's storage client to the storage-side service and back, beside a
 * bare echo of the same lengths. All sides run in this process, each end of a socket on a thread of its own.
 */
#include "message/message_service.h"
#include "platform/log.h"
#include "socket_echo.h"

#include <benchmark/benchmark.h>
#include <fstream>
#include <nasctrl/nasctrl.h>
#include <storage/service.h>

namespace {

constexpr size_t kHeader = 24;
constexpr size_t kRequest = 4;
constexpr size_t kListHead = 8;
constexpr size_t kEntry = 72;
constexpr uint32_t kAddresses = 2;

void writeData(const std::string &path)
{
    std::ofstream file(path);
    file << R"({"zone_addresses": [{"address": "127.0.0.21"}, {"address": "127.0.0.31"}]})";
}

// Both ends, once for all benchmarks, as long as the process lives.
void startService()
{
    static const bool started = [] {
        const std::string directory = bench::temporaryDirectory();
        host::LogSettings log;
        log.console = false;
        log.file = directory + "/node.log";
        host::openLog(log);
        writeData(directory + "/storage.json");
        static const storage::Service service({directory + "/storage.sock", directory + "/storage.json"});
        host::MessageSettings settings;
        settings.socketPath = directory + "/message.sock";
        settings.storageSocketPath = directory + "/storage.sock";
        host::startMessageService(settings);
        return true;
    }();
    benchmark::DoNotOptimize(started);
}

void bareEcho(benchmark::State &state)
{
    bench::measureBareEcho(state, kHeader + kRequest, kHeader + kListHead + kAddresses * kEntry);
}
BENCHMARK(bareEcho)->UseManualTime()->Iterations(50000);

void zoneAddresses(benchmark::State &state, uint32_t threshold)
{
    startService();
    host::setLogThreshold(threshold);
    bench::measureMedian(state, [] {
        void *list = nullptr;
        if (GetHdfsZoneIpList(&list) != 0 || static_cast<const node_ip_list *>(list)->count != kAddresses) {
            throw std::runtime_error("GetHdfsZoneIpList");
        }
        FreeHdfsZoneIpList(list);
    });
}
BENCHMARK_CAPTURE(zoneAddresses, errorsLogged, NASCTRL_LOG_ERROR)->UseManualTime()->Iterations(50000);
BENCHMARK_CAPTURE(zoneAddresses, everythingLogged, NASCTRL_LOG_INFO)->UseManualTime()->Iterations(50000);

} // namespace
