/*
 * The protocol modules' hooks, and the mask that remembers which modules need nothing more for an address.
 *
 * Owns the hook table, which registration fills without a lock at start-up. Hooks run on the IP manager's own threads,
 * with g_ipSockIpLockMutex and, in the retry and the monitor's sweep, g_ipListMutex held.
 */
#include <nasctrl/ip_manager.h>

#include "internal/ip_list.h"
#include "internal/locks.h"

ip_event_hook g_pIpEventCallBacks[NAS_IP_MODULES];

namespace {

/* The hook that has to be called for a module, or null when the module needs nothing. */
ip_event_hook hookToCall(uint32_t moduleId, uint32_t protoType, uint32_t mask)
{
    const ip_event_hook hook = nas::readWord(g_pIpEventCallBacks[moduleId]);
    const bool needed =
        hook != nullptr && AlreadyNotified(moduleId, mask) == 0 && ModuleNeedInvokeAdapter(moduleId, protoType) != 0;
    return needed ? hook : nullptr;
}

} // namespace

uint32_t NasIpMgrRegisterIpEvent(uint32_t moduleId, ip_event_hook hook)
{
    if (moduleId >= NAS_IP_MODULES) {
        LOG_ERROR("Module(%u) regist IP event hook failed.", moduleId);
        return NAS_ERROR;
    }
    nas::writeWord(g_pIpEventCallBacks[moduleId], hook);
    LOG_INFO("Module(%u) regist IP event hook success.", moduleId);
    return NAS_OK;
}

void SetNotificationSuccess(uint32_t moduleId, uint32_t *mask)
{
    if (mask == nullptr) {
        LOG_NULL_VOID("mask");
        return;
    }
    if (moduleId < NAS_IP_MODULES) {
        *mask |= 1U << moduleId;
    }
}

uint32_t AlreadyNotified(uint32_t moduleId, uint32_t mask)
{
    return moduleId < NAS_IP_MODULES ? (mask >> moduleId) & 1U : 0;
}

/* A module without a hook, or that does not serve the type, counts as told; only a hook that fails leaves its bit. */
uint32_t NasIpMgrInvokeEvent(uint32_t event, const char *addr, uint32_t protoType, uint32_t *mask, uint32_t /*isRetry*/)
{
    if (mask == nullptr) {
        LOG_NULL("mask", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    if (NasIpMgrIsSupportFloatIP() == 0) {
        return NAS_OK;
    }
    const uint32_t family = NasIpMgrGetIpFamily(addr);
    if (family == 0) {
        LOG_ERROR("Invalid nas IP(addr %s, protoType %u).", nas::orNull(addr), protoType);
        return NAS_ERROR;
    }
    for (uint32_t module = 0; module < NAS_IP_MODULES; ++module) {
        if (const ip_event_hook hook = hookToCall(module, protoType, *mask)) {
            LOG_INFO("Nas module(%d) IP[addr %s, protoType %u] event[%d] need invoke[status %d].",
                     static_cast<int>(module), addr, protoType, static_cast<int>(event), static_cast<int>(*mask));
            const uint32_t result = hook(event, addr, family);
            if (result != 0) {
                LOG_ERROR("Nas module(%d) IP(addr %s, protoType %u) event(%d) invoke(status %d) fail(%d).",
                          static_cast<int>(module), addr, protoType, static_cast<int>(event), static_cast<int>(*mask),
                          static_cast<int>(result));
                nas::requestRetry();
                continue;
            }
        }
        SetNotificationSuccess(module, mask);
    }
    return NAS_OK;
}

void NasRetryPendingAddNotification()
{
    const nas::MutexGuard guard(&g_ipListMutex);
    for (NasIpListNode &record : nas::IpRecords()) {
        if (record.status != NAS_IP_ALL_NOTIFIED) {
            NasIpMgrInvokeEvent(NAS_IP_EVENT_ADD, nas::IpText(record.addr).c_str(), record.protoType, &record.status,
                                1);
        }
    }
}
