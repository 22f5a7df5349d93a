/*
 * The cluster of distributed parallel clients (DPC) that use this node: the view of their logical servers (LS), and
 * the tasks that their faults leave to be done.
 *
 * The view and the task list each have a spin lock of their own; neither is held while the library calls the host.
 */
#ifndef NASCTRL_DPC_H
#define NASCTRL_DPC_H

#include <nasctrl/host/platform.h>
#include <semaphore.h>

NASCTRL_BEGIN_DECLS

/* A key and value of an LS, as the cluster manager lays them out. */
typedef struct {
    char name[32];     /* the key, NUL-terminated */
    uint32_t valueLen; /* of value, NUL included */
    char value[256];   /* as text, where the library reads it */
} cm_attr;

/* One logical server. */
typedef struct {
    uint32_t lsId; /* the id of the LS, unique in the cluster */
    uint32_t reserved4;
    cm_attr attrs[8]; /* looked up by their keys */
    int32_t mgtSt;    /* the cluster manager's; only logged */
    uint32_t reserved2348;
    uint64_t sessionId; /* of the client's process */
    int32_t rs;         /* run state: 0 normal, 1 faulty */
    int32_t bs;         /* the cluster manager's; only logged */
    int32_t role;       /* the cluster manager's; only logged */
    uint8_t rest[2340]; /* never read */
} cm_ls_entry;

/* All logical servers at one time. */
typedef struct {
    uint64_t version;  /* counts the changes of the view */
    char dsName[128];  /* name of the data service */
    char dsAlias[256]; /* its other name */
    int32_t mgtSt;     /* the cluster manager's; only logged */
    uint32_t lsNum;    /* how many LS */
    cm_ls_entry *ls;   /* lsNum entries */
} dpc_view;

/* The view that this process holds. */
extern NASCTRL_API struct nas_dpc_ls_view {
    kvos_spinlock_t lock; /* guards view, for whoever fills it */
    dpc_view view;        /* the view itself */
} g_nasDpcLsView;

extern NASCTRL_API uint32_t g_nasDpcClientId;       /* the CM client id; set by NasCtrlSetCmClientId */
extern NASCTRL_API uint32_t g_nasCtrlDpcSubscribed; /* cleared at start; the host's to set */
extern NASCTRL_API uint64_t g_cmregls;              /* reserved for the host */

/* Whoever waits for a subscription: the result, and the semaphore that is posted with it. */
typedef struct {
    int32_t result; /* of the subscription */
    sem_t sem;      /* posted when the result is there */
} dpc_subscribe_waiter;

/* Prepares view and task list, registers as CM consumer 1, starts the task thread. 0, or the thread's failure code. */
NASCTRL_API uint32_t NasCtrlDpcClusterInit(void);

/* Completes a subscription: stores ret in waiter and posts it. What sem_post returned; -1 for a null waiter. Any
 * thread. */
NASCTRL_API int32_t NasSubsDpcViewResultCb(dpc_subscribe_waiter *waiter, int32_t ret);

/*
 * Fetches the full view through NasCtrlHandleDpcEventAdapter, again every 100 ms while that fails. Returns 0; after
 * the 101st failure it ends the process with _exit(0).
 */
NASCTRL_API uint32_t NasCtrlHandleTryGetDpcViewAdapter(void *arg);

/* A zeroed pool buffer for a view, or null; and its release, which ignores null. */
NASCTRL_API void *NasCtrlViewMalloc(uint32_t size);
NASCTRL_API void NasCtrlViewFree(void *buf);

/* Logs the view and each of its entries. */
NASCTRL_API void NasCtrlShowViewInfo(const dpc_view *view);

/*
 * Copies the value of attribute key into outAddr (64 bytes); of a value "first@second", what follows the "@". Returns
 * NAS_INVALID when a value does not fit, else 0, also when there is no such key and outAddr is left as it was.
 */
