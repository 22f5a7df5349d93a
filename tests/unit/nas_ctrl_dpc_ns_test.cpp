// The program puts its own sem_wait before the C library's, so that a wait can be interrupted or fail.
#include <cluster.h>
#include <fake_host.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <thread>

using testing::AllOf;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

using Texts = std::vector<std::string>;

namespace {

constexpr const char *kRead = R"(ns_getAsyn(0, "CLUSTER_VERCTRL_NAMESPACE"))";
constexpr const char *kAnswer = "ns_get_cb()";
constexpr const char *kPause = "kvos_msleep(100)";

// What the next waits fail with, instead of waiting.
std::deque<int> g_waitErrors;
std::atomic<int> g_waits{0};

} // namespace

extern "C" NASCTRL_API int sem_wait(sem_t *sem)
{
    ++g_waits;
    if (!g_waitErrors.empty()) {
        errno = g_waitErrors.front();
        g_waitErrors.pop_front();
        return -1;
    }
    return reinterpret_cast<decltype(&::sem_wait)>(dlsym(RTLD_NEXT, "sem_wait"))(sem);
}

namespace {

std::string bytesOf(const ns_value &value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string writeCall(uint64_t expectedVersion)
{
    return R"(ns_set(0, "CLUSTER_VERCTRL_NAMESPACE", 16, )" + std::to_string(expectedVersion) + ")";
}

std::string infoLine(uint64_t returned, uint64_t current)
{
    return "class 1 PROTOCOL: NASCTRL_DPC: Cm return ns info version(" + std::to_string(returned) +
           "), current version(" + std::to_string(current) + ").";
}

// A request whose semaphore and value are its own.
struct Request {
    Request() { sem_init(&sem, 0, 0); }
    ~Request() { sem_destroy(&sem); }
    Request(const Request &) = delete;
    Request &operator=(const Request &) = delete;
    bool wasWoken() { return sem_trywait(&sem) == 0; }

    sem_t sem = {};
    ns_value value = {};
    ns_request record = {&sem, &value, 0};
};

class VersionNs : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        fake::setCallbacks(fake::Callbacks::atOnce);
        s_clusterVerinfo = {};
        s_nasctrlDpcNsHdl = 0;
        s_nasctrlDpcNsStat = {};
        s_dpcNsLock = {};
        g_nsPubSeq = 0;
        g_waitErrors.clear();
        g_waits = 0;
    }
    void TearDown() override
    {
        fake::joinCallbacks();
        EXPECT_EQ(fake::locksHeld(), 0);
        EXPECT_THAT(fake::callsUnderSpinLock(), IsEmpty());
        EXPECT_EQ(fake::liveBlocks(), 0U);
    }

    // FL, version and seq of the node's copy.
    static void expectLocal(uint32_t fl, int64_t version, uint64_t seq)
    {
        EXPECT_EQ(s_clusterVerinfo.FL, fl);
        EXPECT_EQ(s_clusterVerinfo.version, version);
        EXPECT_EQ(s_clusterVerinfo.seq, seq);
    }
};

// ---- names and entry points

TEST_F(VersionNs, HasItsNames)
{
    EXPECT_STREQ(GetNasCtrlClusterDsName(), "CLUSTER_ACCESS_CTRL");
    EXPECT_STREQ(GetNasCtrlClusterNsName(), "CLUSTER_VERCTRL_NAMESPACE");
    EXPECT_EQ(GetLocalVerInfo(), &s_clusterVerinfo);
}

TEST_F(VersionNs, NeedsNoPreparation)
{
    EXPECT_EQ(InitNasCtrlDpcNs(), 0);
    EXPECT_EQ(s_nasctrlDpcNsHdl, 0U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VersionNs, EntryPointsWithoutWorkDoNothing)
{
    for (const auto entryPoint : {NasCtrlGetFL, NasCtrlPubFL, CollectEDSVersions, DiagShowEDSClusterInfo,
                                  InitNasVersionDiagnose, nas_ctrl_flow_init}) {
        EXPECT_EQ(entryPoint(), 0);
    }
    ExitNasCtrlDpcNs();
    ExitNasVersionDiagnose();
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

// ---- creation

TEST_F(VersionNs, IsCreatedWith16ZeroBytes)
{
    s_nasctrlDpcNsHdl = 7;
    EXPECT_EQ(NasCtrlDpcCreateNs(), 0);
    EXPECT_THAT(fake::calls(), ElementsAre(R"(ns_create(7, "CLUSTER_VERCTRL_NAMESPACE", 0, 16))"));
    EXPECT_THAT(fake::sentValues(), ElementsAre(std::string(16, '\0')));
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: NASCTRL_DPC: create ns (0) times, max retry times(3), ret(0).\n"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlDpcCreateNs"));
}

