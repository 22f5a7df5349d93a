// Owns the CM client's id. Written by the thread that starts the library, before the event's thread exists.

#include "cluster/cm_client.h"

#include "node.h"
#include "platform/log.h"

#include <arpa/inet.h>
#include <cerrno>
#include <nasctrl/control.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/platform.h>

namespace {

constexpr int32_t kConnect = 0;
constexpr uint32_t kClientIdOfEvent = 1; // what CM_getEventInfo is asked for

// The library reads only the type.
struct CmEvent {
    int32_t type;
    uint32_t clientId;
};

uint32_t s_clientId; // 0 = not open

bool isAddress(const char *text)
{
    in6_addr room{};
    return inet_pton(AF_INET, text, &room) == 1 || inet_pton(AF_INET6, text, &room) == 1;
}

void *deliverConnect(void *)
{
    CmEvent event{kConnect, s_clientId};
    NasCtrlHandleClusterEvent(&event);
    return nullptr;
}

} // namespace

// The servers are only named in the log: the node is its own cluster. Its client id is its node id.
uint32_t NasCrtlOpenCmClientAdapter(const char *cm_list, const char *local_ip, uint32_t *client_id)
{
    if (cm_list == nullptr || local_ip == nullptr || client_id == nullptr) {
        return NAS_ERROR;
    }
    if (!isAddress(local_ip)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: dpc_data_ip %s is not an IPv4 or IPv6 address", local_ip);
        return NAS_INVALID;
    }
    s_clientId = host::nodeIdentity().id;
    *client_id = s_clientId;
    HOST_LOG(NASCTRL_LOG_PROGRESS, "cluster: CM client %u opened from %s (servers %s)", s_clientId, local_ip, cm_list);
    return NAS_OK;
}

int32_t CM_getEventInfo(const void *event, uint32_t what, uint32_t *client_id)
{
    if (event == nullptr || client_id == nullptr || what != kClientIdOfEvent) {
        return -EINVAL;
    }
    *client_id = static_cast<const CmEvent *>(event)->clientId;
    return 0;
}

int host::connectCmClient()
{
    if (s_clientId == 0) {
        return -ENOTCONN;
    }
    unsigned long thread = 0;
    return kvos_thrd_create(deliverConnect, nullptr, &thread);
}
