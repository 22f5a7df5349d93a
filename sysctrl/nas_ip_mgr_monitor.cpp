/*
 * Start of the IP manager, and the monitor thread: at a fixed period it compares the list with the node's addresses,
 * because queued changes can be lost and can miss a module.
 *
 * Owns the period, the retry flag and the two times, all plain words read without a lock. A pass holds
 * g_ipSockIpLockMutex while it compares; the sweep takes g_ipListMutex inside it, the clean-up of the LIF ports takes
 * its bucket locks inside it. Only the monitor thread runs passes; the rest is for any thread.
 */
#include <cerrno>
#include <cstdlib>
#include <nasctrl/host/notify.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>
#include <nasctrl/lif_port.h>

#include "internal/bounded.h"
#include "internal/ip_list.h"
#include "internal/locks.h"
#include "internal/pool.h"

static_assert(offsetof(node_ip_entry, proto_type) == 0);
static_assert(offsetof(node_ip_entry, addr) == 4);
static_assert(offsetof(node_ip_entry, work_status) == 68);
static_assert(sizeof(node_ip_entry) == 72);
static_assert(offsetof(node_ip_list, result) == 0);
static_assert(offsetof(node_ip_list, count) == 4);
static_assert(offsetof(node_ip_list, entries) == 8);

uint8_t g_nasipMgrInitied;
uint8_t g_needRetry;
uint32_t g_periodLength = 60;
set_period_fn g_setPeriodNotifyFunc;
uint64_t g_ipLastQueryTime;
uint64_t g_ipChangeTime;
sem_t g_SockIpSem;
unsigned long g_ip_monitor_thread_id;
unsigned long g_ip_event_thread_id;

namespace {

constexpr long kPeriodMinSeconds = 1;
constexpr long kPeriodMaxSeconds = 600;
constexpr uint32_t kSleepUnitsPerSecond = 100;
constexpr uint32_t kRetrySleepUnits = 5 * kSleepUnitsPerSecond;

uint32_t nextSleepUnits()
{
    return nas::readWord(g_needRetry) != 0 ? kRetrySleepUnits : nas::readWord(g_periodLength) * kSleepUnitsPerSecond;
}

/* A list is void when the event handler has changed something since it was asked for. */
bool changedSinceQuery(const char *func)
{
    const uint64_t query = nas::readWord(g_ipLastQueryTime);
    const uint64_t change = nas::readWord(g_ipChangeTime);
    if (query >= change) {
        return false;
    }
    LOG_LINE_AS(func, NASCTRL_LOG_INFO,
                "Before IP Query return , notification received [%d][%d]. Ignore this iteration values",
                static_cast<int>(query), static_cast<int>(change));
    return true;
}

bool nodeHas(const node_ip_list *list, const NasIpListNode &record)
{
    const node_ip_entry *end = list->entries + list->count;
    return std::any_of(list->entries, end, [&record](const node_ip_entry &entry) {
        return entry.proto_type == record.protoType && strncmp(entry.addr, record.addr, NAS_IP_TEXT_SIZE) == 0;
    });
}

/* Makes list and LIF ports those of the node. The flag is cleared first, so that it tells what went wrong since. */
void reconcile(const char *func, const node_ip_list *list)
{
    const nas::MutexGuard guard(&g_ipSockIpLockMutex);
    nas::writeWord(g_needRetry, uint8_t{0});
    LOG_LINE_AS(func, nas_log_map_get(0), "Total ip %d present.", static_cast<int>(list->count));
    NasIpMgrCleanDeletedIpInfo(list);
    NasIpMgrAddNewIpInParallel(list);
    DeleteRedundancyLifInfoByIpList(list->entries, list->count);
    NasIpMgrShowAllIpToLog();
    NasRetryPendingAddNotification();
}

/* What a pass does with the answer of its query, which began at startMs. */
void handleNodeIpList(const char *func, const node_ip_list *list, uint64_t startMs)
{
    if (changedSinceQuery(func)) {
        return;
    }
    const uint32_t invalid = NasIpMgrValidateIpInfo(list);
    if (invalid != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "ValidateIpInfo failed [%d].", static_cast<int>(invalid));
        return;
    }
    reconcile(func, list);
    LOG_LINE_AS(func, nas_log_map_get(0), "Get cur node iplist cost %lld ms.",
                nas::lld(static_cast<long long>(kvos_time_getmillisec() - startMs)));
}

} // namespace

