/*
 * The IP manager: the list of the node's service addresses, the queues by which changes arrive, the monitor that
 * compares the list with the node, and the protocol modules' hooks that are told of every address.
 *
 * Locks: g_ipSockIpLockMutex is held for a whole addition, deletion or monitor pass, hooks included, and is taken
 * before g_ipListMutex, which guards every use of the list. A hook must not call back into the list.
 * Addresses are NUL-terminated IPv4 or IPv6 text of at most 45 characters; protocol types are the host's own numbers.
 */
#ifndef NASCTRL_IP_MANAGER_H
#define NASCTRL_IP_MANAGER_H

#include <nasctrl/host/adapters.h>
#include <pthread.h>
#include <semaphore.h>

NASCTRL_BEGIN_DECLS

#define NAS_IP_TEXT_SIZE 46     /* of an address, NUL included */
#define NAS_IP_MODULES 6        /* slots for protocol modules */
#define NAS_IP_ALL_NOTIFIED 63U /* the status of an address that no module waits for */

#define NAS_IP_EVENT_ADD 0U    /* an address comes */
#define NAS_IP_EVENT_DELETE 1U /* an address goes */

/* ---- the list of addresses ---- */

/* A service address. */
typedef struct NasIpListNode {
    list_link link;              /* in the list or the queue; points at itself while in neither */
    char addr[NAS_IP_TEXT_SIZE]; /* the address as text */
    uint32_t status;             /* bit m: protocol module m needs nothing more for this address */
    uint32_t protoType;          /* the host's number for what is served on it */
} NasIpListNode;

extern NASCTRL_API list_link g_iplistHead;              /* of NasIpListNode, oldest first */
extern NASCTRL_API pthread_mutex_t g_ipListMutex;       /* guards the list */
extern NASCTRL_API pthread_mutex_t g_ipSockIpLockMutex; /* held for a whole addition, deletion or pass */
extern NASCTRL_API uint32_t g_floatIpSupport;           /* 0: no module is ever told of an address */

/* A new record in no list, or null: no memory, or an address of 46 characters or more. */
NASCTRL_API NasIpListNode *NasIpMgrCreateListNode(const char *addr, uint32_t protoType, uint32_t status);
/* Appends a record; one that cannot be created is silently left out. Duplicates are not refused. */
NASCTRL_API void NasIpMgrAddToList(const char *addr, uint32_t protoType, uint32_t status);
/* Removes every record with this address and type. The first form expects g_ipListMutex to be held. */
NASCTRL_API void NasIpMgrDeleteFromListWithoutLock(const char *addr, uint32_t protoType);
NASCTRL_API void NasIpMgrDeleteFromList(const char *addr, uint32_t protoType);
/* 1 when a record has this address in its first 46 characters (strict: and this type), else 0. */
NASCTRL_API uint32_t NasIpMgrIsIpPresent(const char *addr);
NASCTRL_API uint32_t NasIpMgrIsIpPresentStrict(const char *addr, uint32_t protoType);
/* AF_INET, AF_INET6, or 0 for a text that is neither. */
NASCTRL_API uint32_t NasIpMgrGetIpFamily(const char *addr);
/* Prints a line per record, cut to buflen bytes, NUL included; the length of the text, or -22 for a null buf. */
NASCTRL_API int64_t NasIpMgrShowAllIp(char *buf, uint32_t buflen);
NASCTRL_API void NasIpMgrShowAllIpToLog(void);
NASCTRL_API uint32_t NasIpMgrIsSupportFloatIP(void);

/* ---- the event queues: FIFO, filled from any thread, drained by the event handler thread alone ---- */

/* An address that comes or goes. */
typedef struct NasIpEvent {
    list_link link;              /* in the list or the queue; points at itself while in neither */
    char addr[NAS_IP_TEXT_SIZE]; /* the address as text */
    uint32_t type;               /* NAS_IP_EVENT_ADD or NAS_IP_EVENT_DELETE */
    uint32_t protoType;          /* the host's number for what is served on it */
} NasIpEvent;

