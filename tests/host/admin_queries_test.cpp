/*
 * What the admin door answers about addresses, LIF ports, the storage-side service and the node's counters. The calls
 * are asked without a socket; the node behind them is scripted, but for the locks of the LIF table, which are real.
 */
#include "admin_node.h"

#include "adapters/adapters.h"
#include "adapters/monitor_pass.h"
#include "admin/routes.h"
#include "message/storage_statistics.h"
#include "notify/statistics.h"
#include "platform/locks.h"
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <map>
#include <nasctrl/host/memory.h>
#include <nasctrl/ipc.h>
#include <nasctrl/lif_port.h>

namespace {

constexpr uint64_t kSecond = 1'000'000'000;

struct Asked {
    std::string function;
    std::string request;

    bool operator==(const Asked &) const = default;
};

struct Queries {
    uint64_t now = 100 * kSecond;
    std::optional<host::MonitorPass> pass;
    std::vector<host::NodeAddress> nodeAddresses; // as the latest pass was told them
    std::vector<uint64_t> perf;
    std::array<host::StorageCallCounts, host::kStorageCallTypes> calls{};
    std::array<uint64_t, host::kMaxLogLevel + 1> lines{};
    std::map<uint64_t, std::string> names; // of LIF ports, as registered for statistics
    bool registered = true;
    std::deque<NasLifPortEntry> ports;
    std::array<NasLifPortBucket, NAS_LIF_PORT_BUCKETS> buckets{};
    std::vector<std::string> calledLif;
    uint32_t addResult = 17;
    std::vector<Asked> asked;
    int32_t code = 0;
    std::string response; // of the storage-side service
    std::vector<std::string> nodeIds;
    std::map<std::string, uint32_t> owners; // of control addresses
};

Queries g_queries;
std::map<const void *, size_t> g_blocks; // live blocks of the pool

void link(list_link &head, list_link &fresh)
{
    fresh = {&head, head.prev};
    static_cast<list_link *>(head.prev)->next = &fresh;
    head.prev = &fresh;
}

void addPort(uint64_t id, uint32_t index, const std::string &name, const std::string &ip, uint64_t time)
{
    NasLifPortEntry &entry = g_queries.ports.emplace_back();
    entry.id = id;
    entry.index = index;
    entry.time = time;
    name.copy(entry.name, sizeof entry.name - 1);
    ip.copy(entry.ip, sizeof entry.ip - 1);
    link(g_queries.buckets[id % NAS_LIF_PORT_BUCKETS].head, entry.link);
    g_NfsLifPortInfo.slots[index] = id;
    g_queries.names[id] = name;
}

uint32_t findPort(uint64_t id)
{
    for (uint32_t i = 0; i < NAS_LIF_PORT_SLOTS; ++i) {
        if (g_NfsLifPortInfo.slots[i] == id) {
            return i;
        }
    }
    return 8;
}

void removePort(const std::string &ip)
{
    for (NasLifPortEntry &entry : g_queries.ports) {
        auto *next = static_cast<list_link *>(entry.link.next);
        if (ip == entry.ip && next != nullptr) {
            auto *prev = static_cast<list_link *>(entry.link.prev);
            prev->next = next;
            next->prev = prev;
            entry.link = {};
            return;
        }
    }
}

void resetQueries()
{
    g_queries = Queries();
    g_needRetry = 0;
    g_periodLength = 60;
    g_ipLastQueryTime = 0;
    g_floatIpSupport = 1;
    memset(g_NfsLifPortInfo.slots, 0, sizeof g_NfsLifPortInfo.slots);
    g_NfsLifPortInfo.buckets = g_queries.buckets.data();
    g_NfsLifPortInfo.find = findPort;
    for (NasLifPortBucket &bucket : g_queries.buckets) {
        bucket.head = {&bucket.head, &bucket.head};
    }
}

// A pass that began some time ago.
void passed(uint64_t ageMs, const host::MonitorPass &pass)
{
    g_queries.pass = pass;
    g_ipLastQueryTime = g_queries.now - ageMs * 1'000'000;
}

void *blockOf(const std::string &bytes)
{
    void *block = malloc(std::max<size_t>(bytes.size(), 1));
    memcpy(block, bytes.data(), bytes.size());
    g_blocks[block] = bytes.size();
    return block;
}

int32_t ask(const char *function, const void *request, size_t size, void **response)
{
    g_queries.asked.push_back({function, std::string(static_cast<const char *>(request), size)});
    if (g_queries.code == 0) {
        *response = blockOf(g_queries.response);
    }
    return g_queries.code;
}

void freeBlock(const void *block)
{
    g_blocks.erase(block);
    free(const_cast<void *>(block));
}

void releaseBlock(void **block)
{
    freeBlock(*block);
    *block = nullptr;
}

template <typename Word>
std::string bytes(Word word)
{
    return {reinterpret_cast<const char *>(&word), sizeof word};
}

std::string padded(std::string text, size_t size)
{
    text.resize(size);
    return text;
}

} // namespace

struct nas_lif_port_info g_NfsLifPortInfo;
uint64_t g_ipLastQueryTime;
uint8_t g_needRetry;
uint32_t g_periodLength;
uint32_t g_floatIpSupport;

