/*
 * Message-service module 18: another process tells that HDFS address data changed, or that an address came or went.
 *
 * Owns nothing and takes no lock: every handler runs on the host's message thread, and so does the action it starts.
 */
#include <cstddef>
#include <cstring>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>

#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/registration.h"

static_assert(offsetof(svr_msg_t, buffer) == 0);
static_assert(offsetof(svr_msg_t, length) == 8);
static_assert(offsetof(svr_msg_t, module) == 12);
static_assert(offsetof(svr_msg_t, opcode) == 16);
static_assert(offsetof(svr_msg_t, sequence) == 32);
static_assert(offsetof(svr_msg_t, direction) == 36);
static_assert(sizeof(svr_msg_t) == 40);

namespace {

constexpr uint32_t kNoticeModule = 18;
constexpr uint32_t kMessageSource = 3; /* what the IP manager is told of addresses that come this way */
constexpr size_t kTextSize = 256;

/* A notice as it arrives; its texts may lack their NUL. */
struct Notice {
    uint32_t tenantId;
    char key[kTextSize];
    char value[kTextSize];
};
static_assert(offsetof(Notice, key) == 4);
static_assert(offsetof(Notice, value) == 260);
static_assert(sizeof(Notice) == 516);

/* What the HDFS handlers get: neither tenant nor value is put into it. */
struct HdfsNotice {
    uint8_t zero[72];
};

void hdfsChanged(HdfsNotice *notice, const char *)
{
    NotifyIpdataChange(notice);
}
void hdfsCleared(HdfsNotice *notice, const char *)
{
    NotifyIpdataClear(notice);
}
void addressAdded(HdfsNotice *, const char *value)
{
    NasIpMgrAddNewIP(value, kMessageSource);
}
void addressDeleted(HdfsNotice *, const char *value)
{
    NasIpMgrDeleteOldIP(value, kMessageSource);
}

struct Action {
    const char *key;
    void (*run)(HdfsNotice *notice, const char *value);
};
constexpr Action kActions[] = {
    {"notify_eds_change_ip", hdfsChanged},
    {"notify_eds_clear_ip", hdfsCleared},
    {"ip_add_event", addressAdded},
    {"ip_del_event", addressDeleted},
};

const Action *findAction(const char *key)
{
    for (const Action &action : kActions) {
        if (strcmp(action.key, key) == 0) {
            return &action;
        }
    }
    return nullptr;
}

/* Runs what the notice asks for, logging in the handler's name. A text without its NUL is refused by its copy. */
void runNotice(const char *func, const Notice *notice)
{
    HdfsNotice hdfsNotice = {};
    char key[kTextSize] = {};
    char value[kTextSize] = {};
    const nas::CutText<kTextSize> shownKey(notice->key);
    const nas::CutText<kTextSize> shownValue(notice->value);
    nas::strcpy_s(key, sizeof(key), notice->key);
    const int ret = nas::strcpy_s(value, sizeof(value), notice->value);
    LOG_LINE_AS(func, NASCTRL_LOG_PROGRESS, "Print tenantId(%u), key(%s), value(%s), ret(%d).", notice->tenantId,
                shownKey.c_str(), shownValue.c_str(), ret);
    const Action *action = findAction(key);
    if (action == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Invalid key:%s value:%s.", shownKey.c_str(), shownValue.c_str());
        return;
    }
    action->run(&hdfsNotice, value);
}

uint32_t replyFixed(svr_msg_t *record)
{
    const uint32_t reply[2] = {0, 2};
    return SvrSendResponse(record, reply, sizeof(reply));
}

/* No reply is sent. */
uint32_t askTenantId(svr_msg_t *)
{
    return HdfsCtrlGetTenantId();
}

struct Opcode {
    uint32_t opcode;
    uint32_t (*handle)(svr_msg_t *record);
};
constexpr Opcode kOpcodes[] = {
    {1, NasCtrlIpServiceNotifyCommand},
    {2, replyFixed},
    {3, askTenantId},
};

} // namespace

void NasCtrlIpServiceInit(void)
{
    svr_module_reg_t registration = {};
    if (nas::fillRegistration(&registration, kNoticeModule, NasCtrlIpServiceDispatch) != 0) {
        LOG_ERROR("Memset moudule_info failed.");
    }
    if (svr_regist_module(&registration) != 0) {
        LOG_ERROR("Regist module error.");
    }
}

uint32_t NasCtrlIpServiceDispatch(svr_msg_t *record)
{
    if (record == nullptr) {
        LOG_ERROR("Arg is NULL.");
        return NAS_ERROR;
    }
    if (record->buffer == nullptr || record->length == 0) {
        LOG_ERROR("Arg param is invalid! msgbuf:%p msgLen:%u.", record->buffer, record->length);
        return NAS_ERROR;
    }
    for (const Opcode &row : kOpcodes) {
        if (row.opcode == record->opcode) {
            return row.handle(record);
        }
    }
    LOG_ERROR("Invalid opcode:%u moudle:%u seq:%u dir:%u.", record->opcode, record->module, record->sequence,
              record->direction);
    return NAS_ERROR;
}

uint32_t NasCtrlIpServiceNotifyCommand(svr_msg_t *record)
{
    if (record == nullptr) {
        LOG_ERROR("Arg is NULL.");
        return NAS_ERROR;
    }
    if (record->buffer == nullptr || record->length != sizeof(Notice)) {
        LOG_ERROR("Input param is invalid msgbuf:%p msglen:%u.", record->buffer, record->length);
        return NAS_ERROR;
    }
    Notice notice;
    memcpy(&notice, record->buffer, sizeof(notice));
    runNotice(__func__, &notice);
    /* The sender learns that its notice arrived, never what came of it: the answer is the notice itself. */
    return SvrSendResponse(record, record->buffer, sizeof(Notice));
}
