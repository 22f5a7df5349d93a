/*
 * The node's own facts, its addresses and its one protocol module.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/memory.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

/* ---- addresses ---- */

#define ADDRESSES_MAX 4U
#define WORKING 1U
#define TENANTS_MAX 1025U

static node_ip_entry g_addresses[ADDRESSES_MAX] = {{NFS_PROTOCOL, "192.0.2.10", WORKING}};
static uint32_t g_addressCount = 1;
static pthread_mutex_t g_addressMutex = PTHREAD_MUTEX_INITIALIZER; /* guards both */

void addNodeAddress(const char *address)
{
    pthread_mutex_lock(&g_addressMutex);
    if (g_addressCount < ADDRESSES_MAX) {
        node_ip_entry *entry = &g_addresses[g_addressCount++];
        entry->proto_type = NFS_PROTOCOL;
        snprintf(entry->addr, sizeof entry->addr, "%s", address);
        entry->work_status = WORKING;
    }
    pthread_mutex_unlock(&g_addressMutex);
}

/* The list is a block of the memory pool, because the library frees it. */
int32_t GetCurNodeIpListAdapter(node_ip_list **list)
{
    node_ip_list *answer = nas_mem_comm_zalloc(sizeof *answer + sizeof g_addresses, __func__, __LINE__);
    if (answer == NULL) {
        return ENOMEM;
    }
    pthread_mutex_lock(&g_addressMutex);
    answer->count = g_addressCount;
    memcpy(answer->entries, g_addresses, sizeof g_addresses);
    pthread_mutex_unlock(&g_addressMutex);
    *list = answer;
    return 0;
}

uint32_t IsIpWork(const node_ip_entry *entry)
{
    return entry->work_status == WORKING;
}

void SetDefaultIpWorkstatus(node_ip_entry *entry)
{
    entry->work_status = WORKING;
}

uint32_t ModuleNeedInvokeAdapter(uint32_t module, uint32_t proto_type)
{
    return module == NFS_MODULE && proto_type == NFS_PROTOCOL;
}

/* The count is of the tenants that changed; the table has a place for each that there can be. */
int32_t NasAuthAgentNsNotifyLifChange(uint32_t count, const tenant_change table[1025])
{
    (void)count;
    for (uint32_t tenant = 0; tenant < TENANTS_MAX; ++tenant) {
        if (table[tenant].changed != 0) {
            notice("tenant %u: change of kind %u", tenant, table[tenant].event_type);
        }
    }
    return 0;
}

/* ---- LIF ports: their addresses need nothing more than the table of the library ---- */

uint32_t LifIpEventAdpter(uint32_t event, const char *addr, uint32_t family)
{
    (void)event;
    (void)addr;
    (void)family;
    return 0;
}

uint32_t CheckLifPortSupportPerf(uint64_t id)
{
    (void)id;
    return 1; /* there is no performance path */
}

uint32_t regLifportAdpter(uint64_t id, uint32_t on)
{
    (void)id;
    (void)on;
    return ENOTSUP;
}

uint32_t getNasLifPortIdByIpAdpter(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    (void)a, (void)b, (void)c, (void)d, (void)e, (void)f;
    return NAS_INVALID;
}

/* ---- facts ---- */

uint32_t CgwGetInitLocalLsId(void)
{
    return LOCAL_LS;
}

uint32_t CgwGetClientLsIdByWwn(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    (void)a, (void)b, (void)c, (void)d, (void)e, (void)f;
    return NAS_INVALID;
}

const char *getLocalDataAddr(void)
{
    return "192.0.2.1";
}

int32_t GetCfgLsList(uint32_t *ids, uint32_t max, uint32_t *count)
{
    if (max == 0) {
        return ENOSPC;
    }
    ids[0] = LOCAL_LS;
    *count = 1;
    return 0;
}

int32_t CTRL_GetEdsLsidByCtrlIp(const char *ip, uint32_t *ls_id)
{
    if (strcmp(ip, getLocalDataAddr()) != 0) {
        return ENOENT;
    }
    *ls_id = LOCAL_LS;
    return 0;
}

uint32_t NlmE_NodeFaultEvent(uint32_t ls_id)
{
    notice("LS %u is gone: its file locks are released", ls_id);
    return 0;
}

/* ---- start-up ---- */

uint32_t NasCtrlInitAdpater(void)
{
    return 0;
}

uint32_t NasCtrlAppdataClusterInitAdapter(void)
{
    return 0;
}

uint32_t NasCtrlInitEdsDSNameAdapter(void)
{
    strcpy(NasCtrlGetEdsDSName(), "domain-1");
    return 0;
}

uint32_t NasCtrInitClusterEdsViewAdapter(void)
{
    return 0;
}

/* ---- messages of module 3: an empty reply to each ---- */

static uint32_t replyNothing(svr_msg_t *record)
{
    const uint32_t nothing[2] = {0};
    return SvrSendResponse(record, nothing, sizeof nothing);
}

uint32_t NasCtrlGetLifInfoAdapter(svr_msg_t *record)
{
    return replyNothing(record);
}

uint32_t NasCtrlGetControllerInfoAdapter(svr_msg_t *record)
{
    return replyNothing(record);
}

uint32_t NasCtrlGetTenantNameByTenantID(svr_msg_t *record)
{
    return replyNothing(record);
}
