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

NASCTRL_END_DECLS

#endif