extern "C" {

uint64_t kvos_time_gettime(void)
{
    return g_queries.now;
}
uint64_t kvos_time_getmillisec(void)
{
    return g_queries.now / 1'000'000;
}
int64_t NasIpMgrGetIpQueryPeriod(char *buf, uint32_t buflen)
{
    return snprintf(buf, buflen, "%u\n", g_periodLength);
}
int32_t NasIpMgrSetIpQueryPeriod(const char *text)
{
    const long value = strtol(text, nullptr, 10);
    if (value < 1 || value > 600) {
        return 1;
    }
    g_periodLength = static_cast<uint32_t>(value);
    return 0;
}

uint32_t nas_lifport_add_update(uint64_t id, const char *name, const char *ip, uint64_t time)
{
    g_queries.calledLif.push_back("add " + std::to_string(id) + " " + name + " " + ip + " " + std::to_string(time));
    if (g_queries.addResult != NAS_INVALID) {
        addPort(id, g_queries.addResult, name, ip, time);
    }
    return g_queries.addResult;
}
void nas_lifportid_del_update(const char *ip, uint64_t time)
{
    g_queries.calledLif.push_back(std::string("del ") + ip + " " + std::to_string(time));
    if (time >= 100) {
        removePort(ip);
    }
}

void nas_mem_comm_free(void *ptr, const char * /*func*/, uint32_t /*line*/)
{
    freeBlock(ptr);
}

int32_t GetHdfsConf(const char *ip, void **rsp)
{
    return ask(__func__, ip, 64, rsp);
}
int32_t GetTenantIdByIp(const char *ip, void **rsp)
{
    return ask(__func__, ip, 64, rsp);
}
int32_t GetHdfsGlobalZoneIpList(const zone_request *req, void **rsp)
{
    return ask(__func__, req, sizeof *req, rsp);
}
int32_t GetSubnetAllIpList(const zone_request *req, void **rsp)
{
    return ask(__func__, req, sizeof *req, rsp);
}
int32_t GetHdfsNeighborIpList(const void *req, void **rsp)
{
    return ask(__func__, req, 72, rsp);
}
int32_t GetHdfsZoneIpList(void **rsp)
{
    return ask(__func__, "", 0, rsp);
}
int32_t GetContactedZoneHdfsConfigure(void **rsp)
{
    return ask(__func__, "", 0, rsp);
}
int32_t GetZoneFullDomain(void **rsp)
{
    return ask(__func__, "", 0, rsp);
}
int32_t GetCurNodeIpList(node_ip_list **rsp)
{
    void *response = nullptr;
    const int32_t code = ask(__func__, "", 0, &response);
    *rsp = static_cast<node_ip_list *>(response);
    return code;
}
int32_t GetCurNodeIfaceList(void **rsp)
{
    return ask(__func__, "", 0, rsp);
}
int32_t GetHdfsGlobalZoneNodeId(char ***zoneList, uint32_t *zoneNum)
{
    g_queries.asked.push_back({__func__, ""});
    *zoneNum = 0;
    if (g_queries.code != 0 || g_queries.nodeIds.empty()) {
        *zoneList = nullptr;
        return g_queries.code;
    }
    *zoneList = static_cast<char **>(blockOf(std::string(g_queries.nodeIds.size() * sizeof(char *), '\0')));
    for (const std::string &id : g_queries.nodeIds) {
        (*zoneList)[(*zoneNum)++] = static_cast<char *>(blockOf(padded(id, id.size() + 1)));
    }
    return 0;
}
void FreeHdfsConf(void *rsp)
{
    freeBlock(rsp);
}
void FreeHdfsNeighborIpList(void *rsp)
{
    freeBlock(rsp);
}
void FreeHdfsZoneIpList(void *rsp)
{
    freeBlock(rsp);
}
void FreeCurNodeIpList(void *list)
{
    freeBlock(list);
}
void FreeCurNodeIfaceList(void *list)
{
    freeBlock(list);
}
void ReleaseContactedZoneHdfsConfigure(void **rsp)
{
    releaseBlock(rsp);
}
void ReleaseSubnetAllIpList(void **rsp)
{
    releaseBlock(rsp);
}
void ReleaseGetZoneFullDomain(void **rsp)
{
    releaseBlock(rsp);
}
void ReleaseHdfsGlobalZoneNodeId(char **zoneList, int32_t count)
{
    for (int32_t i = 0; i < count; ++i) {
        freeBlock(zoneList[i]);
    }
    freeBlock(zoneList);
}
void CTRL_GetIpsLsidByCtrlIp(ctrl_ip_list *list)
{
    for (uint32_t i = 0; i < list->count; ++i) {
        ctrl_ip_entry &entry = list->entries[i];
        if (const auto found = g_queries.owners.find(entry.ip); entry.pending != 0 && found != g_queries.owners.end()) {
            entry.lsId = found->second;
            entry.pending = 0;
        }
    }
}

} // extern "C"

namespace host {

std::optional<MonitorPass> lastMonitorPass()
{
    return g_queries.pass;
}
std::vector<NodeAddress> nodeAddresses()
{
    return g_queries.nodeAddresses;
}
std::vector<uint64_t> perfPorts()
{
    return g_queries.perf;
}
std::optional<uint32_t> statisticsIndex(uint32_t kind, uint64_t id)
{
    return g_queries.registered && kind == kLifPortKind ? std::optional(findPort(id)) : std::nullopt;
}
std::optional<std::string> statisticsName(uint32_t kind, uint64_t id)
{
    return g_queries.registered && kind == kLifPortKind ? std::optional(g_queries.names[id]) : std::nullopt;
}
std::array<StorageCallCounts, kStorageCallTypes> storageCallCounts()
{
    return g_queries.calls;
}
std::array<uint64_t, kMaxLogLevel + 1> logLineCounts()
{
    return g_queries.lines;
}
size_t blockSize(const void *block)
{
    return g_blocks.at(block);
}
uint32_t osThreadId()
{
    return 1;
}

} // namespace host

namespace {

using host::admin::Answer;
using testing::ElementsAre;
using testing::IsEmpty;

class AdminQueries : public testing::Test {
protected:
    void SetUp() override
    {
        resetNode();
        resetQueries();
    }
    void TearDown() override { EXPECT_THAT(g_blocks, IsEmpty()); }

    static Answer call(const std::string &method, const std::string &target, const std::string &body = "")
    {
        return host::admin::answerRequest({method, target, body});
    }
    static std::string get(const std::string &target) { return call("GET", target).body; }
    static std::string post(const std::string &target, const std::string &body = "")
    {
        return call("POST", target, body).body;
    }
};

host::ModuleState module(unsigned slot, const std::string &name, std::vector<uint32_t> types)
{
    return {{slot, name, std::move(types), static_cast<uint16_t>(2000 + slot)}, {}, {}};
}

// ---- the monitor

TEST_F(AdminQueries, TheMonitorShowsItsPeriodAndBothPasses)
{
    passed(1250, {.first = false, .hurried = false, .sleepSeconds = 60, .queryResult = 0});
    EXPECT_EQ(get("/v1/monitor"), R"({"period_s":60,"last_pass":{"age_ms":1250,"result":0},)"
                                  R"("next_pass":{"in_ms":58750,"sleep_s":60,"early":false},)"
                                  R"("retry":false,"why":null,"failing":[]})");
}

TEST_F(AdminQueries, APassThatTheMonitorHurriesToIsNotEarlyWithAShorterPeriod)
{
    g_periodLength = 3;
    g_needRetry = 1;
    passed(1000, {.first = false, .hurried = true, .sleepSeconds = 5, .queryResult = 0});
    EXPECT_EQ(get("/v1/monitor"), R"({"period_s":3,"last_pass":{"age_ms":1000,"result":0},)"
                                  R"("next_pass":{"in_ms":4000,"sleep_s":5,"early":false},)"
                                  R"("retry":true,"why":"an addition failed","failing":[]})");
}

TEST_F(AdminQueries, BeforeTheFirstPassTheMonitorHasNoneToShow)
{
    g_needRetry = 1;
    EXPECT_EQ(get("/v1/monitor"), R"({"period_s":60,"last_pass":null,"next_pass":null,"retry":true,)"
                                  R"("why":"the first pass comes at once","failing":[]})");
}

struct Hurry {
    const char *name;
    host::MonitorPass pass;
    bool retry;
    bool refused; // by a module
    std::string why;
    std::vector<host::NodeAddress> told = {}; // the node's addresses
};

class MonitorHurry : public AdminQueries, public testing::WithParamInterface<Hurry> {};

TEST_P(MonitorHurry, IsExplained)
{
    passed(7000, GetParam().pass);
    g_needRetry = GetParam().retry ? 1 : 0;
    g_queries.nodeAddresses = GetParam().told;
    g_node.modules = {module(1, "hdfs", {3})};
    std::string failing;
    if (GetParam().refused) {
        g_node.modules[0].failures = {{"10.0.0.1", "Address already in use"}};
        failing = R"({"address":"10.0.0.1","slot":1,"name":"hdfs","reason":"Address already in use"})";
    }
    const auto &result = GetParam().pass.queryResult;
    EXPECT_EQ(get("/v1/monitor"), R"({"period_s":60,"last_pass":{"age_ms":7000,"result":)" +
                                      (result ? std::to_string(*result) : std::string("null")) +
                                      R"(},"next_pass":{"in_ms":0,"sleep_s":5,"early":true},"retry":)" +
                                      (GetParam().retry ? "true" : "false") + R"(,"why":")" + GetParam().why +
                                      R"(","failing":[)" + failing + "]}");
}

