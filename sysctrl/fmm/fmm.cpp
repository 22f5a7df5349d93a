/*
 * The FMM events: their registration, and the callbacks with which the host tells of shard changes, recovered
 * processes, and vnodes or shards that move.
 *
 * Owns no state and takes no lock. Callbacks come from any thread and start a light-weight thread for each event; a
 * move job belongs to its callback until that thread has been started, and to the thread from then on.
 */
#include <cstddef>
#include <nasctrl/fmm.h>
#include <nasctrl/host/fmm.h>
#include <nasctrl/host/lwt.h>
#include <nasctrl/host/notify.h>
#include <semaphore.h>

#include "internal/bounded.h"
#include "internal/fmm_notice.h"
#include "internal/log.h"
#include "internal/pool.h"

static_assert(offsetof(notify_event_reg_t, module_name) == 0);
static_assert(offsetof(notify_event_reg_t, event_name) == 33);
static_assert(offsetof(notify_event_reg_t, zero) == 66);
static_assert(sizeof(notify_event_reg_t) == 88);

static_assert(offsetof(notify_arg_t, data) == 0);
static_assert(offsetof(notify_arg_t, zero) == 8);
static_assert(sizeof(notify_arg_t) == 72);

static_assert(offsetof(vnode_move_job, event) == 0);
static_assert(offsetof(vnode_move_job, isLwt) == 4);
static_assert(offsetof(vnode_move_job, sem) == 8);
static_assert(offsetof(vnode_move_job, data) == 16);
static_assert(sizeof(vnode_move_job) == 24);

static_assert(sizeof(kvlwt_task_sem_t) == 32);

namespace {

struct EventRow {
    const char *name;
    uint32_t number;
};

/* In the order of their registration. */
constexpr EventRow kEvents[] = {
    {"SHARD_CHG", NAS_FMM_EVENT_SHARD_CHG},         {"NODE_FAULT", NAS_FMM_EVENT_NODE_FAULT},
    {"NODE_RECOVER", NAS_FMM_EVENT_NODE_RECOVER},   {"VNODE_MOVEIN", NAS_FMM_EVENT_VNODE_MOVEIN},
    {"VNODE_MOVEOUT", NAS_FMM_EVENT_VNODE_MOVEOUT}, {"SCALE_IN", NAS_FMM_EVENT_SCALE_IN},
    {"SCALE_OUT", NAS_FMM_EVENT_SCALE_OUT},
};

int32_t startLwt(void (*body)(void *), void *arg)
{
    void *handle = nullptr;
    return lwt_create_default(&handle, body, arg, 1, 0xFFFFFFFFU);
}

/* A light-weight thread waits on a semaphore of the host's, any other thread on a POSIX one. */
void wakeCaller(void *sem, bool isLwt, const char *func)
{
    if (sem == nullptr) {
        return;
    }
    if (isLwt) {
        kvlwt_task_sem_up(static_cast<kvlwt_task_sem_t *>(sem), NASCTRL_LOG_MODULE, func);
    } else {
        sem_post(static_cast<sem_t *>(sem));
    }
}

} // namespace

int32_t nas_fmm_module_init(void)
{
    notify_event_reg_t record;
    nas::memset_s(&record, sizeof record, 0, sizeof record);
    nas::strcpy_s(record.module_name, sizeof record.module_name, "NAS_FMM");
    NasFmmRegShardChgNotifyOnetrack();
    for (const EventRow &event : kEvents) {
        nas::strcpy_s(record.event_name, sizeof record.event_name, event.name);
        notifyEventRegister(NOTIFY_MODULE_FMM, event.number, &record);
    }
    NasFmmCmdInitOnetrack();
    return 0;
}

/* ---- shard changes ---- */

void nas_fmm_shard_change_callback(void)
{
    LOG_INFO("Receive shard change.");
    if (startLwt(nas_fmm_shard_change_lwt, nullptr) != 0) {
        LOG_ERROR("Error for shard change thread.");
    }
}

void nas_fmm_shard_change_lwt(void * /*arg*/)
{
    notify_arg_t argument;
    if (nas::memset_s(&argument, sizeof argument, 0, sizeof argument) != 0) {
        LOG_ERROR("Error for memset_s.");
        return;
    }
    notifyCall(NOTIFY_MODULE_FMM, NAS_FMM_EVENT_SHARD_CHG, &argument);
}

/* ---- moves of vnodes and shards ---- */

int32_t nas_fmm_vnode_movein_callback(uint64_t data, void *sem)
{
    LOG_INFO("Receive vnode move in.");
    nas_fmm_vnode_callback(NAS_FMM_EVENT_VNODE_MOVEIN, data, sem);
    return 0;
}

int32_t nas_fmm_vnode_moveout_callback(uint64_t data, void *sem)
{
    LOG_INFO("Receive vnode move out.");
    nas_fmm_vnode_callback(NAS_FMM_EVENT_VNODE_MOVEOUT, data, sem);
    return 0;
}

int32_t nas_fmm_shard_movein_callback(uint64_t data, void *sem)
{
    LOG_INFO("Receive scale in (shard move in).");
    nas_fmm_vnode_callback(NAS_FMM_EVENT_SCALE_IN, data, sem);
    return 0;
}

int32_t nas_fmm_shard_moveout_callback(uint64_t data, void *sem)
{
    LOG_INFO("Receive scale out (shard move out).");
    nas_fmm_vnode_callback(NAS_FMM_EVENT_SCALE_OUT, data, sem);
    return 0;
}

/* The caller may be waiting, so it is woken also when nothing can be done for it. */
void nas_fmm_vnode_callback(uint32_t event, uint64_t data, void *sem)
{
    auto job = POOL_OWNER(static_cast<vnode_move_job *>(POOL_ALLOC(sizeof(vnode_move_job))));
    const bool isLwt = kvlwt_is_lwtcontext(NASCTRL_LOG_MODULE, __func__) != 0;
    const char *reason = "memory short";
    if (job != nullptr) {
        *job = {event, static_cast<uint8_t>(isLwt), sem, data};
        if (startLwt(nas_fmm_vnode_move_lwt, job.get()) == 0) {
            static_cast<void>(job.release());
            return;
        }
        reason = "fsp-ctrl thread";
    }
    LOG_ERROR("Error for %s!", reason);
    wakeCaller(sem, isLwt, __func__);
}

void nas_fmm_vnode_move_lwt(void *job)
{
    if (job == nullptr) {
        LOG_NULL_VOID("job");
        return;
    }
    const auto move = POOL_OWNER(static_cast<vnode_move_job *>(job));
    nas::tellDlgAndFmm(move->event, move->data);
    wakeCaller(move->sem, move->isLwt != 0, __func__);
}

/* ---- recovered processes ---- */

void nas_fmm_process_recover_callback(void *arg)
{
    LOG_INFO("Receive process recover.");
    const int32_t ret = startLwt(nas_fmm_process_recover_lwt, arg);
    if (ret != 0) {
        LOG_ERROR("Error(%d) for process recover.", ret);
    }
}

void nas_fmm_process_recover_lwt(void *arg)
{
    notify_arg_t argument = {};
    const int32_t ret = notifyCall(NOTIFY_MODULE_FMM, NAS_FMM_EVENT_NODE_RECOVER, &argument);
    if (ret != 0) {
        LOG_ERROR("Notify node recover failed(%d).", ret);
    }
    NasFmmProcessRevertOnetrack(arg, &argument);
}

void nas_fmm_ls_change_callback(void) {}