TEST_F(VersionNs, CreationCountsItsFailedAttempts)
{
    struct Row {
        const char *name;
        std::initializer_list<int64_t> answers;
        size_t calls;
        int failed, result;
    };
    const Row rows[] = {
        {"exists", {2}, 1, 0, 2},
        {"created at the second attempt", {5, 0}, 2, 1, 0},
        {"exists at the third attempt", {5, -6, 2}, 3, 2, 2},
        {"fails three times", {5, 5, 5, 0}, 3, 3, 5},
        {"fails with the last result", {4, 5, -6}, 3, 3, -6},
    };
    for (const Row &row : rows) {
        fake::reset();
        fake::answer("ns_create", row.answers);
        EXPECT_EQ(NasCtrlDpcCreateNs(), row.result) << row.name;
        EXPECT_EQ(fake::calls().size(), row.calls) << row.name;
        EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: NASCTRL_DPC: create ns (" + std::to_string(row.failed) +
                                             ") times, max retry times(3), ret(" + std::to_string(row.result) + ").\n"))
            << row.name;
    }
}

TEST_F(VersionNs, CreationNeedsMemory)
{
    fake::failAllocation(1);
    EXPECT_EQ(NasCtrlDpcCreateNs(), -1);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NASCTRL_DPC:nas_zalloc failed.\n"));
}

// ---- reads

TEST_F(VersionNs, ANewerVersionIsTakenOver)
{
    Request request;
    fake::store(9, bytesOf({3, 0, 44}));
    s_nasctrlDpcNsStat = {1, 2, 8};
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 9U);
    EXPECT_EQ(s_nasctrlDpcNsStat.word0, 1U);
    EXPECT_EQ(s_nasctrlDpcNsStat.word1, 2U);
    expectLocal(3, 9, 44);
    EXPECT_THAT(fake::calls(), ElementsAre(kRead, kAnswer));
    EXPECT_THAT(fake::log(), ElementsAre(infoLine(9, 8)));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("GetNasCtrlDpcNsCb"));
}

TEST_F(VersionNs, AVersionThatIsNotGreaterChangesNothingAndWakesTheWaiter)
{
    for (const int64_t version : {int64_t{8}, int64_t{7}, int64_t{1}, int64_t{-1}, INT64_MIN}) {
        Request request;
        const ns_value value = {3, 0, 44};
        const ns_info_t info = {version, &value, sizeof value, 0};
        s_nasctrlDpcNsStat.version = 8;
        request.record.result = 6;
        GetNasCtrlDpcNsCb(0, &info, &request.record);
        EXPECT_EQ(s_nasctrlDpcNsStat.version, 8U);
        expectLocal(0, 0, 0);
        EXPECT_EQ(request.record.result, 0);
        EXPECT_TRUE(request.wasWoken());
        EXPECT_EQ(fake::log().back(), infoLine(static_cast<uint64_t>(version), 8));
    }
}

TEST_F(VersionNs, VersionsAreComparedSigned)
{
    const ns_value value = {3, 0, 44};
    const ns_info_t info = {0, &value, sizeof value, 0};
    s_nasctrlDpcNsStat.version = ~uint64_t{0}; // -1
    GetNasCtrlDpcNsCb(0, &info, nullptr);
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 0U);
    expectLocal(3, 0, 44);
    EXPECT_THAT(fake::log(), ElementsAre(infoLine(0, ~uint64_t{0})));
}

