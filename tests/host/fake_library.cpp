#include "fake_library.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/log.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/nasctrl.h>
#include <platform/log.h>

struct nas_lif_port_info g_NfsLifPortInfo;
char g_nasEdsDsName[64];
list_link g_iplistHead = {&g_iplistHead, &g_iplistHead};
pthread_mutex_t g_ipListMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_ipSockIpLockMutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_floatIpSupport = 1;
uint8_t g_needRetry = 0;
uint32_t g_periodLength = 60;

namespace fake {
namespace {

std::list<NasIpListNode> s_addresses;
std::list<NasLifPortEntry> s_ports;
std::vector<NasLifPortBucket> s_buckets(NAS_LIF_PORT_BUCKETS);
size_t s_latestSize; // of the blocks of the pool, which no test has more than one of at a time

void append(list_link &head, list_link &link)
{
    auto *last = static_cast<list_link *>(head.prev);
    link = {&head, last};
    last->next = &link;
    head.prev = &link;
}

uint32_t record(const std::string &call)
{
    library().calls.push_back(call);
    return library().result;
}

uint32_t read(const char *key, char *out, size_t size)
{
    const auto found = library().configuration.find(key);
    if (found == library().configuration.end()) {
        return NAS_ERROR;
    }
    snprintf(out, size, "%s", found->second.c_str());
    return NAS_OK;
}

} // namespace

Library &library()
{
    static Library instance;
    return instance;
}

void reset()
{
    library() = {};
    s_addresses.clear();
    s_ports.clear();
    g_iplistHead = {&g_iplistHead, &g_iplistHead};
    g_floatIpSupport = 1;
    g_needRetry = 0;
    g_periodLength = 60;
    g_NfsLifPortInfo.find = nullptr;
    g_NfsLifPortInfo.buckets = s_buckets.data();
    for (NasLifPortBucket &bucket : s_buckets) {
        bucket = {{}, {&bucket.head, &bucket.head}};
    }
    memset(g_nasEdsDsName, 0, sizeof(g_nasEdsDsName));
}

void listAddress(const std::string &address, uint32_t protoType, uint32_t status)
{
    NasIpListNode &node = s_addresses.emplace_back();
    snprintf(node.addr, sizeof(node.addr), "%s", address.c_str());
    node.protoType = protoType;
    node.status = status;
    append(g_iplistHead, node.link);
}

void addPort(uint64_t id, uint32_t index, uint64_t time, const std::string &name, const std::string &ip)
{
    NasLifPortEntry &entry = s_ports.emplace_back();
    entry.id = id;
    entry.index = index;
    entry.time = time;
    snprintf(entry.name, sizeof(entry.name), "%s", name.c_str());
    snprintf(entry.ip, sizeof(entry.ip), "%s", ip.c_str());
    append(s_buckets[id % NAS_LIF_PORT_BUCKETS].head, entry.link);
    g_NfsLifPortInfo.find = [](uint64_t) { return 0U; };
}

} // namespace fake

// ---- the library

uint32_t getLocalIPAddr(char *out, int len)
{
    return fake::read("dpc_data_ip", out, static_cast<size_t>(len));
}

uint32_t DpcGetClusterType(char *out, int len)
{
    return fake::read("cluster_type", out, static_cast<size_t>(len));
}

uint32_t DpcGetClusterId(uint32_t *out, int len)
{
    char text[16];
    const uint32_t result = fake::read("cm_cluster_id", text, len < 16 ? static_cast<size_t>(len) : sizeof(text));
    *out = static_cast<uint32_t>(strtoul(text, nullptr, 10));
    return result;
}

uint32_t DpcGetMDomainName(char *out, uint32_t size)
{
    return fake::read("ds_name", out, size);
}

int32_t GetCurNodeIpList(node_ip_list **list)
{
    fake::record("GetCurNodeIpList()");
    const std::string &bytes = fake::library().nodeList;
    if (bytes.empty()) {
        return -110;
    }
    *list = static_cast<node_ip_list *>(nas_mem_comm_zalloc(bytes.size(), "GetCurNodeIpList", 1));
    memcpy(*list, bytes.data(), bytes.size());
    return 0;
}

