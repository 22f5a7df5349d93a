/*
 * The FMM event buffers, shared by the handlers of the queue "Fmm LWT" through a count of references, and the tasks in
 * which handlers wait there. No lock: the count is atomic, and whoever drops the last reference is alone with the
 * buffer. A hold is a reference of the library's own that refs does not show.
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

/* References and holds as one word, so that exactly one caller sees the last of both go. */
using Counts = uint64_t __attribute__((may_alias));
constexpr Counts kReference = 1;
constexpr Counts kHold = kReference << 32;

static_assert(offsetof(fmm_buffer, holds) == offsetof(fmm_buffer, refs) + 4 &&
              std::endian::native == std::endian::little);

void add(fmm_buffer *b, Counts what)
{
    __atomic_fetch_add(reinterpret_cast<Counts *>(&b->refs), what, __ATOMIC_RELAXED);
}

/* Frees the event when nothing but this was left. */
void drop(fmm_buffer *b, Counts what)
{
    if (__atomic_fetch_sub(reinterpret_cast<Counts *>(&b->refs), what, __ATOMIC_ACQ_REL) != what) {
        return;
    }
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
    add(b, kHold);
}

void nas::releaseFmmBuffer(fmm_buffer *b)
{
    drop(b, kHold);
}

void FspGetFmmBuffer(fmm_buffer *b)
{
    if (b != nullptr) {
        add(b, kReference);
    }
}

void FspPutFmmBuffer(fmm_buffer *b)
{
    if (b != nullptr) {
        drop(b, kReference);
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
