/*
 * The move of FSPs from one LS to another: of all that an LS serves, or of a single one. A move changes the index under
 * its write lock and then submits handlers that tell the node's modules; nothing takes the change back.
 *
 * Handlers run on the queue's threads and may outlive the call: each drops its reference to the event as the last it
 * does. The shards' status words are read and written whole, without a lock.
 */
#include <atomic>
#include <nasctrl/config.h>

#include "internal/bounded.h"
#include "internal/fmm_notice.h"
#include "internal/locks.h"
#include "internal/pool.h"
#include "internal/shard_view.h"
#include "internal/words.h"

namespace {

constexpr int32_t kNodeFault = 0; /* what failback says */
constexpr int32_t kFailback = 1;
constexpr int32_t kNeither = 2;

static_assert(sizeof(shard_info) == 32);
static_assert(offsetof(shard_info, fspId) == 0 && offsetof(shard_info, lsId) == 12);
static_assert(offsetof(shard_info, version) == 24);
static_assert(sizeof(notify_arg_t) == 72 && offsetof(notify_arg_t, data) == 0);

/* ---- handlers; each drops the submission's reference ---- */

using Simulator = int32_t (*)(uint64_t data, void *sem);

/* Lets the simulator deliver the moved FSPs, and waits until it has. */
void deliverMove(const char *func, fmm_buffer *buffer, Simulator simulator)
{
    if (buffer != nullptr && buffer->payload != nullptr) {
        kvlwt_task_sem_t sem;
        kvlwt_task_sem_init(&sem, 1);
        simulator(reinterpret_cast<uintptr_t>(buffer->payload), &sem);
        kvlwt_task_sem_down(&sem, NASCTRL_LOG_MODULE, func);
        kvlwt_task_sem_destroy(&sem);
    }
    FspPutFmmBuffer(buffer);
}

void FspMoveOutEvent(fmm_buffer *buffer)
{
    deliverMove(__func__, buffer, nas_fmm_vnode_moveout_callback_simulator);
}

void FspMoveInEvent(fmm_buffer *buffer)
{
    deliverMove(__func__, buffer, nas_fmm_vnode_movein_callback_simulator);
}

/* Tells both modules of the LS in the buffer's id. */
void notifyNodeEvent(fmm_buffer *buffer, uint32_t event)
{
    if (buffer == nullptr) {
        return;
    }
    nas::tellDlgAndFmm(event, static_cast<uint32_t>(buffer->id));
    FspPutFmmBuffer(buffer);
}

void notifyFault(fmm_buffer *buffer)
{
    notifyNodeEvent(buffer, NAS_FMM_EVENT_NODE_FAULT);
}

void notifyRecovery(fmm_buffer *buffer)
{
    notifyNodeEvent(buffer, NAS_FMM_EVENT_NODE_RECOVER);
}

void notifyViewChange(fmm_buffer *buffer)
{
    notify_arg_t arg{};
    notifyCall(NOTIFY_MODULE_FMM, NAS_FMM_EVENT_SHARD_CHG, &arg);
    FspPutFmmBuffer(buffer);
}

/* ---- moves ---- */

/* One migration: from whom to whom, and why. */
struct Migration {
    uint32_t src;
    uint32_t dst;
    uint32_t srcShardId;
    uint32_t dstShardId;
    int32_t failback; /* kNodeFault, kFailback or neither */
};

/* Puts a node on another shard; the index is write-locked. */
void moveNode(shard_node *node, uint32_t shardId)
{
    node->shardId = shardId;
    std::atomic_ref<uint64_t>(node->version).fetch_add(1);
}

migration_record recordOf(uint32_t fspId, uint32_t shardId, uint32_t srcLs, uint32_t dstLs)
{
    /* The fields of the LS ids are narrow, on purpose. */
    return {fspId, shardId, static_cast<uint16_t>(srcLs), static_cast<uint16_t>(dstLs), {}};
}

/*
 * Moves every node of the source shard and writes a record of each; false when there are more than len. The index is
 * write-locked.
 */
bool moveNodes(const Migration &move, migration_record *records, uint32_t len, uint32_t &number)
{
    for (list_link &bucket : shardViewList.buckets) {
        for (shard_node &node : nas::BucketNodes(bucket)) {
            if (node.shardId != move.srcShardId) {
                continue;
            }
            if (number >= len) {
                return false;
            }
            moveNode(&node, move.dstShardId);
            records[number++] = recordOf(node.fspId, move.dstShardId, move.src, move.dst);
        }
    }
    return true;
}

/*
 * An event about count moved FSPs, which takes their records over; nobody holds a reference yet. Without memory null,
 * the failed step is told unless func is null, and then the records are freed.
 */
fmm_buffer *makeEvent(const char *func, nas::PoolPtr<migration_record> records, uint32_t count)
{
    auto info = POOL_OWNER(POOL_NEW(migration_payload));
    auto *fmmBuffer = info != nullptr ? POOL_NEW(fmm_buffer) : nullptr;
    if (fmmBuffer == nullptr) {
        if (func != nullptr) {
            LOG_FAILED_GOTO_AS(func, info == nullptr ? "(info == NULL)" : "(fmmBuffer == NULL)", "ERROR");
        }
        records.reset(); /* before the payload */
        return nullptr;
    }
    info->count = count;
    info->records = records.release();
    fmmBuffer->payload = info.release();
    return fmmBuffer;
}

bool submit(const char *func, fmm_buffer *buffer, fmm_handler handler)
{
    if (FspSubmitLwt(buffer, handler) == 0) {
        return true;
    }
    LOG_FAILED_GOTO_AS(func, "ret != NAS_OK", "LWT_ERROR");
    return false;
}

void setStatus(uint32_t shardId, uint32_t status, uint32_t takeoverLs)
{
    nas::writeWord(shardViewStatus[shardId].status, status);
    nas::writeWord(shardViewStatus[shardId].takeoverLs, takeoverLs);
}

/* Submits the handlers that a migration calls for, in their order, until one is refused. */
bool tell(const char *func, const Migration &move, fmm_buffer *buffer)
{
    if (getLocalLsID() == move.src && !submit(func, buffer, FspMoveOutEvent)) {
        return false;
    }
    if (move.failback == kNodeFault) {
        buffer->id = move.src;
        setStatus(move.srcShardId, NAS_SHARD_FAULT, move.dst);
        if (!submit(func, buffer, notifyFault)) {
            return false;
        }
    }
    if (!submit(func, buffer, notifyViewChange)) {
        return false;
    }
    if (getLocalLsID() == move.dst && !submit(func, buffer, FspMoveInEvent)) {
        return false;
    }
    if (move.failback != kFailback) {
        return true;
    }
    setStatus(move.dstShardId, NAS_SHARD_NORMAL, NAS_INVALID);
    buffer->id = move.dst;
    return submit(func, buffer, notifyRecovery);
}

/* Makes the event of moved FSPs and tells of it under a reference of its own. */
uint32_t announce(const char *func, const Migration &move, nas::PoolPtr<migration_record> records, uint32_t count)
{
    fmm_buffer *buffer = makeEvent(func, std::move(records), count);
    if (buffer == nullptr) {
        return NAS_ERROR;
    }
    FspGetFmmBuffer(buffer);
    const bool told = tell(func, move, buffer);
    FspPutFmmBuffer(buffer);
    return told ? NAS_OK : NAS_ERROR;
}

/* Submits the handlers that the move of a single FSP calls for, until one is refused. */
bool tellOne(const char *func, const Migration &move, fmm_buffer *buffer)
{
    const bool leaves = getLocalLsID() == move.src;
    if (leaves && !submit(func, buffer, FspMoveOutEvent)) {
        return false; /* the refusal has dropped the only reference there was */
    }
    bool told = submit(func, buffer, notifyViewChange);
    if (!told && !leaves) {
        return false;
    }
    told = told && (getLocalLsID() != move.dst || submit(func, buffer, FspMoveInEvent));
    if (!told) {
        FspPutFmmBuffer(buffer); /* One more than was taken, on purpose. */
    }
    return told;
}

/*
 * The same for a single FSP, without a reference of its own: the handlers alone keep the event. A hold keeps its memory
 * until the last of them is submitted, because the first may be done by then.
 */
uint32_t announceOne(const char *func, uint32_t fspId, const Migration &move)
{
    auto record = POOL_OWNER(POOL_NEW(migration_record));
    if (record == nullptr) {
        return NAS_ERROR;
    }
    *record = recordOf(fspId, move.dstShardId, move.src, move.dst);
    fmm_buffer *buffer = makeEvent(nullptr, std::move(record), 1); /* silent, on purpose */
    if (buffer == nullptr) {
        return NAS_ERROR;
    }
    nas::holdFmmBuffer(buffer);
    const bool told = tellOne(func, move, buffer);
    nas::releaseFmmBuffer(buffer);
    return told ? NAS_OK : NAS_ERROR;
}

/* The node of an FSP wherever it stands; the index is locked. */
const shard_node *findNode(uint32_t fspId)
{
    for (list_link &bucket : shardViewList.buckets) {
        for (const shard_node &node : nas::BucketNodes(bucket)) {
            if (node.fspId == fspId) {
                return &node;
            }
        }
    }
    return nullptr;
}

} // namespace

