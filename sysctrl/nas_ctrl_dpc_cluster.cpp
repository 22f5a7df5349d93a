/*
 * The cluster of distributed parallel clients (DPC): the view of their logical servers (LS), and the tasks that their
 * faults leave to be done.
 *
 * Owns g_nasDpcLsView, whose spin lock guards the view for the host that fills it (nothing here takes it), and
 * g_nasDpcEventTaskList, whose spin lock guards the list and is held for an insertion only. Neither is held while the
 * other is taken or while the host is called. Start-up runs on one thread; everything else on any.
 */
#include <cstddef>
#include <cstring>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/dpc.h>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/lwt.h>
#include <pthread.h>
#include <unistd.h>

#include "internal/bounded.h"
#include "internal/list.h"
#include "internal/locks.h"
#include "internal/log.h"
#include "internal/pool.h"
#include "internal/words.h"

static_assert(offsetof(kvos_spinlock_t, lock) == 0);
static_assert(offsetof(kvos_spinlock_t, magic) == 8);
static_assert(offsetof(kvos_spinlock_t, owner_cpu) == 12);
static_assert(offsetof(kvos_spinlock_t, owner) == 16);
static_assert(sizeof(kvos_spinlock_t) == 24);
static_assert(sizeof(kvos_rwlock_t) == 8);

static_assert(offsetof(cm_attr, name) == 0);
static_assert(offsetof(cm_attr, valueLen) == 32);
static_assert(offsetof(cm_attr, value) == 36);
static_assert(sizeof(cm_attr) == 292);

static_assert(offsetof(cm_ls_entry, lsId) == 0);
static_assert(offsetof(cm_ls_entry, attrs) == 8);
static_assert(offsetof(cm_ls_entry, mgtSt) == 2344);
static_assert(offsetof(cm_ls_entry, sessionId) == 2352);
static_assert(offsetof(cm_ls_entry, rs) == 2360);
static_assert(offsetof(cm_ls_entry, bs) == 2364);
static_assert(offsetof(cm_ls_entry, role) == 2368);
static_assert(offsetof(cm_ls_entry, rest) == 2372);
static_assert(sizeof(cm_ls_entry) == 4712);

static_assert(offsetof(dpc_view, version) == 0);
static_assert(offsetof(dpc_view, dsName) == 8);
static_assert(offsetof(dpc_view, dsAlias) == 136);
static_assert(offsetof(dpc_view, mgtSt) == 392);
static_assert(offsetof(dpc_view, lsNum) == 396);
static_assert(offsetof(dpc_view, ls) == 400);
static_assert(sizeof(dpc_view) == 408);

static_assert(offsetof(nas_dpc_ls_view, lock) == 0);
static_assert(offsetof(nas_dpc_ls_view, view) == 24);
static_assert(sizeof(nas_dpc_ls_view) == 432);

static_assert(offsetof(dpc_subscribe_waiter, result) == 0);
static_assert(offsetof(dpc_subscribe_waiter, sem) == 8);

static_assert(offsetof(dpc_event_task, link) == 0);
static_assert(offsetof(dpc_event_task, lsid) == 16);
static_assert(offsetof(dpc_event_task, faultTime) == 20);
static_assert(offsetof(dpc_event_task, sessionId) == 24);
static_assert(sizeof(dpc_event_task) == 32);

static_assert(offsetof(nas_dpc_event_task_list, head) == 0);
static_assert(offsetof(nas_dpc_event_task_list, lock) == 16);
static_assert(sizeof(nas_dpc_event_task_list) == 40);

nas_dpc_ls_view g_nasDpcLsView;
nas_dpc_event_task_list g_nasDpcEventTaskList = {{&g_nasDpcEventTaskList.head, &g_nasDpcEventTaskList.head}, {}};
uint32_t g_nasDpcClientId;
uint32_t g_nasCtrlDpcSubscribed;
uint64_t g_cmregls;

namespace {

constexpr uint32_t kConsumer = 1;            /* of CM traffic */
constexpr uint32_t kViewNotExist = 0x188004; /* the adapter's answer while there is no view yet */
constexpr uint32_t kViewAttempts = 101;
constexpr uint32_t kViewRetryMs = 100;
constexpr uint32_t kTaskPeriodMs = 100;
constexpr uint32_t kTaskSleepLine = 85; /* the source line that the host is told, whatever the real one */
constexpr size_t kAddressSize = 64;     /* of NasCtrlGetAddrFromCmLs's output */
constexpr size_t kDoubleAddressSize = 256;
constexpr uint32_t kEventConnect = 0;
constexpr uint32_t kEventDisconnect = 1;

int32_t startLwt(void (*body)(void *), void *arg)
{
    void *handle = nullptr;
    return lwt_create_default(&handle, body, arg, 1, 0xFFFFFFFFU);
}

/* A zeroed task that is in no list; null without memory. */
dpc_event_task *newTask(const char *func)
{
    auto *task = nas::poolNew<dpc_event_task>(func, __LINE__);
    if (task == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Dpc event task alloc failed.");
        return nullptr;
    }
    nas::listInit(&task->link);
    return task;
}

/* A longer value is cut. */
uint32_t copyAddress(const char *func, char *outAddr, const char *value)
{
    const int ret = nas::strncpy_s(outAddr, kAddressSize, value, kAddressSize - 1);
    if (ret != 0) {
        LOG_CLASS_AS(func, 1, "The address could not be copied :%d.", ret);
        return NAS_INVALID;
    }
    return NAS_OK;
}

/* Connecting takes long, so it leaves the CM's thread. Without a thread the node cannot serve and ends itself. */
void startConnectThread(const char *func)
{
    pthread_t thread{};
    int ret = pthread_create(&thread, nullptr, NasCtrlHandleDpcConnectEvent, nullptr);
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "create thread failed(%d).", ret);
        _exit(0);
    }
    ret = pthread_detach(thread);
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "detach thread failed(%d).", ret);
    }
}

} // namespace

