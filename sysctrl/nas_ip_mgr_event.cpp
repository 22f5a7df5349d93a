/*
 * The IP manager's two queues, of address changes and of tenants' notices, and the thread that drains both.
 *
 * Owns the queues; each has a spin lock that guards nothing but its links, and neither is held while anything else is
 * called. Producers run on any thread. The handler thread is the only consumer and holds no lock of its own while it
 * applies what it took.
 */
#include <nasctrl/ip_manager.h>

#include "internal/bounded.h"
#include "internal/ip_list.h"
#include "internal/locks.h"
#include "internal/pool.h"

static_assert(offsetof(NasIpEvent, link) == 0);
static_assert(offsetof(NasIpEvent, addr) == 16);
static_assert(offsetof(NasIpEvent, type) == 64);
static_assert(offsetof(NasIpEvent, protoType) == 68);
static_assert(sizeof(NasIpEvent) == 72);
static_assert(offsetof(NasIpNotifyEvent, link) == 0);
static_assert(offsetof(NasIpNotifyEvent, tenantId) == 16);
static_assert(offsetof(NasIpNotifyEvent, eventType) == 20);
static_assert(sizeof(NasIpNotifyEvent) == 24);
static_assert(offsetof(tenant_change, changed) == 0);
static_assert(offsetof(tenant_change, event_type) == 4);
static_assert(sizeof(tenant_change) == 8);

sem_t g_sema;

namespace {

constexpr uint32_t kTenantIdMax = 1024;
constexpr uint32_t kOneByOneMax = 6; /* more additions than these are worth addition threads */
constexpr uint32_t kIdleSleepMs = 50;
constexpr uint32_t kServiceRunning = 1;

struct Queue {
    list_link head;
    kvos_spinlock_t lock;
};

constinit Queue s_events = {{&s_events.head, &s_events.head}, {}};
constinit Queue s_notices = {{&s_notices.head, &s_notices.head}, {}};
/* 0 before the module's initialisation, then running for ever; whoever sees it running sees the queues initialised. */
constinit std::atomic<uint32_t> s_serviceStatus = 0;

uint32_t serviceStatus()
{
    return s_serviceStatus.load(std::memory_order_acquire);
}

void queueInit(Queue *queue)
{
    nas::listInit(&queue->head);
    nas::spinlockInit(&queue->lock);
}

void queuePut(Queue *queue, list_link *link)
{
    const nas::SpinGuard guard(&queue->lock);
    nas::listAddTail(&queue->head, link);
}

list_link *queueTake(Queue *queue)
{
    const nas::SpinGuard guard(&queue->lock);
    return nas::listTakeFront(&queue->head);
}

/* What both address producers do before they report and queue; func is the producer. Null: refused. */
NasIpEvent *acceptEvent(const char *func, const char *addr, uint32_t type, uint32_t protoType)
{
    LOG_LINE_AS(func, NASCTRL_LOG_INFO, "IpEvent :%s.", nas::orNull(addr));
    if (serviceStatus() != kServiceRunning) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Ip Event Service is not running");
        return nullptr;
    }
    return NasIpMgr_CreateEvent(addr, type, protoType);
}

/* Merges every queued notice into its tenant's entry. */
void mergeNotices(const char *func, tenant_change *table)
{
    while (NasIpNotifyEvent *notice = NasIpMgr_GetNotifyEventEntry()) {
        if (notice->tenantId > kTenantIdMax) {
            LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "invalid tenantid(%u)", notice->tenantId);
        } else {
            tenant_change &tenant = table[notice->tenantId];
            tenant.changed = 1;
            tenant.event_type = std::max(tenant.event_type, notice->eventType);
        }
        NasIpMgr_ReleaseNotifyEvent(notice);
    }
}

/* Additions that the handler thread took and has not applied yet, oldest first. */
struct PendingAdditions {
    list_link head;
    uint32_t count;
};

void pendingClear(PendingAdditions *pending)
{
    nas::listInit(&pending->head);
    pending->count = 0;
}

/* A batch that gets no memory leaves its events on the list; they are dropped with it, and the monitor makes up. */
void applyPending(PendingAdditions *pending)
{
    if (pending->count > kOneByOneMax) {
        NasIpMgrAddNewIpBatchInner(&pending->head, pending->count);
    } else if (pending->count > 0) {
        NasIpMgrAddNewIpOneByOne(&pending->head);
    }
    pendingClear(pending);
}

/* An event of a type that is neither is left where it is, neither handled nor freed. */
void handleEvent(NasIpEvent *ev, PendingAdditions *pending)
{
    if (ev->type == NAS_IP_EVENT_ADD) {
        nas::listAddTail(&pending->head, &ev->link);
        ++pending->count;
    } else if (ev->type == NAS_IP_EVENT_DELETE) {
        NasIpMgrDeleteOldIPInner(nas::IpText(ev->addr).c_str(), ev->protoType);
        NasIpMgr_ReleaseEvent(ev);
    }
}

} // namespace

void nas::openIpEventQueues()
{
    queueInit(&s_events);
    queueInit(&s_notices);
    s_serviceStatus.store(kServiceRunning, std::memory_order_release);
}

NasIpEvent *NasIpMgr_CreateEvent(const char *addr, uint32_t type, uint32_t protoType)
{
    auto *ev = POOL_NEW(NasIpEvent);
    if (ev == nullptr) {
        return nullptr;
    }
    if (nas::strcpy_s(ev->addr, sizeof(ev->addr), addr) != 0) {
        POOL_FREE(ev);
        return nullptr;
    }
    nas::listInit(&ev->link);
    ev->type = type;
    ev->protoType = protoType;
    return ev;
}