uint32_t FspMigrationNode(uint32_t src, uint32_t dst, int32_t failback)
{
    const Migration move{src, dst, FspGetShardIdByLsId(src), FspGetShardIdByLsId(dst), failback};
    if (move.srcShardId >= nas::shardCount()) {
        LOG_FAILED_GOTO("(srcShardId >= g_shardviewTbl.number_of_shards)", "ERROR");
        return NAS_ERROR;
    }
    if (move.dstShardId >= nas::shardCount()) {
        LOG_FAILED_GOTO("(dstShardId >= g_shardviewTbl.number_of_shards)", "ERROR");
        return NAS_ERROR;
    }
    kvos_rwlock_write_lock(&shardViewList.lock);
    const uint32_t len = shardViewList.node_count;
    auto records =
        POOL_OWNER(len != 0 ? static_cast<migration_record *>(POOL_ZALLOC(len * sizeof(migration_record))) : nullptr);
    if (records == nullptr) {
        kvos_rwlock_write_unlock(&shardViewList.lock);
        return len == 0 ? NAS_OK : NAS_ERROR;
    }
    uint32_t number = 0;
    if (!moveNodes(move, records.get(), len, number)) {
        /* The hold stays, on purpose: an index with more nodes than it counts is broken. */
        LOG_FAILED_GOTO("(number >= len)", "ERROR");
        return NAS_ERROR;
    }
    kvos_rwlock_write_unlock(&shardViewList.lock);
    return announce(__func__, move, std::move(records), number);
}

