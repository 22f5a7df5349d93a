/*
 * The version record that the cluster's nodes agree on in the name service, and the texts in which a node states which
 * versions it is compatible with.
 *
 * Functions may be called from any thread. Those that read or publish block their caller until the name service has
 * answered; a light-weight thread blocks the thread that carries it.
 */
#ifndef NASCTRL_VERSION_NS_H
#define NASCTRL_VERSION_NS_H

#include <nasctrl/host/name_service.h>
#include <nasctrl/host/platform.h>
#include <semaphore.h>

NASCTRL_BEGIN_DECLS

/* ---- version lists ---- */

/* The versions that were found, in their order; the caller clears it first. */
typedef struct {
    uint32_t vers[256]; /* the first count are valid */
    int32_t count;      /* 0 to 256 */
} version_array;

/*
 * Adds the versions of a text such as "[1],[3-5]" to array: each pair of brackets holds a decimal number, or two joined
 * by "-" for every value from the smaller to the larger. What stands outside of brackets is skipped. Returns 0, also
 * for a text without versions; NAS_INVALID when brackets do not pair, the array is full or an argument is null; or the
 * code of a body that is too long. What was added before a failure stays.
 */
NASCTRL_API uint32_t ParseCompaVersListFromStr(const char *text, version_array *array);
/*
 * Adds the number or range between the "[" at open and the "]" at close, at most 256 characters; nothing when there
 * are none. Returns 0, or the codes of ParseCompaVersListFromStr.
 */
NASCTRL_API uint32_t PickUpVersInOneBracket(const char *open, const char *close, version_array *array);
/* Adds a version. 0, or NAS_INVALID when the array is full, its count negative, or it is null. */
NASCTRL_API uint32_t AddVerToArry(uint32_t version, version_array *array);

/* ---- the published record ---- */

/* The value of the name: these 16 bytes, little-endian. */
typedef struct {
    uint32_t FL; /* the publisher's */
    uint32_t reserved;
    uint64_t seq; /* the writing node's publish number; see MarkNsPubSeq */
} ns_value;

/* A read or a publication under way; the caller's, one at a time. */
typedef struct {
    sem_t *sem;      /* initialised to 0 by the caller; posted when a read is over */
    ns_value *value; /* to publish; a read leaves it alone */
    int32_t result;  /* of the read; 0 before the first use */
} ns_request;

/* The node's copy of the record, as it was read or written last. */
extern NASCTRL_API struct cluster_verinfo {
    uint32_t FL;          /* as in ns_value */
    int64_t version;      /* of the name, as it was last seen */
    uint64_t seq;         /* as in ns_value */
    kvos_spinlock_t lock; /* guards the fields before it */
} s_clusterVerinfo;

extern NASCTRL_API uint32_t s_nasctrlDpcNsHdl;    /* the name service's handle: the host's to set */
extern NASCTRL_API ns_state_t s_nasctrlDpcNsStat; /* the last known state of the name */
extern NASCTRL_API kvos_spinlock_t s_dpcNsLock;   /* guards it and g_nsPubSeq; taken before s_clusterVerinfo's */
extern NASCTRL_API uint64_t g_nsPubSeq;           /* how many values were marked */

/* &s_clusterVerinfo. */
NASCTRL_API struct cluster_verinfo *GetLocalVerInfo(void);

/* "CLUSTER_ACCESS_CTRL" and "CLUSTER_VERCTRL_NAMESPACE". */
NASCTRL_API const char *GetNasCtrlClusterDsName(void);
NASCTRL_API const char *GetNasCtrlClusterNsName(void);

/*
 * Creates the name with a value of zeros, in at most 3 attempts. Returns what ns_create returned last (0 created, 2 it
 * exists), or -1 without memory.
 */
NASCTRL_API int32_t NasCtrlDpcCreateNs(void);

/*
 * Reads the name into s_nasctrlDpcNsStat and s_clusterVerinfo, as far as it is newer, and waits for that. Returns 0,
 * also when the name service answered with a failure; its code when it could not be asked; the request's result when
 * the wait ended without an answer; -1 when request or its semaphore is null.
 */
NASCTRL_API int32_t NasCtrlDpcNsGetAsycAdapter(ns_request *request);
/*
 * Ends a read (an ns_get_cb): takes over what was found, sets the request's result to 0 and posts its semaphore. A null
 * request is not woken.
 */
NASCTRL_API void GetNasCtrlDpcNsCb(int32_t ret, const ns_info_t *info, void *request);

/* Stamps value with this node's next publish number, 1 first. */
NASCTRL_API void MarkNsPubSeq(ns_value *value);

/*
 * Publishes request->value: reads the name and writes it if nobody else did in between, in at most 51 rounds with
 * pauses of 100 ms. Returns 0, or -1: after the last round, or at once when request, its semaphore or its value is
 * null.
 */
NASCTRL_API int32_t SetNasCtrlDpcNsWithRetry(ns_request *request);

/* 1 when this node's control LS is the cluster's master LS, else 0; 0 also while the master is not known. */
NASCTRL_API uint32_t IsMasterNode(void);

/* Called by NasCtrlClusterInit; there is nothing to prepare. Returns 0. */
NASCTRL_API int32_t InitNasCtrlDpcNs(void);

/* Entry points without work of their own; those that return something return 0. A host may define its own. */
NASCTRL_API int32_t NasCtrlGetFL(void);
NASCTRL_API int32_t NasCtrlPubFL(void);
NASCTRL_API int32_t CollectEDSVersions(void);
NASCTRL_API int32_t DiagShowEDSClusterInfo(void);
NASCTRL_API int32_t InitNasVersionDiagnose(void);
NASCTRL_API int32_t nas_ctrl_flow_init(void);
NASCTRL_API void ExitNasCtrlDpcNs(void);
NASCTRL_API void ExitNasVersionDiagnose(void);

NASCTRL_END_DECLS

#endif
