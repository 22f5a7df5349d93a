/*
 * The library as a host in plain C meets it: the layouts of the records that both sides touch, and the main road.
 */
#include <nasctrl/nasctrl.h>
#include <stddef.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

#define LAYOUT(type, size) _Static_assert(sizeof(type) == (size), #type)
#define FIELD(type, field, offset) _Static_assert(offsetof(type, field) == (offset), #type "." #field)

LAYOUT(list_link, 16);
LAYOUT(kvos_spinlock_t, 24);
FIELD(kvos_spinlock_t, magic, 8);
FIELD(kvos_spinlock_t, owner_cpu, 12);
FIELD(kvos_spinlock_t, owner, 16);
LAYOUT(kvos_rwlock_t, 8);

LAYOUT(svr_msg_t, 40);
FIELD(svr_msg_t, length, 8);
FIELD(svr_msg_t, module, 12);
FIELD(svr_msg_t, opcode, 16);
FIELD(svr_msg_t, sequence, 32);
FIELD(svr_msg_t, direction, 36);
LAYOUT(svr_module_reg_t, 56);
FIELD(svr_module_reg_t, handler, 8);
FIELD(svr_module_reg_t, flag, 48);
LAYOUT(svr_call_t, 104);
FIELD(svr_call_t, length, 8);
FIELD(svr_call_t, module, 12);
FIELD(svr_call_t, type, 16);
FIELD(svr_call_t, const10, 20);
FIELD(svr_call_t, sid, 28);
FIELD(svr_call_t, const9, 40);
FIELD(svr_call_t, local_nid, 96);

LAYOUT(node_ip_entry, 72);
FIELD(node_ip_entry, addr, 4);
FIELD(node_ip_entry, work_status, 68);
FIELD(node_ip_list, entries, 8);
LAYOUT(tenant_change, 8);

LAYOUT(cm_ops, 32);
FIELD(struct nas_power_mgr, state, 16);
FIELD(struct nas_cluster_id_list, count, 64);
FIELD(struct nas_cluster_id_list, lock, 72);

FIELD(NasIpListNode, addr, 16);
FIELD(NasIpListNode, status, 64);
FIELD(NasIpListNode, protoType, 68);
FIELD(NasIpEvent, type, 64);
FIELD(NasIpEvent, protoType, 68);
FIELD(NasIpNotifyEvent, tenantId, 16);
FIELD(NasIpNotifyEvent, eventType, 20);
LAYOUT(ip_add_work, 24);
FIELD(ip_add_work, done, 16);

LAYOUT(NasLifPortBucket, 24);
FIELD(NasLifPortEntry, time, 16);
FIELD(NasLifPortEntry, name, 24);
FIELD(NasLifPortEntry, ip, 281);
FIELD(struct nas_lif_port_info, slots, 24);
FIELD(struct nas_lif_port_info, buckets, 24 + 8192 * 8);

LAYOUT(cm_attr, 292);
LAYOUT(cm_ls_entry, 4712);
FIELD(cm_ls_entry, attrs, 8);
FIELD(cm_ls_entry, mgtSt, 2344);
FIELD(cm_ls_entry, sessionId, 2352);
FIELD(cm_ls_entry, rs, 2360);
FIELD(cm_ls_entry, role, 2368);
LAYOUT(dpc_view, 408);
FIELD(dpc_view, mgtSt, 392);
FIELD(dpc_view, ls, 400);
FIELD(dpc_event_task, lsid, 16);
FIELD(dpc_event_task, sessionId, 24);

LAYOUT(version_array, 1028);
FIELD(version_array, count, 1024);
LAYOUT(ns_value, 16);
FIELD(ns_value, seq, 8);
LAYOUT(ns_request, 24);
FIELD(ns_request, value, 8);
FIELD(ns_request, result, 16);
LAYOUT(ns_info_t, 24);
FIELD(ns_info_t, value, 8);
FIELD(ns_info_t, length, 16);
LAYOUT(ns_state_t, 24);
FIELD(ns_state_t, version, 16);
LAYOUT(struct cluster_verinfo, 48);
FIELD(struct cluster_verinfo, version, 8);
FIELD(struct cluster_verinfo, seq, 16);
FIELD(struct cluster_verinfo, lock, 24);

