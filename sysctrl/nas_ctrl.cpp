/*
 * Module entry: where the host starts the control module, and where two kinds of traffic enter it: requests of
 * message-service module 3, and what the cluster manager (CM) client reports.
 *
 * Owns the consumer table and the ids and names that start-up fills. No lock: the table is filled before the CM client
 * opens and only read afterwards. Start-up runs on one thread, callbacks and the dispatcher on the host's.
 */
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/dpc.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/version_ns.h>

#include "internal/log.h"
#include "internal/registration.h"
#include "internal/words.h"

static_assert(offsetof(cm_ops, client_id) == 0);
static_assert(offsetof(cm_ops, event) == 8);
static_assert(offsetof(cm_ops, command) == 16);
static_assert(offsetof(cm_ops, status) == 24);
static_assert(sizeof(cm_ops) == 32);
static_assert(offsetof(svr_module_reg_t, module) == 0);
static_assert(offsetof(svr_module_reg_t, handler) == 8);
static_assert(offsetof(svr_module_reg_t, flag) == 48);
static_assert(sizeof(svr_module_reg_t) == 56);

cm_ops g_nasCtrlCmOps[4];
uint32_t g_nasCtrlCMClientId;
char g_nasEdsDsName[64];

namespace {

constexpr uint32_t kRequestModule = 3;
constexpr uint32_t kAddressTextSize = 832; /* of the CM server list and of the local address */
constexpr uint32_t kClientIdInfo = 1;      /* what CM_getEventInfo is asked for */
constexpr int32_t kNewClientEvent = 0;     /* the type of the event that carries a new client id */

/* The first field of a CM event or command, the only one that is read here. */
int32_t typeOf(const void *record)
{
    int32_t type = 0;
    memcpy(&type, record, sizeof(type));
    return type;
}

/* ---- the steps of NasCtrlClusterInit, which log in its name ---- */

uint32_t startViews(const char *func)
{
    uint32_t ret = NasCtrlDpcClusterInit();
    if (ret != NAS_OK) {
        LOG_CLASS_AS(func, 3, "nas ctrl init DPC cluster failed %d", static_cast<int>(ret));
        return ret;
    }
    ret = NasCtrlAppdataClusterInitAdapter();
    if (ret != NAS_OK) {
        LOG_CLASS_AS(func, 3, "nas ctrl init app_data cluster failed %d", static_cast<int>(ret));
        return ret;
    }
    NasCtrlInitEdsDSName();
    ret = NasCtrInitClusterEdsViewAdapter();
    if (ret != NAS_OK) {
        LOG_FAILED_RETURN_AS(func, "ret", "ret");
    }
    return ret;
}

uint32_t openCmClient(const char *func)
{
    char cmList[kAddressTextSize] = {};
    char localIp[kAddressTextSize] = {};
    uint32_t ret = getEbsCmIpList(cmList, kAddressTextSize);
    if (ret != NAS_OK) {
        LOG_CLASS_AS(func, 3, "nas ctrl get cm server IpList failed:%d.", static_cast<int>(ret));
        return ret;
    }
    ret = getLocalIPAddr(localIp, kAddressTextSize);
    if (ret != NAS_OK) {
        LOG_CLASS_AS(func, 3, "nas ctrl get local IP address failed:%d.", static_cast<int>(ret));
        return ret;
    }
    cmList[sizeof(cmList) - 1] = '\0'; /* whatever the host's reader has left there */
    localIp[sizeof(localIp) - 1] = '\0';
    ret = NasCrtlOpenCmClientAdapter(cmList, localIp, &g_nasCtrlCMClientId);
    if (ret != NAS_OK) {
        LOG_CLASS_AS(func, 3, "Init cm client(%s %s %u) for NAS protocol cluster failed:%d.", cmList, localIp,
                     getLocalLsID(), static_cast<int>(ret));
    }
    return ret;
}

/* ---- message-service module 3 ---- */

uint32_t replyEmpty(svr_msg_t *record)
{
    const uint8_t reply[8] = {};
    return SvrSendResponse(record, reply, sizeof(reply));
}

/* The host's adapters build and send replies of their own. */
struct Request {
    uint32_t opcode;
    uint32_t (*handle)(svr_msg_t *record);
};
constexpr Request kRequests[] = {
    {10, replyEmpty},
    {40, NasCtrlGetLifInfoAdapter},
    {44, NasCtrlGetControllerInfoAdapter},
    {47, NasCtrlGetTenantNameByTenantID},
};

uint32_t handleRequest(uint32_t opcode, svr_msg_t *record)
{
    for (const Request &request : kRequests) {
        if (request.opcode == opcode) {
            return request.handle(record);
        }
    }
    return NAS_ERROR;
}

/* The opcode of these requests is the first word of the message, not the record's field. */
uint32_t nas_sysctrl_dispatch(svr_msg_t *record)
{
    uint32_t opcode = 0;
    if (record == nullptr) {
        LOG_NULL("arg", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    if (record->buffer == nullptr || record->length < sizeof(opcode)) {
        LOG_ERROR("invalid param, msgbuf %p len %u", record->buffer, record->length);
        return NAS_ERROR;
    }
    memcpy(&opcode, record->buffer, sizeof(opcode));
    const uint32_t ret = handleRequest(opcode, record);
    const uint32_t level = ret == NAS_OK ? nas_log_map_get(0) : NASCTRL_LOG_ERROR;
    LOG_LINE(level, "opcode %u ret %d", opcode, static_cast<int>(ret));
    return ret;
}

/* ---- CM traffic ---- */

/* The id that an event brings; every consumer asks the host anew, and is told 0 when the host does not know. */
uint32_t newClientId(const char *func, const void *event)
{
    uint32_t id = 0;
    const int32_t ret = CM_getEventInfo(event, kClientIdInfo, &id);
    LOG_LINE_AS(func, NASCTRL_LOG_INFO, "CM EVENT: Nas ctrl get clientID(%u) ret(%d)", id, ret);
    return id;
}

} // namespace

uint32_t nas_ctrl_init(void)
{
    NasCtrlIpServiceInit();
    return NasCtrlInitAdpater();
}

int32_t nas_ctrl_handler_reg(void)
{
    svr_module_reg_t registration;
    if (nas::fillRegistration(&registration, kRequestModule, nas_sysctrl_dispatch) != 0) {
        LOG_ERROR("memset failed.");
        return -EINVAL;
    }
    /* A refused registration does not fail the start: the rest of the module works without these requests. */
    if (svr_regist_module(&registration) != 0) {
        LOG_ERROR("regist module error");
    }
    return 0;
}

uint32_t NasCtrlClusterInit(void)
{
    uint32_t ret = startViews(__func__);
    if (ret == NAS_OK) {
        ret = openCmClient(__func__);
    }
    if (ret != NAS_OK) {
        return ret;
    }
    /* The cluster starts without a name service too. */
    const int32_t nsRet = InitNasCtrlDpcNs();
    if (nsRet != 0) {
        LOG_CLASS(3, "NASCTRL_DPC: init ns failed(%d).", nsRet);
    }
    return NAS_OK;
}

void NasCtrlHandleClusterEvent(void *event)
{
    if (event == nullptr) {
        LOG_NULL_VOID("event");
        return;
    }
    const int32_t type = typeOf(event);
    LOG_CLASS(1, "CM EVENT: Nas ctrl recieve cm event(%d), clientid:%d.", type, static_cast<int>(g_nasCtrlCMClientId));
    for (const cm_ops &consumer : g_nasCtrlCmOps) {
        if (consumer.client_id != nullptr) {
            consumer.client_id(type == kNewClientEvent ? newClientId(__func__, event) : g_nasCtrlCMClientId);
        }
        if (consumer.event != nullptr) {
            consumer.event(event);
        }
    }
}

uint32_t NasCtrlHandleCmCommand(void *cmd)
{
    if (cmd == nullptr) {
        LOG_NULL("cmd", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    LOG_CLASS(1, "CM EVENT: Nas ctrl recieve cm command(%d)", typeOf(cmd));
    for (const cm_ops &consumer : g_nasCtrlCmOps) {
        if (consumer.command != nullptr) {
            consumer.command(cmd);
        }
    }
    return NAS_OK;
}

void NasCtrlHandleCmStatus(void)
{
    LOG_CLASS(1, "CM EVENT:  Nas ctrl recieve cm status");
    for (const cm_ops &consumer : g_nasCtrlCmOps) {
        if (consumer.status != nullptr) {
            consumer.status();
        }
    }
}

void NasCtrlRegisterCMClient(uint32_t index, const cm_ops *ops)
{
    if (ops == nullptr) {
        LOG_NULL_VOID("ops");
        return;
    }
    g_nasCtrlCmOps[index] = *ops;
}

/* The id of the DPC view's consumer, which is not g_nasCtrlCMClientId. */
void NasCtrlSetCmClientId(uint32_t id)
{
    nas::writeWord(g_nasDpcClientId, id);
}

uint32_t NasCtrlInitEdsDSName(void)
{
    return NasCtrlInitEdsDSNameAdapter();
}

char *NasCtrlGetEdsDSName(void)
{
    return g_nasEdsDsName;
}

void NasCtrlTpFail(void *, uint32_t *fail)
{
    if (fail == nullptr) {
        LOG_NULL_VOID("fail");
        return;
    }
    *fail = 1;
}

void NasCtrlRegTracePoint(void) {}