const Hurry kHurries[] = {
    {"Start", {true, true, 5, 0}, false, false, "the node has just started"},
    {"FailedQuery", {false, true, 5, -110}, true, false, "the node's addresses could not be read (-110)"},
    {"RefusedAddress", {false, true, 5, 0}, true, true, "modules refuse addresses (1)"},
    {"QueryUnderWay", {false, true, 5, std::nullopt}, false, false, "it was due before the last pass began"},
    {"Repaired", {false, true, 5, 0}, false, false, "it was due before the last pass began"},
    {"HealthyNode",
     {false, true, 5, 0},
     true,
     false,
     "the pass found addresses that it knew already",
     {{"10.0.0.1", 3, false}, {"10.0.0.2", 3, true}}},
    {"FailedAddition", {false, true, 5, 0}, true, false, "an addition failed"},
    {"FailedFirstAddition", {true, true, 5, 0}, true, false, "an addition failed", {{"10.0.0.1", 3, true}}},
    {"NoWorkingAddress", {false, true, 5, 0}, true, false, "an addition failed", {{"10.0.0.1", 3, false}}},
};

INSTANTIATE_TEST_SUITE_P(Reasons, MonitorHurry, testing::ValuesIn(kHurries),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(AdminQueries, ThePeriodCanBeSet)
{
    const Answer answer = call("PUT", "/v1/monitor", R"({"period":30})");
    EXPECT_EQ(answer.status, 200U);
    EXPECT_EQ(g_periodLength, 30U);
    EXPECT_TRUE(answer.body.starts_with(R"({"period_s":30,)")) << answer.body;
}

TEST_F(AdminQueries, APeriodOutOfRangeIsRefusedAndNothingChanges)
{
    EXPECT_EQ(call("PUT", "/v1/monitor", R"({"period":0})").body,
              R"({"error":"period: must be a whole number from 1 to 600"})");
    EXPECT_EQ(call("PUT", "/v1/monitor", R"({"period":601})").body,
              R"({"error":"period: must be a whole number from 0 to 600"})");
    EXPECT_EQ(g_periodLength, 60U);
}

// ---- one address

TEST_F(AdminQueries, AnAddressIsExplainedByTypeModuleAndPort)
{
    g_node.modules = {module(0, "nfs", {3}), module(1, "hdfs", {3, 4}), module(2, "smb", {9})};
    g_node.modules[0].listening = {"10.0.0.1"};
    g_node.modules[1].failures = {{"10.0.0.1", "Address already in use"}};
    addAddress("10.0.0.9", 3, 63);
    addAddress("10.0.0.1", 3, 61);
    addAddress("10.0.0.1", 8, 63);
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    passed(1000, {false, true, 5, 0});
    EXPECT_EQ(get("/v1/ips/10.0.0.1"),
              R"({"address":"10.0.0.1","family":"IPv4","entries":[)"
              R"({"address":"10.0.0.1","protocol_type":3,"status":61,"modules":[)"
              R"({"slot":0,"name":"nfs","state":"listening"},)"
              R"({"slot":1,"name":"hdfs","state":"failing","reason":"Address already in use"}],)"
              R"("verdict":"refused by at least one module; tried again at each pass"},)"
              R"({"address":"10.0.0.1","protocol_type":8,"status":63,"modules":[],)"
              R"("verdict":"no module serves protocol type 8"}],)"
              R"("why_unknown":null,"next_try_ms":4000,"lif_ports":[{"id":"5","name":"eth0"}],"busy":[]})");
}

TEST_F(AdminQueries, AnAddressIsFoundByAnyOfItsSpellings)
{
    addAddress("fd00::1", 3, 63);
    EXPECT_EQ(get("/v1/ips/FD00:0::0001"), R"({"address":"FD00:0::0001","family":"IPv6","entries":[)"
                                           R"({"address":"fd00::1","protocol_type":3,"status":63,"modules":[],)"
                                           R"("verdict":"no module serves protocol type 3"}],)"
                                           R"("why_unknown":null,"next_try_ms":null,"lif_ports":[],"busy":[]})");
}

TEST_F(AdminQueries, WithTheServiceOffAnAddressWaitsForNoPass)
{
    g_floatIpSupport = 0;
    g_node.modules = {module(0, "nfs", {3})};
    addAddress("10.0.0.1", 3, 0);
    passed(1000, {false, true, 5, 0});
    EXPECT_EQ(get("/v1/ips/10.0.0.1"),
              R"({"address":"10.0.0.1","family":"IPv4","entries":[)"
              R"({"address":"10.0.0.1","protocol_type":3,"status":0,"modules":[)"
              R"({"slot":0,"name":"nfs","state":"pending"}],)"
              R"("verdict":"the protocol service is off; modules are told when it is switched on"}],)"
              R"("why_unknown":null,"next_try_ms":null,"lif_ports":[],"busy":[]})");
}

struct Unknown {
    const char *name;
    std::optional<host::MonitorPass> pass;
    std::string why;
};

class UnknownAddress : public AdminQueries, public testing::WithParamInterface<Unknown> {};

TEST_P(UnknownAddress, IsExplained)
{
    if (GetParam().pass) {
        passed(1000, *GetParam().pass);
    }
    EXPECT_EQ(get("/v1/ips/10.0.0.1"), R"({"address":"10.0.0.1","family":"IPv4","entries":[],"why_unknown":")" +
                                           GetParam().why + R"(","next_try_ms":null,"lif_ports":[],"busy":[]})");
}

const Unknown kUnknowns[] = {
    {"NoPassYet", std::nullopt, "the node's addresses have not been read yet"},
    {"FailedQuery", host::MonitorPass{false, true, 5, -111}, "the node's addresses could not be read (-111)"},
    {"NotAmongThem", host::MonitorPass{false, false, 60, 0}, "it is not among the node's addresses"},
};