static uint32_t g_hookCalls;
static uint32_t g_hookEvent;
static char g_hookAddr[64];

static uint32_t hook(uint32_t event, const char *addr, uint32_t family)
{
    ++g_hookCalls;
    g_hookEvent = event;
    snprintf(g_hookAddr, sizeof g_hookAddr, "%s family %u", addr, family);
    return 0;
}

static int32_t startService(void *a, void *b)
{
    (void)a;
    (void)b;
    return 0;
}

/* Unlike assert, also looks in a release build. */
static void expect(int holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "abi_test: not so: %s\n", what);
        exit(1);
    }
}
#define EXPECT(condition) expect((condition), #condition)

static void startsItsModules(void)
{
    EXPECT(nas_ctrl_init() == 0);
    EXPECT(nas_ctrl_handler_reg() == 0);
    EXPECT(NasIpMgrInitModule(NULL) == 0);
    EXPECT(NasLifMgrModuleStart() == 0);
    EXPECT(g_pIpEventCallBacks[3] == LifIpEvent);
}

static void carriesAnAddressToTheHookAndBack(void)
{
    char text[128];
    EXPECT(NasIpMgrRegisterIpEvent(0, hook) == 0);
    EXPECT(NasIpMgrAddNewIPInner("10.0.0.1", 3) == 0);
    EXPECT(g_hookCalls == 1 && g_hookEvent == NAS_IP_EVENT_ADD);
    EXPECT(strcmp(g_hookAddr, "10.0.0.1 family 2") == 0 && AF_INET == 2);
    EXPECT(NasIpMgrShowAllIp(text, sizeof text) == 33);
    EXPECT(strcmp(text, "IP [10.0.0.1 3] Notify Status=63\n") == 0);

    EXPECT(NasIpMgrDeleteOldIPInner("10.0.0.1", 3) == 0);
    EXPECT(g_hookCalls == 2 && g_hookEvent == NAS_IP_EVENT_DELETE);
    EXPECT(NasIpMgrShowAllIp(text, sizeof text) == 0);
}

static void findsALifPortByItsId(void)
{
    char name[32];
    const uint32_t index = nas_lifport_add_update(42, "lif42", "10.0.0.2", 1);
    EXPECT(index < NAS_LIF_PORT_SLOTS);
    EXPECT(g_NfsLifPortInfo.find(42) == index);
    EXPECT(nas_get_lifport_name(42, name, sizeof name) == 0 && strcmp(name, "lif42") == 0);
    nas_lifportid_del_update("10.0.0.2", 1);
    EXPECT(g_NfsLifPortInfo.slots[index] == 0);
}

static void powersOnAndOff(void)
{
    EXPECT(nas_ctrl_power_reg(startService, startService) == 0);
    EXPECT(nas_ctrl_power_on(NULL, NULL) == 0 && GetNasPowerOnStatus() == NAS_POWER_GOING_ON);
    nas_ctrl_power_on_success();
    EXPECT(NasCtrlIsPowerOnComplete() == 1);
    EXPECT(nas_ctrl_power_off(NULL, NULL) == 0 && g_nas_power_mgr.state == NAS_POWER_OFF);
}

static void listsRemoteClusters(void)
{
    char text[128];
    nas_ctrl_cluster_list_init();
    EXPECT(nas_ctrl_add_to_cluster_list(5) == 0 && nas_ctrl_add_to_cluster_list(9) == 0);
    EXPECT(nas_ctrl_get_cluster_count_list(text, sizeof text) == (int64_t)strlen(text));
    EXPECT(strcmp(text, "Cluster list count : 2\nCluster list contents are : 5, 9\n") == 0);
}

int main(void)
{
    startsItsModules();
    carriesAnAddressToTheHookAndBack();
    findsALifPortByItsId();
    powersOnAndOff();
    listsRemoteClusters();
    puts("abi_test: the main road holds in plain C");
    return 0;
}
