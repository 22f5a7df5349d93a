// The FMM callbacks: who is told of what, in which order, and that whoever waits is woken exactly once.
#include <events.h>
#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/fmm.h>
#include <semaphore.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint64_t kData = 0x1122334455667788U;
const char *const kTellDlg1 = "notifyCall(2, 1, 1234605616436508552)";
const char *const kTellFmm1 = "notifyCall(1, 1, 1234605616436508552)";
const char *const kAskContext = "kvlwt_is_lwtcontext(666, \"nas_fmm_vnode_callback\")";
const char *const kStart = "lwt_create_default(1, 4294967295)";

// The clearing that the test has refused; the bounds-checking library's own otherwise.
bool g_refuseClear = false;

} // namespace

extern "C" NASCTRL_API int _memset_s_chk(void *dest, size_t, int value, size_t n, size_t)
{
    if (g_refuseClear) {
        return 400;
    }
    memset(dest, value, n);
    return 0;
}

namespace {

// A 72-byte argument with its first 64 bits.
std::string argumentOf(uint64_t data)
{
    std::string bytes(72, '\0');
    memcpy(bytes.data(), &data, sizeof data);
    return bytes;
}

// An 88-byte registration.
std::string registrationOf(const std::string &event)
{
    std::string bytes(88, '\0');
    bytes.replace(0, 7, "NAS_FMM");
    bytes.replace(33, event.size(), event);
    return bytes;
}

class Fmm : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_refuseClear = false;
        sem_init(&posix_, 0, 0);
    }
    void TearDown() override
    {
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_EQ(fake::locksHeld(), 0);
        sem_destroy(&posix_);
    }

    // How often a caller on a plain thread was woken.
    int posixUps()
    {
        int value = -1;
        sem_getvalue(&posix_, &value);
        return value;
    }

    sem_t posix_{};
    kvlwt_task_sem_t light_{};
};

// ---- start