TEST_F(AdminQueries, AnAddressThatThePassWasToldOfAndIsNotListedIsExplainedByItsWorkState)
{
    passed(1000, {false, false, 60, 0});
    g_queries.nodeAddresses = {{"10.0.0.2", 3, true}, {"10.0.0.1", 3, false}};
    EXPECT_THAT(get("/v1/ips/10.0.0.1"),
                testing::HasSubstr(R"("why_unknown":"it is among the node's addresses, but not working")"));
    EXPECT_THAT(
        get("/v1/ips/10.0.0.2"),
        testing::HasSubstr(R"("why_unknown":"it is among the node's addresses and is added with the next pass")"));
    EXPECT_THAT(get("/v1/ips/10.0.0.3"), testing::HasSubstr(R"("why_unknown":"it is not among the node's addresses")"));
}

INSTANTIATE_TEST_SUITE_P(Reasons, UnknownAddress, testing::ValuesIn(kUnknowns),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(AdminQueries, WhatIsHeldByWorkIsBusyAndTheRestIsExplained)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    kvos_rwlock_write_lock(&g_queries.buckets[9].lock);
    pthread_mutex_lock(&g_ipListMutex);
    const std::string answer = get("/v1/ips/10.0.0.1");
    pthread_mutex_unlock(&g_ipListMutex);
    EXPECT_EQ(answer, R"({"address":"10.0.0.1","family":"IPv4","entries":null,"why_unknown":null,"next_try_ms":null,)"
                      R"("lif_ports":[{"id":"5","name":"eth0"}],"busy":["entries","lif_ports"]})");
}

TEST_F(AdminQueries, OnlyAnAddressCanBeExplained)
{
    const Answer answer = call("GET", "/v1/ips/eth0");
    EXPECT_EQ(answer.status, 400U);
    EXPECT_EQ(answer.body, R"({"error":"address: must be an IPv4 or IPv6 address"})");
}

// ---- LIF ports

TEST_F(AdminQueries, LifPortsAreListedByIndex)
{
    addPort(UINT64_MAX, 90, "eth1", "fd00::1", UINT64_MAX);
    addPort(5, 17, "eth0", "10.0.0.1", 123);
    g_queries.perf = {5};
    EXPECT_EQ(get("/v1/lif"),
              R"({"ports":[{"id":"5","index":17,"name":"eth0","address":"10.0.0.1","time":"123","performance":true},)"
              R"({"id":"18446744073709551615","index":90,"name":"eth1","address":"fd00::1",)"
              R"("time":"18446744073709551615","performance":false}],"busy_buckets":[],"busy":[]})");
}

TEST_F(AdminQueries, BeforeTheLifManagerStartsThereAreNoPorts)
{
    g_NfsLifPortInfo.find = nullptr;
    g_NfsLifPortInfo.buckets = nullptr;
    EXPECT_EQ(get("/v1/lif"), R"({"ports":[],"busy_buckets":[],"busy":[]})");
    EXPECT_EQ(post("/v1/lif", R"({"id":"5","name":"a","address":"::1"})"),
              R"({"error":"the LIF manager has not started"})");
}

// A reader that never leaves, and a writer that waits for it, keep all further readers out.
TEST_F(AdminQueries, AHoldThatIsNeverGivenBackCostsTheListingOneBucket)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    addPort(6, 18, "eth1", "10.0.0.2", 1);
    kvos_rwlock_write_lock(&g_queries.buckets[5].lock);
    EXPECT_EQ(get("/v1/lif"), R"({"ports":[{"id":"6","index":18,"name":"eth1","address":"10.0.0.2","time":"1",)"
                              R"("performance":false}],"busy_buckets":[5],"busy":["ports"]})");
}

TEST_F(AdminQueries, ReadersDoNotKeepTheListingOut)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    kvos_rwlock_read_lock(&g_queries.buckets[5].lock);
    EXPECT_EQ(get("/v1/lif"), R"({"ports":[{"id":"5","index":17,"name":"eth0","address":"10.0.0.1","time":"1",)"
                              R"("performance":false}],"busy_buckets":[],"busy":[]})");
}

TEST_F(AdminQueries, APortIsAddedWithTheNodesTimeUnlessOneIsGiven)
{
    EXPECT_EQ(post("/v1/lif", R"({"id":"5","name":"eth0","address":"10.0.0.1"})"),
              R"({"index":17,"port":{"id":"5","index":17,"name":"eth0","address":"10.0.0.1","time":"100000",)"
              R"("performance":false}})");
    g_queries.addResult = 18;
    EXPECT_EQ(post("/v1/lif", R"({"id":"6","name":"","address":"::1","time":"18446744073709551615"})"),
              R"({"index":18,"port":{"id":"6","index":18,"name":"","address":"::1","time":"18446744073709551615",)"
              R"("performance":false}})");
    EXPECT_THAT(g_queries.calledLif, ElementsAre("add 5 eth0 10.0.0.1 100000", "add 6  ::1 18446744073709551615"));
}

TEST_F(AdminQueries, APortThatTheLibraryRefusesIsAFailure)
{
    g_queries.addResult = NAS_INVALID;
    const Answer answer = call("POST", "/v1/lif", R"({"id":"5","name":"eth0","address":"10.0.0.1"})");
    EXPECT_EQ(answer.status, 500U);
    EXPECT_EQ(answer.body, R"({"error":"the port was not added"})");
}

TEST_F(AdminQueries, NoChangeIsTriedUnderAHoldThatIsNotGivenBack)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    kvos_rwlock_read_lock(&g_queries.buckets[5].lock);
    const Answer added = call("POST", "/v1/lif", R"({"id":"5","name":"eth0","address":"10.0.0.1"})");
    EXPECT_EQ(added.status, 503U);
    EXPECT_EQ(added.body, R"({"error":"the lock of port 5 in the LIF table is held"})");
    EXPECT_EQ(call("DELETE", "/v1/lif/10.0.0.1").body, R"({"error":"the lock of a port in the LIF table is held"})");
    EXPECT_THAT(g_queries.calledLif, IsEmpty());
}

TEST_F(AdminQueries, APortIsDeletedByItsAddress)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    addPort(6, 18, "eth1", "10.0.0.1", 1);
    EXPECT_EQ(call("DELETE", "/v1/lif/10.0.0.1").body, R"({"removed":["5"],"left":["6"]})");
    EXPECT_THAT(g_queries.calledLif, ElementsAre("del 10.0.0.1 18446744073709551615"));
}

TEST_F(AdminQueries, APortThatWasAddedLaterStays)
{
    addPort(5, 17, "eth0", "10.0.0.1", 100);
    EXPECT_EQ(call("DELETE", "/v1/lif/10.0.0.1", R"({"time":"99"})").body, R"({"removed":[],"left":["5"]})");
}

TEST_F(AdminQueries, AnAddressWithoutAPortIsNotFound)
{
    const Answer answer = call("DELETE", "/v1/lif/10.0.0.1");
    EXPECT_EQ(answer.status, 404U);
    EXPECT_EQ(answer.body, R"({"error":"no LIF port has the address 10.0.0.1; nasctl lif ls lists them"})");
    EXPECT_THAT(g_queries.calledLif, IsEmpty());
}

TEST_F(AdminQueries, IndexAndNameAreThoseRegisteredForStatistics)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    EXPECT_EQ(get("/v1/lif/index/5"), R"({"id":"5","index":17,"known":true})");
    EXPECT_EQ(get("/v1/lif/name/5"), R"({"id":"5","name":"eth0","known":true})");
}

TEST_F(AdminQueries, APortThatIsNotInTheTableIsToldApart)
{
    EXPECT_EQ(get("/v1/lif/index/6"), R"({"id":"6","index":8,"known":false})");
    EXPECT_EQ(get("/v1/lif/name/6"), R"({"id":"6","name":"","known":false})");
}

TEST_F(AdminQueries, ANameIsNotWaitedForWithoutEnd)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    kvos_rwlock_write_lock(&g_queries.buckets[5].lock);
    EXPECT_EQ(call("GET", "/v1/lif/name/5").status, 503U);
    EXPECT_EQ(get("/v1/lif/index/5"), R"({"id":"5","index":17,"known":true})");
}