TEST_F(VersionNs, ANameWithoutAValueRaisesTheVersionOnly)
{
    Request request;
    fake::store(9, std::nullopt);
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 9U);
    expectLocal(0, 0, 0);
    EXPECT_THAT(fake::log(),
                ElementsAre(infoLine(9, 0), "class 1 PROTOCOL: NASCTRL_DPC: ns_getAsyn cb get verctrl null value."));
    EXPECT_THAT(fake::logFuncs(), Each("GetNasCtrlDpcNsCb"));
}

// The fake host's value is exactly as long as told, so that a sanitizer sees a step outside.
TEST_F(VersionNs, AValueTooShortForARecordRaisesTheVersionOnly)
{
    for (const uint32_t length : {1U, 15U}) {
        Request request;
        s_nasctrlDpcNsStat = {};
        fake::reset();
        fake::setCallbacks(fake::Callbacks::atOnce);
        fake::store(9, std::string(length, 'x'));
        EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
        EXPECT_EQ(s_nasctrlDpcNsStat.version, 9U);
        expectLocal(0, 0, 0);
        EXPECT_THAT(fake::log(),
                    ElementsAre(infoLine(9, 0), "3 PROTOCOL: NASCTRL_DPC: ns_getAsyn cb get verctrl short value(" +
                                                    std::to_string(length) + ")."));
    }
}

TEST_F(VersionNs, ALongerValueIsReadAsFarAsTheRecordGoes)
{
    Request request;
    fake::store(9, bytesOf({3, 0, 44}) + "more");
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    expectLocal(3, 9, 44);
    EXPECT_THAT(fake::log(), ElementsAre(infoLine(9, 0)));
}

TEST_F(VersionNs, AValueWhoseLengthIsNotToldIsAWholeRecord)
{
    const std::string bytes = bytesOf({3, 0, 44});
    const ns_info_t info = {9, bytes.data(), 0, 0};
    GetNasCtrlDpcNsCb(0, &info, nullptr);
    expectLocal(3, 9, 44);
}

TEST_F(VersionNs, ANewerValueIsTakenOverInOneHoldOfEachLock)
{
    const std::string bytes = bytesOf({3, 0, 44});
    const ns_info_t info = {9, bytes.data(), 16, 0};
    std::vector<std::string> held;
    fake::duringLocks([&held](const std::string &func) {
        held.push_back(func + " " + std::to_string(s_dpcNsLock.lock) + std::to_string(s_clusterVerinfo.lock.lock));
    });
    GetNasCtrlDpcNsCb(0, &info, nullptr);
    EXPECT_THAT(held, ElementsAre("do_kvos_spinlock_lock 10", "do_kvos_spinlock_lock 11", "do_kvos_spinlock_unlock 11",
                                  "do_kvos_spinlock_unlock 10"));
}

TEST_F(VersionNs, AValueNeedsNoAlignment)
{
    const std::string bytes = "?" + bytesOf({3, 0, 44});
    const ns_info_t info = {9, bytes.data() + 1, 16, 0};
    GetNasCtrlDpcNsCb(0, &info, nullptr);
    expectLocal(3, 9, 44);
}

TEST_F(VersionNs, AFailedReadIsToldToTheWaiterAsSuccess)
{
    Request request;
    request.record.result = 6;
    fake::store(9, bytesOf({3, 0, 44}));
    fake::answer("ns_get_cb", {-5});
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 0U);
    expectLocal(0, 0, 0);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 3 PROTOCOL: NASCTRL_DPC:get nasctrl dpc name service err(-5), just return!!"));
}

TEST_F(VersionNs, AnAnswerWithoutInformationIsLoggedAndWakesTheWaiter)
{
    Request request;
    request.record.result = 6;
    GetNasCtrlDpcNsCb(0, nullptr, &request.record);
    EXPECT_EQ(request.record.result, 0);
    EXPECT_TRUE(request.wasWoken());
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 0U);
    expectLocal(0, 0, 0);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: info is NULL, return !!!!!!!!!!!!"));
}

TEST_F(VersionNs, AnAnswerWakesItsWaiterOnceAndNobodyWithoutARequest)
{
    Request request;
    GetNasCtrlDpcNsCb(1, nullptr, &request.record);
    EXPECT_TRUE(request.wasWoken());
    EXPECT_FALSE(request.wasWoken());
    GetNasCtrlDpcNsCb(1, nullptr, nullptr);
    EXPECT_FALSE(request.wasWoken());
    EXPECT_THAT(fake::log(), SizeIs(2));
}

