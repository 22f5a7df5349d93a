/*
 * The library's only door to its configuration: two files, loaded once, then asked. No value is cached and no key has
 * a default. Getters may be called from any thread once loading is done; they leave their outputs alone on failure,
 * except that a text which does not fit, or an empty cluster type, leaves an empty one.
 * Unless a function says otherwise the result is 0, 1 (NAS_ERROR) for a failed read, or NAS_INVALID for a malformed
 * pair or a value that the host lacks.
 */
#ifndef NASCTRL_CONFIG_H
#define NASCTRL_CONFIG_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* The DPC switch, 0 or 1. */
extern NASCTRL_API uint8_t g_dpcSwitch;

/* ---- loaders: 3 attempts, 5 seconds of sleep after each failed one; the last result of the host's loader ---- */

NASCTRL_API uint32_t DpcInitExternStub(void);     /* /opt/marovesta/brisqueta/conf/dpc.conf */
NASCTRL_API uint32_t nas_ctrl_cluster_init(void); /* /opt/ostrak/eds/eds-f/conf/EBSServer.cfg; a host may replace it */
NASCTRL_API uint32_t extern_stub_init(void);      /* runs nas_ctrl_cluster_init; 0 or 1 */

/* ---- values of the form name:address: what follows the first colon, into out of len bytes ---- */

NASCTRL_API uint32_t getLocalIPAddr(char *out, int len);    /* dpc_data_ip */
NASCTRL_API uint32_t GetDioCtrlIp(char *out, int len);      /* dio_ctrl_ip */
NASCTRL_API uint32_t getEbsCtrlIPAddr(char *out, int len);  /* dpc_ctrl_ip */
NASCTRL_API uint32_t EbsGetDpcDataAddr(char *out, int len); /* dpc_ip, of EBSServer.cfg */

/* ---- texts and numbers ---- */

NASCTRL_API uint32_t DpcGetClusterType(char *out, int len);       /* cluster_type: non-empty, shorter than len */
NASCTRL_API uint32_t DpcGetClusterId(uint32_t *out, int len);     /* cm_cluster_id: text shorter than len */
NASCTRL_API uint32_t DpcGetMDomainName(char *out, uint32_t size); /* ds_name */
NASCTRL_API uint32_t getEbsCmIpList(char *out, uint32_t size);    /* cm_ip_list; the reader's own result */
NASCTRL_API uint32_t getEbsIpPortList(char *out);                 /* ebs_ctrl_ip_list; out holds 896 bytes */
NASCTRL_API uint32_t getDpcCtrlIPAddr(char *out, int len);        /* the host's local data address */
NASCTRL_API uint32_t getShimInodeCacheMaxNumber(uint32_t *out);   /* inode_num */
NASCTRL_API uint32_t DpcGetZusStartThread(uint32_t *start, uint32_t *num); /* zus_start_thread, zus_thread_num */
/* business_cluster_id: the value itself, or 1 for a failed read (an id of 1 looks the same). */
NASCTRL_API uint32_t getDpcBusinessClusterId(void);
/* Any unsigned number of dpc.conf, of at most 20 digits. On failure the reader's own result, without a log line. */
NASCTRL_API uint32_t NasSysCtrlGetSpecificationConfigValue(const char *section, const char *key, uint64_t *out);

/* ---- facts of the host ---- */

/* This node's LS id: both, whatever their names. */
NASCTRL_API uint32_t getDpcLsID(void);
NASCTRL_API uint32_t getLocalLsID(void);
/* What the host answers to the six arguments. */
NASCTRL_API uint32_t getLocalLsIDByWwn(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);
/* The LS id of the cluster's master; 1 while there is none. */
NASCTRL_API uint32_t GetMasterNodeId(void);
/*
 * Fills pairs (room for max) with {configured LS id, local LS id} and stores their number. 0, the host's code, or 1
 * without memory.
 */
NASCTRL_API uint32_t CTRL_GetCfgLsList(uint32_t *pairs, uint32_t max, uint32_t *count);

/* ---- fixed answers ---- */

NASCTRL_API uint32_t getEbsServerIpList(void);                             /* 0 */
NASCTRL_API uint32_t GetNodePoolByDiskPoolId(uint64_t id, uint16_t *pool); /* stores 0; 0 */

/* Who owns a data slice. */
typedef struct {
    uint16_t owner; /* always 0 */
    uint64_t slice; /* always 0 */
} data_slice_owner;
/* Stores 0 in both fields; 0, or 1 for a null record. */
NASCTRL_API uint32_t FssGetDataSliceOwner(data_slice_owner *rec);

/* Set the switch, 1 for every value but 0, and read it. */
NASCTRL_API void SetDpcSwitch(int on);
NASCTRL_API uint32_t GetDpcSwitch(void);

/* ---- entry points that are empty in this build and return 0 or nothing; a host may define its own in their place ----
 */

/* Returns 0. */
NASCTRL_API uint32_t handle_cmd(void *cmd);
NASCTRL_API uint32_t NasCtlCmSubscribe(void);
NASCTRL_API uint32_t NasCtrlGetDpcAddrByLsid(void);
NASCTRL_API uint32_t HdfsCtrlGetTenantId(void);
/* The body of the thread that a CM connect event starts. Returns null. */
NASCTRL_API void *NasCtrlHandleDpcConnectEvent(void *arg);
/* Do nothing. */
NASCTRL_API void handle_evend(void *event);
NASCTRL_API void handle_status(void);
NASCTRL_API void NasCtrlGetDpcLsViewCallback(void);
NASCTRL_API void NasSubsDpcLsViewCallback(void);
/* Fetches the full view of the DPC cluster; result is 0 before the call and stays so here. */
NASCTRL_API void NasCtrlHandleDpcEventAdapter(int32_t *result, uint32_t client_id, void *arg);
/* Handles the tasks of g_nasDpcEventTaskList; called every 100 ms. Here nobody takes them off. */
NASCTRL_API void NasCtrlExecuteDpcEventTask(void);

NASCTRL_END_DECLS

#endif
