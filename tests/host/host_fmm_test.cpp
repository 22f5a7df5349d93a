// The host's side of the FMM events; the library's callbacks are the test's own.
#include "recorded_log.h"

#include <fmm/fmm.h>
#include <functional>
#include <gmock/gmock.h>
#include <nasctrl/fmm.h>
#include <nasctrl/host/fmm.h>
#include <semaphore.h>
#include <thread>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

std::vector<std::string> g_called;
std::thread g_told; // the light-weight thread of a move
bool g_stuck;       // moves tell nobody
void *g_unraised;   // the semaphore of a move that is stuck

int32_t toldLater(const char *name, uint64_t data, void *sem)
{
    g_called.push_back(std::string(name) + "(" + std::to_string(data) + ")");
    if (g_stuck) {
        g_unraised = sem;
        return 0;
    }
    g_told = std::thread([sem] { sem_post(static_cast<sem_t *>(sem)); });
    return 0;
}

} // namespace

void nas_fmm_shard_change_callback(void)
{
    g_called.emplace_back("shard change");
}
void nas_fmm_process_recover_callback(void *arg)
{
    g_called.emplace_back("process recover");
    notify_arg_t argument{};
    NasFmmProcessRevertOnetrack(arg, &argument);
}
int32_t nas_fmm_vnode_movein_callback(uint64_t data, void *sem)
{
    return toldLater("vnode in", data, sem);
}
int32_t nas_fmm_vnode_moveout_callback(uint64_t data, void *sem)
{
    return toldLater("vnode out", data, sem);
}
int32_t nas_fmm_shard_movein_callback(uint64_t data, void *sem)
{
    return toldLater("shard in", data, sem);
}
int32_t nas_fmm_shard_moveout_callback(uint64_t data, void *sem)
{
    return toldLater("shard out", data, sem);
}
void nsa_fmm_cmd_init(void)
{
    g_called.emplace_back("commands");
}

namespace {

class HostFmm : public testing::Test {
protected:
    void SetUp() override
    {
        g_called.clear();
        for (const host::FaultyProcess &process : host::fmmState().faulty) {
            host::announceProcessRecovery(process.lsId);
        }
        g_called.clear();
        recorded::clear();
    }

    static std::vector<uint32_t> faulty()
    {
        std::vector<uint32_t> ids;
        for (const host::FaultyProcess &process : host::fmmState().faulty) {
            ids.push_back(process.lsId);
        }
        return ids;
    }
};

// The subscription has no end, so this test holds the time before and after it.
TEST_F(HostFmm, AnnouncesShardChangesOnceTheLibraryHasSubscribed)
{
    EXPECT_FALSE(host::fmmState().subscribed);
    EXPECT_FALSE(host::announceShardChange());
    EXPECT_THAT(g_called, IsEmpty());
    NasFmmRegShardChgNotifyOnetrack();
    EXPECT_THAT(recorded::lines(), ElementsAre("6 fmm: subscribed to shard changes"));
    EXPECT_TRUE(host::fmmState().subscribed);
    EXPECT_TRUE(host::announceShardChange());
    EXPECT_TRUE(host::announceShardChange());
    EXPECT_THAT(g_called, ElementsAre("shard change", "shard change"));
    EXPECT_EQ(host::fmmState().shardChanges, 2U);
}

TEST_F(HostFmm, HasTheLibraryRegisterItsCommands)
{
    NasFmmCmdInitOnetrack();
    EXPECT_THAT(g_called, ElementsAre("commands"));
}

TEST_F(HostFmm, KeepsFaultyProcessesOnRecordUntilTheyAreReverted)
{
    const uint64_t before = host::fmmState().recoveries;
    host::announceProcessFault(12);
    host::announceProcessFault(0xFFFFFFFF);
    host::announceProcessFault(3);
    EXPECT_THAT(faulty(), ElementsAre(3, 12, 0xFFFFFFFF));
    host::announceProcessRecovery(12);
    EXPECT_THAT(faulty(), ElementsAre(3, 0xFFFFFFFF));
    host::announceProcessRecovery(0xFFFFFFFF);
    EXPECT_THAT(faulty(), ElementsAre(3));
    EXPECT_EQ(host::fmmState().recoveries, before + 2);
    EXPECT_THAT(g_called, ElementsAre("process recover", "process recover"));
}

TEST_F(HostFmm, LogsFaultAndRecovery)
{
    host::announceProcessFault(12);
    host::announceProcessRecovery(12);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("4 fmm: the process of LS 12 failed",
                            AllOf(StartsWith("4 fmm: the process of LS 12 has recovered after "), HasSubstr(" ms"))));
}

TEST_F(HostFmm, LogsTheRecoveryOfAProcessWhoseFaultNobodySaw)
{
    host::announceProcessRecovery(12);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("4 fmm: the process of LS 12 has recovered, no fault of it was on record"));
}

TEST_F(HostFmm, CountsAProcessThatFailsTwiceOnce)
{
    host::announceProcessFault(12);
    host::announceProcessFault(12);
    EXPECT_THAT(faulty(), ElementsAre(12));
}

TEST_F(HostFmm, BoundsItsRecordOfFaultyProcesses)
{
    for (uint32_t lsId = 0; lsId < host::kMaxFaultyProcesses; ++lsId) {
        host::announceProcessFault(lsId);
    }
    recorded::clear();
    host::announceProcessFault(70000);
    host::announceProcessFault(5);
    EXPECT_EQ(faulty().size(), host::kMaxFaultyProcesses);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("3 fmm: the process of LS 70000 failed, but there is no room to record it",
                            "4 fmm: the process of LS 5 failed"));
}

TEST_F(HostFmm, ReturnsFromAMoveOnceTheModulesWereTold)
{
    struct Row {
        host::FmmMove move;
        const char *call;
    };
    constexpr Row kRows[] = {{host::FmmMove::vnodeIn, "vnode in(0)"},
                             {host::FmmMove::vnodeOut, "vnode out(0)"},
                             {host::FmmMove::shardIn, "shard in(0)"},
                             {host::FmmMove::shardOut, "shard out(0)"}};
    for (const Row &row : kRows) {
        g_called.clear();
        host::announceMove(row.move);
        g_told.join();
        EXPECT_THAT(g_called, ElementsAre(row.call));
    }
}

TEST_F(HostFmm, GivesAMoveUpOfWhichNobodyIsToldAndKeepsItsSemaphoreForOneWhoComesLate)
{
    g_stuck = true;
    host::announceMove(host::FmmMove::vnodeIn, std::chrono::milliseconds(1));
    g_stuck = false;
    EXPECT_THAT(recorded::lines(), ElementsAre("3 fmm: DLG and FMM were not told of a move within 1 ms"));
    auto *unraised = static_cast<sem_t *>(g_unraised);
    EXPECT_EQ(sem_post(unraised), 0);
    EXPECT_EQ(sem_trywait(unraised), 0);
}

} // namespace
