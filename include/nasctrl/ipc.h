/*
 * Questions to the storage-side service, and the two handlers that are told when its HDFS addresses change.
 *
 * Every query blocks its caller until the service answers and keeps no state, so any number may run at once. A list
 * handed out is a pool buffer of the caller's, released by the function named with the query.
 */
#ifndef NASCTRL_IPC_H
#define NASCTRL_IPC_H

#include <nasctrl/host/adapters.h>

NASCTRL_BEGIN_DECLS

/*
 * Sends a request of length bytes and waits for the answer, three times when it times out. Returns 0 and a pool buffer
 * that the caller frees with nas_mem_comm_free, or the host's last code (-110 = timed out).
 */
NASCTRL_API int32_t NasCtrlMsgCallSync(uint32_t type, const void *request, uint32_t length, void **response,
                                       uint32_t *responseLength);

/* ---- handlers of HDFS address notices; registered at start, called on the message service's threads ---- */

#define NAS_HDFS_IPS_CHANGED 0U /* addresses changed */
#define NAS_HDFS_IPS_CLEARED 1U /* addresses are gone */

/* arg: the 72-byte notification record, all zero. */
typedef void (*hdfs_ips_handler)(void *arg);

extern NASCTRL_API hdfs_ips_handler g_hdfsGetIpsHandler[2]; /* by opcode; null = none */

/* Stores, or clears, the handler of an opcode above; any other opcode, or a null handler, is logged and ignored. */
NASCTRL_API void HdfsGetIpsHandlerRegister(uint32_t opcode, hdfs_ips_handler handler);
NASCTRL_API void HdfsGetIpsHandlerUnregister(uint32_t opcode);
/* Register, and unregister, the library's own two handlers, which only log. Return 0. */
NASCTRL_API int32_t HdfsGetIpRegister(void);
NASCTRL_API int32_t HdfsGetIpUnregister(void);
NASCTRL_API void HdfsNotifyChangeCache(void *arg);
NASCTRL_API void HdfsNotifyClearCache(void *arg);
/* Call the handler with notice: 0, or -22 when there is none. */
NASCTRL_API int32_t NotifyIpdataChange(void *notice);
NASCTRL_API int32_t NotifyIpdataClear(void *notice);

/* ---- HDFS questions ---- */

/*
 * Each sends one message and stores, through rsp, a copy of the answer: result (int32_t, 0 = success, judged by the
 * caller) at offset 0, a count or value (uint32_t) at 4, then what the storage-side service answers. An answer shorter
 * than the size named with the query is followed by zeros up to it.
 * They return 0; -22 for a null argument; -12 without memory or for an empty answer; or the code of a failed call
 * (-110 = timed out three times). Without 0, nothing is stored.
 */

/* A question about a subnet of a tenant's file system. */
typedef struct {
    uint32_t fsId;     /* of the file system */
    uint32_t tenantId; /* of its tenant */
    char subnet[64];   /* NUL-padded */
} zone_request;

/* Type 3: the HDFS configuration behind an address; ip points at 64 bytes, NUL-padded text. 4172 bytes: fsid at 4,
 * dtreePath (text) at 8. Released with FreeHdfsConf. */
NASCTRL_API int32_t GetHdfsConf(const char *ip, void **rsp);
/* Type 11: the tenant that owns an address; ip as above. 8 bytes: tenant id at 4. Released with nas_mem_comm_free. */
NASCTRL_API int32_t GetTenantIdByIp(const char *ip, void **rsp);
/* Type 9: the addresses of the global zone. 12 bytes: their number at 4. Released with nas_mem_comm_free. */
NASCTRL_API int32_t GetHdfsGlobalZoneIpList(const zone_request *req, void **rsp);
/* Type 14: all addresses of a subnet. 8 bytes: their number at 4. Released with ReleaseSubnetAllIpList. */
NASCTRL_API int32_t GetSubnetAllIpList(const zone_request *req, void **rsp);
/*
 * Type 4: the addresses of neighbours. req is a header of 72 bytes (EDS LS id, int32_t, at 0; number n of entries,
 * uint32_t, at 68) and n entries of 72 bytes, sent as they stand. 8 bytes: the number of addresses at 4. Released with
 * FreeHdfsNeighborIpList.
 */