/* A change of a tenant's addresses. */
typedef struct NasIpNotifyEvent {
    list_link link;     /* in the list or the queue; points at itself while in neither */
    uint32_t tenantId;  /* 0 to 1024 */
    uint32_t eventType; /* of one tenant's notices the largest wins */
} NasIpNotifyEvent;

/* Reserved: defined here, used by nobody. */
extern NASCTRL_API sem_t g_sema;

/* Create: null when memory is short or the address too long. Get: the oldest record, then the caller's, or null. */
NASCTRL_API NasIpEvent *NasIpMgr_CreateEvent(const char *addr, uint32_t type, uint32_t protoType);
NASCTRL_API void NasIpMgr_AddEvent(NasIpEvent *ev);
NASCTRL_API NasIpEvent *NasIpMgr_GetEventEntry(void);
NASCTRL_API void NasIpMgr_ReleaseEvent(NasIpEvent *ev);
NASCTRL_API NasIpNotifyEvent *NasIpMgr_CreateNotifyEvent(uint32_t tenantId, uint32_t eventType);
NASCTRL_API void NasIpMgr_AddNotifyEvent(NasIpNotifyEvent *ev);
NASCTRL_API NasIpNotifyEvent *NasIpMgr_GetNotifyEventEntry(void);
NASCTRL_API void NasIpMgr_ReleaseNotifyEvent(NasIpNotifyEvent *ev);

/*
 * The producers, for any thread: queue an addition, a deletion, or a tenant's notice. Return 0, or 1 before
 * NasIpMgrInitModule, without memory, or for an address that is too long. 0 means queued, not applied.
 */
NASCTRL_API uint32_t NasIpMgrAddNewIP(const char *addr, uint32_t protoType);
NASCTRL_API uint32_t NasIpMgrDeleteOldIP(const char *addr, uint32_t protoType);
NASCTRL_API uint32_t NasIpMgrAddNewNotifyEvent(uint32_t tenantId, uint32_t eventType);

/* Merges all queued notices by tenant and hands them to the host in one call. */
NASCTRL_API void NasIpMgrNotifyEventHandle(void);
/*
 * The event handler thread's body; returns only before NasIpMgrInitModule. Additions wait until the queue is empty and
 * are then applied together; deletions are applied at once. An event of any other type is neither handled nor freed.
 */
NASCTRL_API void *NasIpMgrIpEventHandle(void *arg);

/* ---- start and the monitor ---- */

/* Gets the text of an accepted period, in seconds. */
typedef void (*set_period_fn)(const char *text);

extern NASCTRL_API uint8_t g_nasipMgrInitied;            /* 1 once NasIpMgrInitModule has run */
extern NASCTRL_API uint8_t g_needRetry;                  /* 1: the next sleep of the monitor is 5 seconds */
extern NASCTRL_API uint32_t g_periodLength;              /* seconds between monitor passes, 1 to 600 */
extern NASCTRL_API set_period_fn g_setPeriodNotifyFunc;  /* or null */
extern NASCTRL_API uint64_t g_ipLastQueryTime;           /* host time just before the last query */
extern NASCTRL_API uint64_t g_ipChangeTime;              /* host time of the last change the event handler applied */
extern NASCTRL_API sem_t g_SockIpSem;                    /* counts finished addition threads */
extern NASCTRL_API unsigned long g_ip_monitor_thread_id; /* as the host gave it */
extern NASCTRL_API unsigned long g_ip_event_thread_id;   /* as the host gave it */

/*
 * Starts the IP manager: queues, monitor thread, event handler thread. fn, unless null, is told of every accepted
 * period. Returns 0 (also when it ran before), or the code of a thread that could not be created.
 */
NASCTRL_API int32_t NasIpMgrInitModule(set_period_fn fn);
/* Sets the period from decimal text. Returns 0, 1 when it is not 1 to 600, -22 for null. */
NASCTRL_API int32_t NasIpMgrSetIpQueryPeriod(const char *text);
/* Prints the period and a newline, cut to buflen bytes; the length written, -22 for no buffer, -1 for a failed print.
 */
