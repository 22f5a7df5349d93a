/*
 * The ids of the remote clusters that this node serves: at most 8, in slots that are not kept packed. Id 0 is the
 * local cluster and is never stored. Callable from any thread unless a function says otherwise.
 */
#ifndef NASCTRL_CLUSTER_LIST_H
#define NASCTRL_CLUSTER_LIST_H

#include <nasctrl/host/platform.h>

NASCTRL_BEGIN_DECLS

#define NAS_CLUSTER_LIST_MAX 8 /* slots */

/* The list. */
extern NASCTRL_API struct nas_cluster_id_list {
    uint64_t ids[NAS_CLUSTER_LIST_MAX]; /* 0 = free */
    uint16_t count;                     /* of used slots */
    kvos_spinlock_t lock;               /* guards ids and count */
} g_nas_cluster_id_list;

/* Empties the list; init also initialises its lock. Called while no other thread uses the list. */
NASCTRL_API void nas_ctrl_cluster_list_init(void);
NASCTRL_API void nas_ctrl_cluster_list_exit(void);

/* Adds id in the lowest free slot. Returns 0 (also for id 0 and an id that is present), or 1 when the list is full. */
NASCTRL_API uint32_t nas_ctrl_add_to_cluster_list(uint64_t id);
/* The same on a list whose lock the caller holds. */
NASCTRL_API uint32_t NasCtrlAddToClusterList(struct nas_cluster_id_list *list, uint64_t id);

/* Removes id; returns 0 whether or not it was there. */
NASCTRL_API uint32_t nas_ctrl_remove_from_cluster_list(uint64_t id);

/* The number of ids. */
NASCTRL_API uint16_t nas_ctrl_get_cluster_list_count(void);

/* Stores the ids in slot order into out (room for 8) and their number through n. Returns 0; 1 for a null output. */
NASCTRL_API uint32_t nas_ctrl_get_cluster_list(uint64_t *out, uint16_t *n);

/*
 * Prints count and ids into buf (size bytes, NUL included), cut to fit. Returns the number of characters written, 0 for
 * a size of 0 or less; 1 for a null buf.
 */
NASCTRL_API int64_t nas_ctrl_get_cluster_count_list(char *buf, long size);

NASCTRL_END_DECLS

#endif