NASCTRL_API int32_t GetHdfsNeighborIpList(const void *req, void **rsp);
/* Type 5: the addresses of this node's zone. 12 bytes: their number at 4. Released with FreeHdfsZoneIpList. */
NASCTRL_API int32_t GetHdfsZoneIpList(void **rsp);
/* Types 13 and 15: the contacted zone's configuration (16 bytes) and the zone's full domain name (258 bytes). rsp is
 * not checked. Released with the two Release functions of their names. */
NASCTRL_API int32_t GetContactedZoneHdfsConfigure(void **rsp);
NASCTRL_API int32_t GetZoneFullDomain(void **rsp);

/*
 * Type 10: the node ids of the global zone, as an array of *zoneNum texts; null and 0 when there are none. Released
 * with ReleaseHdfsGlobalZoneNodeId. The number of rows in the answer is trusted.
 * Returns 0; the result word of an answer that reports a failure; or the codes above, and then *zoneNum is 0 and
 * *zoneList must not be used.
 */
NASCTRL_API int32_t GetHdfsGlobalZoneNodeId(char ***zoneList, uint32_t *zoneNum);

/* Release a copy; null is ignored. */
NASCTRL_API void FreeHdfsConf(void *rsp);
NASCTRL_API void FreeHdfsNeighborIpList(void *rsp);
NASCTRL_API void FreeHdfsZoneIpList(void *rsp);
/* Release the copy that the caller's pointer names and null the pointer; a null pointer stays as it is. */
NASCTRL_API void ReleaseContactedZoneHdfsConfigure(void **rsp);
NASCTRL_API void ReleaseSubnetAllIpList(void **rsp);
NASCTRL_API void ReleaseGetZoneFullDomain(void **rsp);
/* Both release the first count texts of an array, nulling them, and the array. */
NASCTRL_API void ReleaseHdfsGlobalZoneNodeId(char **zoneList, int32_t count);
NASCTRL_API void ReleaseZoneNodeId(char **zoneList, int32_t count);

/* ---- node addresses and interfaces; results as of the HDFS questions ---- */

/* Type 1: the node's service addresses; released with FreeCurNodeIpList. */
NASCTRL_API int32_t GetCurNodeIpList(node_ip_list **rsp);
/* Type 6: the node's interfaces, 8 bytes and the service's own entries; released with FreeCurNodeIfaceList. */
NASCTRL_API int32_t GetCurNodeIfaceList(void **rsp);
/* Release a list; null is ignored. */
NASCTRL_API void FreeCurNodeIpList(void *list);
NASCTRL_API void FreeCurNodeIfaceList(void *list);

/*
 * A question that is switched off: req is a number n of entries (uint32_t) and n entries of 72 bytes. Sends nothing,
 * stores nothing. Returns 12; -22 for a null argument; -12 without memory.
 */
NASCTRL_API int32_t GetIpListInfo(const void *req, void **rsp);
/* Frees a pool block; null is ignored. */
NASCTRL_API void FreeIpListInfo(void *info);

/* ---- owners of control addresses ---- */

/* A control address and its owner. */
typedef struct {
    uint32_t pending; /* not 0: lsId is still wanted */
    char ip[128];     /* NUL-terminated text */
    uint32_t lsId;    /* the owner, once found */
    uint8_t reserved[12];
} ctrl_ip_entry;

/* The addresses that wait for their owners. */
__extension__ typedef struct {
    uint32_t busy;           /* not 0: the list is left alone */
    uint32_t count;          /* of entries */
    ctrl_ip_entry entries[]; /* count of them */
} ctrl_ip_list;

/*
 * Stores the LS id of every pending entry whose owner the host knows, and clears its flag; the others stay pending. The
 * list is the caller's alone during the call.
 */
NASCTRL_API void CTRL_GetIpsLsidByCtrlIp(ctrl_ip_list *list);

NASCTRL_END_DECLS

#endif
