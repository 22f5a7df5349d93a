/*
 * The synchronous call that carries every question to the storage-side service, and the two handlers of HDFS address
 * notices.
 *
 * The call keeps no state and blocks its caller. The handler table has no lock: handlers are registered while the host
 * starts and stops, notices arrive in between on the message service's threads.
 */
#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/words.h"

#include <cerrno>
#include <cstddef>
#include <nasctrl/ipc.h>

namespace {

constexpr uint32_t kModule = 18;
constexpr uint32_t kServiceId = 6;
constexpr uint32_t kConst10 = 10;
constexpr uint32_t kConst9 = 9;
constexpr uint32_t kCallAttempts = 3;
constexpr uint32_t kHandlers = 2;

static_assert(sizeof(svr_call_t) == 104);
static_assert(offsetof(svr_call_t, request) == 0 && offsetof(svr_call_t, length) == 8);
static_assert(offsetof(svr_call_t, module) == 12 && offsetof(svr_call_t, type) == 16);
static_assert(offsetof(svr_call_t, const10) == 20 && offsetof(svr_call_t, reserved24) == 24);
static_assert(offsetof(svr_call_t, sid) == 28 && offsetof(svr_call_t, reserved32) == 32);
static_assert(offsetof(svr_call_t, zero36) == 36 && offsetof(svr_call_t, const9) == 40);
static_assert(offsetof(svr_call_t, zero44) == 44 && offsetof(svr_call_t, zero48) == 48);
static_assert(offsetof(svr_call_t, reserved52) == 52 && offsetof(svr_call_t, local_nid) == 96);
static_assert(offsetof(svr_call_t, reserved100) == 100);
static_assert(sizeof g_hdfsGetIpsHandler == kHandlers * sizeof(void *));

svr_call_t makeCall(uint32_t type, const void *request, uint32_t length)
{
    svr_call_t call;
    nas::memset_s(&call, sizeof call, 0, sizeof call);
    call.request = request;
    call.length = length;
    call.module = kModule;
    call.type = type;
    call.const10 = kConst10;
    call.sid = kServiceId;
    call.const9 = kConst9;
    call.local_nid = IpcGetLocalNid();
    return call;
}

/* Calls the handler of an opcode, in the name of the function that was notified. */
int32_t callHandler(const char *func, uint32_t opcode, void *notice)
{
    const hdfs_ips_handler handler = nas::readWord(g_hdfsGetIpsHandler[opcode]);
    if (handler == nullptr) {
        LOG_NULL_AS(func, "handler", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    handler(notice);
    return 0;
}

} // namespace

hdfs_ips_handler g_hdfsGetIpsHandler[kHandlers];

int32_t NasCtrlMsgCallSync(uint32_t type, const void *request, uint32_t length, void **response,
                           uint32_t *responseLength)
{
    if (request == nullptr && length != 0) {
        LOG_NULL("request", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (response == nullptr) {
        LOG_NULL("response", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (responseLength == nullptr) {
        LOG_NULL("responseLength", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    const svr_call_t call = makeCall(type, request, length);
    LOG_CLASS(0, "Msg call type(%u), sid(%u), module(%u).", type, kServiceId, kModule);
    /* Only a time-out is worth another attempt, and the host has already waited: no pause in between. */
    int32_t ret = -ETIMEDOUT;
    for (uint32_t attempt = 1; attempt <= kCallAttempts && ret == -ETIMEDOUT; ++attempt) {
        ret = svr_upcall_sync(&call, response, responseLength);
        if (ret == -ETIMEDOUT) {
            LOG_ERROR("Msg type(%u) upcall failed(%d), try %u times.", type, ret, attempt);
        }
    }
    return ret;
}

void HdfsGetIpsHandlerRegister(uint32_t opcode, hdfs_ips_handler handler)
{
    if (opcode >= kHandlers || handler == nullptr) {
        LOG_PROGRESS("HDFS_GET_IP: invalid opcode %u func %p", opcode, reinterpret_cast<void *>(handler));
        return;
    }
    const hdfs_ips_handler old = nas::readWord(g_hdfsGetIpsHandler[opcode]);
    if (old != nullptr) {
        /* The low half of the address is all that %x shows. */
        LOG_PROGRESS("HDFS_GET_IP: register opcode %u, addr:%x", opcode,
                     static_cast<unsigned>(reinterpret_cast<uintptr_t>(old)));
    }
    LOG_PROGRESS("HDFS_GET_IP: register success, opcode %u", opcode);
    nas::writeWord(g_hdfsGetIpsHandler[opcode], handler);
}

void HdfsGetIpsHandlerUnregister(uint32_t opcode)
{
    if (opcode >= kHandlers) {
        /* The line really ends at "func". */
        LOG_PROGRESS("HDFS_GET_IP: invalid opcode %u func", opcode);
        return;
    }
    LOG_PROGRESS("HDFS_GET_IP: unregister success, opcode %u", opcode);
    nas::writeWord<hdfs_ips_handler>(g_hdfsGetIpsHandler[opcode], nullptr);
}

int32_t HdfsGetIpRegister(void)
{
    HdfsGetIpsHandlerRegister(NAS_HDFS_IPS_CHANGED, HdfsNotifyChangeCache);
    HdfsGetIpsHandlerRegister(NAS_HDFS_IPS_CLEARED, HdfsNotifyClearCache);
    return 0;
}

int32_t HdfsGetIpUnregister(void)
{
    HdfsGetIpsHandlerUnregister(NAS_HDFS_IPS_CHANGED);
    HdfsGetIpsHandlerUnregister(NAS_HDFS_IPS_CLEARED);
    return 0;
}

void HdfsNotifyChangeCache(void *)
{
    LOG_PROGRESS("HDFS_GET_IP: HdfsNotifyChangeCache");
}

void HdfsNotifyClearCache(void *)
{
    LOG_PROGRESS("HDFS_GET_IP: HdfsNotifyClearCache");
}

int32_t NotifyIpdataChange(void *notice)
{
    LOG_PROGRESS("HDFS_GET_IP: NotifyIpdataChange func in");
    const int32_t ret = callHandler(__func__, NAS_HDFS_IPS_CHANGED, notice);
    if (ret == 0) {
        LOG_PROGRESS("HDFS_GET_IP: NotifyIpdataChange notify success");
    }
    return ret;
}

int32_t NotifyIpdataClear(void *notice)
{
    LOG_PROGRESS("HDFS_GET_IP: NotifyIpdataClear func in");
    const int32_t ret = callHandler(__func__, NAS_HDFS_IPS_CLEARED, notice);
    if (ret == 0) {
        LOG_PROGRESS("HDFS_GET_IP: NotifyIpdataClear notify success");
    }
    return ret;
}
