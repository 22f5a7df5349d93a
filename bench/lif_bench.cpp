/*
 * The LIF port table: the index of an id beside two hash maps, with ids in a row and ids drawn at random; and
 * additions, name look-ups and deletions by address from several threads beside one mutex over a hash map.
 */
#include "platform/log.h"

#include <absl/container/flat_hash_map.h>
#include <algorithm>
#include <array>
#include <benchmark/benchmark.h>
#include <mutex>
#include <nasctrl/nasctrl.h>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Ids = std::vector<uint64_t>;

constexpr size_t kQuestions = 4096; // as many look-ups a round, in an order that no table knows

void prepare()
{
    static const bool prepared = [] {
        host::LogSettings log;
        log.console = false;
        log.threshold = NASCTRL_LOG_ERROR;
        host::openLog(log);
        return nas_lifport_info_init() == 0;
    }();
    benchmark::DoNotOptimize(prepared);
}

// The first `count` ids are the table's, the rest are in no table.
Ids idsOf(bool atRandom, size_t count)
{
    std::mt19937_64 random(1);
    Ids ids;
    for (uint64_t i = 1; ids.size() < count + kQuestions; ++i) {
        ids.push_back(atRandom ? random() : i);
    }
    return ids;
}

Ids questionsOf(const Ids &ids, size_t count, bool hits)
{
    Ids questions(ids.begin() + (hits ? 0 : static_cast<ptrdiff_t>(count)),
                  hits ? ids.begin() + static_cast<ptrdiff_t>(count) : ids.end());
    std::shuffle(questions.begin(), questions.end(), std::mt19937_64(2));
    questions.resize(std::min(questions.size(), kQuestions));
    return questions;
}

class Slots {
public:
    void add(uint64_t id) { lifport_id_to_index(id); }
    uint32_t find(uint64_t id) const { return g_NfsLifPortInfo.find(id); }
    static void clear() { std::fill(std::begin(g_NfsLifPortInfo.slots), std::end(g_NfsLifPortInfo.slots), 0); }
};

template <typename Map>
class MapOf {
public:
    void add(uint64_t id) { map_.emplace(id, static_cast<uint32_t>(map_.size())); }
    uint32_t find(uint64_t id) const
    {
        const auto found = map_.find(id);
        return found != map_.end() ? found->second : 0;
    }
    void clear() { map_.clear(); }

private:
    Map map_;
};

using FlatHashMap = MapOf<absl::flat_hash_map<uint64_t, uint32_t>>;
using UnorderedMap = MapOf<std::unordered_map<uint64_t, uint32_t>>;