NASCTRL_API int64_t NasIpMgrGetIpQueryPeriod(char *buf, uint32_t buflen);
/* The monitor thread's body; and one pass of it. */
NASCTRL_API void *NasIpMgrIpStatusMonitorTask(void *arg);
NASCTRL_API void NasIpMgrIpStatusMonitor(void);
/* 0 when the list is usable, else 1. */
NASCTRL_API uint32_t NasIpMgrValidateIpInfo(const node_ip_list *list);
/* Removes every record that list does not hold and tells the modules. */
NASCTRL_API void NasIpMgrCleanDeletedIpInfo(const node_ip_list *list);

/* ---- addition and deletion, as the event handler and the monitor apply them ---- */

/* One addition thread's work: addr outlives the thread, the thread frees the record and posts done. */
typedef struct {
    const char *addr;  /* the address as text */
    int32_t protoType; /* the host's number */
    sem_t *done;       /* posted at the end */
} ip_add_work;

/* Adds one address and tells the modules. The first form expects g_ipSockIpLockMutex to be held. 0, -22, or 1. */
NASCTRL_API int32_t NasIpMgrAddNewIPWithoutLock(const char *addr, uint32_t protoType);
NASCTRL_API int32_t NasIpMgrAddNewIPInner(const char *addr, uint32_t protoType);
/*
 * Add the queued additions (NasIpEvent) of a list and free them: one after the other, or count of them, up to 25 at a
 * time. Without memory the second form leaves the events where they are.
 */
NASCTRL_API void NasIpMgrAddNewIpOneByOne(list_link *pending);
NASCTRL_API void NasIpMgrAddNewIpBatchInner(list_link *pending, uint32_t count);
/* Adds the working addresses of a list, up to 25 at a time; g_ipSockIpLockMutex is held. */
NASCTRL_API void NasIpMgrAddNewIpInParallel(const node_ip_list *list);
/*
 * Starts an addition thread, which posts g_SockIpSem when it is done and until then uses addr. Returns 0; 1 for a null
 * address; or, with the address listed for the retry, 1 without memory and the host's code without a thread.
 */
NASCTRL_API int32_t CreateThreadForIpAdd(const char *addr, uint32_t protoType);
NASCTRL_API void *NasIpMgrAddNewIpInThread(void *work);
/* Tells the modules, also of an address that is not listed, and removes it. 0, or -22 for null. */
NASCTRL_API int32_t NasIpMgrDeleteOldIPInner(const char *addr, uint32_t protoType);

/* ---- the protocol modules' hooks ---- */

/* Told of an address: NAS_IP_EVENT_ADD or _DELETE, its text, AF_INET or AF_INET6. 0 = accepted; else retried later. */
typedef uint32_t (*ip_event_hook)(uint32_t event, const char *addr, uint32_t family);

/* The hooks by module; null = no module. */
extern NASCTRL_API ip_event_hook g_pIpEventCallBacks[NAS_IP_MODULES];

/* Stores the hook of module 0 to 5, replacing an earlier one; at start-up, before addresses flow. 0, or 1. */
NASCTRL_API uint32_t NasIpMgrRegisterIpEvent(uint32_t moduleId, ip_event_hook hook);
/* Sets, and tests, the bit of module 0 to 5; any other id changes nothing and is 0. */
NASCTRL_API void SetNotificationSuccess(uint32_t moduleId, uint32_t *mask);
NASCTRL_API uint32_t AlreadyNotified(uint32_t moduleId, uint32_t mask);
/*
 * Tells every module whose bit in mask is clear, in order, and sets the bits of those that accepted or are not
 * concerned. Returns 0 whatever the hooks answer, or 1 for a null mask or an address that is neither IPv4 nor IPv6.
 * isRetry is 1 when called by the retry below and changes nothing.
 */
NASCTRL_API uint32_t NasIpMgrInvokeEvent(uint32_t event, const char *addr, uint32_t protoType, uint32_t *mask,
                                         uint32_t isRetry);
/* Tells the modules that have not accepted yet of every listed address. */
NASCTRL_API void NasRetryPendingAddNotification(void);

NASCTRL_END_DECLS

#endif
