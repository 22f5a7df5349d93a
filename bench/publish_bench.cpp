/*
 * One publication through the library on the node's name service, beside the same read and write done directly with the
 * same store: on a SQLite file, and on an etcd of one member that the program starts. Both in turn, in one run, because
 * the disk is not equally fast at all times.
 */
#include "cluster/name_service.h"
#include "percentile.h"
#include "platform/log.h"

#include <host/store_backends.h>

#include <chrono>
#include <functional>
#include <nasctrl/version_ns.h>
#include <stdexcept>

namespace {

constexpr int kPublications = 1000;

void check(bool good, const char *what)
{
    if (!good) {
        throw std::runtime_error(what);
    }
}

double microsecondsOf(const std::function<void()> &work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

class Publisher {
public:
    Publisher() { sem_init(&sem_, 0, 0); }
    ~Publisher() { sem_destroy(&sem_); }
    Publisher(const Publisher &) = delete;
    Publisher &operator=(const Publisher &) = delete;

    void publish()
    {
        ++value_.FL;
        MarkNsPubSeq(&value_);
        check(SetNasCtrlDpcNsWithRetry(&request_) == 0, "SetNasCtrlDpcNsWithRetry");
    }

private:
    sem_t sem_{};
    ns_value value_{};
    ns_request request_{&sem_, &value_, 0};
};

// As long a value as a publication's, under a key of its own.
void readAndWrite(host::Store &store, const std::string &key)
{
    const host::StoreRead found = store.read(key);
    check(found.result == host::StoreResult::done, "read");
    check(store.write(key, found.item.value, found.item.version).result == host::StoreResult::done, "write");
}

void compare(benchmark::State &state, const host::StoreSettings &settings)
{
    host::LogSettings log;
    log.console = false;
    host::openLog(log);
    host::startClusterStore(settings);
    host::startNameService();
    const auto store = host::clusterStore();
    s_nasctrlDpcNsStat = {}; // what was known of another store
    check(NasCtrlDpcCreateNs() == 0, "NasCtrlDpcCreateNs");
    const std::string key = host::keyOfName(s_nasctrlDpcNsHdl, "REFERENCE");
    const auto named = store->read(host::keyOfName(s_nasctrlDpcNsHdl, GetNasCtrlClusterNsName()));
    check(store->create(key, named.item.value).result == host::StoreResult::done, "create");
    std::vector<double> published;
    std::vector<double> direct;
    Publisher publisher;
    for (auto _ : state) {
        published.push_back(microsecondsOf([&] { publisher.publish(); }));
        direct.push_back(microsecondsOf([&] { readAndWrite(*store, key); }));
        state.SetIterationTime(published.back() / 1e6);
    }
    bench::tell(state, "", published);
    bench::tell(state, "direct_", direct);
    state.counters["ratio"] = bench::percentile(published, 0.5) / bench::percentile(direct, 0.5);
    host::stopNameService();
    host::stopClusterStore();
}

void onSqlite(benchmark::State &state)
{
    const store_test::TemporaryFolder folder;
    host::StoreSettings settings;
    settings.file = folder.path() + "/cluster.db";
    compare(state, settings);
}
BENCHMARK(onSqlite)->UseManualTime()->Iterations(kPublications)->Unit(benchmark::kMicrosecond);

void onEtcd(benchmark::State &state)
{
    const store_test::EtcdBackend etcd;
    compare(state, etcd.settings());
}
BENCHMARK(onEtcd)->UseManualTime()->Iterations(kPublications)->Unit(benchmark::kMicrosecond);

} // namespace
