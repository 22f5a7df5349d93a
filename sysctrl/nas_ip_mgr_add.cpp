/*
 * Addition and deletion of service addresses: one at a time, or spread over at most 25 short-lived threads, because a
 * module may take long to open its sockets.
 *
 * g_ipSockIpLockMutex is held for a whole addition or deletion, by the event handler's paths here or by the monitor's
 * pass, and through the waits for the addition threads. Those threads take no lock but the list's, and point into their
 * starter's texts: the starter waits for every thread that it started before it lets go of them.
 */
#include <cerrno>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>

#include "internal/bounded.h"
#include "internal/ip_list.h"
#include "internal/locks.h"
#include "internal/pool.h"

static_assert(offsetof(ip_add_work, addr) == 0);
static_assert(offsetof(ip_add_work, protoType) == 8);
static_assert(offsetof(ip_add_work, done) == 16);
static_assert(sizeof(ip_add_work) == 24);

namespace {

constexpr uint32_t kAdditionThreadsMax = 25;

/* An entry's address with its NUL. */
using EntryText = char[sizeof(node_ip_entry::addr) + 1];

/* The address of an entry where it stands, or, for one that fills its field without a NUL, its copy. */
const char *terminatedText(const node_ip_entry *entry, EntryText &copy)
{
    if (memchr(entry->addr, '\0', sizeof(entry->addr)) != nullptr) {
        return entry->addr;
    }
    std::copy_n(entry->addr, sizeof(entry->addr), copy);
    copy[sizeof(entry->addr)] = '\0';
    return copy;
}

/* A wait that fails, other than by a signal, counts as a completion: the starter must go on. */
void waitForAdditions(uint32_t started)
{
    for (uint32_t i = 0; i < started; ++i) {
        while (sem_wait(&g_SockIpSem) != 0 && errno == EINTR) {
        }
    }
}

/* Notes that the event handler changes something, which voids a list that the monitor is waiting for. */
void noteChange()
{
    nas::writeWord(g_ipChangeTime, kvos_time_gettime());
}

/* Moves a queued addition into an entry of a batch. */
void fillEntry(const char *func, const NasIpEvent *ev, node_ip_entry *entry)
{
    entry->proto_type = ev->protoType;
    const int error = nas::strncpy_s(entry->addr, sizeof(entry->addr), ev->addr, sizeof(ev->addr));
    if (error != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Copy ip(%s, %d) failed, ret %d.", nas::IpText(ev->addr).c_str(),
                    static_cast<int>(ev->protoType), error);
    }
    SetDefaultIpWorkstatus(entry);
}

/* Tells the modules of a new address and records it with the mask of those that accepted, whatever the result. */
uint32_t invokeAndRecord(const char *func, const char *addr, uint32_t protoType)
{
    uint32_t mask = 0;
    const uint32_t result = NasIpMgrInvokeEvent(NAS_IP_EVENT_ADD, addr, protoType, &mask, 0);
    if (result != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Nas IP(addr %s, protoType %u) invoke add failed(%d).", nas::orNull(addr),
                    protoType, static_cast<int>(result));
    }
    NasIpMgrAddToList(addr, protoType, mask);
    return result;
}

} // namespace

