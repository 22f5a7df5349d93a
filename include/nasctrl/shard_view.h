/*
 * The shard view: which storage shard serves an FSP, and which logical server (LS) with which address serves a shard;
 * the move of FSPs from one LS to another; and the event buffers with which the handlers of the FMM queue are told.
 *
 * The shard table and its addresses are built once, by stub_initShardView, before anything else here is called. The
 * index of FSPs grows as FSPs are asked for: a look-up may create a node and takes the index's lock as a writer. Any
 * thread may call in, light-weight threads included, unless a function says otherwise.
 */
#ifndef NASCTRL_SHARD_VIEW_H
#define NASCTRL_SHARD_VIEW_H

#include <nasctrl/host/lwt.h>
#include <nasctrl/host/platform.h>

NASCTRL_BEGIN_DECLS

#define NAS_SHARDS_MAX 4096     /* shards in the table */
#define NAS_SHARD_ADDR_SIZE 256 /* of an address, NUL included */
#define NAS_SHARD_BUCKETS 8     /* of the index of FSPs */
#define NAS_SHARD_NODES 4096    /* FSPs in the index */
#define NAS_SHARD_NORMAL 0U     /* the shard serves */
#define NAS_SHARD_FAULT 1U      /* its FSPs went to another */

/* A shard. */
typedef struct {
    uint32_t shardId; /* the shard */
    uint32_t reserved4[2];
    uint32_t lsId; /* the LS that owns the shard */
    uint32_t reserved16[3];
} shard_entry;

/* The table. */
extern NASCTRL_API struct shardview_tbl {
    uint64_t reserved0;
    uint32_t number_of_shards; /* of used entries */
    uint32_t reserved12;
    shard_entry entries[NAS_SHARDS_MAX]; /* by shard id */
} g_shardviewTbl;

extern NASCTRL_API char shard_addr_list[NAS_SHARDS_MAX][NAS_SHARD_ADDR_SIZE]; /* the service address of each shard */

/* The state of each shard. */
extern NASCTRL_API struct shard_status {
    uint32_t status;     /* NAS_SHARD_NORMAL or NAS_SHARD_FAULT */
    uint32_t takeoverLs; /* while FAULT, the LS to which the shard's FSPs went; NAS_INVALID after a failback */
} shardViewStatus[NAS_SHARDS_MAX];

/* The placement of an FSP. */
typedef struct shard_node {
    uint32_t fspId;        /* NAS_INVALID when free */
    uint32_t shardId;      /* the shard */
    uint64_t version;      /* counts the moves */
    list_link bucket_link; /* in the bucket of the FSP's hash */
    list_link free_link;   /* in the list of free nodes; poisoned while in use */
} shard_node;

/* The index of FSPs. */
extern NASCTRL_API struct shard_view_list {
    kvos_rwlock_t lock;                   /* guards the lists and the nodes in them */
    uint32_t node_count;                  /* of used nodes */
    list_link buckets[NAS_SHARD_BUCKETS]; /* of shard_node, oldest first */
    list_link free_head;                  /* of free nodes */
} shardViewList;

extern NASCTRL_API shard_node shardNodeEntry[NAS_SHARD_NODES]; /* all nodes, free ones too */
extern NASCTRL_API char g_confPath[512];                       /* what stub_setConfPath stored */
extern NASCTRL_API uint32_t g_partionNumber;                   /* 3 until the configuration is read */
extern NASCTRL_API void *g_fmmLwtQ;                            /* the work queue "Fmm LWT" */

/* ---- start ---- */

/*
 * Stores path in g_confPath; a null or empty one changes nothing. One of 512 characters or more ends the process.
 * For the host's use: nothing in the library reads g_confPath.
 */
NASCTRL_API void stub_setConfPath(const char *path);

/*
 * Builds the view from the loaded configuration file confPath: shards from "ebsserver_ip_list" (pairs "LS:address",
 * separated by commas), the partition count, an empty FSP index, and the work queue. Once, at start, on one thread.
 * Returns 0; 1 when the list cannot be read, and nothing is changed; NAS_INVALID when the queue cannot be made.
 */
NASCTRL_API uint32_t stub_initShardView(const char *confPath);

/*
 * Makes pair (cut at its first colon) shard index. Returns 0, or 1 for a pair without a colon or an index beyond the
 * table, which change nothing. An address of 256 characters or more ends the process. At start only.
 */
NASCTRL_API uint32_t stub_buildShardView(uint32_t index, char *pair);

/* Empties the FSP index and makes every shard NORMAL. While nobody else uses the index. */
NASCTRL_API void FspInitShardView(void);

/* ---- look-ups ---- */

/*
 * The node of an FSP, created on the shard of its hash when there is none; null when all nodes are in use. The caller
 * holds the index's write lock, and uses the node no longer than that.
 */
NASCTRL_API shard_node *FspGetShardView(uint32_t fspId);

/* The shard of an FSP, whose node is created if need be; NAS_INVALID when all nodes are in use. */
NASCTRL_API uint32_t FspGetShardIdByFsp(uint32_t fspId);
/*
 * The same with the version; either output may be null. Returns 0, or 1 when all nodes are in use: the index then
 * stays locked for good.
 */
NASCTRL_API uint32_t FspGetShardInfoByFsp(uint32_t fspId, uint32_t *shardId, uint64_t *version);

