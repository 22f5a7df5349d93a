/*
 * What the library and its host ask the storage-side service about this node: service addresses, interfaces; and the
 * owners of control addresses, which the host knows. No state and no lock; a query blocks its caller until the service
 * answers.
 */
#include "internal/bounded.h"
#include "internal/ipc_query.h"
#include "internal/log.h"

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <nasctrl/ipc.h>

namespace {

constexpr uint32_t kIpEntrySize = 72;
constexpr int32_t kSwitchedOff = 12;

static_assert(sizeof(node_ip_list) == 8 && sizeof(node_ip_entry) == kIpEntrySize);
static_assert(offsetof(node_ip_list, result) == 0 && offsetof(node_ip_list, count) == 4);
static_assert(offsetof(node_ip_list, entries) == 8);
static_assert(sizeof(ctrl_ip_list) == 8 && sizeof(ctrl_ip_entry) == 148);
static_assert(offsetof(ctrl_ip_list, busy) == 0 && offsetof(ctrl_ip_list, count) == 4);
static_assert(offsetof(ctrl_ip_list, entries) == 8 && offsetof(ctrl_ip_entry, pending) == 0);
static_assert(offsetof(ctrl_ip_entry, ip) == 4 && offsetof(ctrl_ip_entry, lsId) == 132);
static_assert(offsetof(ctrl_ip_entry, reserved) == 136);

} // namespace

int32_t GetCurNodeIpList(node_ip_list **rsp)
{
    void *list = nullptr;
    const int32_t ret = nas::ask(nas::QueryId::curNodeIpList, nullptr, rsp != nullptr ? &list : nullptr);
    if (rsp != nullptr && ret == 0) {
        *rsp = static_cast<node_ip_list *>(list);
    }
    return ret;
}

int32_t GetCurNodeIfaceList(void **rsp)
{
    return nas::ask(nas::QueryId::curNodeIfaceList, nullptr, rsp);
}

void FreeCurNodeIpList(void *list)
{
    nas::freeAnswer(__func__, list);
}

void FreeCurNodeIfaceList(void *list)
{
    nas::freeAnswer(__func__, list);
}

int32_t GetIpListInfo(const void *req, void **rsp)
{
    if (req == nullptr) {
        LOG_NULL("req", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (rsp == nullptr) {
        LOG_NULL("rsp", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    uint32_t count = 0;
    memcpy(&count, req, sizeof count);
    const uint32_t length = count * kIpEntrySize + uint32_t{sizeof count};
    const auto reqMsg = POOL_OWNER(POOL_ZALLOC(length));
    if (reqMsg == nullptr) {
        LOG_NULL("reqMsg", "-ENOMEM", -ENOMEM);
        return -ENOMEM;
    }
    if (nas::memcpy_s(reqMsg.get(), length, req, length) != 0) {
        LOG_FAILED_CODE_GOTO("(ret != EOK)", -ENOMEM, "OUT");
        return -ENOMEM;
    }
    /* The question is switched off: the request is made and dropped. */
    return kSwitchedOff;
}

void FreeIpListInfo(void *info)
{
    nas::freeAnswer(__func__, info);
}

void CTRL_GetIpsLsidByCtrlIp(ctrl_ip_list *list)
{
    if (list == nullptr) {
        LOG_NULL_VOID("list");
        return;
    }
    if (list->busy != 0) {
        return;
    }
    for (uint32_t i = 0; i < list->count; ++i) {
        ctrl_ip_entry &entry = list->entries[i];
        if (entry.pending == 0) {
            continue;
        }
        const nas::CutText<sizeof entry.ip> ip(entry.ip);
        const bool ended = memchr(entry.ip, '\0', sizeof entry.ip) != nullptr;
        if (CTRL_GetEdsLsidByCtrlIp(ended ? entry.ip : ip.c_str(), &entry.lsId) == 0) {
            entry.pending = 0;
            LOG_PROGRESS("Use mangement add lock,ip:%s,lsid:%u.", ip.c_str(), entry.lsId);
        }
    }
}
