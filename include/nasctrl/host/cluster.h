/*
 * Host service: the cluster manager (CM) client.
 */
#ifndef NASCTRL_HOST_CLUSTER_H
#define NASCTRL_HOST_CLUSTER_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/*
 * Reads a fact from a CM event (a record of the host's CM library whose first field is its 32-bit type). what 1: the
 * CM client id, stored through client_id. Returns 0, or an error code.
 */
NASCTRL_API int32_t CM_getEventInfo(const void *event, uint32_t what, uint32_t *client_id);

/* Stores the LS id of the cluster's master through ls_id. Returns 0, or an error code while there is none. */
NASCTRL_API int32_t getGlbMasterLsId(uint32_t *ls_id);

/* The LS id of this node's control LS. */
NASCTRL_API uint32_t getLocalCtrlLsId(void);

/*
 * Why the LS of this entry (struct cm_ls_entry of dpc.h, only read during the call) is faulty: 2 = its process ended,
 * 3 = its heart beat broke; other values are none of the library's concern.
 */
NASCTRL_API int32_t CM_getLsFaultReason(const void *ls_entry);

/* Tells how a report ended: ret 0, or an error code. context is the one that the report was given. */
typedef void (*cm_report_cb)(void *context, int32_t ret);

/*
 * Reports count business-status records (struct cm_attr of dpc.h, copied during the call) of the client to CM. Returns
 * 0 when the report is under way: callback is then called exactly once, from a thread of the host and never from
 * within this call, because it may report again. Otherwise returns an error code and callback is not called.
 */
NASCTRL_API int32_t CM_reportDsBusinessStatusAsyn(uint32_t client_id, const void *records, uint32_t count,
                                                  cm_report_cb callback, void *context);

NASCTRL_END_DECLS

#endif
