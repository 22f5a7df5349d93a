// The whole road of a move: index, event, handlers, and the library's own simulator on the same queue.
#include "ebsctrl_stub_fixture.h"

#include <algorithm>

using shard::Texts;
using testing::ElementsAre;

namespace {

std::string told(uint32_t module, uint32_t event, const void *data)
{
    return "notifyCall(" + std::to_string(module) + ", " + std::to_string(event) + ", " +
           std::to_string(reinterpret_cast<uintptr_t>(data)) + ")";
}

class MoveRoad : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        fake::answerAlways("CgwGetInitLocalLsId", 1);
        start("1:a,2:b");
        FspGetShardIdByFsp(0);
    }

    static const migration_payload *payload()
    {
        return static_cast<const fmm_task *>(fake::queuedJob(0)->owner)->buffer->payload;
    }
    static Texts semaphoreCalls()
    {
        Texts all = fake::calls();
        std::erase_if(all, [](const std::string &call) { return !call.starts_with("kvlwt_task_sem"); });
        return all;
    }
};

TEST_F(MoveRoad, LeadsFromAFaultToTheModulesAndBackToTheHandler)
{
    ASSERT_EQ(FspMigrationNode(1, 2, 0), 0U);
    const void *moved = payload();
    fake::runAllJobs();
    // While the first handler waits, the notices that wait behind it run.
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre("notifyCall(2, 5, 1)", "notifyCall(1, 5, 1)",
                                                       "notifyCall(1, 0, 0)", told(2, 2, moved), told(1, 2, moved)));
    EXPECT_THAT(semaphoreCalls(),
                ElementsAre("kvlwt_task_sem_init(1)", "kvlwt_task_sem_down(666, \"FspMoveOutEvent\")",
                            "kvlwt_task_sem_up(666, \"nas_fmm_vnode_move_lwt_wrapper\")", "kvlwt_task_sem_destroy()"));
    EXPECT_EQ(fake::liveSemaphores(), 0U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(MoveRoad, LeadsBackOnFailback)
{
    ASSERT_EQ(FspMigrationNode(1, 2, 0), 0U);
    fake::runAllJobs();
    const size_t before = fake::calls("notifyCall").size();
    ASSERT_EQ(FspMigrationNode(FspGetSrcLsByLsId(1), 1, 1), 0U);
    const void *moved = payload();
    fake::runAllJobs();
    const Texts all = fake::calls("notifyCall");
    EXPECT_THAT(Texts(all.begin() + static_cast<ptrdiff_t>(before), all.end()),
                ElementsAre("notifyCall(1, 0, 0)", "notifyCall(2, 6, 1)", "notifyCall(1, 6, 1)", told(2, 1, moved),
                            told(1, 1, moved)));
    EXPECT_THAT(shard::index(), ElementsAre("0: 0 on 0 v2"));
    EXPECT_EQ(shardViewStatus[0].takeoverLs, shard::kNone);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(MoveRoad, LeadsASingleFspOut)
{
    ASSERT_EQ(FspModifyShardView(0, FspGetNextLsIdByFsp(0)), 0U);
    const void *moved = payload();
    fake::runAllJobs();
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre("notifyCall(1, 0, 0)", told(2, 2, moved), told(1, 2, moved)));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

// Handlers that wait for ever keep their event; nothing else does.
TEST_F(MoveRoad, EndsSoundWithAnyCallFailing)
{
    bool whole = false;
    for (uint64_t nth = 1; !whole; ++nth) {
        SCOPED_TRACE(nth);
        SetUp();
        fake::failCall(nth);
        FspMigrationNode(1, 2, 0);
        const bool waits = fake::runUntilStopped([] { fake::runAllJobs(); });
        whole = fake::failableCalls() < nth;
        EXPECT_EQ(fake::locksHeld(), 0);
        EXPECT_EQ(fake::queuedJobs(), 0U);
        EXPECT_EQ(fake::liveSemaphores(), waits ? 1U : 0U);
        // A handler that the queue refused loses its task.
        const Texts lines = fake::log();
        const auto refused =
            static_cast<size_t>(std::count(lines.begin(), lines.end(), "3 PROTOCOL: lwt_work_enque failed (1)!!!!"));
        EXPECT_EQ(fake::liveBlocks(), (waits ? 4U : 0U) + refused);
    }
}

} // namespace