TEST_F(VersionNs, AnAnswerToARequestWithoutASemaphoreWakesNobody)
{
    ns_request request = {nullptr, nullptr, 6};
    GetNasCtrlDpcNsCb(1, nullptr, &request);
    EXPECT_EQ(request.result, 0);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: sem is NULL, return !!!!!!!!!!!!");
}

TEST_F(VersionNs, AReadThatCannotStartIsReturnedAndNotWaitedFor)
{
    Request request;
    s_nasctrlDpcNsHdl = 7;
    fake::answer("ns_getAsyn", {-9});
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), -9);
    EXPECT_EQ(g_waits, 0);
    EXPECT_THAT(fake::calls(), ElementsAre(R"(ns_getAsyn(7, "CLUSTER_VERCTRL_NAMESPACE"))"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: NASCTRL_DPC:ns_getAync direct return fail(-9)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlDpcNsGetAsycAdapter"));
}

TEST_F(VersionNs, AnInterruptedWaitIsTakenUpAgain)
{
    Request request;
    g_waitErrors = {EINTR, EINTR};
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    EXPECT_EQ(g_waits, 3);
    EXPECT_FALSE(request.wasWoken()); // the third wait used it up
}

TEST_F(VersionNs, AWaitThatFailsLeavesTheRequestsResult)
{
    Request request;
    fake::setCallbacks(fake::Callbacks::hold);
    request.record.result = -3;
    g_waitErrors = {EINTR, EINVAL};
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), -3);
    EXPECT_EQ(g_waits, 2);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NASCTRL_DPC:ns_getAsync cb return fail(-3)."));
}

TEST_F(VersionNs, ARequestNeedsItsParts)
{
    ns_value value = {};
    ns_request withoutSemaphore = {nullptr, &value, 0};
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(nullptr), -1);
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&withoutSemaphore), -1);
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(nullptr), -1);
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&withoutSemaphore), -1);
    Request request;
    request.record.value = nullptr;
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), -1);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: request is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: sem is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: request is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: sem is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: value is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
    EXPECT_EQ(fake::logFuncs().back(), "SetNasCtrlDpcNsWithRetry");
}

TEST_F(VersionNs, AReadNeedsNoValue)
{
    Request request;
    request.record.value = nullptr;
    fake::store(9, bytesOf({3, 0, 44}));
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    expectLocal(3, 9, 44);
}

// ---- publications

TEST_F(VersionNs, MarksCountFrom1)
{
    ns_value value = {5, 0, 99};
    MarkNsPubSeq(&value);
    EXPECT_EQ(value.seq, 1U);
    MarkNsPubSeq(&value);
    EXPECT_EQ(value.seq, 2U);
    EXPECT_EQ(g_nsPubSeq, 2U);
    EXPECT_EQ(value.FL, 5U);
    MarkNsPubSeq(nullptr);
    EXPECT_EQ(g_nsPubSeq, 2U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: value is NULL, return !!!!!!!!!!!!"));
}

TEST_F(VersionNs, APublicationReadsAndThenWritesByVersion)
{
    Request request;
    request.value = {4000000000U, 0, ~uint64_t{0}};
    fake::store(9, bytesOf({3, 0, 44}));
    fake::setStateWords(21, 22);
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
    EXPECT_THAT(fake::calls(), ElementsAre(kRead, kAnswer, writeCall(9)));
    EXPECT_EQ(fake::stored().value, bytesOf(request.value));
    EXPECT_EQ(s_nasctrlDpcNsStat.word0, 21U);
    EXPECT_EQ(s_nasctrlDpcNsStat.word1, 22U);
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 10U);
    expectLocal(4000000000U, 10, ~uint64_t{0});
    EXPECT_THAT(fake::log(),
                ElementsAre(infoLine(9, 0),
                            "class 1 PROTOCOL: NASCTRL_DPC:ns_set(ver:10, seq(18446744073709551615), FL(4000000000), "
                            "suc.",
                            "class 1 PROTOCOL: NASCTRL_DPC:ns get-set succeeded."));
    EXPECT_THAT(fake::logFuncs(),
                ElementsAre("GetNasCtrlDpcNsCb", "SetNasCtrlDpcNsWithRetry", "SetNasCtrlDpcNsWithRetry"));
}