int32_t NasIpMgrAddNewIPWithoutLock(const char *addr, uint32_t protoType)
{
    if (addr == nullptr) {
        LOG_NULL("pIp", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (NasIpMgrIsIpPresentStrict(addr, protoType) != 0) {
        LOG_INFO("Nas IP[addr %s, protoType %u] already exist.", addr, protoType);
        NasRetryPendingAddNotification();
        return 0;
    }
    LOG_INFO("IP ADDITION Nas IP(addr %s, protoType %u) invoke add.", addr, protoType);
    return static_cast<int32_t>(invokeAndRecord(__func__, addr, protoType));
}

int32_t NasIpMgrAddNewIPInner(const char *addr, uint32_t protoType)
{
    noteChange();
    int32_t result = 0;
    {
        const nas::MutexGuard guard(&g_ipSockIpLockMutex);
        result = NasIpMgrAddNewIPWithoutLock(addr, protoType);
    }
    LOG_CLASS(1, "Add ip without lock, ip:%s, protoType:%u", nas::orNull(addr), protoType);
    return result;
}

void NasIpMgrAddNewIpOneByOne(list_link *pending)
{
    if (pending == nullptr) {
        LOG_NULL_VOID("pending");
        return;
    }
    while (list_link *link = nas::listTakeFront(pending)) {
        NasIpEvent *ev = LIST_RECORD(link, NasIpEvent, link);
        const nas::IpText addr(ev->addr);
        const int32_t result = NasIpMgrAddNewIPInner(addr.c_str(), ev->protoType);
        if (result != 0) {
            LOG_ERROR("Add ip(%s, %d) failed, ret %d.", addr.c_str(), static_cast<int>(ev->protoType), result);
        }
        NasIpMgr_ReleaseEvent(ev);
    }
}

/* Without memory the events stay on the list, unfreed: the monitor's next pass makes up for them. */
void NasIpMgrAddNewIpBatchInner(list_link *pending, uint32_t count)
{
    if (pending == nullptr) {
        LOG_NULL_VOID("pending");
        return;
    }
    noteChange();
    auto *batch = static_cast<node_ip_list *>(POOL_ZALLOC(sizeof(node_ip_list) + count * sizeof(node_ip_entry)));
    if (batch == nullptr) {
        LOG_ERROR("Alloc mem for batch add Ip failed, lost cnt:%u.", count);
        return;
    }
    batch->count = count;
    for (uint32_t i = 0; i < count && !nas::listEmpty(pending); ++i) {
        NasIpEvent *ev = LIST_RECORD(nas::listTakeFront(pending), NasIpEvent, link);
        fillEntry(__func__, ev, &batch->entries[i]);
        NasIpMgr_ReleaseEvent(ev);
    }
    {
        const nas::MutexGuard guard(&g_ipSockIpLockMutex);
        NasIpMgrAddNewIpInParallel(batch);
    }
    LOG_CLASS(1, "Add ip batch inner finish.");
    FreeCurNodeIpList(batch);
}

void NasIpMgrAddNewIpInParallel(const node_ip_list *list)
{
    if (list == nullptr) {
        LOG_NULL_VOID("list");
        return;
    }
    EntryText copies[kAdditionThreadsMax]; /* one for each thread in flight */
    uint32_t started = 0;
    for (uint32_t i = 0; i < list->count; ++i) {
        const node_ip_entry *entry = &list->entries[i];
        const char *addr = terminatedText(entry, copies[started]);
        if (IsIpWork(entry) == 0) {
            LOG_INFO("The current ip:%s is invalid", addr);
            continue;
        }
        if (NasIpMgrIsIpPresentStrict(addr, entry->proto_type) != 0) {
            /* Every address already known asks for the retry: a pass that finds nothing new ends with the flag set. */
            NasRetryPendingAddNotification();
            nas::requestRetry();
            continue;
        }
        LOG_INFO("Create Thread for ip(%s)", addr);
        if (CreateThreadForIpAdd(addr, entry->proto_type) != 0) {
            nas::requestRetry();
            continue;
        }
        if (++started == kAdditionThreadsMax) {
            LOG_PROGRESS("CurIndex(%u), totalNum(%u)", i, list->count);
            waitForAdditions(started);
            started = 0;
        }
    }
    waitForAdditions(started);
}

/* An address that gets no thread is listed with no module told, so that the retry tells them all. */
int32_t CreateThreadForIpAdd(const char *addr, uint32_t protoType)
{
    if (addr == nullptr) {
        LOG_NULL("addr", "NAS_ERROR", NAS_ERROR);
        return static_cast<int32_t>(NAS_ERROR);
    }
    auto *work = static_cast<ip_add_work *>(POOL_ALLOC(sizeof(ip_add_work)));
    if (work == nullptr) {
        LOG_ERROR("malloc ipInfo failed, ip(%s, %u)", addr, protoType);
        NasIpMgrAddToList(addr, protoType, 0);
        return static_cast<int32_t>(NAS_ERROR);
    }
    *work = {addr, static_cast<int32_t>(protoType), &g_SockIpSem};
    unsigned long threadId = 0;
    const int32_t result = kvos_thrd_create(NasIpMgrAddNewIpInThread, work, &threadId);
    if (result != 0) {
        /* The work item is not freed here: who failed to start a thread may still hold it. */
        NasIpMgrAddToList(addr, protoType, 0);
        LOG_ERROR("Create listen sock for ip(%s, %u) failed, ret:%d.", addr, protoType, result);
    }
    return result;
}

void *NasIpMgrAddNewIpInThread(void *work)
{
    auto *item = static_cast<ip_add_work *>(work);
    if (item == nullptr) {
        LOG_NULL_VOID("work");
        return nullptr;
    }
    const auto protoType = static_cast<uint32_t>(item->protoType);
    LOG_PROGRESS("IP ADDITION Nas IP(addr %s, protoType %u) invoke add.", nas::orNull(item->addr), protoType);
    invokeAndRecord(__func__, item->addr, protoType);
    /* From here on the address may be gone. */
    if (item->done != nullptr) {
        sem_post(item->done);
    }
    POOL_FREE(item);
    return nullptr;
}

int32_t NasIpMgrDeleteOldIPInner(const char *addr, uint32_t protoType)
{
    if (addr == nullptr) {
        LOG_NULL("pIp", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    LOG_INFO("IP DELETION %s.", addr);
    noteChange();
    {
        const nas::MutexGuard guard(&g_ipSockIpLockMutex);
        uint32_t mask = 0;
        NasIpMgrInvokeEvent(NAS_IP_EVENT_DELETE, addr, protoType, &mask, 0);
        NasIpMgrDeleteFromList(addr, protoType);
    }
    LOG_INFO("IP DELETION %s finish.", addr);
    return 0;
}