uint32_t NasIpMgrGetIpFamily(const char *addr)
{
    in6_addr room{};
    return inet_pton(AF_INET, addr, &room) == 1 ? AF_INET : inet_pton(AF_INET6, addr, &room) == 1 ? AF_INET6 : 0;
}

int64_t NasIpMgrShowAllIp(char *buf, uint32_t buflen)
{
    return snprintf(buf, buflen, "%s", fake::library().ipText.c_str());
}

uint32_t NasIpMgrAddNewIP(const char *addr, uint32_t protoType)
{
    return fake::record(std::string("NasIpMgrAddNewIP(") + addr + ", " + std::to_string(protoType) + ")");
}

uint32_t NasIpMgrDeleteOldIP(const char *addr, uint32_t protoType)
{
    return fake::record(std::string("NasIpMgrDeleteOldIP(") + addr + ", " + std::to_string(protoType) + ")");
}

int32_t NasIpMgrSetIpQueryPeriod(const char *text)
{
    return static_cast<int32_t>(fake::record(std::string("NasIpMgrSetIpQueryPeriod(") + text + ")"));
}

int64_t NasIpMgrGetIpQueryPeriod(char *buf, uint32_t buflen)
{
    return snprintf(buf, buflen, "60\n");
}

void NasRetryPendingAddNotification()
{
    fake::record("NasRetryPendingAddNotification() with door " + std::to_string(g_floatIpSupport));
}

uint32_t NasIpMgrInvokeEvent(uint32_t event, const char *addr, uint32_t protoType, uint32_t *mask, uint32_t)
{
    return fake::record("NasIpMgrInvokeEvent(" + std::to_string(event) + ", " + addr + ", " +
                        std::to_string(protoType) + ", " + std::to_string(*mask) + ") with door " +
                        std::to_string(g_floatIpSupport));
}

int64_t nas_ctrl_get_cluster_count_list(char *buf, long size)
{
    return snprintf(buf, static_cast<size_t>(size), "Cluster list count : 0\n");
}

uint32_t nas_ctrl_add_to_cluster_list(uint64_t id)
{
    return fake::record("nas_ctrl_add_to_cluster_list(" + std::to_string(id) + ")");
}

uint32_t nas_ctrl_remove_from_cluster_list(uint64_t id)
{
    return fake::record("nas_ctrl_remove_from_cluster_list(" + std::to_string(id) + ")");
}

void nas_ctrl_power_on_success()
{
    fake::record("nas_ctrl_power_on_success()");
}

int32_t nas_ctrl_power_reg(nas_power_fn start, nas_power_fn stop)
{
    g_nas_power_mgr.start = start;
    g_nas_power_mgr.stop = stop;
    return static_cast<int32_t>(fake::record("nas_ctrl_power_reg()"));
}

struct nas_power_mgr g_nas_power_mgr;

// ---- the host's other services

void kvlog(uint32_t, uint32_t level, const char *, uint32_t, const char *, uint32_t, const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    fake::library().lines.push_back(std::to_string(level) + " " + text);
}

void *nas_mem_comm_zalloc(size_t size, const char *, uint32_t)
{
    fake::s_latestSize = size;
    return fake::library().failAllocation ? nullptr : calloc(1, size);
}

// Runs the body at once, on the calling thread.
int32_t kvos_thrd_create(void *(*body)(void *), void *arg, unsigned long *)
{
    if (fake::record("kvos_thrd_create()") != 0) {
        return EAGAIN;
    }
    body(arg);
    return 0;
}

uint32_t SvrSendResponse(svr_msg_t *record, const void *reply, uint32_t length)
{
    const auto *bytes = static_cast<const uint8_t *>(reply);
    fake::library().sent.push_back({{bytes, bytes + length}, record->sequence});
    return fake::library().result;
}

uint32_t IpcGetLocalNid()
{
    return 7;
}

namespace host {

size_t blockSize(const void *)
{
    return fake::s_latestSize;
}

uint32_t osThreadId()
{
    return 1;
}

uint32_t logThreshold()
{
    return fake::library().logThreshold;
}

void setLogThreshold(uint32_t level)
{
    fake::library().logThreshold = level;
}

} // namespace host
