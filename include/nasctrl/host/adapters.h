/*
 * Host service: adapters, the small functions by which a host tells the library of its own surroundings.
 */
#ifndef NASCTRL_HOST_ADAPTERS_H
#define NASCTRL_HOST_ADAPTERS_H

#include <nasctrl/base.h>
#include <nasctrl/host/message.h>

NASCTRL_BEGIN_DECLS

/* ---- start-up: each is called once, in this order, and returns 0 or an error code ---- */

/* The host's own part of nas_ctrl_init, whose result it becomes. */
NASCTRL_API uint32_t NasCtrlInitAdpater(void);
/* Brings up the application-data cluster; a failure ends NasCtrlClusterInit. */
NASCTRL_API uint32_t NasCtrlAppdataClusterInitAdapter(void);
/* Fills g_nasEdsDsName (64 bytes, NUL-terminated); NasCtrlClusterInit goes on whatever it returns. */
NASCTRL_API uint32_t NasCtrlInitEdsDSNameAdapter(void);
/* Brings up the host's view of the EDS cluster; a failure ends NasCtrlClusterInit. */
NASCTRL_API uint32_t NasCtrInitClusterEdsViewAdapter(void);
/*
 * Opens the CM client against the servers of cm_list from local_ip (both NUL-terminated, at most 831 characters) and
 * stores its id through client_id. CM callbacks may arrive before it returns.
 */
NASCTRL_API uint32_t NasCrtlOpenCmClientAdapter(const char *cm_list, const char *local_ip, uint32_t *client_id);

/* ---- messages of module 3: each builds and sends its own reply and returns 0 or an error code ---- */

NASCTRL_API uint32_t NasCtrlGetLifInfoAdapter(svr_msg_t *record);        /* opcode 40 */
NASCTRL_API uint32_t NasCtrlGetControllerInfoAdapter(svr_msg_t *record); /* opcode 44 */
NASCTRL_API uint32_t NasCtrlGetTenantNameByTenantID(svr_msg_t *record);  /* opcode 47 */

/* ---- facts of the node, from any thread ---- */

/* This node's LS id. */
NASCTRL_API uint32_t CgwGetInitLocalLsId(void);
/* The LS id of the client that the arguments name; the library passes its caller's six arguments on. */
NASCTRL_API uint32_t CgwGetClientLsIdByWwn(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);
/* This node's data address as text that outlives the process, or null when there is none. */
NASCTRL_API const char *getLocalDataAddr(void);
/* Stores the configured LS ids, at most max, and their number. Returns 0, or an error code. */
NASCTRL_API int32_t GetCfgLsList(uint32_t *ids, uint32_t max, uint32_t *count);
/* Stores the LS id that owns the control address ip. Returns 0, or non-zero when it is not known. */
NASCTRL_API int32_t CTRL_GetEdsLsidByCtrlIp(const char *ip, uint32_t *ls_id);

/* ---- protocol modules and their service addresses ---- */

/* Non-zero when module (0 to 5) serves addresses of the protocol type. */
NASCTRL_API uint32_t ModuleNeedInvokeAdapter(uint32_t module, uint32_t proto_type);
/* The address event of module 3: event 0 add, 1 delete; family AF_INET or AF_INET6. Returns 0, or an error code. */
NASCTRL_API uint32_t LifIpEventAdpter(uint32_t event, const char *addr, uint32_t family);

/* ---- the node's service addresses ---- */

/* A service address of the node. */
typedef struct {
    uint32_t proto_type;  /* the host's number */
    char addr[64];        /* NUL-terminated IPv4 or IPv6 text */
    uint32_t work_status; /* only IsIpWork and SetDefaultIpWorkstatus interpret it */
} node_ip_entry;

/* The answer of a query: a block of the memory pool with count entries. */
__extension__ typedef struct {
    int32_t result;          /* 0 = success */
    uint32_t count;          /* of entries */
    node_ip_entry entries[]; /* count of them */
} node_ip_list;

/*
 * Stores the node's current service addresses, a list that the library frees with FreeCurNodeIpList also when the
 * result is not 0. Called by the monitor thread, may block. Returns 0, or an error code.
 */
NASCTRL_API int32_t GetCurNodeIpListAdapter(node_ip_list **list);
/* Non-zero when the entry's address is in working state and may be served. */
NASCTRL_API uint32_t IsIpWork(const node_ip_entry *entry);
/* Puts the entry in working state. */
NASCTRL_API void SetDefaultIpWorkstatus(node_ip_entry *entry);

/* One tenant's merged notices: changed is 1 when there was one, event_type the largest of their kinds. */
typedef struct {
    uint32_t changed;    /* 1 when there was a notice */
    uint32_t event_type; /* the largest kind of the notices */
} tenant_change;

/* Tells the tenant agent which tenants' LIFs changed: count of them in table, indexed by tenant id. Result is logged.
 */
NASCTRL_API int32_t NasAuthAgentNsNotifyLifChange(uint32_t count, const tenant_change table[1025]);

/* ---- LIF ports ---- */

/* 0 when the port supports the performance path. */
NASCTRL_API uint32_t CheckLifPortSupportPerf(uint64_t id);
/* Switches the port's performance path on (1) or off (0). Called with LIF bucket locks held. Returns 0 or an error. */
NASCTRL_API uint32_t regLifportAdpter(uint64_t id, uint32_t on);
/* What getNasLifPortIdByIp answers; the library passes its caller's six arguments on. */
NASCTRL_API uint32_t getNasLifPortIdByIpAdpter(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);

/* ---- clients ---- */

/* Releases the file locks of the client behind an LS that went away. Returns 0 on success. */
NASCTRL_API uint32_t NlmE_NodeFaultEvent(uint32_t ls_id);

NASCTRL_END_DECLS

#endif