uint32_t FspModifyShardView(uint32_t fspId, uint32_t dst)
{
    const uint32_t dstShardId = FspGetShardIdByLsId(dst);
    if (dstShardId >= nas::shardCount()) {
        return NAS_ERROR;
    }
    uint32_t srcShardId = 0;
    {
        const nas::WriteGuard guard(&shardViewList.lock);
        shard_node *node = FspGetShardView(fspId);
        if (node == nullptr) {
            return NAS_ERROR;
        }
        srcShardId = node->shardId;
        if (srcShardId == dstShardId) {
            return NAS_OK;
        }
        if (srcShardId < NAS_SHARDS_MAX) {
            moveNode(node, dstShardId);
        }
    }
    if (srcShardId >= NAS_SHARDS_MAX) {
        LOG_ERROR("Invalid shardId:%d", static_cast<int>(srcShardId));
        return NAS_ERROR;
    }
    return announceOne(__func__, fspId, {nas::lsIdOfShard(srcShardId), dst, srcShardId, dstShardId, kNeither});
}

uint32_t FspGetNodeInfo(char *buf, uint32_t len)
{
    if (buf == nullptr) {
        LOG_NULL("buf", "0", 0);
        return 0;
    }
    long written =
        nas::append(buf, len, "%-20s   %-20s\t %-32s  %-20s %-20s \n", "NODE", "node id", "ip", "status", "dest");
    for (uint32_t i = 0; i < nas::shardCount(); ++i) {
        char addr[NAS_SHARD_ADDR_SIZE + 1] = {};
        const int ret = nas::memmove_s(addr, NAS_SHARD_ADDR_SIZE, shard_addr_list[i], NAS_SHARD_ADDR_SIZE);
        SHARD_ASSERT(ret == 0);
        const bool faulty = nas::readWord(shardViewStatus[i].status) != NAS_SHARD_NORMAL;
        const uint32_t takeoverLs = nas::readWord(shardViewStatus[i].takeoverLs);
        written += nas::append(buf + written, nas::destinationSize(len - written),
                               "Node%-16d   %-20u     %-32s  %-20s %-20u \n", static_cast<int>(i), nas::lsIdOfShard(i),
                               addr, faulty ? "FAULT" : "NORMAL", takeoverLs != NAS_INVALID ? takeoverLs : 0);
    }
    return static_cast<uint32_t>(written);
}

uint32_t stubGetShardInfo(int32_t fspId, shard_info *out)
{
    if (out == nullptr) {
        LOG_NULL("shardView", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    const nas::ReadGuard guard(&shardViewList.lock);
    const shard_node *node = findNode(static_cast<uint32_t>(fspId));
    if (node == nullptr) {
        return NAS_ERROR;
    }
    out->fspId = node->fspId;
    out->lsId = nas::lsIdOfShard(node->shardId);
    out->version = node->version;
    return NAS_OK;
}