TEST_F(Fmm, StartRegistersItsEventsBetweenTheHostsHooks)
{
    EXPECT_EQ(nas_fmm_module_init(), 0);
    EXPECT_THAT(fake::calls(),
                ElementsAre("NasFmmRegShardChgNotifyOnetrack()",
                            "notifyEventRegister(1, 0, \"NAS_FMM\", \"SHARD_CHG\")",
                            "notifyEventRegister(1, 5, \"NAS_FMM\", \"NODE_FAULT\")",
                            "notifyEventRegister(1, 6, \"NAS_FMM\", \"NODE_RECOVER\")",
                            "notifyEventRegister(1, 1, \"NAS_FMM\", \"VNODE_MOVEIN\")",
                            "notifyEventRegister(1, 2, \"NAS_FMM\", \"VNODE_MOVEOUT\")",
                            "notifyEventRegister(1, 4, \"NAS_FMM\", \"SCALE_IN\")",
                            "notifyEventRegister(1, 3, \"NAS_FMM\", \"SCALE_OUT\")", "NasFmmCmdInitOnetrack()"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Fmm, RegistrationsAreZeroBehindTheirNames)
{
    nas_fmm_module_init();
    std::vector<std::string> records;
    for (const notify_event_reg_t &record : fake::registeredEvents()) {
        records.emplace_back(reinterpret_cast<const char *>(&record), sizeof record);
    }
    EXPECT_THAT(records,
                ElementsAre(registrationOf("SHARD_CHG"), registrationOf("NODE_FAULT"), registrationOf("NODE_RECOVER"),
                            registrationOf("VNODE_MOVEIN"), registrationOf("VNODE_MOVEOUT"), registrationOf("SCALE_IN"),
                            registrationOf("SCALE_OUT")));
}

TEST_F(Fmm, StartGoesOnWhenTheHostRefusesAnEvent)
{
    fake::answerAlways("notifyEventRegister", -1);
    EXPECT_EQ(nas_fmm_module_init(), 0);
    EXPECT_EQ(fake::calls("notifyEventRegister").size(), 7U);
    EXPECT_EQ(fake::calls("NasFmmCmdInitOnetrack").size(), 1U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

// ---- shard changes

TEST_F(Fmm, ShardChangeTellsFmmAloneOnAThreadOfItsOwn)
{
    nas_fmm_shard_change_callback();
    EXPECT_THAT(fake::calls(), ElementsAre(kStart));
    fake::runThread(0);
    EXPECT_THAT(fake::calls(), ElementsAre(kStart, "notifyCall(1, 0, 0)"));
    EXPECT_EQ(fake::notices().at(0).argument, argumentOf(0));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive shard change."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_shard_change_callback"));
}

TEST_F(Fmm, ShardChangeWithoutAThreadIsLogged)
{
    fake::answer("lwt_create_default", {-12});
    nas_fmm_shard_change_callback();
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: Receive shard change.", "3 PROTOCOL: Error for shard change thread."));
    EXPECT_EQ(fake::heldThreads(), 0U);
}

TEST_F(Fmm, ShardChangeWithoutAClearedArgumentTellsNobody)
{
    g_refuseClear = true;
    nas_fmm_shard_change_lwt(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Error for memset_s."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_shard_change_lwt"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(Fmm, ShardChangeThatFmmRefusesIsNotLogged)
{
    fake::answer("notifyCall", {7});
    nas_fmm_shard_change_lwt(nullptr);
    EXPECT_THAT(fake::log(), IsEmpty());
}

// ---- moves of vnodes and shards

struct Move {
    const char *name;
    int32_t (*callback)(uint64_t data, void *sem);
    uint32_t event;
    const char *line;
};

class FmmMoves : public Fmm, public testing::WithParamInterface<Move> {};

TEST_P(FmmMoves, TellDlgThenFmmAndWakeThePlainCallerOnce)
{
    const Move &move = GetParam();
    EXPECT_EQ(move.callback(kData, &posix_), 0);
    EXPECT_EQ(posixUps(), 0);
    EXPECT_THAT(fake::notices(), IsEmpty());
    fake::runThread(0);
    EXPECT_EQ(posixUps(), 1);
    const auto told = fake::notices();
    ASSERT_EQ(told.size(), 2U);
    EXPECT_EQ(told[0].module, NOTIFY_MODULE_DLG);
    EXPECT_EQ(told[1].module, NOTIFY_MODULE_FMM);
    for (const fake::Notice &notice : told) {
        EXPECT_EQ(notice.event, move.event);
        EXPECT_EQ(notice.argument, argumentOf(kData));
    }
    EXPECT_THAT(fake::log(), ElementsAre(move.line));
    EXPECT_THAT(fake::logFuncs(), ElementsAre(move.name));
}

TEST_P(FmmMoves, WakeTheCallerAtOnceWithoutMemory)
{
    fake::failAllocation(1);
    EXPECT_EQ(GetParam().callback(kData, &posix_), 0);
    EXPECT_EQ(posixUps(), 1);
    EXPECT_THAT(fake::log(), ElementsAre(GetParam().line, "3 PROTOCOL: Error for memory short!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre(GetParam().name, "nas_fmm_vnode_callback"));
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext));
}

INSTANTIATE_TEST_SUITE_P(All, FmmMoves,
                         testing::Values(Move{"nas_fmm_vnode_movein_callback", nas_fmm_vnode_movein_callback, 1,
                                              "6 PROTOCOL: Receive vnode move in."},
                                         Move{"nas_fmm_vnode_moveout_callback", nas_fmm_vnode_moveout_callback, 2,
                                              "6 PROTOCOL: Receive vnode move out."},
                                         Move{"nas_fmm_shard_movein_callback", nas_fmm_shard_movein_callback, 4,
                                              "6 PROTOCOL: Receive scale in (shard move in)."},
                                         Move{"nas_fmm_shard_moveout_callback", nas_fmm_shard_moveout_callback, 3,
                                              "6 PROTOCOL: Receive scale out (shard move out)."}),
                         [](const testing::TestParamInfo<Move> &row) { return std::string(row.param.name); });

TEST_F(Fmm, MoveOfALightWeightCallerRaisesTheHostsSemaphoreAfterBothWereTold)
{
    fake::answerAlways("kvlwt_is_lwtcontext", 1);
    nas_fmm_vnode_movein_callback(kData, &light_);
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext, kStart));
    fake::runThread(0);
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext, kStart, kTellDlg1, kTellFmm1,
                                           "kvlwt_task_sem_up(666, \"nas_fmm_vnode_move_lwt\")"));
    EXPECT_EQ(fake::upsOf(&light_), 1U);
}

