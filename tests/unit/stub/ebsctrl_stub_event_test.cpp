// FMM event buffers and their references, and the tasks of the FMM queue.
#include "ebsctrl_stub_handlers.h"

#include <thread>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

template <typename T>
T *poolBlock(size_t count = 1)
{
    return static_cast<T *>(nas_mem_comm_zalloc(count * sizeof(T), __func__, __LINE__));
}

// An event with everything that it owns.
fmm_buffer *makeEvent(uint32_t refs)
{
    auto *buffer = poolBlock<fmm_buffer>();
    buffer->refs = refs;
    buffer->payload = poolBlock<migration_payload>();
    buffer->payload->count = 2;
    buffer->payload->records = poolBlock<migration_record>(2);
    return buffer;
}

class FmmEvent : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        start("1:a");
        handled_.clear();
    }

    static void handle(fmm_buffer *buffer)
    {
        handled_.push_back(buffer);
        FspPutFmmBuffer(buffer);
    }

    inline static std::vector<fmm_buffer *> handled_;
};

TEST_F(FmmEvent, CountsItsReferences)
{
    fmm_buffer buffer{};
    FspGetFmmBuffer(&buffer);
    FspGetFmmBuffer(&buffer);
    EXPECT_EQ(buffer.refs, 2U);
    FspPutFmmBuffer(&buffer);
    EXPECT_EQ(buffer.refs, 1U);
    FspGetFmmBuffer(nullptr);
    FspPutFmmBuffer(nullptr);
    EXPECT_THAT(log(), IsEmpty());
}

TEST_F(FmmEvent, IsFreedWithAllItOwnsByTheLastReference)
{
    fmm_buffer *buffer = makeEvent(2);
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 3U);
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, MayLackRecordsOrPayload)
{
    fmm_buffer *buffer = makeEvent(1);
    nas_mem_comm_free(buffer->payload->records, "", 0);
    buffer->payload->records = nullptr;
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    buffer = poolBlock<fmm_buffer>();
    buffer->refs = 1;
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

// A caller need not clear what the record does not name.
TEST_F(FmmEvent, MayHaveAnythingBesideItsReferences)
{
    fmm_buffer *buffer = makeEvent(1);
    buffer->held = 0xA5A5A5A5;
    FspGetFmmBuffer(buffer);
    EXPECT_EQ(buffer->refs, 2U);
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(buffer->held, 0xA5A5A5A5);
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, WithoutAReferenceIsNotFreed)
{
    fmm_buffer buffer{};
    FspPutFmmBuffer(&buffer);
    EXPECT_EQ(buffer.refs, 0xFFFFFFFFU);
}

TEST_F(FmmEvent, IsFreedOnceByManyThreads)
{
    constexpr uint32_t kThreads = 4;
    fmm_buffer *buffer = makeEvent(kThreads);
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([buffer] {
            for (int i = 0; i < 500; ++i) {
                FspGetFmmBuffer(buffer);
                buffer->payload->count == 2 ? FspPutFmmBuffer(buffer) : std::abort();
            }
            FspPutFmmBuffer(buffer);
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, IsSubmittedInATaskWithAReferenceOfItsOwn)
{
    fmm_buffer *buffer = makeEvent(1);
    EXPECT_EQ(FspSubmitLwt(buffer, handle), 0);
    EXPECT_EQ(buffer->refs, 2U);
    EXPECT_THAT(calls(), ElementsAre("lwt_work_enqueue()"));
    lwt_work_t *job = fake::queuedJob(0);
    const fmm_task &task = shard::taskOf(job);
    EXPECT_EQ(&task.work, job);
    EXPECT_EQ(task.buffer, buffer);
    EXPECT_EQ(task.handler, handle);
    EXPECT_EQ(job->link.next, &job->link);
    EXPECT_EQ(job->link.prev, &job->link);
    EXPECT_EQ(job->func, FspScheduleLwt);
    EXPECT_EQ(job->zero0, 0U);
    EXPECT_EQ(job->zero1, 0U);
    EXPECT_EQ(job->minus_one, -1);
    EXPECT_EQ(job->pad, 0U);
    EXPECT_EQ(job->host_private, 0U);
    EXPECT_EQ(fake::liveBlocks("FspSubmitLwt"), 1U);
    FspPutFmmBuffer(buffer);
    fake::runAllJobs();
    EXPECT_THAT(handled_, ElementsAre(buffer));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, IsNotSubmittedWithoutMemory)
{
    fmm_buffer *buffer = makeEvent(1);
    fake::failAllocation(1);
    EXPECT_EQ(FspSubmitLwt(buffer, handle), -12);
    EXPECT_EQ(buffer->refs, 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: task is NULL,return -ENOMEM!!!!"));
    EXPECT_THAT(calls(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks(), 3U);
}

TEST_F(FmmEvent, ThatTheQueueRefusesLosesItsTask)
{
    fmm_buffer *buffer = makeEvent(1);
    fake::answer("lwt_work_enqueue", {-7});
    EXPECT_EQ(FspSubmitLwt(buffer, handle), -7);
    EXPECT_EQ(buffer->refs, 1U);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: lwt_work_enque failed (-7)!!!!"));
    EXPECT_EQ(fake::logFuncs().back(), "FspSubmitLwt");
    EXPECT_EQ(fake::logLines().back().file, "ebsctrl_stub_event.cpp");
    EXPECT_EQ(fake::liveBlocks("FspSubmitLwt"), 1U);
    FspPutFmmBuffer(buffer);
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

TEST_F(FmmEvent, OfTheSubmissionAloneIsGoneWhenItIsRefused)
{
    fmm_buffer *buffer = makeEvent(0);
    fake::answer("lwt_work_enqueue", {5});
    EXPECT_EQ(FspSubmitLwt(buffer, handle), 5);
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

TEST_F(FmmEvent, MayBeNull)
{
    EXPECT_EQ(FspSubmitLwt(nullptr, handle), 0);
    fake::runAllJobs();
    EXPECT_THAT(handled_, ElementsAre(nullptr));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, WithoutAHandlerIsRefused)
{
    fmm_buffer buffer{};
    EXPECT_EQ(FspSubmitLwt(&buffer, nullptr), -22);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: handler is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_EQ(buffer.refs, 0U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(FmmEvent, WithoutATaskIsLogged)
{
    FspScheduleLwt(nullptr);
    EXPECT_THAT(log(), ElementsAre("3 PROTOCOL: task is NULL, return !!!!!!!!!!!!"));
    EXPECT_EQ(fake::logFuncs().back(), "FspScheduleLwt");
}

} // namespace
