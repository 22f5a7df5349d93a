/*
 * What the files of the shard view share: the bounds of its table, its index as a range, and the end of the process
 * when a copy fails that must not.
 */
#ifndef NASCTRL_INTERNAL_SHARD_VIEW_H
#define NASCTRL_INTERNAL_SHARD_VIEW_H

#include <algorithm>
#include <cstdlib>
#include <nasctrl/shard_view.h>

#include "internal/list.h"
#include "internal/log.h"

/* A step that must not fail: one line, and the process ends. The _AT form names the line of the report itself. */
#define SHARD_ASSERT_AT(line, condition)                                                                               \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            kvlog(NASCTRL_LOG_MODULE, NASCTRL_LOG_ERROR, __FILE_NAME__, (line), __func__, 0,                           \
                  "PROTOCOL: Assertion (%s) is failed!!!!!!!!!!!!", #condition);                                       \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (0)
#define SHARD_ASSERT(condition) SHARD_ASSERT_AT(__LINE__, condition)

namespace nas {

/* The shards in use. The table is the host's to write too: never more than it has room for. */
inline uint32_t shardCount()
{
    return std::min<uint32_t>(g_shardviewTbl.number_of_shards, NAS_SHARDS_MAX);
}

inline uint32_t lsIdOfShard(uint32_t shardId)
{
    return shardId < NAS_SHARDS_MAX ? g_shardviewTbl.entries[shardId].lsId : NAS_INVALID;
}

/*
 * Keep a new event, which nobody else has, whatever becomes of its references; and let it go again, which frees it when
 * none are left.
 */
void holdFmmBuffer(fmm_buffer *b);
void releaseFmmBuffer(fmm_buffer *b);

/* The nodes of a bucket, oldest first. The index is locked for the whole loop. */
class BucketNodes {
public:
    class Iterator {
    public:
        explicit Iterator(list_link *link) : link_(link) {}
        shard_node &operator*() const { return *LIST_RECORD(link_, shard_node, bucket_link); }
        Iterator &operator++() { return *this = Iterator(listNext(link_)); }
        bool operator!=(const Iterator &other) const { return link_ != other.link_; }

    private:
        list_link *link_;
    };
    explicit BucketNodes(list_link &bucket) : head_(&bucket) {}
    /* An index that was never built has heads of zeros, and is empty. */
    Iterator begin() const { return Iterator(head_->next != nullptr ? listNext(head_) : head_); }
    Iterator end() const { return Iterator(head_); }

private:
    list_link *head_;
};

} // namespace nas

#endif