TEST_F(Fmm, MoveWakesWithTheCallersKindOfSemaphoreWhateverThreadItRunsOn)
{
    nas_fmm_vnode_movein_callback(kData, &posix_);
    fake::answerAlways("kvlwt_is_lwtcontext", 1);
    fake::runThread(0);
    EXPECT_EQ(posixUps(), 1);
    EXPECT_THAT(fake::calls("kvlwt_task_sem_up"), IsEmpty());
}

TEST_F(Fmm, MoveKeepsTheArgumentOfItsCallUntilItRuns)
{
    nas_fmm_vnode_movein_callback(1, &posix_);
    nas_fmm_vnode_moveout_callback(2, &posix_);
    fake::runThread(1);
    fake::runThread(0);
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre("notifyCall(2, 2, 2)", "notifyCall(1, 2, 2)",
                                                       "notifyCall(2, 1, 1)", "notifyCall(1, 1, 1)"));
    EXPECT_EQ(posixUps(), 2);
}

TEST_F(Fmm, MoveIsDeliveredToFmmAndWokenAlsoWhenDlgRefusesIt)
{
    fake::answerAlways("notifyCall", 9);
    nas_fmm_vnode_movein_callback(kData, &posix_);
    fake::runThread(0);
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre(kTellDlg1, kTellFmm1));
    EXPECT_EQ(posixUps(), 1);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive vnode move in."));
}

TEST_F(Fmm, MoveWithoutMemoryWakesALightWeightCallerWithItsOwnSemaphore)
{
    fake::answerAlways("kvlwt_is_lwtcontext", 1);
    fake::failAllocation(1);
    nas_fmm_vnode_callback(1, kData, &light_);
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext, "kvlwt_task_sem_up(666, \"nas_fmm_vnode_callback\")"));
    EXPECT_EQ(fake::upsOf(&light_), 1U);
}

TEST_F(Fmm, MoveWithoutAThreadWakesThePlainCallerAtOnce)
{
    fake::answer("lwt_create_default", {-11});
    nas_fmm_vnode_callback(4, kData, &posix_);
    EXPECT_EQ(posixUps(), 1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Error for fsp-ctrl thread!"));
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext, kStart));
    EXPECT_THAT(fake::notices(), IsEmpty());
}

TEST_F(Fmm, MoveWithoutAThreadWakesALightWeightCallerAtOnce)
{
    fake::answerAlways("kvlwt_is_lwtcontext", 1);
    fake::answer("lwt_create_default", {-11});
    nas_fmm_vnode_callback(4, kData, &light_);
    EXPECT_THAT(fake::calls(), ElementsAre(kAskContext, kStart, "kvlwt_task_sem_up(666, \"nas_fmm_vnode_callback\")"));
}

TEST_F(Fmm, MoveOfACallerThatDoesNotWaitIsDelivered)
{
    fake::answer("kvlwt_is_lwtcontext", {0, 1});
    nas_fmm_vnode_callback(1, kData, nullptr);
    nas_fmm_vnode_callback(1, kData, nullptr);
    fake::runThread(0);
    fake::runThread(1);
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre(kTellDlg1, kTellFmm1, kTellDlg1, kTellFmm1));
    EXPECT_THAT(fake::calls("kvlwt_task_sem_up"), IsEmpty());
}