TEST_F(AdminQueries, WithoutRegisteredLookUpsThereIsNoIndex)
{
    g_queries.registered = false;
    EXPECT_EQ(get("/v1/lif/index/5"), R"({"error":"the LIF manager has registered no look-up"})");
}

// ---- bad requests

struct BadRequest {
    const char *name;
    std::string method;
    std::string target;
    std::string body;
    std::string error;
};

class BadQuery : public AdminQueries, public testing::WithParamInterface<BadRequest> {};

TEST_P(BadQuery, IsRefusedAndNobodyIsAsked)
{
    const BadRequest &row = GetParam();
    const Answer answer = call(row.method, row.target, row.body);
    EXPECT_EQ(answer.status, 400U);
    EXPECT_EQ(answer.body, R"({"error":")" + row.error + "\"}");
    EXPECT_THAT(g_queries.asked, IsEmpty());
    EXPECT_THAT(g_queries.calledLif, IsEmpty());
}

const BadRequest kBadRequests[] = {
    {"PortZero", "POST", "/v1/lif", R"({"id":"0","name":"a","address":"::1"})", "id: must not be 0"},
    {"PortName", "POST", "/v1/lif", R"({"id":"5","name":")" + std::string(257, 'a') + R"(","address":"::1"})",
     "name: must not be longer than 256 bytes"},
    {"PortAddress", "POST", "/v1/lif", R"({"id":"5","name":"a","address":"10.0.0.300"})",
     "address: must be an IPv4 or IPv6 address"},
    {"PortTime", "POST", "/v1/lif", R"({"id":"5","name":"a","address":"::1","time":"-1"})",
     "time: must be a decimal number of at most 64 bits"},
    {"DeletedAddress", "DELETE", "/v1/lif/eth0", "", "address: must be an IPv4 or IPv6 address"},
    {"IndexOfText", "GET", "/v1/lif/index/x", "", "id: must be a decimal number of at most 64 bits"},
    {"AnyFieldOfAPlainQuestion", "POST", "/v1/ask/zone", R"({"a":1})", "a: is not a field of this call"},
    {"ConfOfText", "POST", "/v1/ask/conf", R"({"address":"here"})", "address: must be an IPv4 or IPv6 address"},
    {"ZoneWithoutSubnet", "POST", "/v1/ask/subnet", R"({"fs_id":1,"tenant_id":2})", "subnet: is missing"},
    {"LongSubnet", "POST", "/v1/ask/global-zone",
     R"({"fs_id":1,"tenant_id":2,"subnet":")" + std::string(64, 's') + R"("})",
     "subnet: must not be longer than 63 bytes"},
    {"NegativeLs", "POST", "/v1/ask/neighbors", R"({"eds_ls_id":-1})",
     "eds_ls_id: must be a whole number from 0 to 2147483647"},
    {"OneControlAddress", "POST", "/v1/ctrl-ips", R"({"addresses":"::1"})",
     "addresses: must be an array of at most 1024 texts"},
    {"ControlAddressOfText", "POST", "/v1/ctrl-ips", R"({"addresses":["::1","x"]})",
     "addresses: must be an IPv4 or IPv6 address"},
};

INSTANTIATE_TEST_SUITE_P(Requests, BadQuery, testing::ValuesIn(kBadRequests),
                         [](const auto &row) { return std::string(row.param.name); });

// ---- questions to the storage-side service

std::string addressEntry(uint32_t type, const std::string &address, uint32_t work)
{
    return bytes(type) + padded(address, 64) + bytes(work);
}

std::string listOf(int32_t result, uint32_t count, const std::string &entries)
{
    return bytes(result) + bytes(count) + entries;
}

const std::string kTwoAddresses = listOf(0, 2, addressEntry(3, "10.0.0.1", 1) + addressEntry(4, "fd00::1", 0));
const std::string kTwoAddressesShown =
    R"({"result":0,"count":2,"entries":[{"address":"10.0.0.1","protocol_type":3,"work_status":1},)"
    R"({"address":"fd00::1","protocol_type":4,"work_status":0}],"rest":null})";

std::string zone(uint32_t fs, uint32_t tenant, const std::string &subnet)
{
    return bytes(fs) + bytes(tenant) + padded(subnet, 64);
}

struct QuestionRow {
    const char *name;
    std::string question;
    std::string body;
    Asked asked;
    std::string response;
    std::string answer;
};

class Question : public AdminQueries, public testing::WithParamInterface<QuestionRow> {};

TEST_P(Question, IsAskedAndItsAnswerDecoded)
{
    const QuestionRow &row = GetParam();
    g_queries.response = row.response;
    EXPECT_EQ(post("/v1/ask/" + row.question, row.body),
              R"({"question":")" + row.question + R"(","code":0,"reason":null,"answer":)" + row.answer + "}");
    EXPECT_THAT(g_queries.asked, ElementsAre(row.asked));
}

TEST_P(Question, ThatFailsTellsItsCode)
{
    const QuestionRow &row = GetParam();
    g_queries.code = -110;
    EXPECT_EQ(post("/v1/ask/" + row.question, row.body),
              R"({"question":")" + row.question + R"(","code":-110,"reason":"Connection timed out","answer":null})");
}

const QuestionRow kQuestionRows[] = {
    {"NodeAddresses", "node-ips", "", {"GetCurNodeIpList", ""}, kTwoAddresses, kTwoAddressesShown},
    {"Interfaces",
     "ifaces",
     "",
     {"GetCurNodeIfaceList", ""},
     listOf(0, 1, padded("eth0", 16) + bytes(2U) + bytes(3U) + bytes(1500U) + bytes(24U) + padded("10.0.0.1", 64)),
     R"({"result":0,"count":1,"entries":[{"name":"eth0","index":2,"flags":3,"mtu":1500,"prefix_length":24,)"
     R"("address":"10.0.0.1"}],"rest":null})"},
    {"Configuration",
     "conf",
     R"({"address":"10.0.0.1"})",
     {"GetHdfsConf", padded("10.0.0.1", 64)},
     bytes(0) + bytes(7U) + padded("/a/b", 4096) + padded("10.0.0.0/24", 64) + bytes(9U),
     R"({"result":0,"fs_id":7,"dtree_path":"/a/b","subnet":"10.0.0.0/24","tenant_id":9,"rest":null})"},
    {"Tenant",
     "tenant",
     R"({"address":"::1"})",
     {"GetTenantIdByIp", padded("::1", 64)},
     bytes(0) + bytes(9U),
     R"({"result":0,"tenant_id":9,"rest":null})"},
    {"Zone", "zone", "", {"GetHdfsZoneIpList", ""}, kTwoAddresses, kTwoAddressesShown},
    {"Neighbours",
     "neighbors",
     R"({"eds_ls_id":6})",
     {"GetHdfsNeighborIpList", padded(bytes(6), 72)},
     kTwoAddresses,
     kTwoAddressesShown},
    {"GlobalZone",
     "global-zone",
     R"({"fs_id":1,"tenant_id":2,"subnet":"s"})",
     {"GetHdfsGlobalZoneIpList", zone(1, 2, "s")},
     kTwoAddresses,
     kTwoAddressesShown},
    {"Subnet",
     "subnet",
     R"({"fs_id":1,"tenant_id":4294967295,"subnet":"10.0.0.0/24"})",
     {"GetSubnetAllIpList", zone(1, 4294967295, "10.0.0.0/24")},
     kTwoAddresses,
     kTwoAddressesShown},
    {"Domain",
     "domain",
     "",
     {"GetZoneFullDomain", ""},
     bytes(0) + padded("zone.example", 254),
     R"({"result":0,"domain":"zone.example","rest":null})"},
    {"Contacted",
     "contacted",
     "",
     {"GetContactedZoneHdfsConfigure", ""},
     bytes(0) + bytes(1U) + bytes(2U) + bytes(3U),
     R"({"result":0,"zone_id":1,"fs_id":2,"tenant_id":3,"rest":null})"},
};