// Arguments: the ports in the table, whether the ids asked for are among them, and how the ids were chosen.
template <typename Table>
void findIndex(benchmark::State &state)
{
    prepare();
    const auto count = static_cast<size_t>(state.range(0));
    const Ids ids = idsOf(state.range(2) != 0, count);
    Table table;
    for (size_t i = 0; i < count; ++i) {
        table.add(ids[i]);
    }
    const Ids questions = questionsOf(ids, count, state.range(1) != 0);
    for (auto _ : state) {
        for (const uint64_t id : questions) {
            benchmark::DoNotOptimize(table.find(id));
        }
    }
    state.counters["each"] =
        benchmark::Counter(static_cast<double>(questions.size()),
                           benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    table.clear();
}

void everyFind(benchmark::internal::Benchmark *find)
{
    find->ArgNames({"ports", "hits", "random"})->ArgsProduct({{4096, 8000}, {1, 0}, {0, 1}});
}
BENCHMARK(findIndex<Slots>)->Apply(everyFind);
BENCHMARK(findIndex<FlatHashMap>)->Apply(everyFind);
BENCHMARK(findIndex<UnorderedMap>)->Apply(everyFind);

// ---- from several threads

constexpr uint64_t kStanding = 1000; // ports that stand in the table all the while
constexpr size_t kNameSize = 257;

class LifTable {
public:
    static void add(uint64_t id, const std::string &ip, uint64_t time)
    {
        nas_lifport_add_update(id, "port", ip.c_str(), time);
    }
    static void nameOf(uint64_t id, std::array<char, kNameSize> &name)
    {
        nas_get_lifport_name(id, name.data(), static_cast<uint32_t>(name.size()));
    }
    static void remove(const std::string &ip, uint64_t time) { nas_lifportid_del_update(ip.c_str(), time); }
    static void clear()
    {
        const node_ip_entry none{};
        DeleteRedundancyLifInfoByIpList(&none, 0);
    }
};

class LockedMap {
public:
    static void add(uint64_t id, const std::string &ip, uint64_t time)
    {
        const std::lock_guard guard(lock());
        ports()[id] = {"port", ip, time};
    }
    static void nameOf(uint64_t id, std::array<char, kNameSize> &name)
    {
        const std::lock_guard guard(lock());
        const auto found = ports().find(id);
        if (found != ports().end()) {
            found->second.name.copy(name.data(), name.size() - 1);
        }
    }
    static void remove(const std::string &ip, uint64_t time)
    {
        const std::lock_guard guard(lock());
        const auto found =
            std::find_if(ports().begin(), ports().end(), [&](const auto &port) { return port.second.ip == ip; });
        if (found != ports().end() && found->second.time <= time) {
            ports().erase(found);
        }
    }
    static void clear() { ports().clear(); }

private:
    struct Port {
        std::string name;
        std::string ip;
        uint64_t time;
    };
    static std::mutex &lock()
    {
        static std::mutex instance;
        return instance;
    }
    static std::unordered_map<uint64_t, Port> &ports()
    {
        static std::unordered_map<uint64_t, Port> instance;
        return instance;
    }
};

std::string addressOf(uint64_t id)
{
    return "10." + std::to_string(id >> 16 & 255) + "." + std::to_string(id >> 8 & 255) + "." +
           std::to_string(id & 255);
}

template <typename Table>
void setUp(const benchmark::State &)
{
    prepare();
    for (uint64_t id = 1; id <= kStanding; ++id) {
        Table::add(id, addressOf(id), 1);
    }
}

template <typename Table>
void tearDown(const benchmark::State &)
{
    Table::clear();
}

// Of the standing ports, by every thread.
template <typename Table>
void readName(benchmark::State &state)
{
    std::array<char, kNameSize> name{};
    uint64_t id = static_cast<uint64_t>(state.thread_index()) * 97;
    for (auto _ : state) {
        id = id % kStanding + 1;
        Table::nameOf(id, name);
        benchmark::DoNotOptimize(name);
    }
}

// Each thread adds a port of its own, reads its name and deletes it by its address.
template <typename Table>
void addReadDelete(benchmark::State &state)
{
    std::array<char, kNameSize> name{};
    const uint64_t first = 100000 + static_cast<uint64_t>(state.thread_index()) * 1000;
    uint64_t round = 0;
    for (auto _ : state) {
        const uint64_t id = first + round++ % 256;
        const std::string ip = addressOf(id);
        Table::add(id, ip, round);
        Table::nameOf(id, name);
        Table::remove(ip, round);
        benchmark::DoNotOptimize(name);
    }
}

template <typename Table>
void threads(benchmark::internal::Benchmark *measured)
{
    measured->Setup(setUp<Table>)->Teardown(tearDown<Table>)->ThreadRange(1, 4)->UseRealTime();
}
BENCHMARK(readName<LifTable>)->Apply(threads<LifTable>);
BENCHMARK(readName<LockedMap>)->Apply(threads<LockedMap>);
BENCHMARK(addReadDelete<LifTable>)->Apply(threads<LifTable>);
BENCHMARK(addReadDelete<LockedMap>)->Apply(threads<LockedMap>);

} // namespace