TEST_F(Fmm, MoveOfACallerThatDoesNotWaitMayFail)
{
    fake::failAllocation(1);
    nas_fmm_vnode_callback(1, kData, nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Error for memory short!"));
}

TEST_F(Fmm, MoveFillsEveryFieldOfItsJob)
{
    for (const uint8_t isLwt : {uint8_t{0}, uint8_t{1}}) {
        SCOPED_TRACE(int{isLwt});
        fake::reset();
        fake::answerAlways("kvlwt_is_lwtcontext", isLwt);
        nas_fmm_vnode_callback(0x01020304, kData, isLwt != 0 ? static_cast<void *>(&light_) : &posix_);
        const auto *job = static_cast<const vnode_move_job *>(fake::threadArgument(0));
        EXPECT_EQ(job->event, 0x01020304U);
        EXPECT_EQ(job->isLwt, isLwt);
        EXPECT_EQ(job->sem, isLwt != 0 ? static_cast<void *>(&light_) : &posix_);
        EXPECT_EQ(job->data, kData);
        fake::runThread(0);
        EXPECT_EQ(fake::notices().at(0).argument, argumentOf(kData));
        EXPECT_EQ(fake::notices().at(1).argument, argumentOf(kData));
    }
    EXPECT_EQ(posixUps(), 1);
    EXPECT_EQ(fake::upsOf(&light_), 1U);
}

TEST_F(Fmm, MoveWithoutAJobIsLogged)
{
    nas_fmm_vnode_move_lwt(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: job is NULL, return !!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_vnode_move_lwt"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

// Whatever fails first: the caller is woken exactly once, and either both modules were told or nobody.
TEST_F(Fmm, MoveLeavesNobodyWaitingWhicheverCallFails)
{
    uint64_t failing = 0;
    bool failed = true;
    while (failed) {
        fake::reset();
        fake::failCall(++failing);
        nas_fmm_vnode_movein_callback(kData, &posix_);
        for (size_t index = 0; index < fake::heldThreads(); ++index) {
            fake::runThread(index);
        }
        EXPECT_EQ(posixUps(), static_cast<int>(failing)) << "call " << failing;
        EXPECT_EQ(fake::notices().size() % 2, 0U) << "call " << failing;
        EXPECT_EQ(fake::liveBlocks(), 0U) << "call " << failing;
        failed = fake::failableCalls() >= failing;
    }
    EXPECT_EQ(failing, 5U) << "allocation, thread and two notices can fail";
}

// ---- recovered processes

TEST_F(Fmm, ProcessRecoverTellsFmmAloneAndRevertsWithTheCallersArgument)
{
    auto *arg = reinterpret_cast<void *>(uintptr_t{77});
    nas_fmm_process_recover_callback(arg);
    EXPECT_THAT(fake::calls(), ElementsAre(kStart));
    fake::runThread(0);
    EXPECT_THAT(fake::calls(), ElementsAre(kStart, "notifyCall(1, 6, 0)", "NasFmmProcessRevertOnetrack(77, 0)"));
    EXPECT_EQ(fake::notices().at(0).argument, argumentOf(0));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive process recover."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_process_recover_callback"));
}

TEST_F(Fmm, ProcessRecoverThatFmmRefusesIsLoggedAndRevertedAllTheSame)
{
    fake::answer("notifyCall", {-5});
    nas_fmm_process_recover_lwt(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Notify node recover failed(-5)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_process_recover_lwt"));
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(1, 6, 0)", "NasFmmProcessRevertOnetrack(0, 0)"));
}

TEST_F(Fmm, ProcessRecoverWithoutAThreadIsLoggedWithItsCode)
{
    fake::answer("lwt_create_default", {-11});
    nas_fmm_process_recover_callback(nullptr);
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: Receive process recover.", "3 PROTOCOL: Error(-11) for process recover."));
    EXPECT_EQ(fake::heldThreads(), 0U);
}

// ---- the rest

TEST_F(Fmm, LsChangeDoesNothing)
{
    nas_fmm_ls_change_callback();
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

} // namespace