INSTANTIATE_TEST_SUITE_P(Rows, Question, testing::ValuesIn(kQuestionRows),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(AdminQueries, NodeIdsAreListed)
{
    g_queries.nodeIds = {"n1", "n2"};
    EXPECT_EQ(post("/v1/ask/node-ids"),
              R"({"question":"node-ids","code":0,"reason":null,"answer":{"result":0,"count":2,)"
              R"("entries":[{"node_id":"n1"},{"node_id":"n2"}],"rest":null}})");
}

TEST_F(AdminQueries, ThereMayBeNoNodeIds)
{
    EXPECT_EQ(post("/v1/ask/node-ids"), R"({"question":"node-ids","code":0,"reason":null,"answer":{"result":0,)"
                                        R"("count":0,"entries":[],"rest":null}})");
}

TEST_F(AdminQueries, ACodeAboveZeroIsTheServicesOwn)
{
    g_queries.code = 5;
    EXPECT_EQ(post("/v1/ask/node-ids"),
              R"({"question":"node-ids","code":5,"reason":"the service's own result","answer":null})");
}

TEST_F(AdminQueries, AQuestionThatThereIsNotIsNotFound)
{
    const Answer answer = call("POST", "/v1/ask/weather");
    EXPECT_EQ(answer.status, 404U);
    EXPECT_EQ(answer.body, R"({"error":"there is no such question"})");
}

struct OddResponse {
    const char *name;
    std::string response;
    std::string answer;
};

class OddAnswer : public AdminQueries, public testing::WithParamInterface<OddResponse> {};

TEST_P(OddAnswer, IsShownAsFarAsItIsThere)
{
    g_queries.response = GetParam().response;
    EXPECT_EQ(post("/v1/ask/zone"), R"({"question":"zone","code":0,"reason":null,"answer":)" + GetParam().answer + "}");
}

const OddResponse kOddResponses[] = {
    {"Empty", "", R"({"result":null,"count":null,"entries":[],"rest":null})"},
    {"HalfAHead", bytes(-2) + "ab", R"({"result":-2,"count":null,"entries":[],"rest":null})"},
    {"FewerThanAnnounced", listOf(0, 4294967295, addressEntry(3, "::1", 1)),
     R"({"result":0,"count":4294967295,"entries":[{"address":"::1","protocol_type":3,"work_status":1}],)"
     R"("rest":null})"},
    {"MoreThanAnnounced", listOf(0, 0, std::string("a\x01\xff~", 4) + std::string(8, '\0')),
     R"({"result":0,"count":0,"entries":[],"rest":{"hex":"6101ff7e","text":"a..~"}})"},
    {"AnEntryTooMany", listOf(0, 1, addressEntry(3, "::1", 1) + "a" + std::string(71, '\0')),
     R"({"result":0,"count":1,"entries":[{"address":"::1","protocol_type":3,"work_status":1}],)"
     R"("rest":{"hex":"61","text":"a"}})"},
    {"HalfAnEntry", listOf(0, 2, addressEntry(3, "::1", 1) + "half"),
     R"({"result":0,"count":2,"entries":[{"address":"::1","protocol_type":3,"work_status":1}],)"
     R"("rest":{"hex":"68616c66","text":"half"}})"},
    {"TextWithoutEnd", listOf(0, 1, bytes(3U) + std::string(64, 'a') + bytes(1U)),
     R"({"result":0,"count":1,"entries":[{"address":")" + std::string(64, 'a') +
         R"(","protocol_type":3,"work_status":1}],"rest":null})"},
};

