/*
 * What follows when a distributed parallel client (DPC) fails, returns or leaves the view: the modules DLG and FMM are
 * told, always in this order, and a lost client's task is queued or the release of its locks is started.
 *
 * No state and no lock; called from the cluster manager's (CM's) threads, several at once.
 */
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <nasctrl/dpc.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/notify.h>
#include <span>

#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/words.h"

static_assert(offsetof(notify_arg_t, data) == 0);
static_assert(sizeof(notify_arg_t) == 72);

namespace {

constexpr uint32_t kFmm = 1; /* NOTIFY_MODULE_FMM */
constexpr uint32_t kDlg = 2; /* NOTIFY_MODULE_DLG */
constexpr uint32_t kNodeFault = 5;
constexpr uint32_t kNodeRecover = 6;

constexpr int32_t kNormal = 0; /* run states */
constexpr int32_t kFaulty = 1;
constexpr int32_t kProcessFault = 2; /* reasons of a fault */
constexpr int32_t kHeartBreak = 3;

constexpr const char *kRemovedKey = "dsk_delete_ds";
constexpr const char *kRemovedValue = "0";

bool clearArg(const char *func, notify_arg_t *arg)
{
    const int ret = nas::memset_s(arg, sizeof(*arg), 0, sizeof(*arg));
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "memset_s err(%d).", ret);
    }
    return ret == 0;
}

/* A count above 0 without an array is logged and counts as 0. */
std::span<const cm_ls_entry> entriesOf(const char *func, const cm_ls_entry *ls, int32_t count)
{
    if (count <= 0) {
        return {};
    }
    if (ls == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is NULL, return !!!!!!!!!!!!", "lsArray");
        return {};
    }
    return {ls, static_cast<size_t>(count)};
}

/* No view, and a view without an array, are empty ones. */
std::span<const cm_ls_entry> entriesOf(const dpc_view *view)
{
    if (view == nullptr || view->ls == nullptr) {
        return {};
    }
    return {view->ls, view->lsNum};
}

void tellBoth(uint32_t event, notify_arg_t *arg, uint32_t lsId)
{
    arg->data = lsId;
    notifyCall(kDlg, event, arg);
    notifyCall(kFmm, event, arg);
}

/* Says RECOVER and DLG whichever event was refused: faults that FMM refuses are logged with it too. */
void logRefused(const char *func, int32_t ret)
{
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "nofiy call [NOTIFY_MODULE_DLG/NAS_FMM_EVENT_NODE_RECOVER] fail(%d).", ret);
    }
}

bool needsFollowUp(int32_t reason)
{
    return reason == kProcessFault || reason == kHeartBreak;
}

/* What a fault leaves to be done; nothing for other reasons. */
void followUp(int32_t reason, uint32_t lsId, uint64_t sessionId)
{
    if (reason == kProcessFault) {
        NasCtrlHandleDpcProcessFault(lsId, sessionId);
    } else if (reason == kHeartBreak) {
        NasCtrlHandleDpcHeartBreak(lsId);
    }
}

/* ---- one entry that became faulty or normal, in the name of NasCtrlHandleDpcState ---- */

void becameFaulty(const char *func, uint32_t lsId, const cm_ls_entry *newLs)
{
    notify_arg_t arg;
    const int32_t reason = CM_getLsFaultReason(newLs);
    if (!needsFollowUp(reason) || !clearArg(func, &arg)) {
        return;
    }
    tellBoth(kNodeFault, &arg, lsId);
    followUp(reason, lsId, newLs->sessionId);
}

void becameNormal(const char *func, uint32_t lsId)
{
    notify_arg_t arg;
    if (clearArg(func, &arg)) {
        tellBoth(kNodeRecover, &arg, lsId);
    }
}

/* ---- entries that left the view ---- */

bool holds(const dpc_view *view, uint32_t lsId)
{
    const auto entries = entriesOf(view);
    return std::any_of(entries.begin(), entries.end(), [=](const cm_ls_entry &entry) { return entry.lsId == lsId; });
}

/* The first failure, of whatever step; FMM is not told of what DLG refused. */
int32_t tellOfLoss(uint32_t lsId)
{
    notify_arg_t arg;
    int32_t ret = nas::memset_s(&arg, sizeof(arg), 0, sizeof(arg));
    if (ret == 0) {
        arg.data = lsId;
        ret = notifyCall(kDlg, kNodeFault, &arg);
    }
    if (ret == 0) {
        ret = notifyCall(kFmm, kNodeFault, &arg);
    }
    return ret;
}

/* The status record that tells CM of a removal: 0, or the failure of a copy. */
int fillRemoved(cm_attr *record)
{
    int ret = nas::memset_s(record, sizeof(*record), 0, sizeof(*record));
    if (ret == 0) {
        ret = nas::strcpy_s(record->name, sizeof(record->name), kRemovedKey);
    }
    if (ret == 0) {
        ret = nas::strcpy_s(record->value, sizeof(record->value), kRemovedValue);
    }
    record->valueLen = static_cast<uint32_t>(strlen(kRemovedValue)) + 1;
    return ret;
}

} // namespace

