// Owns the adapters' settings and answers the library's questions about the node from them.

#include "adapters/adapters.h"

#include "node.h"
#include "platform/log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/host/adapters.h>
#include <unistd.h>

namespace host {
namespace {

AdapterSettings s_settings;

std::string machineName()
{
    std::array<char, kMaxNodeName + 1> name{};
    gethostname(name.data(), name.size() - 1);
    return name.data();
}

} // namespace

void configureAdapters(const AdapterSettings &settings)
{
    s_settings = settings;
    if (s_settings.nodeName.empty()) {
        s_settings.nodeName = machineName();
    }
}

const AdapterSettings &adapterSettings()
{
    return s_settings;
}

} // namespace host

uint32_t NasCtrlInitAdpater(void)
{
    const host::AdapterSettings &settings = host::adapterSettings();
    if (settings.lsIds.empty()) {
        HOST_LOG(NASCTRL_LOG_ERROR, "adapters: no LS id is configured");
        return NAS_ERROR;
    }
    HOST_LOG(NASCTRL_LOG_INFO, "adapters: node %u (%s), %zu LS ids", host::nodeIdentity().id, settings.nodeName.c_str(),
             settings.lsIds.size());
    return NAS_OK;
}

// The application-data cluster is the one that the configuration names by its id; its type is only for people.
uint32_t NasCtrlAppdataClusterInitAdapter(void)
{
    std::array<char, 128> type{};
    uint32_t clusterId = 0;
    if (DpcGetClusterId(&clusterId, static_cast<int>(type.size())) != NAS_OK) {
        HOST_LOG(NASCTRL_LOG_ERROR, "adapters: dpc.conf lacks cm_cluster_id in section GLOBAL");
        return NAS_ERROR;
    }
    const bool typed = DpcGetClusterType(type.data(), static_cast<int>(type.size())) == NAS_OK;
    HOST_LOG(NASCTRL_LOG_INFO, "adapters: application-data cluster %u of type %s", clusterId,
             typed ? type.data() : "unknown");
    return NAS_OK;
}

uint32_t NasCtrlInitEdsDSNameAdapter(void)
{
    return DpcGetMDomainName(g_nasEdsDsName, sizeof(g_nasEdsDsName));
}

// The view of a node that knows no other is its own list of LS ids, which must hold the node itself.
uint32_t NasCtrInitClusterEdsViewAdapter(void)
{
    const uint32_t own = host::nodeIdentity().id;
    if (std::ranges::count(host::adapterSettings().lsIds, own) == 0) {
        HOST_LOG(NASCTRL_LOG_ERROR, "adapters: the LS id %u of this node is not among the configured LS ids", own);
        return NAS_ERROR;
    }
    return NAS_OK;
}

uint32_t CgwGetInitLocalLsId(void)
{
    return host::nodeIdentity().id;
}

// Clients reach this node through its own LS, whatever their name.
uint32_t CgwGetClientLsIdByWwn(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t)
{
    return host::nodeIdentity().id;
}

// The address of dpc_data_ip, read once: the text must not change under a caller that keeps the pointer.
const char *getLocalDataAddr(void)
{
    static std::mutex lock;
    static std::array<char, 256> address{};
    const std::lock_guard hold(lock);
    if (address[0] == '\0' && getLocalIPAddr(address.data(), static_cast<int>(address.size())) != NAS_OK) {
        return nullptr;
    }
    return address.data();
}

int32_t GetCfgLsList(uint32_t *ids, uint32_t max, uint32_t *count)
{
    if (ids == nullptr || count == nullptr) {
        return -EINVAL;
    }
    const std::vector<uint32_t> &configured = host::adapterSettings().lsIds;
    *count = std::min(max, static_cast<uint32_t>(configured.size()));
    std::copy_n(configured.begin(), *count, ids);
    return 0;
}

int32_t CTRL_GetEdsLsidByCtrlIp(const char *ip, uint32_t *ls_id)
{
    if (ip == nullptr || ls_id == nullptr) {
        return -EINVAL;
    }
    const auto &owners = host::adapterSettings().controlIps;
    const auto owner = owners.find(ip);
    if (owner == owners.end()) {
        return -ENOENT;
    }
    *ls_id = owner->second;
    return 0;
}

// The count is of the tenants that changed; the table has a place for each that there can be.
int32_t NasAuthAgentNsNotifyLifChange(uint32_t /*count*/, const tenant_change table[1025])
{
    constexpr uint32_t kTenants = 1025;
    if (table == nullptr) {
        return -EINVAL;
    }
    for (uint32_t tenant = 0; tenant < kTenants; ++tenant) {
        if (table[tenant].changed != 0) {
            HOST_LOG(NASCTRL_LOG_INFO, "adapters: LIFs of tenant %u changed (kind %u)", tenant,
                     table[tenant].event_type);
        }
    }
    return 0;
}