int32_t NasIpMgrInitModule(set_period_fn fn)
{
    if (std::atomic_ref<uint8_t>(g_nasipMgrInitied).exchange(1) != 0) {
        return 0;
    }
    nas::requestRetry();
    nas::writeWord(g_setPeriodNotifyFunc, fn);
    sem_init(&g_SockIpSem, 0, 0);
    RegisterSysCtrlCmd();
    nas::openIpEventQueues();
    const int32_t result = kvos_thrd_create(NasIpMgrIpStatusMonitorTask, nullptr, &g_ip_monitor_thread_id);
    if (result != 0) {
        return result;
    }
    return kvos_thrd_create(NasIpMgrIpEventHandle, nullptr, &g_ip_event_thread_id);
}

int32_t NasIpMgrSetIpQueryPeriod(const char *text)
{
    if (text == nullptr) {
        LOG_NULL("buf", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    const long seconds = strtol(text, nullptr, 10);
    if (seconds < kPeriodMinSeconds || seconds > kPeriodMaxSeconds) {
        LOG_ERROR("Period Length Error %s.", text);
        return static_cast<int32_t>(NAS_ERROR);
    }
    nas::writeWord(g_periodLength, static_cast<uint32_t>(seconds));
    const set_period_fn notify = nas::readWord(g_setPeriodNotifyFunc);
    if (notify != nullptr) {
        notify(text);
    }
    return 0;
}

int64_t NasIpMgrGetIpQueryPeriod(char *buf, uint32_t buflen)
{
    if (buf == nullptr) {
        LOG_NULL("buf", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (buflen == 0) {
        LOG_ERROR("buflen less than 1 %d.", static_cast<int>(buflen));
        return -EINVAL;
    }
    const int printed = nas::append(buf, buflen, "%d\n", static_cast<int>(nas::readWord(g_periodLength)));
    return printed < 0 ? -1 : static_cast<int64_t>(strlen(buf));
}

/* The sleep is chosen before the pass, so what goes wrong in a pass shortens the sleep after the next one. */
void *NasIpMgrIpStatusMonitorTask(void * /*arg*/)
{
    LOG_CLASS(1, "Nas ip mgr status monitor start.");
    for (;;) {
        const uint32_t units = nextSleepUnits();
        NasIpMgrIpStatusMonitor();
        kvos_10msleep(units);
    }
}

void NasIpMgrIpStatusMonitor()
{
    const uint64_t startMs = kvos_time_getmillisec();
    nas::writeWord(g_ipLastQueryTime, kvos_time_gettime());
    node_ip_list *list = nullptr;
    const int32_t result = GetCurNodeIpListAdapter(&list);
    if (result != 0) {
        LOG_ERROR("Get Node IP failed [%d].", result);
        nas::requestRetry();
    } else {
        handleNodeIpList(__func__, list, startMs);
    }
    FreeCurNodeIpList(list);
}

uint32_t NasIpMgrValidateIpInfo(const node_ip_list *list)
{
    if (list == nullptr) {
        LOG_ERROR("Get Node IP returned IP Info NULL.");
        return NAS_ERROR;
    }
    if (list->result != 0) {
        /* The two blanks belong to the line. */
        LOG_ERROR(" query failed.");
        return NAS_ERROR;
    }
    return NAS_OK;
}

/* The modules are told while the list is locked, and whatever they answer the record is gone. */
void NasIpMgrCleanDeletedIpInfo(const node_ip_list *list)
{
    if (list == nullptr) {
        LOG_NULL_VOID("list");
        return;
    }
    const nas::MutexGuard guard(&g_ipListMutex);
    for (NasIpListNode &record : nas::IpRecords()) {
        if (nodeHas(list, record)) {
            continue;
        }
        const nas::IpText addr(record.addr);
        LOG_INFO("IP[addr %s, protoType %u] has been deleted.", addr.c_str(), record.protoType);
        nas::listUnlink(&record.link);
        uint32_t status = 0;
        NasIpMgrInvokeEvent(NAS_IP_EVENT_DELETE, addr.c_str(), record.protoType, &status, 0);
        POOL_FREE(&record);
    }
}