TEST_F(VersionNs, APublicationThatLosesToAnotherNodeReadsAgain)
{
    Request request;
    request.value = {3, 0, 1};
    fake::store(9, bytesOf({}));
    bool overtaken = false;
    fake::during("ns_set", [&] {
        if (!overtaken) {
            overtaken = true;
            fake::store(12, bytesOf({2, 0, 8}));
        }
    });
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
    EXPECT_THAT(fake::calls(), ElementsAre(kRead, kAnswer, writeCall(9), kPause, kRead, kAnswer, writeCall(12)));
    EXPECT_THAT(fake::log(),
                ElementsAre(infoLine(9, 0), "class 3 PROTOCOL: NASCTRL_DPC:ns_set fail(4).(ver:(9), seq(1) FL(3).",
                            infoLine(12, 9), "class 1 PROTOCOL: NASCTRL_DPC:ns_set(ver:13, seq(1), FL(3), suc.",
                            "class 1 PROTOCOL: NASCTRL_DPC:ns get-set succeeded."));
    expectLocal(3, 13, 1);
}

TEST_F(VersionNs, AFailedReadBehindAPublicationFailsItsWriteAndIsTriedAgain)
{
    Request request;
    fake::store(9, bytesOf({}));
    fake::answer("ns_get_cb", {1});
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
    EXPECT_THAT(fake::calls(), ElementsAre(kRead, kAnswer, writeCall(0), kPause, kRead, kAnswer, writeCall(9)));
}

TEST_F(VersionNs, APublicationWhoseReadCannotStartIsNotWritten)
{
    Request request;
    fake::store(9, bytesOf({}));
    fake::answer("ns_getAsyn", {-5, -6});
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
    EXPECT_THAT(fake::calls(), ElementsAre(kRead, kPause, kRead, kPause, kRead, kAnswer, writeCall(9)));
    EXPECT_EQ(fake::log()[1], "class 3 PROTOCOL: NASCTRL_DPC:NsGetAsyncAdapter retry(0) err(-5)");
    EXPECT_EQ(fake::log()[3], "class 3 PROTOCOL: NASCTRL_DPC:NsGetAsyncAdapter retry(1) err(-6)");
}

TEST_F(VersionNs, APublicationReplacesAValueOfTheWrongLength)
{
    for (const uint32_t length : {0U, 3U, 40U}) {
        Request request;
        request.value = {3, 0, 1};
        s_nasctrlDpcNsStat = {};
        fake::store(9, std::string(length, 'x'));
        EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
        EXPECT_EQ(fake::stored().value, bytesOf(request.value));
        expectLocal(3, 10, 1);
    }
}

TEST_F(VersionNs, APublicationIsGivenUpAfter51FailedWrites)
{
    Request request;
    request.value = {3, 0, 1};
    fake::store(9, bytesOf({}));
    fake::answerAlways("ns_set", -7);
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), -1);
    EXPECT_THAT(fake::calls("ns_getAsyn"), AllOf(SizeIs(51), Each(kRead)));
    EXPECT_THAT(fake::calls("ns_set"), AllOf(SizeIs(51), Each(writeCall(9))));
    EXPECT_THAT(fake::calls("kvos_msleep"), AllOf(SizeIs(50), Each(kPause)));
    EXPECT_EQ(fake::calls().back(), writeCall(9)); // no pause after the last
    EXPECT_EQ(fake::log().back(), "class 3 PROTOCOL: NASCTRL_DPC:ns get-set failed(-7) with max retry(51).");
    expectLocal(0, 9, 0);
}