/* ---- the view ---- */

uint32_t NasCtrlDpcClusterInit(void)
{
    const cm_ops ops = {NasCtrlSetCmClientId, NasCtrlHandleDpcEvent, nullptr, nullptr};
    g_nasCtrlDpcSubscribed = 0;
    nas::spinlockInit(&g_nasDpcLsView.lock);
    nas::listInit(&g_nasDpcEventTaskList.head);
    nas::spinlockInit(&g_nasDpcEventTaskList.lock);
    NasCtrlRegisterCMClient(kConsumer, &ops);
    const int32_t ret = startLwt(NasCtrlDpcEventTaskThread, nullptr);
    if (ret != 0) {
        /* The registration stays. */
        LOG_ERROR("Create lwt thread for DPC event.");
    }
    return static_cast<uint32_t>(ret);
}

int32_t NasSubsDpcViewResultCb(dpc_subscribe_waiter *waiter, int32_t ret)
{
    if (waiter == nullptr) {
        LOG_NULL("waiter", "NAS_INVALID", -1);
        return -1;
    }
    waiter->result = ret;
    LOG_CLASS(1, "EDS CM start subcribe dpc cluster call back, ret:(%d).", ret);
    return sem_post(&waiter->sem);
}

/* A node cannot serve these clients without their view, so it gives itself up when it cannot get one. */
uint32_t NasCtrlHandleTryGetDpcViewAdapter(void *arg)
{
    for (uint32_t n = 0; n < kViewAttempts; ++n) {
        int32_t result = 0;
        if (n > 0) {
            kvos_msleep(kViewRetryMs);
        }
        NasCtrlHandleDpcEventAdapter(&result, nas::readWord(g_nasDpcClientId), arg);
        if (result == 0) {
            LOG_CLASS(1, "get Md full view succeed.");
            return NAS_OK;
        }
        if (result == kViewNotExist) {
            LOG_CLASS(1, "get Md full view not exist.");
            return NAS_OK;
        }
        LOG_CLASS(3, "NasCtrlHandleDpcEventAdapter retry(%u) return err(%d).", n, result);
    }
    LOG_CLASS(3, "retry outof limit, exit!!!");
    _exit(0);
}

void *NasCtrlViewMalloc(uint32_t size)
{
    return POOL_ZALLOC(size);
}

void NasCtrlViewFree(void *buf)
{
    if (buf != nullptr) {
        POOL_FREE(buf);
    }
}

void NasCtrlShowViewInfo(const dpc_view *view)
{
    if (view == nullptr) {
        LOG_NULL_VOID("view");
        return;
    }
    LOG_CLASS(1, "--ViewInfo-- begin (versoin:%llu, dsName:%s, dsAlias:%s, mgtSt:%d, lsNum:%u).",
              nas::llu(view->version), nas::CutText<sizeof(view->dsName)>(view->dsName).c_str(),
              nas::CutText<sizeof(view->dsAlias)>(view->dsAlias).c_str(), view->mgtSt, view->lsNum);
    const uint32_t count = view->ls != nullptr ? view->lsNum : 0;
    for (uint32_t i = 0; i < count; ++i) {
        const cm_ls_entry &ls = view->ls[i];
        LOG_CLASS(1, "lsId:%u, sessionId:%llu, rs:%d, bs:%d, role:%d, mgtSt:%d.", ls.lsId, nas::llu(ls.sessionId),
                  ls.rs, ls.bs, ls.role, ls.mgtSt);
    }
    LOG_CLASS(1, "--ViewInfo-- end");
}

/* ---- the address of one LS ---- */