void NasCtrlHandleDpcState(const cm_ls_entry *oldLs, const cm_ls_entry *newLs)
{
    if (oldLs == nullptr || newLs == nullptr) {
        LOG_NULL_VOID(oldLs == nullptr ? "oldLs" : "newLs");
        return;
    }
    const bool changed = oldLs->rs != newLs->rs;
    const bool restarted = oldLs->rs == kNormal && oldLs->sessionId != newLs->sessionId;
    if (changed || restarted) {
        LOG_CLASS(1, "DPC [ls:%u] run state [%d]-->[%d], sessionId [%llu]-->[%llu] ", oldLs->lsId, oldLs->rs, newLs->rs,
                  nas::llu(oldLs->sessionId), nas::llu(newLs->sessionId));
    }
    if (changed && newLs->rs == kFaulty) {
        becameFaulty(__func__, oldLs->lsId, newLs);
    } else if (changed && newLs->rs == kNormal) {
        becameNormal(__func__, oldLs->lsId);
    }
}

/* A client that left is treated as one whose heart beat broke: its locks are released. */
void NasCtrlHandleDpcStateShrink(const cm_ls_entry *ls, int32_t count)
{
    notify_arg_t arg;
    LOG_CLASS(1, "Handle shrink (count:%d).", count);
    if (!clearArg(__func__, &arg)) {
        return;
    }
    for (const cm_ls_entry &entry : entriesOf(__func__, ls, count)) {
        tellBoth(kNodeFault, &arg, entry.lsId);
        NasCtrlHandleDpcHeartBreak(entry.lsId);
    }
}

void NasCtrlHandleDpcStateFault(const cm_ls_entry *ls, int32_t count)
{
    notify_arg_t arg;
    LOG_CLASS(1, "[DPC_PROCESS_FAULT] Handle Fault, count:%d).", count);
    if (!clearArg(__func__, &arg)) {
        return;
    }
    for (const cm_ls_entry &entry : entriesOf(__func__, ls, count)) {
        arg.data = entry.lsId;
        logRefused(__func__, notifyCall(kDlg, kNodeFault, &arg));
        logRefused(__func__, notifyCall(kFmm, kNodeFault, &arg));
        followUp(CM_getLsFaultReason(&entry), entry.lsId, entry.sessionId);
    }
}

void NasCtrlHandleDpcStateRecover(const cm_ls_entry *ls, int32_t count)
{
    notify_arg_t arg;
    LOG_CLASS(1, "[DPC_RECOVER] handle recover count(%d).", count);
    if (!clearArg(__func__, &arg)) {
        return;
    }
    for (const cm_ls_entry &entry : entriesOf(__func__, ls, count)) {
        arg.data = entry.lsId;
        logRefused(__func__, notifyCall(kDlg, kNodeRecover, &arg));
        const int32_t ret = notifyCall(kFmm, kNodeRecover, &arg);
        if (ret != 0) {
            LOG_CLASS(3, "nofiy call [NOTIFY_MODULE_FMM/NAS_FMM_EVENT_NODE_RECOVER] fail(%d).", ret);
        }
        LOG_CLASS(1, "[DPC_RECOVER] Dpc process recover lsid[%u].", entry.lsId);
    }
}

uint32_t ScaleDownNotifyDlgAndFmm(const dpc_view *previousView, const dpc_view *newView)
{
    if (previousView == nullptr) {
        LOG_NULL("previousView", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    for (const cm_ls_entry &entry : entriesOf(previousView)) {
        if (holds(newView, entry.lsId)) {
            continue;
        }
        const int32_t ret = tellOfLoss(entry.lsId);
        if (ret != 0) {
            LOG_FAILED_RETURN("(ret != RETURN_OK)", "ret");
            return static_cast<uint32_t>(ret);
        }
        LOG_CLASS(1, "DPC CM EVENT: Successfully cleaned up the view(lsId: %u).", entry.lsId);
    }
    return NAS_OK;
}

void NasReportRemovDpcStatustoCM(void)
{
    cm_attr record;
    int32_t ret = fillRemoved(&record);
    if (ret != 0) {
        LOG_ERROR("DPC CM EVENT: fill Ds Business Status failed, error code(%d).", ret);
        return;
    }
    LOG_CLASS(3, "DPC CM EVENT: report Ds Business Status success start.");
    ret =
        CM_reportDsBusinessStatusAsyn(nas::readWord(g_nasDpcClientId), &record, 1, NasRemovDpcClusterCallBack, nullptr);
    if (ret != 0) {
        LOG_CLASS(3, "DPC CM EVENT: report Ds Business Status failed, error code(%d).", ret);
        return;
    }
    LOG_CLASS(3, "DPC CM EVENT: report Ds Business Status success, error code(%d).", ret);
}

/* Reports again without pause or limit, until CM takes the report or refuses to be asked. */
void NasRemovDpcClusterCallBack(void *, int32_t ret)
{
    if (ret == 0) {
        return;
    }
    LOG_CLASS(3, "DPC CM EVENT: report Ds Business Status retry.");
    NasReportRemovDpcStatustoCM();
}