NASCTRL_API uint32_t NasCtrlGetAddrFromCmLs(const cm_ls_entry *ls, char *outAddr, const char *key);
/* 1 when text holds an "@", else 0. */
NASCTRL_API uint32_t IsDoubleIpAddress(const char *text);
/* Copies what follows the first address and its "@". 0, or NAS_INVALID: no address at all, or no room. */
NASCTRL_API uint32_t ParseDoubleIp(const char *raw, char *out, uint32_t outLen);

/* ---- the task queue ---- */

/* A fault that waits for the host's NasCtrlExecuteDpcEventTask; or a job that clears a lost client's locks. */
typedef struct {
    list_link link;     /* in g_nasDpcEventTaskList */
    uint32_t lsid;      /* of the lost client */
    uint32_t faultTime; /* low 32 bits of the host's milliseconds */
    uint64_t sessionId; /* of the process that failed */
} dpc_event_task;

/* The tasks that wait. */
extern NASCTRL_API struct nas_dpc_event_task_list {
    list_link head;       /* of dpc_event_task, oldest first */
    kvos_spinlock_t lock; /* guards the list */
} g_nasDpcEventTaskList;

/* Queues a task: 0, or NAS_INVALID without memory. Any thread. The consumer takes it off under the lock and frees it.
 */
NASCTRL_API uint32_t AddDpcEventTask(int32_t lsid, int32_t faultTime, int64_t sessionId);

/* The CM event callback: 0 connect, 1 disconnect. A connect that cannot start its thread ends the process. */
NASCTRL_API void NasCtrlHandleDpcEvent(void *event);

/* The task thread's body: runs NasCtrlExecuteDpcEventTask every 100 ms and never returns. */
NASCTRL_API void NasCtrlDpcEventTaskThread(void *arg);
/* The body of a light-weight thread that releases a lost client's locks and frees its task. */
NASCTRL_API void NasCtrlClearDpcLockState(void *task);

/* A client's process failed: queue a task. A client's heart beat stopped: clear its locks on a thread of its own. */
NASCTRL_API void NasCtrlHandleDpcProcessFault(uint32_t lsid, uint64_t sessionId);
NASCTRL_API void NasCtrlHandleDpcHeartBreak(uint32_t lsid);

/* ---- state transitions ----
 *
 * The modules DLG and FMM are told through notifyCall, DLG first, with the LS id as the argument's data: event 5 of a
 * fault, event 6 of a recovery. Callable from any thread; entries and views are only read, during the call.
 */

/*
 * One LS before and after an update of the view. A new fault whose reason is a failed process or a broken heart beat,
 * and a new recovery, are told; what a module answers is not looked at. The fault is then handled by its reason.
 */
NASCTRL_API void NasCtrlHandleDpcState(const cm_ls_entry *oldLs, const cm_ls_entry *newLs);

/*
 * Count LS (none for 0 or less) that left the view, failed, or recovered. Those that left are handled as broken heart
 * beats, those that failed by their reason. A module that refuses a fault or a recovery is logged; all others are still
 * told.
 */
NASCTRL_API void NasCtrlHandleDpcStateShrink(const cm_ls_entry *ls, int32_t count);
NASCTRL_API void NasCtrlHandleDpcStateFault(const cm_ls_entry *ls, int32_t count);
NASCTRL_API void NasCtrlHandleDpcStateRecover(const cm_ls_entry *ls, int32_t count);

/*
 * Tells of a fault of every LS of previousView that newView (null: an empty one) does not hold. Stops at the first
 * module that refuses and returns its code; 0 when all is told; NAS_ERROR when previousView is null.
 */
NASCTRL_API uint32_t ScaleDownNotifyDlgAndFmm(const dpc_view *previousView, const dpc_view *newView);

/* Reports to CM that the data service is removed; and the end of such a report, which reports again after a failure. */
NASCTRL_API void NasReportRemovDpcStatustoCM(void);
NASCTRL_API void NasRemovDpcClusterCallBack(void *context, int32_t ret);

NASCTRL_END_DECLS

#endif
