/*
 * The version record that the cluster's nodes agree on in the name service.
 */
#ifndef NASCTRL_VERSION_NS_H
#define NASCTRL_VERSION_NS_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* Called by NasCtrlClusterInit; there is nothing to prepare. Returns 0. */
NASCTRL_API int32_t InitNasCtrlDpcNs(void);

NASCTRL_END_DECLS

#endif
