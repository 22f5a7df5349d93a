/*
 * The ids of the remote clusters that this node serves. The list's own spin lock guards ids and count; init and exit
 * run while nobody else uses the list. Lines about single ids are logged under the lock, as the order of the log is to
 * be the order of the changes.
 */
#include <algorithm>
#include <cstddef>
#include <nasctrl/cluster_list.h>

#include "internal/bounded.h"
#include "internal/locks.h"
#include "internal/log.h"

static_assert(offsetof(nas_cluster_id_list, ids) == 0);
static_assert(offsetof(nas_cluster_id_list, count) == 64);
static_assert(offsetof(nas_cluster_id_list, lock) == 72);
static_assert(sizeof(nas_cluster_id_list) == 96);

nas_cluster_id_list g_nas_cluster_id_list;

namespace {

constexpr uint64_t kLocalCluster = 0; /* never stored, so that it marks a free slot */

/* The first slot that holds id, or null. */
uint64_t *findSlot(nas_cluster_id_list *list, uint64_t id)
{
    uint64_t *end = list->ids + NAS_CLUSTER_LIST_MAX;
    uint64_t *slot = std::find(list->ids, end, id);
    return slot != end ? slot : nullptr;
}

void clearList()
{
    std::fill_n(g_nas_cluster_id_list.ids, NAS_CLUSTER_LIST_MAX, kLocalCluster);
    g_nas_cluster_id_list.count = 0;
}

} // namespace

void nas_ctrl_cluster_list_init(void)
{
    clearList();
    nas::spinlockInit(&g_nas_cluster_id_list.lock);
}

void nas_ctrl_cluster_list_exit(void)
{
    clearList();
}

uint32_t nas_ctrl_add_to_cluster_list(uint64_t id)
{
    const nas::SpinGuard guard(&g_nas_cluster_id_list.lock);
    return NasCtrlAddToClusterList(&g_nas_cluster_id_list, id);
}

uint32_t NasCtrlAddToClusterList(struct nas_cluster_id_list *list, uint64_t id)
{
    if (list == nullptr) {
        LOG_NULL("list", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    if (id == kLocalCluster) {
        LOG_INFO("Did not add local clusterId (%llu).", nas::llu(id));
        return NAS_OK;
    }
    /* Before the look for id: a full list refuses also an id that it holds. */
    if (list->count == NAS_CLUSTER_LIST_MAX) {
        LOG_ERROR("clusterID (%llu) has reached max.", nas::llu(id));
        return NAS_ERROR;
    }
    if (findSlot(list, id) != nullptr) {
        LOG_INFO("clusterID(%llu) already present", nas::llu(id));
        return NAS_OK;
    }
    uint64_t *slot = findSlot(list, kLocalCluster);
    if (slot != nullptr) {
        LOG_INFO("Adding clusterID(%llu) index(%u)", nas::llu(id), static_cast<unsigned>(slot - list->ids));
        *slot = id;
        ++list->count;
    }
    return NAS_OK;
}

uint32_t nas_ctrl_remove_from_cluster_list(uint64_t id)
{
    if (id == kLocalCluster) {
        LOG_INFO("local clusterId %llu -nothing to do", nas::llu(id));
        return NAS_OK;
    }
    const nas::SpinGuard guard(&g_nas_cluster_id_list.lock);
    uint64_t *slot = findSlot(&g_nas_cluster_id_list, id);
    if (slot == nullptr) {
        LOG_ERROR("ClusterID %llu not found", nas::llu(id));
        return NAS_OK;
    }
    LOG_INFO("Remove clusterID %llu success", nas::llu(id));
    *slot = kLocalCluster;
    --g_nas_cluster_id_list.count;
    return NAS_OK;
}

uint16_t nas_ctrl_get_cluster_list_count(void)
{
    uint16_t count = 0;
    {
        const nas::SpinGuard guard(&g_nas_cluster_id_list.lock);
        count = g_nas_cluster_id_list.count;
    }
    LOG_INFO("clusterCount is %u", unsigned{count});
    return count;
}

uint32_t nas_ctrl_get_cluster_list(uint64_t *out, uint16_t *n)
{
    if (out == nullptr || n == nullptr) {
        LOG_NULL(out == nullptr ? "out" : "n", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    const nas::SpinGuard guard(&g_nas_cluster_id_list.lock);
    uint16_t found = 0;
    for (const uint64_t id : g_nas_cluster_id_list.ids) {
        if (id != kLocalCluster) {
            LOG_INFO("Found clusterID %llu", nas::llu(id));
            out[found++] = id;
        }
    }
    *n = found;
    LOG_INFO("clusterCount is %u", unsigned{found});
    return NAS_OK;
}

int64_t nas_ctrl_get_cluster_count_list(char *buf, long size)
{
    uint64_t ids[NAS_CLUSTER_LIST_MAX] = {};
    uint16_t count = 0;
    if (buf == nullptr) {
        LOG_NULL("buf", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    const uint32_t ret = nas_ctrl_get_cluster_list(ids, &count);
    if (ret != NAS_OK) {
        LOG_ERROR("getting cluster list failed: %d.", static_cast<int>(ret));
        return NAS_ERROR;
    }
    long written = nas::append(buf, nas::destinationSize(size), "Cluster list count : %u\n", unsigned{count});
    for (uint16_t i = 0; i < count; ++i) {
        written += nas::append(buf + written, nas::destinationSize(size - written),
                               i == 0 ? "Cluster list contents are : %llu" : ", %llu", nas::llu(ids[i]));
    }
    if (count != 0) {
        written += nas::append(buf + written, nas::destinationSize(size - written), "\n");
    }
    return written;
}
