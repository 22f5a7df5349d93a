/*
 * The table of logical interface (LIF) ports: id to stable index (0 to 8191), name and address.
 *
 * Locks: each of 256 buckets has a reader-writer lock over its entries; the spin lock of the slot array is taken
 * inside a bucket's write lock. Looking an id up takes no lock at all.
 */
#ifndef NASCTRL_LIF_PORT_H
#define NASCTRL_LIF_PORT_H

#include <nasctrl/host/adapters.h>
#include <nasctrl/host/platform.h>

NASCTRL_BEGIN_DECLS

#define NAS_LIF_PORT_SLOTS 8192  /* indices */
#define NAS_LIF_PORT_BUCKETS 256 /* by the low 8 bits of an id */

/* A bucket of the table. */
typedef struct {
    kvos_rwlock_t lock; /* guards the list and its entries */
    list_link head;     /* of NasLifPortEntry */
} NasLifPortBucket;

/* A port. */
typedef struct NasLifPortEntry {
    uint64_t id;    /* never 0 */
    uint32_t index; /* the slot of the id */
    uint64_t time;  /* of the latest accepted add */
    char name[257]; /* at most 256 characters */
    char ip[47];    /* at most 46 characters */
    list_link link; /* in its bucket */
} NasLifPortEntry;

/* The table. */
extern NASCTRL_API struct nas_lif_port_info {
    kvos_spinlock_t lock;               /* guards slots */
    uint64_t slots[NAS_LIF_PORT_SLOTS]; /* slot i holds the id that owns index i; 0 = free */
    NasLifPortBucket *buckets;          /* bucket of an id: its low 8 bits */
    uint32_t (*find)(uint64_t id);      /* nas_lifportid_hashfind */
} g_NfsLifPortInfo;

/* Starts the manager once, after NasIpMgrInitModule: table, hook slot 3, statistics. 0, or the first failing code. */
NASCTRL_API uint32_t NasLifMgrModuleStart(void);
/* Builds the empty table: 0, or 1 without memory. */
NASCTRL_API uint32_t nas_lifport_info_init(void);
NASCTRL_API uint32_t nas_lifport_hashinit(void);

/* The slot of id, claiming a free one if need be; the table's spin lock is held. A full table gives id's home slot. */
NASCTRL_API uint32_t lifport_id_to_index(uint64_t id);
/* The slot of id, or its home slot when it has none. Any thread, no lock. */
NASCTRL_API uint32_t nas_lifportid_hashfind(uint64_t id);

/* Creates an entry; the bucket is write-locked. Its index, or NAS_INVALID. */
NASCTRL_API uint32_t nas_lifport_add(uint64_t id, const char *name, const char *ip, uint64_t time);
/* Creates the entry, or refreshes it when time is newer; isNew tells which. Its index, or NAS_INVALID. */
NASCTRL_API uint32_t nas_lifportid_hashadd(uint64_t id, const char *name, const char *ip, uint64_t time,
                                           uint32_t *isNew);
/* The host's add: also switches a new port's performance path on. id is not 0. Its index, or NAS_INVALID. */
NASCTRL_API uint32_t nas_lifport_add_update(uint64_t id, const char *name, const char *ip, uint64_t time);

/* Frees the slot of id, index being where it should stand. */
NASCTRL_API void nas_lifportid_del(uint32_t index, uint64_t id);
/* The host's delete: removes the first entry with this address, unless its time is newer than time. */
NASCTRL_API void nas_lifportid_del_update(const char *ip, uint64_t time);

/* Copies the name of id into buf of len bytes. 0 (buf untouched when id is unknown), or 1 when it does not fit. */
NASCTRL_API uint32_t nas_get_lifport_name(uint64_t id, char *buf, uint32_t len);
/* Passes its six arguments to the host's adapter. */
NASCTRL_API uint32_t getNasLifPortIdByIp(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t);

/* The IP event hook of module 3; passes its arguments to the host's adapter. */
NASCTRL_API uint32_t LifIpEvent(uint32_t event, const char *addr, uint32_t family);

/* 1 when one of count entries has this address in its first 46 characters, else 0. */
NASCTRL_API uint32_t IsIpInList(const node_ip_entry *entries, uint32_t count, const char *ip);
/* Removes entry, whose bucket is write-locked, unless its address is among entries. counter is not changed. */
NASCTRL_API void DeleteEachLifPortByIpList(const node_ip_entry *entries, uint32_t count, NasLifPortEntry *entry,
                                           uint32_t *counter);
/* Removes every port whose address is not among entries. */
NASCTRL_API void DeleteRedundancyLifInfoByIpList(const node_ip_entry *entries, uint32_t count);

NASCTRL_END_DECLS

#endif