INSTANTIATE_TEST_SUITE_P(Responses, OddAnswer, testing::ValuesIn(kOddResponses),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(AdminQueries, ControlAddressesShowTheirOwners)
{
    g_queries.owners = {{"10.0.0.1", 0}, {"fd00::1", 4294967295}};
    EXPECT_EQ(post("/v1/ctrl-ips", R"({"addresses":["10.0.0.1","10.0.0.2","fd00::1"]})"),
              R"({"addresses":[{"address":"10.0.0.1","ls_id":0},{"address":"10.0.0.2","ls_id":null},)"
              R"({"address":"fd00::1","ls_id":4294967295}]})");
}

// ---- which calls may wait

TEST_F(AdminQueries, QuestionsAndChangesKeepApartFromReading)
{
    using host::admin::Lane;
    const auto laneOf = [](const char *method, const char *target) {
        return host::admin::laneOf({method, target, ""});
    };
    EXPECT_EQ(laneOf("GET", "/metrics"), Lane::read);
    EXPECT_EQ(laneOf("GET", "/v1/monitor"), Lane::read);
    EXPECT_EQ(laneOf("GET", "/v1/ips/::1"), Lane::read);
    EXPECT_EQ(laneOf("GET", "/v1/lif"), Lane::read);
    EXPECT_EQ(laneOf("GET", "/v1/lif/index/5"), Lane::read);
    EXPECT_EQ(laneOf("GET", "/v1/lif/name/5"), Lane::question);
    EXPECT_EQ(laneOf("POST", "/v1/ask/zone"), Lane::question);
    EXPECT_EQ(laneOf("POST", "/v1/ctrl-ips"), Lane::question);
    EXPECT_EQ(laneOf("GET", "/v1/storage/faults"), Lane::service);
    EXPECT_EQ(laneOf("POST", "/v1/storage/faults"), Lane::service);
    EXPECT_EQ(laneOf("PUT", "/v1/monitor"), Lane::change);
    EXPECT_EQ(laneOf("POST", "/v1/lif"), Lane::change);
    EXPECT_EQ(laneOf("DELETE", "/v1/lif/::1"), Lane::change);
}

// ---- metrics

std::vector<std::string> linesOf(const std::string &text)
{
    std::vector<std::string> lines;
    for (size_t begin = 0; begin < text.size();) {
        const size_t end = text.find('\n', begin);
        lines.push_back(text.substr(begin, end - begin));
        begin = end + 1;
    }
    return lines;
}

// The lines of the metrics whose names begin so.
std::vector<std::string> metrics(const std::string &prefix)
{
    std::vector<std::string> found;
    for (const std::string &line : linesOf(host::admin::answerRequest({"GET", "/metrics", ""}).body)) {
        const size_t name = line.starts_with("# ") ? line.find(' ', 2) + 1 : 0;
        if (line.compare(name, prefix.size(), prefix) == 0) {
            found.push_back(line);
        }
    }
    return found;
}

TEST_F(AdminQueries, MetricsAreTextOfPrometheus)
{
    const Answer answer = call("GET", "/metrics");
    EXPECT_EQ(answer.status, 200U);
    EXPECT_EQ(answer.type, "text/plain; version=0.0.4; charset=utf-8");
    for (const std::string &line : linesOf(answer.body)) {
        EXPECT_TRUE(line.starts_with("nasctrl_") || line.starts_with("# HELP nasctrl_") ||
                    line.starts_with("# TYPE nasctrl_"))
            << line;
    }
}

TEST_F(AdminQueries, MetricsTellTheNodeItself)
{
    g_node.power = NAS_POWER_ON;
    EXPECT_THAT(metrics("nasctrl_build_info"),
                ElementsAre("# HELP nasctrl_build_info The version that runs; always 1.",
                            "# TYPE nasctrl_build_info gauge", "nasctrl_build_info{version=\"1.2.3\"} 1"));
    EXPECT_THAT(metrics("nasctrl_uptime"),
                ElementsAre("# HELP nasctrl_uptime_seconds Time since the start of the node.",
                            "# TYPE nasctrl_uptime_seconds gauge", "nasctrl_uptime_seconds 1.5"));
    EXPECT_THAT(metrics("nasctrl_power"),
                ElementsAre("# HELP nasctrl_power_state State of the protocol service: 0 off, 1 on, 2 going off, 3 "
                            "going on.",
                            "# TYPE nasctrl_power_state gauge", "nasctrl_power_state 1"));
}

TEST_F(AdminQueries, MetricsCountAddressesByModuleAndState)
{
    g_node.modules = {module(0, "nfs", {3}), module(4, "smb", {2})};
    g_node.modules[0].listening = {"10.0.0.1", "10.0.0.2"};
    g_node.modules[0].failures = {{"10.0.0.3", "Permission denied"}};
    for (const char *address : {"10.0.0.1", "10.0.0.2", "10.0.0.3", "10.0.0.4"}) {
        addAddress(address, 3, 63);
    }
    addAddress("10.0.0.5", 7, 63);
    EXPECT_THAT(metrics("nasctrl_addresses"),
                ElementsAre("# HELP nasctrl_addresses_busy 1 when work held the address list, and what needs it is "
                            "left out.",
                            "# TYPE nasctrl_addresses_busy gauge", "nasctrl_addresses_busy 0",
                            "# HELP nasctrl_addresses_listed Service addresses in the node's list.",
                            "# TYPE nasctrl_addresses_listed gauge", "nasctrl_addresses_listed 5",
                            "# HELP nasctrl_addresses Service addresses by module and state.",
                            "# TYPE nasctrl_addresses gauge",
                            "nasctrl_addresses{slot=\"0\",module=\"nfs\",state=\"listening\"} 2",
                            "nasctrl_addresses{slot=\"0\",module=\"nfs\",state=\"failing\"} 1",
                            "nasctrl_addresses{slot=\"0\",module=\"nfs\",state=\"pending\"} 1",
                            "nasctrl_addresses{slot=\"4\",module=\"smb\",state=\"listening\"} 0",
                            "nasctrl_addresses{slot=\"4\",module=\"smb\",state=\"failing\"} 0",
                            "nasctrl_addresses{slot=\"4\",module=\"smb\",state=\"pending\"} 0"));
}

TEST_F(AdminQueries, MetricsDoNotWaitForTheAddressList)
{
    g_node.modules = {module(0, "nfs", {3})};
    pthread_mutex_lock(&g_ipListMutex);
    const auto lines = metrics("nasctrl_addresses");
    pthread_mutex_unlock(&g_ipListMutex);
    EXPECT_THAT(lines, ElementsAre("# HELP nasctrl_addresses_busy 1 when work held the address list, and what needs "
                                   "it is left out.",
                                   "# TYPE nasctrl_addresses_busy gauge", "nasctrl_addresses_busy 1",
                                   "# HELP nasctrl_addresses Service addresses by module and state.",
                                   "# TYPE nasctrl_addresses gauge",
                                   "nasctrl_addresses{slot=\"0\",module=\"nfs\",state=\"listening\"} 0",
                                   "nasctrl_addresses{slot=\"0\",module=\"nfs\",state=\"failing\"} 0"));
}

TEST_F(AdminQueries, MetricsCountTheCallsOfModulesHooks)
{
    g_node.modules = {module(0, "nfs", {3}), module(4, "smb", {2})};
    g_node.modules[0].counts = {.additions = 11, .deletions = 12, .retries = 13, .failures = 14};
    EXPECT_THAT(metrics("nasctrl_module_"),
                ElementsAre("# HELP nasctrl_module_additions_total Additions that modules accepted.",
                            "# TYPE nasctrl_module_additions_total counter",
                            "nasctrl_module_additions_total{slot=\"0\",module=\"nfs\"} 11",
                            "nasctrl_module_additions_total{slot=\"4\",module=\"smb\"} 0",
                            "# HELP nasctrl_module_deletions_total Deletions that modules were told of.",
                            "# TYPE nasctrl_module_deletions_total counter",
                            "nasctrl_module_deletions_total{slot=\"0\",module=\"nfs\"} 12",
                            "nasctrl_module_deletions_total{slot=\"4\",module=\"smb\"} 0",
                            "# HELP nasctrl_module_retries_total Additions tried again after a refusal.",
                            "# TYPE nasctrl_module_retries_total counter",
                            "nasctrl_module_retries_total{slot=\"0\",module=\"nfs\"} 13",
                            "nasctrl_module_retries_total{slot=\"4\",module=\"smb\"} 0",
                            "# HELP nasctrl_module_failures_total Additions that modules refused.",
                            "# TYPE nasctrl_module_failures_total counter",
                            "nasctrl_module_failures_total{slot=\"0\",module=\"nfs\"} 14",
                            "nasctrl_module_failures_total{slot=\"4\",module=\"smb\"} 0"));
}

TEST_F(AdminQueries, MetricsShowTheMonitor)
{
    g_needRetry = 1;
    passed(1500, {false, true, 5, 0});
    EXPECT_THAT(
        metrics("nasctrl_monitor_"),
        ElementsAre("# HELP nasctrl_monitor_period_seconds Time between two passes of the address monitor.",
                    "# TYPE nasctrl_monitor_period_seconds gauge", "nasctrl_monitor_period_seconds 60",
                    "# HELP nasctrl_monitor_retry 1 when the monitor hurries: something failed, or a pass found "
                    "an address that it knew.",
                    "# TYPE nasctrl_monitor_retry gauge", "nasctrl_monitor_retry 1",
                    "# HELP nasctrl_monitor_last_pass_age_seconds Time since the last pass began.",
                    "# TYPE nasctrl_monitor_last_pass_age_seconds gauge", "nasctrl_monitor_last_pass_age_seconds 1.5"));
}

TEST_F(AdminQueries, MetricsCountStorageQueriesByTypeAndResult)
{
    g_queries.calls[1].byResult = {21, 22, 23, 24, 25, 26, 27};
    const auto lines = metrics("nasctrl_storage_queries_total");
    ASSERT_EQ(lines.size(), 2U + 12 * 7);
    EXPECT_EQ(lines[0], "# HELP nasctrl_storage_queries_total Questions to the storage-side service, each try of one "
                        "counted.");
    EXPECT_EQ(lines[1], "# TYPE nasctrl_storage_queries_total counter");
    size_t at = 2;
    uint64_t expected = 21;
    for (const char *type : {"node_ips", "hdfs_conf", "neighbor_ips", "zone_ips", "node_ifaces", "global_zone_ips",
                             "zone_node_ids", "tenant", "contacted_zone", "subnet_ips", "zone_domain", "other"}) {
        for (const char *result : {"ok", "refused", "timed_out", "unreachable", "closed", "malformed", "failed"}) {
            const uint64_t count = type == std::string("hdfs_conf") ? expected++ : 0;
            EXPECT_EQ(lines[at++], std::string("nasctrl_storage_queries_total{type=\"") + type + "\",result=\"" +
                                       result + "\"} " + std::to_string(count));
        }
    }
}

TEST_F(AdminQueries, MetricsShowHowLongStorageQueriesTook)
{
    g_queries.calls[0].byDuration = {1, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0, 4};
    g_queries.calls[0].total = std::chrono::milliseconds(61500);
    const auto lines = metrics("nasctrl_storage_query_duration_seconds");
    ASSERT_EQ(lines.size(), 2U + 12 * 14);
    EXPECT_THAT(std::vector(lines.begin(), lines.begin() + 16),
                ElementsAre("# HELP nasctrl_storage_query_duration_seconds How long the tries took, whatever came of "
                            "them.",
                            "# TYPE nasctrl_storage_query_duration_seconds histogram",
                            "nasctrl_storage_query_duration_seconds_count{type=\"node_ips\"} 7",
                            "nasctrl_storage_query_duration_seconds_sum{type=\"node_ips\"} 61.5",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.0001\"} 1",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.0005\"} 1",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.001\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.005\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.01\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.05\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.1\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"0.5\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"1\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"3\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"10\"} 3",
                            "nasctrl_storage_query_duration_seconds_bucket{type=\"node_ips\",le=\"+Inf\"} 7"));
}

TEST_F(AdminQueries, MetricsCountLifPortsAndThoseThatStatisticsMiss)
{
    addPort(5, 17, "eth0", "10.0.0.1", 1);
    addPort(6, 18, "eth1", "10.0.0.2", 1);
    addPort(7, 19, "eth2", "10.0.0.3", 1);
    g_NfsLifPortInfo.slots[18] = 0; // port 6 has lost its slot
    g_queries.perf = {5};
    kvos_rwlock_write_lock(&g_queries.buckets[200].lock);
    EXPECT_THAT(metrics("nasctrl_lif_"),
                ElementsAre("# HELP nasctrl_lif_ports LIF ports in the table.", "# TYPE nasctrl_lif_ports gauge",
                            "nasctrl_lif_ports 3",
                            "# HELP nasctrl_lif_ports_performance LIF ports whose performance path is on.",
                            "# TYPE nasctrl_lif_ports_performance gauge", "nasctrl_lif_ports_performance 1",
                            "# HELP nasctrl_lif_ports_displaced LIF ports that the statistics find under another index "
                            "than their own.",
                            "# TYPE nasctrl_lif_ports_displaced gauge", "nasctrl_lif_ports_displaced 1",
                            "# HELP nasctrl_lif_buckets_busy Parts of the LIF table that were held and are left out.",
                            "# TYPE nasctrl_lif_buckets_busy gauge", "nasctrl_lif_buckets_busy 1"));
}

TEST_F(AdminQueries, MetricsCountLogLinesByLevel)
{
    g_queries.lines = {0, 1, 2, 3, 4, 5, 6, 4294967296};
    EXPECT_THAT(metrics("nasctrl_log_"),
                ElementsAre("# HELP nasctrl_log_lines_total Lines of the log by level; those above the threshold are "
                            "not written.",
                            "# TYPE nasctrl_log_lines_total counter", "nasctrl_log_lines_total{level=\"0\"} 0",
                            "nasctrl_log_lines_total{level=\"1\"} 1", "nasctrl_log_lines_total{level=\"2\"} 2",
                            "nasctrl_log_lines_total{level=\"3\"} 3", "nasctrl_log_lines_total{level=\"4\"} 4",
                            "nasctrl_log_lines_total{level=\"5\"} 5", "nasctrl_log_lines_total{level=\"6\"} 6",
                            "nasctrl_log_lines_total{level=\"7\"} 4294967296"));
}

TEST_F(AdminQueries, MetricsCountThePoolAsAWhole)
{
    g_node.accounts = {{"a", 2, 100, 9}, {"b", 1, 50, 1}};
    EXPECT_THAT(metrics("nasctrl_pool_"),
                ElementsAre("# HELP nasctrl_pool_blocks Live blocks of the memory pool.",
                            "# TYPE nasctrl_pool_blocks gauge", "nasctrl_pool_blocks 3",
                            "# HELP nasctrl_pool_bytes Bytes in the live blocks of the memory pool.",
                            "# TYPE nasctrl_pool_bytes gauge", "nasctrl_pool_bytes 150",
                            "# HELP nasctrl_pool_allocations_total Blocks ever taken from the memory pool.",
                            "# TYPE nasctrl_pool_allocations_total counter", "nasctrl_pool_allocations_total 10"));
}

TEST_F(AdminQueries, MetricsCountMessages)
{
    g_node.counters = {1, 2, 3, 4, 5, 6};
    EXPECT_THAT(metrics("nasctrl_message"),
                ElementsAre("# HELP nasctrl_message_connections Connections to the message socket.",
                            "# TYPE nasctrl_message_connections gauge", "nasctrl_message_connections 1",
                            "# HELP nasctrl_message_connections_total Connections accepted on the message socket.",
                            "# TYPE nasctrl_message_connections_total counter", "nasctrl_message_connections_total 2",
                            "# HELP nasctrl_messages_total Messages handed to a module.",
                            "# TYPE nasctrl_messages_total counter", "nasctrl_messages_total 3",
                            "# HELP nasctrl_message_replies_total Replies that modules sent.",
                            "# TYPE nasctrl_message_replies_total counter", "nasctrl_message_replies_total 4",
                            "# HELP nasctrl_messages_malformed_total Frames that closed their connection.",
                            "# TYPE nasctrl_messages_malformed_total counter", "nasctrl_messages_malformed_total 5",
                            "# HELP nasctrl_messages_undelivered_total Messages for a module that there is not.",
                            "# TYPE nasctrl_messages_undelivered_total counter",
                            "nasctrl_messages_undelivered_total 6"));
}

} // namespace
