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

#define NAS_HDFS_IPS_CHANGED 0U
#define NAS_HDFS_IPS_CLEARED 1U

/* arg: the 72-byte notification record, all zero. */
typedef void (*hdfs_ips_handler)(void *arg);

extern NASCTRL_API hdfs_ips_handler g_hdfsGetIpsHandler[2];

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

/* ---- node addresses ---- */

/* Releases a node IP list; null is ignored. */
NASCTRL_API void FreeCurNodeIpList(void *list);

NASCTRL_END_DECLS

#endif
