/*
 * The FMM event buffers, shared by the handlers of the queue "Fmm LWT" through a count of references, and the tasks in
 * which handlers wait there. No lock: the count is atomic, and whoever drops the last reference is alone with the
 * buffer. A buffer that is held is not freed, whatever its count, until it is released.
 */
#include <bit>
#include <cerrno>
#include <cstddef>

#include "internal/pool.h"
#include "internal/shard_view.h"

static_assert(sizeof(migration_record) == 20);
static_assert(offsetof(migration_record, fspId) == 0 && offsetof(migration_record, shardId) == 4);
static_assert(offsetof(migration_record, srcLs) == 8 && offsetof(migration_record, dstLs) == 10);
static_assert(offsetof(migration_record, reserved) == 12);
static_assert(sizeof(migration_payload) == 40);
static_assert(offsetof(migration_payload, count) == 16 && offsetof(migration_payload, records) == 24);
static_assert(sizeof(fmm_buffer) == 24);
static_assert(offsetof(fmm_buffer, id) == 0 && offsetof(fmm_buffer, payload) == 8 && offsetof(fmm_buffer, refs) == 16);
static_assert(sizeof(lwt_work_t) == 64);
static_assert(offsetof(lwt_work_t, link) == 0 && offsetof(lwt_work_t, owner) == 16);
static_assert(offsetof(lwt_work_t, zero0) == 24 && offsetof(lwt_work_t, func) == 32);
static_assert(offsetof(lwt_work_t, zero1) == 40 && offsetof(lwt_work_t, minus_one) == 48);
static_assert(sizeof(fmm_task) == 80);
static_assert(offsetof(fmm_task, buffer) == 0 && offsetof(fmm_task, work) == 8 && offsetof(fmm_task, handler) == 72);

namespace {

/* References and the mark of a held buffer as one word, so that exactly one caller sees the end of both. */
using State = uint64_t __attribute__((may_alias));
constexpr State kReferences = 0xFFFFFFFF;
/* A buffer of a caller's may have anything there, but for this. */
constexpr State kHeld = State{0x48454C44} << 32;

static_assert(offsetof(fmm_buffer, held) == offsetof(fmm_buffer, refs) + 4 &&
              std::endian::native == std::endian::little);

State *stateOf(fmm_buffer *b)
{
    return reinterpret_cast<State *>(&b->refs);
}

/* The state as it was before the references changed by so many, and nothing else with them. */
State countReferences(fmm_buffer *b, int32_t change)
{
    State was = __atomic_load_n(stateOf(b), __ATOMIC_RELAXED);
    State next = 0;
    do {
        next = (was & ~kReferences) | ((was + static_cast<State>(change)) & kReferences);
    } while (!__atomic_compare_exchange_n(stateOf(b), &was, next, true, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
    return was;
}

void freeEvent(fmm_buffer *b)
{
    if (b->payload != nullptr) {
        if (b->payload->records != nullptr) {
            POOL_FREE(b->payload->records);
        }
        POOL_FREE(b->payload);
    }
    POOL_FREE(b);
}

} // namespace

void nas::holdFmmBuffer(fmm_buffer *b)
{
    *stateOf(b) = kHeld | b->refs;
}

void nas::releaseFmmBuffer(fmm_buffer *b)
{
    const State was = __atomic_fetch_and(stateOf(b), kReferences, __ATOMIC_ACQ_REL);
    if (static_cast<int32_t>(was) <= 0) { /* below 0 when more were dropped than taken */
        freeEvent(b);
    }
}

void FspGetFmmBuffer(fmm_buffer *b)
{
    if (b != nullptr) {
        countReferences(b, 1);
    }
}

void FspPutFmmBuffer(fmm_buffer *b)
{
    if (b == nullptr) {
        return;
    }
    const State was = countReferences(b, -1);
    if ((was & kReferences) == 1 && (was & ~kReferences) != kHeld) {
        freeEvent(b);
    }
}

int32_t FspSubmitLwt(fmm_buffer *b, fmm_handler handler)
{
    if (handler == nullptr) {
        LOG_NULL("handler", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    FspGetFmmBuffer(b);
    auto *task = POOL_NEW(fmm_task);
    if (task == nullptr) {
        LOG_ERROR("task is NULL,return -ENOMEM!!!!");
        FspPutFmmBuffer(b);
        return -ENOMEM;
    }
    task->buffer = b;
    task->handler = handler;
    nas::listInit(&task->work.link);
    task->work.owner = task;
    task->work.func = FspScheduleLwt;
    task->work.minus_one = -1;
    const int32_t ret = lwt_work_enqueue(g_fmmLwtQ, &task->work);
    if (ret != 0) {
        /* The task is not freed, on purpose: a queue that refuses it may have linked it already. */
        LOG_ERROR("lwt_work_enque failed (%d)!!!!", ret);
        FspPutFmmBuffer(b);
    }
    return ret;
}

void FspScheduleLwt(void *task)
{
    if (task == nullptr) {
        LOG_NULL_VOID("task");
        return;
    }
    auto *submitted = static_cast<fmm_task *>(task);
    submitted->handler(submitted->buffer);
    POOL_FREE(submitted);
}