void NasIpMgr_AddEvent(NasIpEvent *ev)
{
    if (ev == nullptr) {
        LOG_NULL_VOID("ev");
        return;
    }
    queuePut(&s_events, &ev->link);
}

NasIpEvent *NasIpMgr_GetEventEntry()
{
    list_link *link = queueTake(&s_events);
    return link != nullptr ? LIST_RECORD(link, NasIpEvent, link) : nullptr;
}

void NasIpMgr_ReleaseEvent(NasIpEvent *ev)
{
    if (ev != nullptr) {
        POOL_FREE(ev);
    }
}

NasIpNotifyEvent *NasIpMgr_CreateNotifyEvent(uint32_t tenantId, uint32_t eventType)
{
    auto *ev = POOL_NEW(NasIpNotifyEvent);
    if (ev == nullptr) {
        return nullptr;
    }
    nas::listInit(&ev->link);
    ev->tenantId = tenantId;
    ev->eventType = eventType;
    return ev;
}

void NasIpMgr_AddNotifyEvent(NasIpNotifyEvent *ev)
{
    if (ev == nullptr) {
        LOG_NULL_VOID("ev");
        return;
    }
    queuePut(&s_notices, &ev->link);
}

NasIpNotifyEvent *NasIpMgr_GetNotifyEventEntry()
{
    list_link *link = queueTake(&s_notices);
    return link != nullptr ? LIST_RECORD(link, NasIpNotifyEvent, link) : nullptr;
}

void NasIpMgr_ReleaseNotifyEvent(NasIpNotifyEvent *ev)
{
    if (ev != nullptr) {
        POOL_FREE(ev);
    }
}

/* Both producers report before they queue: once queued, the event is the handler thread's. */
uint32_t NasIpMgrAddNewIP(const char *addr, uint32_t protoType)
{
    NasIpEvent *ev = acceptEvent(__func__, addr, NAS_IP_EVENT_ADD, protoType);
    if (ev == nullptr) {
        return NAS_ERROR;
    }
    /* The "type" of this line, and of the deletion's, is the protocol type. */
    LOG_PROGRESS("Add event ip(%s), type:%d.", addr, static_cast<int>(protoType));
    NasIpMgr_AddEvent(ev);
    return NAS_OK;
}

uint32_t NasIpMgrDeleteOldIP(const char *addr, uint32_t protoType)
{
    NasIpEvent *ev = acceptEvent(__func__, addr, NAS_IP_EVENT_DELETE, protoType);
    if (ev == nullptr) {
        return NAS_ERROR;
    }
    LOG_PROGRESS("Add del event over, ip(%s), type:%d.", addr, static_cast<int>(protoType));
    NasIpMgr_AddEvent(ev);
    return NAS_OK;
}

uint32_t NasIpMgrAddNewNotifyEvent(uint32_t tenantId, uint32_t eventType)
{
    if (serviceStatus() != kServiceRunning) {
        LOG_ERROR("Ip Event Service is not running");
        return NAS_ERROR;
    }
    NasIpNotifyEvent *ev = NasIpMgr_CreateNotifyEvent(tenantId, eventType);
    if (ev == nullptr) {
        return NAS_ERROR;
    }
    LOG_INFO("Add notify event over, tenantID(%u), eventType(%u).", tenantId, eventType);
    NasIpMgr_AddNotifyEvent(ev);
    return NAS_OK;
}

void NasIpMgrNotifyEventHandle()
{
    tenant_change table[kTenantIdMax + 1];
    const int error = nas::memset_s(table, sizeof(table), 0, sizeof(table));
    if (error != 0) {
        LOG_ERROR("handle notify event, memset error(%d)", error);
        return;
    }
    mergeNotices(__func__, table);
    const auto count = static_cast<uint32_t>(
        std::count_if(std::begin(table), std::end(table), [](const tenant_change &t) { return t.changed != 0; }));
    if (count == 0) {
        return;
    }
    const int32_t result = NasAuthAgentNsNotifyLifChange(count, table);
    LOG_INFO("notify tenants count(%d) lif change result(%d)", static_cast<int>(count), result);
}

/*
 * Additions gather while the queue is not empty and are applied together once it is; a deletion is applied as soon as
 * it is taken, and so overtakes the additions that still wait.
 */
void *NasIpMgrIpEventHandle(void * /*arg*/)
{
    LOG_CLASS(1, "Nas ip mgr events handle start, with service status(%d).", static_cast<int>(serviceStatus()));
    PendingAdditions pending;
    pendingClear(&pending);
    while (serviceStatus() == kServiceRunning) {
        NasIpMgrNotifyEventHandle();
        NasIpEvent *ev = NasIpMgr_GetEventEntry();
        if (ev == nullptr) {
            applyPending(&pending);
            kvos_msleep(kIdleSleepMs);
            continue;
        }
        LOG_INFO("Handle event ip:%s, type:%d, protocol_type:%d.", nas::IpText(ev->addr).c_str(),
                 static_cast<int>(ev->type), static_cast<int>(ev->protoType));
        handleEvent(ev, &pending);
    }
    LOG_ERROR("NasIpMgrIpEventHandle exit normally.");
    return nullptr;
}