TEST_F(VersionNs, APublicationIsGivenUpAfter51FailedReads)
{
    Request request;
    fake::answerAlways("ns_getAsyn", 8);
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), -1);
    EXPECT_THAT(fake::calls("ns_getAsyn"), SizeIs(51));
    EXPECT_THAT(fake::calls("ns_set"), IsEmpty());
    EXPECT_THAT(fake::calls("kvos_msleep"), SizeIs(50));
    ASSERT_EQ(fake::log().size(), 103U);
    EXPECT_EQ(fake::log()[101], "class 3 PROTOCOL: NASCTRL_DPC:NsGetAsyncAdapter retry(50) err(8)");
    EXPECT_EQ(fake::log()[102], "class 3 PROTOCOL: NASCTRL_DPC:ns get-set failed(8) with max retry(51).");
}

TEST_F(VersionNs, APublicationMaySucceedInThe51stRound)
{
    Request request;
    fake::store(9, bytesOf({}));
    fake::during("ns_set", [] { fake::answerAlways("ns_set", fake::calls("ns_set").size() < 51 ? 5 : 0); });
    EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
    EXPECT_THAT(fake::calls("ns_set"), SizeIs(51));
    EXPECT_THAT(fake::calls("kvos_msleep"), SizeIs(50));
    EXPECT_EQ(s_nasctrlDpcNsStat.version, 10U);
}

TEST_F(VersionNs, APublicationSurvivesAnySingleFailureOfTheHost)
{
    for (uint64_t nth = 1;; ++nth) {
        Request request;
        s_nasctrlDpcNsStat = {};
        fake::reset();
        fake::setCallbacks(fake::Callbacks::atOnce);
        fake::failCall(nth);
        const int32_t created = NasCtrlDpcCreateNs();
        const int32_t published = SetNasCtrlDpcNsWithRetry(&request.record);
        EXPECT_EQ(created, nth == 1 ? -1 : 0) << nth; // without memory; a refused creation is tried again
        EXPECT_EQ(published, created) << nth;
        EXPECT_EQ(fake::locksHeld(), 0) << nth;
        EXPECT_EQ(fake::liveBlocks(), 0U) << nth;
        if (fake::failableCalls() < nth) {
            EXPECT_EQ(nth, 6U); // memory, creation, read, its answer, write
            break;
        }
    }
}

// ---- many threads

TEST_F(VersionNs, TheWaiterIsWokenByAnAnswerOnAnotherThread)
{
    Request request;
    fake::setCallbacks(fake::Callbacks::real);
    fake::store(9, bytesOf({3, 0, 44}));
    EXPECT_EQ(NasCtrlDpcNsGetAsycAdapter(&request.record), 0);
    expectLocal(3, 9, 44);
}

// A publication loses at most one round while another one writes and one while that takes its new version over, so that
// 20 foreign writes cost at most 40 of the 51 rounds.
TEST_F(VersionNs, PublicationsOfManyThreadsAllReachTheName)
{
    constexpr int kThreads = 3;
    constexpr int kEach = 10;
    fake::setCallbacks(fake::Callbacks::real);
    fake::store(1, bytesOf({}));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < kThreads; ++thread) {
        threads.emplace_back([] {
            Request request;
            for (int i = 0; i < kEach; ++i) {
                MarkNsPubSeq(&request.value);
                EXPECT_EQ(SetNasCtrlDpcNsWithRetry(&request.record), 0);
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(fake::stored().version, 1 + kThreads * kEach);
    EXPECT_EQ(g_nsPubSeq, static_cast<uint64_t>(kThreads * kEach));
}

// ---- the master

TEST_F(VersionNs, TheMasterIsTheNodeWhoseLsIsTheClustersMaster)
{
    fake::setMasterLsId(4000000000U);
    fake::answer("getLocalCtrlLsId", {4000000000, 4});
    EXPECT_EQ(IsMasterNode(), 1U);
    EXPECT_EQ(IsMasterNode(), 0U);
    EXPECT_THAT(fake::calls(),
                ElementsAre("getLocalCtrlLsId()", "getGlbMasterLsId()", "getLocalCtrlLsId()", "getGlbMasterLsId()"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VersionNs, NoNodeIsTheMasterWhileThereIsNone)
{
    fake::answer("getLocalCtrlLsId", {0});
    fake::answer("getGlbMasterLsId", {-3});
    EXPECT_EQ(IsMasterNode(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: getGlbMasterLsId err(-3)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("IsMasterNode"));
}

} // namespace
