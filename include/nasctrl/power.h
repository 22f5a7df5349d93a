/*
 * The power state of the protocol service. A plain word without a lock: the thread that powers the service on or off
 * writes it, any thread reads it.
 */
#ifndef NASCTRL_POWER_H
#define NASCTRL_POWER_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

#define NAS_POWER_OFF 0U       /* off */
#define NAS_POWER_ON 1U        /* on */
#define NAS_POWER_GOING_OFF 2U /* the stop routine runs, or has failed */
#define NAS_POWER_GOING_ON 3U  /* until the host reports that the service is up */

/* Starts or stops the protocol service; gets the two arguments of nas_ctrl_power_on or _off. 0 = done. */
typedef int32_t (*nas_power_fn)(void *a, void *b);

/* The routines and the state. */
extern NASCTRL_API struct nas_power_mgr {
    nas_power_fn start; /* or null */
    nas_power_fn stop;  /* or null */
    uint32_t state;     /* one of the four above */
} g_nas_power_mgr;

/* Stores both routines and resets the state to off. Returns 0, or -22 (and changes nothing) when either is null. */
NASCTRL_API int32_t nas_ctrl_power_reg(nas_power_fn start, nas_power_fn stop);

/*
 * Powers on: the state is "going on" while start runs and stays so until nas_ctrl_power_on_success. Returns 0 when
 * start succeeded or the service is on or going on already; 1 without a start routine, or when start failed (off
 * again).
 */
NASCTRL_API int32_t nas_ctrl_power_on(void *a, void *b);

/*
 * Powers off: the state is "going off" while stop runs. Returns 0 when stop succeeded or the service is off already;
 * 1 without a stop routine, or when stop failed, in which case the state stays "going off".
 */
NASCTRL_API int32_t nas_ctrl_power_off(void *a, void *b);

/* The host reports that the service is up: the state becomes "on". */
NASCTRL_API void nas_ctrl_power_on_success(void);

/* Predicates answer 1 or 0. */
NASCTRL_API uint32_t NasCtrlIsPoweredOn(void);             /* on or going on */
NASCTRL_API uint32_t NasCtrlIsPoweringOffOrPowerOFf(void); /* off or going off */
NASCTRL_API uint32_t NasCtrlIsNotPoweredOff(void);         /* anything but off */
NASCTRL_API uint32_t NasCtrlIsPowerOnComplete(void);       /* on */
NASCTRL_API uint32_t GetNasPowerOnStatus(void);            /* the state itself */

/* Empty in this build; returns 0. */
NASCTRL_API int32_t nas_ctrl_rpc_init(void);

NASCTRL_END_DECLS

#endif
