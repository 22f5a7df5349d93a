/*
 * The version record in the cluster's name service: its creation, its read, and its write by version, tried again as
 * long as other nodes are faster.
 *
 * Owns the last known state of the name and the publish counter, which s_dpcNsLock guards, and the node's copy of the
 * record, which the lock inside s_clusterVerinfo guards. s_dpcNsLock is taken first where both are held; the host is
 * called under neither, except to log. Reads and writes run on any thread that may block, the read callback on the
 * host's.
 */
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <nasctrl/host/cluster.h>
#include <nasctrl/version_ns.h>

#include "internal/locks.h"
#include "internal/log.h"
#include "internal/pool.h"
#include "internal/words.h"

static_assert(offsetof(ns_value, FL) == 0);
static_assert(offsetof(ns_value, reserved) == 4);
static_assert(offsetof(ns_value, seq) == 8);
static_assert(sizeof(ns_value) == 16);

static_assert(offsetof(ns_request, sem) == 0);
static_assert(offsetof(ns_request, value) == 8);
static_assert(offsetof(ns_request, result) == 16);
static_assert(sizeof(ns_request) == 24);

static_assert(offsetof(cluster_verinfo, FL) == 0);
static_assert(offsetof(cluster_verinfo, version) == 8);
static_assert(offsetof(cluster_verinfo, seq) == 16);
static_assert(offsetof(cluster_verinfo, lock) == 24);
static_assert(sizeof(cluster_verinfo) == 48);

static_assert(offsetof(ns_info_t, version) == 0);
static_assert(offsetof(ns_info_t, value) == 8);
static_assert(offsetof(ns_info_t, length) == 16);
static_assert(sizeof(ns_info_t) == 24);

static_assert(offsetof(ns_state_t, version) == 16);
static_assert(sizeof(ns_state_t) == 24);

cluster_verinfo s_clusterVerinfo;
uint32_t s_nasctrlDpcNsHdl;
ns_state_t s_nasctrlDpcNsStat;
kvos_spinlock_t s_dpcNsLock;
uint64_t g_nsPubSeq;

namespace {

constexpr const char *kDsName = "CLUSTER_ACCESS_CTRL";
constexpr const char *kNsName = "CLUSTER_VERCTRL_NAMESPACE";
constexpr int32_t kCreateAttempts = 3;
constexpr int32_t kNameExists = 2; /* an answer of ns_create */
constexpr int32_t kPublishAttempts = 51;
constexpr uint32_t kPublishPauseMs = 100;

/* The version alone is also read without the lock. */
void setState(const ns_state_t &state)
{
    s_nasctrlDpcNsStat.word0 = state.word0;
    s_nasctrlDpcNsStat.word1 = state.word1;
    nas::writeWord(s_nasctrlDpcNsStat.version, state.version);
}

void updateLocalVerInfo(uint64_t version, const ns_value &value)
{
    const nas::SpinGuard guard(&s_clusterVerinfo.lock);
    s_clusterVerinfo.version = static_cast<int64_t>(version);
    s_clusterVerinfo.FL = value.FL;
    s_clusterVerinfo.seq = value.seq;
}

/*
 * Takes over what a read found, if it is newer than what is known. A name whose value is missing or too short to be a
 * record keeps its version, so that the next write can replace it.
 */
void takeNewer(const char *func, const ns_info_t &info)
{
    ns_value value;
    const nas::SpinGuard guard(&s_dpcNsLock);
    if (info.version <= static_cast<int64_t>(s_nasctrlDpcNsStat.version)) {
        return;
    }
    nas::writeWord(s_nasctrlDpcNsStat.version, static_cast<uint64_t>(info.version));
    if (info.value == nullptr) {
        LOG_CLASS_AS(func, 1, "NASCTRL_DPC: ns_getAsyn cb get verctrl null value.");
        return;
    }
    if (info.length != 0 && info.length < sizeof(value)) { /* 0: the host does not tell */
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "NASCTRL_DPC: ns_getAsyn cb get verctrl short value(%u).", info.length);
        return;
    }
    memcpy(&value, info.value, sizeof(value));
    updateLocalVerInfo(s_nasctrlDpcNsStat.version, value);
}

/* Only after this may the waiter's request be gone. */
void wake(const char *func, ns_request *request)
{
    request->result = 0;
    if (request->sem == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "%s is NULL, return !!!!!!!!!!!!", "sem");
        return;
    }
    sem_post(request->sem);
}

bool canWait(const char *func, const ns_request *request)
{
    if (request == nullptr || request->sem == nullptr) {
        LOG_NULL_AS(func, request == nullptr ? "request" : "sem", "NAS_INVALID", -1);
        return false;
    }
    return true;
}

/* ---- a round of SetNasCtrlDpcNsWithRetry, in its name ---- */

int32_t writeValue(const char *func, const ns_value *value)
{
    ns_state_t newState = {};
    const uint64_t version = nas::readWord(s_nasctrlDpcNsStat.version);
    const int32_t ret = ns_set(s_nasctrlDpcNsHdl, kNsName, value, sizeof(*value), version, &newState);
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "NASCTRL_DPC:ns_set fail(%d).(ver:(%llu), seq(%llu) FL(%u).", ret, nas::llu(version),
                     nas::llu(value->seq), value->FL);
        return ret;
    }
    {
        const nas::SpinGuard guard(&s_dpcNsLock);
        setState(newState);
    }
    LOG_CLASS_AS(func, 1, "NASCTRL_DPC:ns_set(ver:%llu, seq(%llu), FL(%u), suc.", nas::llu(newState.version),
                 nas::llu(value->seq), value->FL);
    updateLocalVerInfo(newState.version, *value);
    LOG_CLASS_AS(func, 1, "NASCTRL_DPC:ns get-set succeeded.");
    return 0;
}

