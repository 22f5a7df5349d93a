// The node's lock table when clients are lost.
#include "failing_new.h"
#include "nlm/file_locks.h"
#include "notify/events.h"
#include "recorded_log.h"

#include <gmock/gmock.h>
#include <nasctrl/host/adapters.h>
#include <thread>
#include <utility>

namespace {

using host::FileLock;
using host::LockTable;
using testing::ElementsAre;
using testing::IsEmpty;

class LostClient : public testing::Test {
protected:
    void SetUp() override { recorded::clear(); }
    void TearDown() override
    {
        for (const FileLock &lock : host::fileLocks()) {
            host::releaseFileLocks(lock.lsId);
        }
    }
};

TEST_F(LostClient, GivesItsLocksUpAndTheNodeTellsHowMany)
{
    const uint64_t before = host::readEvents(UINT64_MAX, 0).newest;
    const uint64_t lost = host::lostClients();
    const uint64_t released = host::locksReleasedByFaults();
    host::takeFileLock({"/a", 12, {0, 9}, false}, nullptr);
    host::takeFileLock({"/b", 12, {0, 9}, true}, nullptr);
    host::takeFileLock({"/b", 13, {0, 9}, true}, nullptr);

    EXPECT_EQ(NlmE_NodeFaultEvent(12), NAS_OK);

    EXPECT_THAT(host::fileLocks(), ElementsAre(FileLock{"/b", 13, {0, 9}, true}));
    EXPECT_EQ(host::fileLockCount(), 1U);
    EXPECT_EQ(host::lostClients(), lost + 1);
    EXPECT_EQ(host::locksReleasedByFaults(), released + 2);
    const auto events = host::readEvents(before, 10).events;
    ASSERT_EQ(events.size(), 1U);
    EXPECT_EQ(events[0]->details.module, "NLM");
    EXPECT_EQ(events[0]->details.name, "LOCKS_RELEASED");
    EXPECT_EQ(events[0]->details.data, 12U);
    EXPECT_EQ(events[0]->details.text, "2 file locks released");
    EXPECT_THAT(recorded::lines(), ElementsAre("4 locks: client of LS 12 lost, 2 file locks released"));
}

TEST_F(LostClient, WithOneLockIsToldOfInTheSingular)
{
    const uint64_t before = host::readEvents(UINT64_MAX, 0).newest;
    host::takeFileLock({"/a", 12, {0, 9}, false}, nullptr);
    EXPECT_EQ(NlmE_NodeFaultEvent(12), NAS_OK);
    EXPECT_EQ(host::readEvents(before, 10).events.at(0)->details.text, "1 file lock released");
    EXPECT_THAT(recorded::lines(), ElementsAre("4 locks: client of LS 12 lost, 1 file lock released"));
}

TEST_F(LostClient, WithoutLocksIsToldOfToo)
{
    const uint64_t before = host::readEvents(UINT64_MAX, 0).newest;
    EXPECT_EQ(NlmE_NodeFaultEvent(14), NAS_OK);
    EXPECT_EQ(host::readEvents(before, 10).events.at(0)->details.text, "0 file locks released");
}

TEST_F(LostClient, ThatGivesItsLocksUpItselfIsNoFault)
{
    const uint64_t released = host::locksReleasedByFaults();
    host::takeFileLock({"/a", 12, {0, 9}, false}, nullptr);
    EXPECT_EQ(host::releaseFileLock("/a", 12, {0, 4}), LockTable::Result::done);
    EXPECT_EQ(host::releaseFileLocks(12), 1U);
    EXPECT_EQ(host::locksReleasedByFaults(), released);
    EXPECT_THAT(host::fileLocks(), IsEmpty());
}

TEST_F(LostClient, GivesItsLocksUpEvenWhenMemoryIsTooShortToTellOfIt)
{
    failing::sweep(
        [] {
            const size_t nth = std::exchange(failing::countdown, 0);
            host::takeFileLock({"/a", 12, {0, 9}, false}, nullptr);
            failing::countdown = nth;
            EXPECT_EQ(NlmE_NodeFaultEvent(12), NAS_OK);
        },
        [] { EXPECT_THAT(host::fileLocks(), IsEmpty()); });
}

TEST_F(LostClient, LeavesNothingBehindWhileOthersTakeAndRelease)
{
    {
        std::vector<std::jthread> threads;
        for (uint32_t ls = 1; ls <= 4; ++ls) {
            threads.emplace_back([ls] {
                for (uint64_t i = 0; i < 200; ++i) {
                    host::takeFileLock({"/a", ls, {i % 7, i % 7 + 3}, true}, nullptr);
                    host::releaseFileLock("/a", ls, {i % 5, i % 5 + 1});
                    if (i % 50 == 49) {
                        NlmE_NodeFaultEvent(ls);
                    }
                }
            });
        }
    }
    EXPECT_THAT(host::fileLocks(), IsEmpty());
}

} // namespace