/* The first shard of an LS, or NAS_INVALID. */
NASCTRL_API uint32_t FspGetShardIdByLsId(uint32_t lsId);
/* The LS of the shard after the one of an FSP, or of an LS; the last is followed by the first. Or NAS_INVALID. */
NASCTRL_API uint32_t FspGetNextLsIdByFsp(uint32_t fspId);
NASCTRL_API uint32_t FspGetNextLsIdByLs(uint32_t lsId);
/* The LS that took over from lsId, 0 when none ever did, NAS_INVALID after a failback or for an unknown LS. */
NASCTRL_API uint32_t FspGetSrcLsByLsId(uint32_t lsId);

/*
 * The table entry of an FSP's shard, with the FSP id in the place of the shard id; its version (null if not wanted);
 * and its address, 256 bytes whatever its length: addrLen below that ends the process. Returns 0, or 1 for no node, no
 * such shard or a null output.
 */
NASCTRL_API uint32_t stub_getShardingInfoById(uint32_t fspId, shard_entry *out, uint64_t *version, char *addr,
                                              uint32_t addrLen);
/*
 * The address of an LS among the first g_partionNumber shards; addr as above. Returns 0, or 1 for an unknown LS or a
 * null addr. A g_partionNumber above the table is cut to it.
 */
NASCTRL_API uint32_t stub_queryAddrByLsId(int32_t lsId, char *addr, uint32_t addrLen);

/* g_partionNumber. */
NASCTRL_API uint32_t stub_GetPartionNumber(void);
/* The queue "Fmm LWT", or null before it is made. */
NASCTRL_API void *fmm_get_lwt_queue(void);
/* Copies the whole shard table to dst of len bytes: 0, or the bounded copy's error code. */
NASCTRL_API int32_t stub_copyShardView(void *dst, uint32_t len);

/*
 * Prints a line for each FSP of the index into buf (len bytes, NUL included), cut to fit. Returns the number of
 * characters written; 0 for a null buf.
 */
NASCTRL_API uint32_t FspShowShardView(char *buf, uint32_t len);

/* ---- events ---- */

/* One moved FSP. */
typedef struct {
    uint32_t fspId;   /* the FSP */
    uint32_t shardId; /* the new one */
    uint16_t srcLs;   /* low 16 bits of the ids */
    uint16_t dstLs;   /* low 16 bits */
    uint8_t reserved[8];
} migration_record;

/* All that a migration moved. */
typedef struct {
    uint64_t reserved0, reserved8;
    uint32_t count;            /* of records */
    migration_record *records; /* count of them; a pool block */
    uint64_t reserved32;
} migration_payload;

/* An event of the FMM queue; it, its payload and the records are pool blocks. */
typedef struct fmm_buffer {
    uint64_t id;                /* low 32 bits: the LS of a fault or a recovery; else 0 */
    migration_payload *payload; /* or null */
    uint32_t refs;              /* counted atomically */
    uint32_t held;              /* the library's own; anything in a caller's buffer */
} fmm_buffer;

/* Handles an event on the FMM queue; the submission's reference is its to drop. */
typedef void (*fmm_handler)(fmm_buffer *buffer);

/* A submitted handler that waits in the queue. */
typedef struct {
    fmm_buffer *buffer;  /* the event; the task holds a reference */
    lwt_work_t work;     /* its place in the queue */
    fmm_handler handler; /* called with the buffer */
} fmm_task;

/* Take and drop a reference; who drops the last one frees records, payload and buffer. Null is ignored. */
NASCTRL_API void FspGetFmmBuffer(fmm_buffer *b);
NASCTRL_API void FspPutFmmBuffer(fmm_buffer *b);

/*
 * Queues handler(b) on the queue "Fmm LWT" with a reference of its own. Returns 0; or -ENOMEM, -EINVAL for a null
 * handler, or the queue's error, and the reference is dropped again.
 */
NASCTRL_API int32_t FspSubmitLwt(fmm_buffer *b, fmm_handler handler);
/* What the queue runs: calls the handler of an fmm_task and frees the task. */
NASCTRL_API void FspScheduleLwt(void *task);

/* ---- migration ---- */

/*
 * Moves every FSP of LS src's shard to LS dst's and submits the handlers that tell of it: failback 0 makes src's shard
 * FAULT with a fault notice, 1 makes dst's NORMAL with a recovery notice, others do neither. Returns 0; or 1 for an
 * unknown LS, no memory, or a refused submission, in which case the FSPs stay moved and queued handlers still run.
 */
NASCTRL_API uint32_t FspMigrationNode(uint32_t src, uint32_t dst, int32_t failback);

/* Moves one FSP to LS dst's shard in the same way, without a notice. Returns 0, also when it is there already; or 1. */
NASCTRL_API uint32_t FspModifyShardView(uint32_t fspId, uint32_t dst);

/* Prints a line for each shard with its status, as FspShowShardView does. */
NASCTRL_API uint32_t FspGetNodeInfo(char *buf, uint32_t len);

/* The placement of an FSP; the words in between are left alone. */
typedef struct {
    uint32_t fspId;       /* the FSP */
    uint32_t words4[2];   /* not touched */
    uint32_t lsId;        /* of the FSP's shard */
    uint32_t word16, pad; /* not touched */
    uint64_t version;     /* counts the moves */
} shard_info;

/* Fills out for an FSP that has a node: 0. Otherwise 1, and out is left alone; no node is created. */
NASCTRL_API uint32_t stubGetShardInfo(int32_t fspId, shard_info *out);

NASCTRL_END_DECLS

#endif