int32_t publishOnce(const char *func, ns_request *request, int32_t attempt)
{
    const int32_t ret = NasCtrlDpcNsGetAsycAdapter(request);
    if (ret != 0) {
        LOG_CLASS_AS(func, 3, "NASCTRL_DPC:NsGetAsyncAdapter retry(%d) err(%d)", attempt, ret);
        return ret;
    }
    return writeValue(func, request->value);
}

} // namespace

cluster_verinfo *GetLocalVerInfo(void)
{
    return &s_clusterVerinfo;
}

const char *GetNasCtrlClusterDsName(void)
{
    return kDsName;
}

const char *GetNasCtrlClusterNsName(void)
{
    return kNsName;
}

int32_t NasCtrlDpcCreateNs(void)
{
    const auto value = POOL_OWNER(POOL_NEW(ns_value));
    if (value == nullptr) {
        LOG_CLASS(3, "NASCTRL_DPC:nas_zalloc failed.\n");
        return -1;
    }
    int32_t failed = 0;
    int32_t ret = 0;
    do {
        ret = ns_create(s_nasctrlDpcNsHdl, kNsName, 0, value.get(), sizeof(ns_value));
        if (ret == 0 || ret == kNameExists) {
            break;
        }
    } while (++failed < kCreateAttempts);
    LOG_CLASS(1, "NASCTRL_DPC: create ns (%d) times, max retry times(%d), ret(%d).\n", failed, kCreateAttempts, ret);
    return ret;
}

int32_t NasCtrlDpcNsGetAsycAdapter(ns_request *request)
{
    if (!canWait(__func__, request)) {
        return -1;
    }
    const int32_t ret = ns_getAsyn(s_nasctrlDpcNsHdl, kNsName, GetNasCtrlDpcNsCb, request);
    if (ret != 0) {
        LOG_CLASS(1, "NASCTRL_DPC:ns_getAync direct return fail(%d).", ret);
        return ret;
    }
    while (sem_wait(request->sem) != 0 && errno == EINTR) {
    }
    if (request->result != 0) {
        LOG_CLASS(3, "NASCTRL_DPC:ns_getAsync cb return fail(%d).", request->result);
    }
    return request->result;
}

/*
 * The waiter is told of success even when the read failed: its write then fails on the version that it knows, and the
 * whole round is tried again.
 */
void GetNasCtrlDpcNsCb(int32_t ret, const ns_info_t *info, void *request)
{
    if (ret != 0) {
        LOG_CLASS(3, "NASCTRL_DPC:get nasctrl dpc name service err(%d), just return!!", ret);
    } else if (info == nullptr) {
        LOG_NULL_VOID("info");
    } else {
        LOG_CLASS(1, "NASCTRL_DPC: Cm return ns info version(%llu), current version(%llu).",
                  nas::llu(static_cast<uint64_t>(info->version)), nas::llu(nas::readWord(s_nasctrlDpcNsStat.version)));
        takeNewer(__func__, *info);
    }
    if (request != nullptr) {
        wake(__func__, static_cast<ns_request *>(request));
    }
}

void MarkNsPubSeq(ns_value *value)
{
    if (value == nullptr) {
        LOG_NULL_VOID("value");
        return;
    }
    const nas::SpinGuard guard(&s_dpcNsLock);
    value->seq = ++g_nsPubSeq;
}

int32_t SetNasCtrlDpcNsWithRetry(ns_request *request)
{
    if (!canWait(__func__, request)) {
        return -1;
    }
    if (request->value == nullptr) {
        LOG_NULL("value", "NAS_INVALID", -1);
        return -1;
    }
    int32_t ret = 0;
    for (int32_t attempt = 0; attempt < kPublishAttempts; ++attempt) {
        if (attempt > 0) {
            kvos_msleep(kPublishPauseMs);
        }
        ret = publishOnce(__func__, request, attempt);
        if (ret == 0) {
            return 0;
        }
    }
    LOG_CLASS(3, "NASCTRL_DPC:ns get-set failed(%d) with max retry(%d).", ret, kPublishAttempts);
    return -1;
}

uint32_t IsMasterNode(void)
{
    uint32_t master = 0;
    const uint32_t local = getLocalCtrlLsId();
    const int32_t ret = getGlbMasterLsId(&master);
    if (ret != 0) {
        LOG_CLASS(3, "getGlbMasterLsId err(%d).", ret);
        return 0;
    }
    return local == master;
}

int32_t InitNasCtrlDpcNs(void)
{
    return 0;
}

/* ---- kept for hosts that call them; there is nothing to do ---- */

int32_t NasCtrlGetFL(void)
{
    return 0;
}
int32_t NasCtrlPubFL(void)
{
    return 0;
}
int32_t CollectEDSVersions(void)
{
    return 0;
}
int32_t DiagShowEDSClusterInfo(void)
{
    return 0;
}
int32_t InitNasVersionDiagnose(void)
{
    return 0;
}
int32_t nas_ctrl_flow_init(void)
{
    return 0;
}
void ExitNasCtrlDpcNs(void) {}
void ExitNasVersionDiagnose(void) {}
