/*
 * Everything that libnasctrl exports, in one include. What a host must supply is in nasctrl/host/.
 */
#ifndef NASCTRL_NASCTRL_H
#define NASCTRL_NASCTRL_H

#include <nasctrl/cloud.h>
#include <nasctrl/cluster_list.h>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/dpc.h>
#include <nasctrl/fmm.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>
#include <nasctrl/lif_port.h>
#include <nasctrl/power.h>
#include <nasctrl/shard_view.h>
#include <nasctrl/version_ns.h>
#include <nasctrl/vpc.h>

#endif
