/*
 * The FMM events: what the host tells when shards change owner, nodes recover, and vnodes or shards move in or out, and
 * the debug commands that drive the same by hand.
 *
 * The callbacks may be called from any thread, light-weight threads included, and return at once: the work runs on a
 * light-weight thread, which tells module DLG and then module FMM through notifyCall.
 */
#ifndef NASCTRL_FMM_H
#define NASCTRL_FMM_H

#include <nasctrl/host/lwt.h>

NASCTRL_BEGIN_DECLS

/* The modules that notifyCall tells. */
#define NOTIFY_MODULE_FMM 1U
#define NOTIFY_MODULE_DLG 2U

/* The events of module FMM. */
#define NAS_FMM_EVENT_SHARD_CHG 0U
#define NAS_FMM_EVENT_VNODE_MOVEIN 1U
#define NAS_FMM_EVENT_VNODE_MOVEOUT 2U
#define NAS_FMM_EVENT_SCALE_OUT 3U
#define NAS_FMM_EVENT_SCALE_IN 4U
#define NAS_FMM_EVENT_NODE_FAULT 5U
#define NAS_FMM_EVENT_NODE_RECOVER 6U

/* Registers the seven events under the module name "NAS_FMM" and lets the host register its part; 0. Once, at start. */
NASCTRL_API int32_t nas_fmm_module_init(void);

/* Shards changed owner: FMM alone is told, event 0. A thread that cannot be started is logged. */
NASCTRL_API void nas_fmm_shard_change_callback(void);

/*
 * Vnodes or shards move in or out: DLG and then FMM are told, with data as the argument's data word, and then sem is
 * raised once; it is raised at once, and nobody told, when memory or a thread is missing. sem is a kvlwt_task_sem_t of
 * a caller on a light-weight thread, a sem_t of any other; it is the caller's and must live until raised; null is no
 * error. They return 0.
 */
NASCTRL_API int32_t nas_fmm_vnode_movein_callback(uint64_t data, void *sem);
NASCTRL_API int32_t nas_fmm_vnode_moveout_callback(uint64_t data, void *sem);
NASCTRL_API int32_t nas_fmm_shard_movein_callback(uint64_t data, void *sem);
NASCTRL_API int32_t nas_fmm_shard_moveout_callback(uint64_t data, void *sem);
/* Their common body, for any event. */
NASCTRL_API void nas_fmm_vnode_callback(uint32_t event, uint64_t data, void *sem);

/*
 * A process recovered: FMM alone is told, event 6 with a cleared argument, and then NasFmmProcessRevertOnetrack gets
 * arg, whatever FMM answered. arg is handed through and must live until then.
 */
NASCTRL_API void nas_fmm_process_recover_callback(void *arg);

/* What a move is to do. From the host's pool: the light-weight thread that runs it frees it. */
typedef struct {
    uint32_t event; /* NAS_FMM_EVENT_VNODE_MOVEIN or its like */
    uint8_t isLwt;  /* the caller runs on a light-weight thread */
    void *sem;      /* the caller's; raised when done */
    uint64_t data;  /* the data word of the argument */
} vnode_move_job;

/* Bodies of the light-weight threads. A null job is logged. */
NASCTRL_API void nas_fmm_shard_change_lwt(void *arg);
NASCTRL_API void nas_fmm_vnode_move_lwt(void *job);
NASCTRL_API void nas_fmm_process_recover_lwt(void *arg);

/* Does nothing. */
NASCTRL_API void nas_fmm_ls_change_callback(void);

/* ---- debug commands, and the simulator ---- */

/* Registers the eight commands of module "nas_fmm" with the host; what it answers is ignored. */
NASCTRL_API void nsa_fmm_cmd_init(void);

/*
 * As the vnode callbacks, but delivered by the light-weight work queue of the FMM jobs. sem is a kvlwt_task_sem_t,
 * raised after both modules were told. Without sem, queue, memory or a place in the queue a line is logged and nothing
 * happens: sem is not raised then. They return 0. The shard view must have been built.
 */
NASCTRL_API int32_t nas_fmm_vnode_movein_callback_simulator(uint64_t data, void *sem);
NASCTRL_API int32_t nas_fmm_vnode_moveout_callback_simulator(uint64_t data, void *sem);
NASCTRL_API void nas_fmm_vnode_callback_simulator(uint32_t event, uint64_t data, void *sem);

/* A move that waits in the queue. From the host's pool; freed after its sem was raised. */
typedef struct {
    lwt_work_t work;    /* its place in the queue */
    vnode_move_job job; /* the move */
} vnode_move_item;

/* Tells DLG and then FMM of a vnode_move_item; neither raises its sem nor frees it. A null job is logged. */
NASCTRL_API void nas_fmm_vnode_move_lwt_simulator(void *job);

NASCTRL_END_DECLS

#endif
