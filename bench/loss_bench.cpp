/*
 * From the loss of a client, as the store's watch tells of it, to the notification of FMM: through the heart break that
 * the node finds as master, the new view, the library and the modules. Beside it the bare watch: from the end of the
 * lease to its event. A real node in this process, on a SQLite file and on an etcd of one member.
 *
 * Each store has a process of its own, since a process is one node, whose threads live as long as it does.
 */
#include "cluster/dpc_clients.h"
#include "notify/events.h"
#include "percentile.h"
#include "root.h"
#include "start.h"

#include <host/store_backends.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::system_clock; // of the event stream
using std::chrono::milliseconds;

constexpr int kLosses = 300;
constexpr uint32_t kClient = 7;
constexpr std::chrono::seconds kTtl{600};
constexpr milliseconds kPatience{10000};

double microseconds(Clock::duration time)
{
    return std::chrono::duration<double, std::micro>(time).count();
}

void startNode(const std::string &root, const std::string &store)
{
    std::filesystem::copy(std::string(EXAMPLE_NODE) + "/opt", root + "/opt", std::filesystem::copy_options::recursive);
    const auto options =
        host::parseOptions({"--root", root, "--store", store, "--no-console", "--log-level", "3"}, "bench", std::cout);
    host::enterRoot(options->root);
    host::openLog(options->log);
    host::startNode(*options);
}

// The next event of that module and name after a number, which becomes its own.
Clock::time_point waitFor(uint64_t &after, const std::string &module, const std::string &name)
{
    while (true) {
        const host::EventPage page = host::readEvents(after, 1, kPatience);
        if (page.events.empty()) {
            throw std::runtime_error("no event " + name);
        }
        const host::Event &event = *page.events.front();
        after = event.number;
        if (event.details.module == module && event.details.name == name) {
            return event.time;
        }
    }
}

// When a watch of its own told that a client's key was removed.
class Removals {
public:
    explicit Removals(host::Store &store)
        : watch_(store.watch(host::kClientPrefix, store.list("").revision, [this](const host::StoreEvent &event) {
              if (event.kind == host::StoreEvent::Kind::removed) {
                  const std::scoped_lock lock(mutex_);
                  times_.push_back(Clock::now());
                  changed_.notify_all();
              }
          }))
    {
    }
    Clock::time_point next()
    {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kPatience, [this] { return !times_.empty(); })) {
            throw std::runtime_error("the watch does not tell of the removal");
        }
        const auto time = times_.front();
        times_.pop_front();
        return time;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Clock::time_point> times_;
    std::unique_ptr<host::StoreWatch> watch_; // the last member, because it uses the others
};

struct Loss {
    double watch; // from the end of the lease to the watch's event
    double told;  // from there to FMM
};

Loss loseClient(host::Store &store, Removals &removals, uint64_t &after)
{
    const host::Membership member = host::joinClient(store, {kClient, 1, kTtl, {}});
    waitFor(after, "CM", "VIEW");
    const auto begin = Clock::now();
    store.revoke(member.lease);
    const auto seen = removals.next();
    const auto told = waitFor(after, "FMM", "NODE_FAULT");
    return {microseconds(seen - begin), microseconds(told - seen)};
}

void loseClients(benchmark::State &state)
{
    const auto store = host::clusterStore();
    std::vector<double> watch;
    std::vector<double> told;
    uint64_t after = 0;
    waitFor(after, "CM", "VIEW"); // the empty one
    Removals removals(*store);
    loseClient(*store, removals, after); // the watches are at work by then
    for (auto _ : state) {
        const Loss loss = loseClient(*store, removals, after);
        watch.push_back(loss.watch);
        told.push_back(loss.told);
        state.SetIterationTime(loss.told / 1e6);
    }
    bench::tell(state, "", told);
    bench::tell(state, "watch_", watch);
}

// In a process of its own, to its end.
template <typename Run>
void apart(Run run)
{
    const pid_t child = fork();
    if (child == 0) {
        run();
        std::cout.flush();
        _exit(0);
    }
    waitpid(child, nullptr, 0);
}

void measure(const char *name, const std::string &store)
{
    const store_test::TemporaryFolder root;
    startNode(root.path(), store.empty() ? "sqlite:" + root.path() + "/cluster.db" : store);
    benchmark::RegisterBenchmark(name, loseClients)
        ->UseManualTime()
        ->Iterations(kLosses)
        ->Unit(benchmark::kMicrosecond);
    benchmark::RunSpecifiedBenchmarks();
}

} // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    apart([] { measure("onSqlite", ""); });
    apart([] {
        const store_test::EtcdBackend etcd;
        measure("onEtcd", "etcd:" + etcd.endpoint());
    });
    return 0;
}