uint32_t NasCtrlGetAddrFromCmLs(const cm_ls_entry *ls, char *outAddr, const char *key)
{
    if (ls == nullptr || outAddr == nullptr || key == nullptr) {
        LOG_NULL(ls == nullptr ? "lsEntry" : outAddr == nullptr ? "outAddr" : "key", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    for (const cm_attr &attr : ls->attrs) {
        if (strcmp(nas::CutText<sizeof(attr.name)>(attr.name).c_str(), key) != 0) {
            continue;
        }
        const nas::CutText<sizeof(attr.value)> value(attr.value);
        if (IsDoubleIpAddress(value.c_str()) == 0) {
            return copyAddress(__func__, outAddr, value.c_str());
        }
        if (ParseDoubleIp(value.c_str(), outAddr, kAddressSize) == NAS_OK) {
            return NAS_OK;
        }
        /* A later slot of the same name may do better. */
        LOG_ERROR("Parse double ip(raw: %s) failed", value.c_str());
        nas::memset_s(outAddr, kAddressSize, 0, kAddressSize);
    }
    /* Success also when nothing was found: callers look whether the address is empty. */
    return NAS_OK;
}

uint32_t IsDoubleIpAddress(const char *text)
{
    if (text == nullptr) {
        LOG_NULL("text", "0", 0);
        return 0;
    }
    return strchr(text, '@') != nullptr;
}

uint32_t ParseDoubleIp(const char *raw, char *out, uint32_t outLen)
{
    char buf[kDoubleAddressSize] = {};
    char *next = nullptr;
    if (raw == nullptr || out == nullptr) {
        LOG_NULL(raw == nullptr ? "raw" : "out", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    nas::strncpy_s(buf, sizeof(buf), raw, sizeof(buf) - 1);
    if (strtok_r(buf, "@", &next) == nullptr) {
        return NAS_INVALID;
    }
    /* The whole remainder, further "@" included; one that does not fit is refused, as half an address is none. */
    const int ret = nas::strcpy_s(out, outLen, next);
    if (ret != 0) {
        LOG_CLASS(1, "PARSE DOUBLE IP: Copy Failed to outIp from nexToken: %d", ret);
        return NAS_INVALID;
    }
    return NAS_OK;
}

/* ---- the task queue ---- */

uint32_t AddDpcEventTask(int32_t lsid, int32_t faultTime, int64_t sessionId)
{
    dpc_event_task *task = newTask(__func__);
    if (task == nullptr) {
        return NAS_INVALID;
    }
    task->lsid = static_cast<uint32_t>(lsid);
    task->faultTime = static_cast<uint32_t>(faultTime);
    task->sessionId = static_cast<uint64_t>(sessionId);
    {
        const nas::SpinGuard guard(&g_nasDpcEventTaskList.lock);
        nas::listAddTail(&g_nasDpcEventTaskList.head, &task->link);
    }
    /* The task is the consumer's from here on. */
    LOG_CLASS(0, "Add dpc event task list lsid[%u] faultTime[%u] sessionId[%llu].", static_cast<uint32_t>(lsid),
              static_cast<uint32_t>(faultTime), nas::llu(static_cast<uint64_t>(sessionId)));
    return NAS_OK;
}

void NasCtrlHandleDpcEvent(void *event)
{
    uint32_t type = 0;
    if (event == nullptr) {
        LOG_NULL_VOID("event");
        return;
    }
    memcpy(&type, event, sizeof(type));
    switch (type) {
    case kEventConnect:
        LOG_CLASS(1, "EDS CM EVENT: connect.");
        startConnectThread(__func__);
        break;
    case kEventDisconnect:
        /* Whatever the line says, nothing exits here. */
        LOG_CLASS(1, "EDS CM EVENT: DPC process is disconnect. need exit");
        break;
    default:
        LOG_CLASS(3, "EDS CM EVENT: DPC process recieve cm event(%u).", type);
        break;
    }
}

void NasCtrlDpcEventTaskThread(void *)
{
    while (true) {
        NasCtrlExecuteDpcEventTask();
        kvlwt_task_sleep(kTaskPeriodMs, NASCTRL_LOG_MODULE, "NasCtrlDpcEventTaskThread", kTaskSleepLine);
    }
}

void NasCtrlClearDpcLockState(void *task)
{
    if (task == nullptr) {
        LOG_NULL_VOID("task");
        return;
    }
    const auto job = POOL_OWNER(static_cast<dpc_event_task *>(task));
    if (NlmE_NodeFaultEvent(job->lsid) != 0) {
        LOG_CLASS(3, "NasCtrl clean DPC(lsid[%u]) locks failed.", job->lsid);
    }
}

void NasCtrlHandleDpcProcessFault(uint32_t lsid, uint64_t sessionId)
{
    const auto faultTime = static_cast<uint32_t>(kvos_time_getmillisec());
    LOG_CLASS(1, "[DPC_PROCESS_FAULT]Add dpc process fault event task lsid[%u], sessionId(%llu).", lsid,
              nas::llu(sessionId));
    if (AddDpcEventTask(static_cast<int32_t>(lsid), static_cast<int32_t>(faultTime), static_cast<int64_t>(sessionId)) !=
        NAS_OK) {
        LOG_ERROR("Add dpc process fault event task failed lsid[%u], sessionId(%llu).", lsid, nas::llu(sessionId));
    }
}

void NasCtrlHandleDpcHeartBreak(uint32_t lsid)
{
    LOG_CLASS(1, "[DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[%u].", lsid);
    dpc_event_task *task = newTask(__func__);
    if (task == nullptr) {
        return;
    }
    task->lsid = lsid;
    if (startLwt(NasCtrlClearDpcLockState, task) != 0) {
        /* The task is deliberately not freed, and the start not tried again. */
        LOG_ERROR("Create lwt thread for DPC fault clear lock state.");
    }
}
