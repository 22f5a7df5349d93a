// The program puts its own functions in the place of the library's empty ones, and of the C library's thread calls.
#include "nas_ctrl_dpc_tasks.h"

#include <fake_host.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <memory>
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

using dpc::queuedTasks;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int32_t kNotExist = 0x188004;

struct Adapter {
    std::function<int32_t(int call)> answer;
    int calls = 0;
    std::vector<int32_t> resultsBefore;
    uint32_t clientId = 0;
    void *arg = nullptr;
};
Adapter g_adapter;
int g_executed = 0;
std::atomic<int> g_connected{0};
void *g_connectArg = &g_adapter;
int g_createResult = 0;
int g_detachResult = 0;
// What the C library was asked for, while the test looks.
bool g_watchThreads = false;
std::vector<const pthread_attr_t *> g_attributes;
std::vector<pthread_t> g_created;
std::vector<pthread_t> g_detached;

// The C library's own function of that name.
template <typename Function>
Function *original(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

} // namespace

void NasCtrlHandleDpcEventAdapter(int32_t *result, uint32_t client_id, void *arg)
{
    g_adapter.resultsBefore.push_back(*result);
    g_adapter.clientId = client_id;
    g_adapter.arg = arg;
    *result = g_adapter.answer(g_adapter.calls++);
}
void NasCtrlExecuteDpcEventTask(void)
{
    ++g_executed;
}
void *NasCtrlHandleDpcConnectEvent(void *arg)
{
    g_connectArg = arg;
    ++g_connected;
    return nullptr;
}
extern "C" NASCTRL_API int pthread_create(pthread_t *thread, const pthread_attr_t *attr, void *(*body)(void *),
                                          void *arg) noexcept
{
    if (g_createResult != 0) {
        return g_createResult;
    }
    const int result = original<decltype(pthread_create)>("pthread_create")(thread, attr, body, arg);
    if (g_watchThreads) {
        g_attributes.push_back(attr);
        g_created.push_back(*thread);
    }
    return result;
}
extern "C" NASCTRL_API int pthread_detach(pthread_t thread) noexcept
{
    const int result = original<decltype(pthread_detach)>("pthread_detach")(thread);
    if (g_watchThreads) {
        g_detached.push_back(thread);
    }
    return g_detachResult != 0 ? g_detachResult : result;
}

namespace {

class Dpc : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_adapter = {};
        g_executed = 0;
        g_connected = 0;
        g_connectArg = &g_adapter;
        g_createResult = 0;
        g_detachResult = 0;
        g_watchThreads = false;
        g_attributes.clear();
        g_created.clear();
        g_detached.clear();
        g_nasDpcClientId = 0;
        g_nasDpcLsView = {};
        g_cmregls = 0;
        memset(g_nasCtrlCmOps, 0, sizeof g_nasCtrlCmOps);
        ASSERT_EQ(NasCtrlDpcClusterInit(), 0U);
        fake::reset();
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), 0); }
};

void expectUnlocked(const kvos_spinlock_t &lock)
{
    EXPECT_EQ(lock.lock, 0U);
    EXPECT_EQ(lock.magic, 0xDEAD4EADU);
    EXPECT_EQ(lock.owner_cpu, 0xFFFFFFFFU);
    EXPECT_EQ(lock.owner, ~uint64_t{0});
}

// ---- start

TEST_F(Dpc, StartPreparesLocksListConsumerAndTaskThread)
{
    memset(&g_nasDpcLsView.lock, 'x', sizeof g_nasDpcLsView.lock);
    memset(&g_nasDpcEventTaskList, 'x', sizeof g_nasDpcEventTaskList);
    memset(g_nasCtrlCmOps, 0, sizeof g_nasCtrlCmOps);
    g_nasCtrlDpcSubscribed = 1;
    EXPECT_EQ(NasCtrlDpcClusterInit(), 0U);
    EXPECT_EQ(g_nasCtrlDpcSubscribed, 0U);
    expectUnlocked(g_nasDpcLsView.lock);
    expectUnlocked(g_nasDpcEventTaskList.lock);
    EXPECT_EQ(g_nasDpcEventTaskList.head.next, &g_nasDpcEventTaskList.head);
    EXPECT_EQ(g_nasDpcEventTaskList.head.prev, &g_nasDpcEventTaskList.head);
    EXPECT_EQ(g_nasCtrlCmOps[1].client_id, NasCtrlSetCmClientId);
    EXPECT_EQ(g_nasCtrlCmOps[1].event, NasCtrlHandleDpcEvent);
    EXPECT_EQ(g_nasCtrlCmOps[1].command, nullptr);
    EXPECT_EQ(g_nasCtrlCmOps[1].status, nullptr);
    EXPECT_THAT(fake::calls(), ElementsAre("lwt_create_default(1, 4294967295)"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Dpc, StartLeavesTheViewAndTheClientIdAsTheyAre)
{
    memset(&g_nasDpcLsView.view, 'v', sizeof g_nasDpcLsView.view);
    const dpc_view before = g_nasDpcLsView.view;
    g_nasDpcClientId = 55;
    g_cmregls = 66;
    EXPECT_EQ(NasCtrlDpcClusterInit(), 0U);
    EXPECT_EQ(memcmp(&g_nasDpcLsView.view, &before, sizeof before), 0);
    EXPECT_EQ(g_nasDpcClientId, 55U);
    EXPECT_EQ(g_cmregls, 66U);
}

TEST_F(Dpc, StartWithoutItsThreadFailsAndStaysRegistered)
{
    memset(g_nasCtrlCmOps, 0, sizeof g_nasCtrlCmOps);
    fake::answer("lwt_create_default", {-11});
    EXPECT_EQ(NasCtrlDpcClusterInit(), static_cast<uint32_t>(-11));
    EXPECT_EQ(g_nasCtrlCmOps[1].event, NasCtrlHandleDpcEvent);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Create lwt thread for DPC event."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlDpcClusterInit"));
}

TEST_F(Dpc, TheTaskThreadRunsTheHostsExecutorEvery100Milliseconds)
{
    ASSERT_EQ(NasCtrlDpcClusterInit(), 0U);
    fake::during("kvlwt_task_sleep", [] {
        if (g_executed == 3) {
            throw fake::Stop{};
        }
    });
    EXPECT_TRUE(fake::runThread(0));
    EXPECT_EQ(g_executed, 3);
    EXPECT_THAT(fake::calls("kvlwt_task_sleep"),
                testing::AllOf(testing::SizeIs(3),
                               testing::Each(R"(kvlwt_task_sleep(100, 666, "NasCtrlDpcEventTaskThread", 85))")));
}

// ---- the view

TEST_F(Dpc, ASubscriptionsResultWakesItsWaiter)
{
    dpc_subscribe_waiter waiter = {};
    sem_init(&waiter.sem, 0, 0);
    EXPECT_EQ(NasSubsDpcViewResultCb(&waiter, -6), 0);
    EXPECT_EQ(waiter.result, -6);
    EXPECT_EQ(sem_trywait(&waiter.sem), 0);
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: EDS CM start subcribe dpc cluster call back, ret:(-6)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSubsDpcViewResultCb"));
    sem_destroy(&waiter.sem);
}

TEST_F(Dpc, ASubscriptionsResultIsWhatPostingReturned)
{
    dpc_subscribe_waiter waiter = {};
    sem_init(&waiter.sem, 0, SEM_VALUE_MAX);
    EXPECT_EQ(NasSubsDpcViewResultCb(&waiter, 0), -1);
    sem_destroy(&waiter.sem);
    EXPECT_EQ(NasSubsDpcViewResultCb(nullptr, 0), -1);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: waiter is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!");
}

TEST_F(Dpc, TheFullViewIsFetchedWithTheClientIdAndTheArgument)
{
    int arg = 0;
    g_nasDpcClientId = 55;
    g_adapter.answer = [](int) { return 0; };
    EXPECT_EQ(NasCtrlHandleTryGetDpcViewAdapter(&arg), 0U);
    EXPECT_EQ(g_adapter.clientId, 55U);
    EXPECT_EQ(g_adapter.arg, &arg);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: get Md full view succeed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleTryGetDpcViewAdapter"));
}

TEST_F(Dpc, AViewThatDoesNotExistYetCountsAsFetched)
{
    g_adapter.answer = [](int) { return kNotExist; };
    EXPECT_EQ(NasCtrlHandleTryGetDpcViewAdapter(nullptr), 0U);
    EXPECT_EQ(g_adapter.calls, 1);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: get Md full view not exist."));
}

TEST_F(Dpc, TheFetchIsRetriedAfterASleepWithAClearedResult)
{
    g_adapter.answer = [](int call) { return call < 2 ? -9 - call : 0; };
    EXPECT_EQ(NasCtrlHandleTryGetDpcViewAdapter(nullptr), 0U);
    EXPECT_THAT(g_adapter.resultsBefore, ElementsAre(0, 0, 0));
    EXPECT_THAT(fake::calls(), ElementsAre("kvos_msleep(100)", "kvos_msleep(100)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NasCtrlHandleDpcEventAdapter retry(0) return err(-9).",
                                         "class 3 PROTOCOL: NasCtrlHandleDpcEventAdapter retry(1) return err(-10).",
                                         "class 1 PROTOCOL: get Md full view succeed."));
}

// In a process of its own: a fetch that gave up too early would end this one with status 0, as if all were well.
TEST_F(Dpc, TheFetchMaySucceedAtThe101stCall)
{
    g_adapter.answer = [](int call) { return call < 100 ? 1 : 0; };
    const auto fetch = [] {
        const uint32_t result = NasCtrlHandleTryGetDpcViewAdapter(nullptr);
        fprintf(stderr, "%u, %d calls, %zu sleeps, %zu lines", result, g_adapter.calls,
                fake::calls("kvos_msleep").size(), fake::log().size());
        _exit(42);
    };
    EXPECT_EXIT(fetch(), testing::ExitedWithCode(42), "^0, 101 calls, 100 sleeps, 101 lines$");
}

TEST_F(Dpc, TheProcessEndsWithStatus0AfterThe101stFailedFetch)
{
    g_adapter.answer = [](int) { return 1; };
    fake::during("kvlog", [] {
        if (fake::log().size() > 100) {
            fprintf(stderr, "%s|%d calls|%zu sleeps\n", fake::log().back().c_str(), g_adapter.calls,
                    fake::calls("kvos_msleep").size());
        }
    });
    EXPECT_EXIT(NasCtrlHandleTryGetDpcViewAdapter(nullptr), testing::ExitedWithCode(0),
                "retry\\(100\\) return err\\(1\\)\\.\\|101 calls\\|100 sleeps\n"
                "class 3 PROTOCOL: retry outof limit, exit!!!\\|101 calls\\|100 sleeps\n$");
}

TEST_F(Dpc, ViewBuffersComeFromThePoolCleared)
{
    auto *view = static_cast<dpc_view *>(NasCtrlViewMalloc(sizeof(dpc_view)));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(view->lsNum, 0U);
    EXPECT_EQ(fake::liveBlocks("NasCtrlViewMalloc"), 1U);
    NasCtrlViewFree(view);
    NasCtrlViewFree(nullptr);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    fake::failAllocation(1);
    EXPECT_EQ(NasCtrlViewMalloc(8), nullptr);
}

TEST_F(Dpc, AShownViewHasALinePerEntry)
{
    const auto entries = std::make_unique<cm_ls_entry[]>(2);
    entries[0].lsId = 4000000000U;
    entries[0].sessionId = ~uint64_t{0};
    entries[0].rs = 1;
    entries[0].bs = -2;
    entries[0].role = 3;
    entries[0].mgtSt = -4;
    entries[1].lsId = 7;
    dpc_view view = {~uint64_t{0}, "ds_1", "alias_1", -5, 2, entries.get()};
    NasCtrlShowViewInfo(&view);
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 1 PROTOCOL: --ViewInfo-- begin (versoin:18446744073709551615, dsName:ds_1, "
                    "dsAlias:alias_1, mgtSt:-5, lsNum:2).",
                    "class 1 PROTOCOL: lsId:4000000000, sessionId:18446744073709551615, rs:1, bs:-2, role:3, mgtSt:-4.",
                    "class 1 PROTOCOL: lsId:7, sessionId:0, rs:0, bs:0, role:0, mgtSt:0.",
                    "class 1 PROTOCOL: --ViewInfo-- end"));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlShowViewInfo"));
}

TEST_F(Dpc, AViewWithoutEntriesIsShownAsItsFrame)
{
    dpc_view view = {};
    NasCtrlShowViewInfo(&view);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: --ViewInfo-- begin (versoin:0, dsName:, dsAlias:, mgtSt:0, lsNum:0).",
                            "class 1 PROTOCOL: --ViewInfo-- end"));
    view.lsNum = 3; // beside no array
    fake::reset();
    NasCtrlShowViewInfo(&view);
    EXPECT_EQ(fake::log().size(), 2U);
    fake::reset();
    NasCtrlShowViewInfo(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: view is NULL, return !!!!!!!!!!!!"));
}

TEST_F(Dpc, NamesWithoutTheirNulAreShownCut)
{
    dpc_view view = {};
    memset(view.dsName, 'n', sizeof view.dsName);
    memset(view.dsAlias, 'a', sizeof view.dsAlias);
    view.mgtSt = 0x41414141; // what a step outside the alias would show
    NasCtrlShowViewInfo(&view);
    EXPECT_EQ(fake::log()[0], "class 1 PROTOCOL: --ViewInfo-- begin (versoin:0, dsName:" + std::string(128, 'n') +
                                  ", dsAlias:" + std::string(256, 'a') + ", mgtSt:1094795585, lsNum:0).");
}

// ---- addresses

class Address : public Dpc {
protected:
    void SetUp() override
    {
        Dpc::SetUp();
        ls_ = std::make_unique<cm_ls_entry>();
        out_ = std::make_unique<char[]>(64); // exactly sized, so that a sanitizer sees a step outside
        strcpy(out_.get(), "unset");
    }
    void set(size_t slot, const std::string &name, const std::string &value)
    {
        cm_attr &attr = ls_->attrs[slot];
        memcpy(attr.name, name.data(), std::min<size_t>(name.size(), sizeof attr.name));
        memcpy(attr.value, value.data(), std::min<size_t>(value.size(), sizeof attr.value));
        attr.valueLen = static_cast<uint32_t>(value.size() + 1);
    }
    uint32_t get(const char *key) { return NasCtrlGetAddrFromCmLs(ls_.get(), out_.get(), key); }
    std::string out() const { return {out_.get(), strnlen(out_.get(), 64)}; }

    std::unique_ptr<cm_ls_entry> ls_;
    std::unique_ptr<char[]> out_;
};

TEST_F(Address, IsTheValueOfTheFirstSlotOfThatName)
{
    set(0, "data_ip2", "10.0.0.1");
    set(3, "data_ip", "10.0.0.2");
    set(7, "data_ip", "10.0.0.3");
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(out(), "10.0.0.2");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Address, OfAMissingKeyIsSuccessAndLeavesTheOutput)
{
    set(0, "data_ip", "10.0.0.1");
    EXPECT_EQ(get("DATA_IP"), 0U);
    EXPECT_EQ(get("data_i"), 0U);
    EXPECT_EQ(out(), "unset");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Address, IsCutAt63Characters)
{
    set(7, "data_ip", std::string(64, '1'));
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(out(), std::string(63, '1'));
}

TEST_F(Address, OfADoubleValueIsTheSecond)
{
    set(2, "data_ip", "10.0.0.1@10.0.0.2");
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(out(), "10.0.0.2");
}

TEST_F(Address, IsSoughtFurtherAfterADoubleValueThatCannotBeParsed)
{
    set(2, "data_ip", "@@");
    set(5, "data_ip", "10.0.0.2");
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(out(), "10.0.0.2");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Parse double ip(raw: @@) failed"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlGetAddrFromCmLs"));
}

TEST_F(Address, IsSoughtFurtherAfterADoubleValueThatDoesNotFit)
{
    const std::string tooLong = "10.0.0.1@" + std::string(64, '2');
    set(2, "data_ip", tooLong);
    set(3, "other", "10.0.0.3@10.0.0.4");
    set(5, "data_ip", "10.0.0.1@10.0.0.2");
    set(6, "data_ip", "10.0.0.5");
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(std::string(out_.get(), 64), "10.0.0.2" + std::string(56, '\0'));
    ASSERT_EQ(fake::log().size(), 2U);
    EXPECT_THAT(
        fake::log()[0],
        testing::MatchesRegex("class 1 PROTOCOL: PARSE DOUBLE IP: Copy Failed to outIp from nexToken: [1-9][0-9]*"));
    EXPECT_EQ(fake::log()[1], "3 PROTOCOL: Parse double ip(raw: " + tooLong + ") failed");
}

TEST_F(Address, IsClearedWhenNoDoubleValueCanBeParsed)
{
    const std::string value = "10.0.0.1@" + std::string(64, '2');
    set(2, "data_ip", value);
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(std::string(out_.get(), 64), std::string(64, '\0'));
    ASSERT_EQ(fake::log().size(), 2U);
    EXPECT_THAT(
        fake::log()[0],
        testing::MatchesRegex("class 1 PROTOCOL: PARSE DOUBLE IP: Copy Failed to outIp from nexToken: [1-9][0-9]*"));
    EXPECT_EQ(fake::log()[1], "3 PROTOCOL: Parse double ip(raw: " + value + ") failed");
    EXPECT_THAT(fake::logFuncs(), ElementsAre("ParseDoubleIp", "NasCtrlGetAddrFromCmLs"));
}

TEST_F(Address, IsClearedByAValueOfAnAtSignAlone)
{
    set(2, "data_ip", "@");
    EXPECT_EQ(get("data_ip"), 0U);
    EXPECT_EQ(std::string(out_.get(), 64), std::string(64, '\0'));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Parse double ip(raw: @) failed"));
}

TEST_F(Address, FieldsWithoutTheirNulAreBoundedToTheirWidth)
{
    const std::string name(32, 'n');
    set(0, name, std::string(256, '1'));
    EXPECT_EQ(get(name.c_str()), 0U);
    EXPECT_EQ(out(), std::string(63, '1'));
    EXPECT_EQ(get((name + "n").c_str()), 0U);
    set(0, name, "@" + std::string(255, '2'));
    EXPECT_EQ(get(name.c_str()), 0U);
    EXPECT_EQ(out(), ""); // a leading "@" is skipped, and nothing follows the one address
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Address, IsRefusedWithoutAllArguments)
{
    EXPECT_EQ(NasCtrlGetAddrFromCmLs(nullptr, out_.get(), "k"), 0xFFFFFFFFU);
    EXPECT_EQ(NasCtrlGetAddrFromCmLs(ls_.get(), nullptr, "k"), 0xFFFFFFFFU);
    EXPECT_EQ(NasCtrlGetAddrFromCmLs(ls_.get(), out_.get(), nullptr), 0xFFFFFFFFU);
    EXPECT_EQ(out(), "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: lsEntry is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: outAddr is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: key is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
}

TEST_F(Dpc, ADoubleAddressHoldsAnAtSign)
{
    EXPECT_EQ(IsDoubleIpAddress(""), 0U);
    EXPECT_EQ(IsDoubleIpAddress("10.0.0.1"), 0U);
    EXPECT_EQ(IsDoubleIpAddress("@"), 1U);
    EXPECT_EQ(IsDoubleIpAddress("10.0.0.1@"), 1U);
    EXPECT_THAT(fake::log(), IsEmpty());
    EXPECT_EQ(IsDoubleIpAddress(nullptr), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: text is NULL, return 0(0)!!!!!!!!!!!!"));
}

TEST_F(Dpc, ADoubleAddressParsesToWhatFollowsItsFirstPart)
{
    struct Row {
        const char *name;
        std::string raw;
        uint32_t result;
        std::string out;
    };
    const Row rows[] = {
        {"two addresses", "10.0.0.1@10.0.0.2", 0, "10.0.0.2"},
        {"three parts", "a@b@c", 0, "b@c"},
        {"two signs in a row", "a@@b", 0, "@b"},
        {"a leading sign", "@10.0.0.1", 0, ""},
        {"a trailing sign", "a@", 0, ""},
        {"no sign", "a", 0, ""},
        {"empty", "", 0xFFFFFFFFU, "unset"},
        {"a sign alone", "@", 0xFFFFFFFFU, "unset"},
        {"signs alone", "@@@", 0xFFFFFFFFU, "unset"},
        {"63 characters", "a@" + std::string(63, '2'), 0, std::string(63, '2')},
        {"cut at 255 characters", std::string(250, '1') + "@23456789", 0, "2345"},
    };
    for (const Row &row : rows) {
        char out[64] = "unset";
        EXPECT_EQ(ParseDoubleIp(row.raw.c_str(), out, sizeof out), row.result) << row.name;
        EXPECT_EQ(out, row.out) << row.name;
    }
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Dpc, ADoubleAddressMustFitTheOutputWithItsNul)
{
    const auto out = std::make_unique<char[]>(9);
    EXPECT_EQ(ParseDoubleIp("a@10.0.0.2", out.get(), 9), 0U);
    EXPECT_STREQ(out.get(), "10.0.0.2");
    EXPECT_EQ(ParseDoubleIp("a@10.0.0.2", out.get(), 8), 0xFFFFFFFFU);
    EXPECT_EQ(ParseDoubleIp("a@10.0.0.2", out.get(), 1), 0xFFFFFFFFU);
    EXPECT_EQ(ParseDoubleIp("a@10.0.0.2", out.get(), 0), 0xFFFFFFFFU);
    EXPECT_THAT(fake::log(), testing::Each(testing::StartsWith(
                                 "class 1 PROTOCOL: PARSE DOUBLE IP: Copy Failed to outIp from nexToken: ")));
    EXPECT_EQ(fake::log().size(), 3U);
}

TEST_F(Dpc, ADoubleAddressOf64CharactersDoesNotFit64Bytes)
{
    const auto out = std::make_unique<char[]>(64);
    EXPECT_EQ(ParseDoubleIp(("a@" + std::string(64, '2')).c_str(), out.get(), 64), 0xFFFFFFFFU);
    ASSERT_EQ(fake::log().size(), 1U);
    EXPECT_THAT(
        fake::log()[0],
        testing::MatchesRegex("class 1 PROTOCOL: PARSE DOUBLE IP: Copy Failed to outIp from nexToken: [1-9][0-9]*"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("ParseDoubleIp"));
}

TEST_F(Dpc, ADoubleAddressMayHaveAllTheRoomThereIs)
{
    for (const uint32_t length : {32768U, 32769U, 40000U, 300000U}) {
        const auto out = std::make_unique<char[]>(length);
        EXPECT_EQ(ParseDoubleIp("a@10.0.0.2", out.get(), length), 0U) << length;
        EXPECT_STREQ(out.get(), "10.0.0.2") << length;
    }
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Dpc, ADoubleAddressIsRefusedWithoutAllArguments)
{
    char out[8] = "unset";
    EXPECT_EQ(ParseDoubleIp(nullptr, out, sizeof out), 0xFFFFFFFFU);
    EXPECT_EQ(ParseDoubleIp("a@b", nullptr, 8), 0xFFFFFFFFU);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: raw is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: out is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
}

// ---- the task queue

TEST_F(Dpc, TasksAreQueuedInTheOrderOfTheirArrival)
{
    EXPECT_EQ(AddDpcEventTask(-1, -2, -3), 0U);
    EXPECT_EQ(AddDpcEventTask(4, 5, 6), 0U);
    const auto queued = queuedTasks();
    ASSERT_EQ(queued.size(), 2U);
    EXPECT_EQ(queued[0].lsid, 0xFFFFFFFFU);
    EXPECT_EQ(queued[0].faultTime, 0xFFFFFFFEU);
    EXPECT_EQ(queued[0].sessionId, 0xFFFFFFFFFFFFFFFDU);
    EXPECT_EQ(queued[1].lsid, 4U);
    EXPECT_EQ(queued[1].faultTime, 5U);
    EXPECT_EQ(queued[1].sessionId, 6U);
    EXPECT_EQ(fake::liveBlocks("AddDpcEventTask"), 2U);
    EXPECT_THAT(fake::callsUnderSpinLock(), IsEmpty());
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: Add dpc event task list lsid[4294967295] faultTime[4294967294] "
                            "sessionId[18446744073709551613].",
                            "class 0 PROTOCOL: Add dpc event task list lsid[4] faultTime[5] sessionId[6]."));
    EXPECT_THAT(fake::logFuncs(), testing::Each("AddDpcEventTask"));
}

TEST_F(Dpc, TasksAreQueuedUnderTheListsLockAlone)
{
    struct Look {
        std::string func;
        uint64_t listLock, viewLock;
        size_t queued;
        bool operator==(const Look &) const = default;
    };
    std::vector<Look> seen;
    fake::duringLocks([&](const std::string &func) {
        seen.push_back({func, g_nasDpcEventTaskList.lock.lock, g_nasDpcLsView.lock.lock, queuedTasks().size()});
    });
    EXPECT_EQ(AddDpcEventTask(1, 2, 3), 0U);
    EXPECT_THAT(seen, ElementsAre(Look{"do_kvos_spinlock_lock", 1, 0, 0}, Look{"do_kvos_spinlock_unlock", 1, 0, 1}));
}

TEST_F(Dpc, TasksAreLoggedAfterTheLockIsReleased)
{
    int held = -1;
    fake::during("kvlog", [&] { held = fake::locksHeld(); });
    EXPECT_EQ(AddDpcEventTask(1, 2, 3), 0U);
    EXPECT_EQ(held, 0);
}

TEST_F(Dpc, ATaskNeedsMemory)
{
    fake::failAllocation(1);
    EXPECT_EQ(AddDpcEventTask(1, 2, 3), 0xFFFFFFFFU);
    EXPECT_THAT(queuedTasks(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Dpc event task alloc failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("AddDpcEventTask"));
}

TEST_F(Dpc, AProcessFaultQueuesATaskWithTheTimeCutTo32Bits)
{
    fake::setClock(0x100000005ULL);
    NasCtrlHandleDpcProcessFault(9, 77);
    const auto queued = queuedTasks();
    ASSERT_EQ(queued.size(), 1U);
    EXPECT_EQ(queued[0].lsid, 9U);
    EXPECT_EQ(queued[0].faultTime, 5U);
    EXPECT_EQ(queued[0].sessionId, 77U);
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 1 PROTOCOL: [DPC_PROCESS_FAULT]Add dpc process fault event task lsid[9], sessionId(77).",
                    "class 0 PROTOCOL: Add dpc event task list lsid[9] faultTime[5] sessionId[77]."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleDpcProcessFault", "AddDpcEventTask"));
}

TEST_F(Dpc, AProcessFaultWithoutMemoryIsLogged)
{
    fake::failAllocation(1);
    NasCtrlHandleDpcProcessFault(9, 77);
    EXPECT_THAT(queuedTasks(), IsEmpty());
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 1 PROTOCOL: [DPC_PROCESS_FAULT]Add dpc process fault event task lsid[9], sessionId(77).",
                    "3 PROTOCOL: Dpc event task alloc failed.",
                    "3 PROTOCOL: Add dpc process fault event task failed lsid[9], sessionId(77)."));
    EXPECT_EQ(fake::logFuncs().back(), "NasCtrlHandleDpcProcessFault");
}

TEST_F(Dpc, AHeartBreakClearsTheLocksOnAThreadOfItsOwn)
{
    NasCtrlHandleDpcHeartBreak(12);
    EXPECT_THAT(fake::calls(), ElementsAre("lwt_create_default(1, 4294967295)"));
    EXPECT_THAT(queuedTasks(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks("NasCtrlHandleDpcHeartBreak"), 1U);
    EXPECT_FALSE(fake::runThread(0));
    EXPECT_THAT(fake::calls("NlmE_NodeFaultEvent"), ElementsAre("NlmE_NodeFaultEvent(12)"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[12]."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleDpcHeartBreak"));
}

TEST_F(Dpc, LocksThatCannotBeClearedAreLoggedAndTheTaskIsFreed)
{
    fake::answer("NlmE_NodeFaultEvent", {1});
    NasCtrlHandleDpcHeartBreak(12);
    EXPECT_FALSE(fake::runThread(0));
    EXPECT_EQ(fake::log().back(), "class 3 PROTOCOL: NasCtrl clean DPC(lsid[12]) locks failed.");
    EXPECT_EQ(fake::logFuncs().back(), "NasCtrlClearDpcLockState");
    EXPECT_EQ(fake::liveBlocks(), 0U);
    NasCtrlClearDpcLockState(nullptr);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: task is NULL, return !!!!!!!!!!!!");
}

TEST_F(Dpc, AHeartBreakWithoutMemoryStartsNothing)
{
    fake::failAllocation(1);
    NasCtrlHandleDpcHeartBreak(12);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: [DPC_HEART_BRK] Handle DPC heart break from CM,  lsid[12].",
                                         "3 PROTOCOL: Dpc event task alloc failed."));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlHandleDpcHeartBreak"));
}

TEST_F(Dpc, AHeartBreakWithoutAThreadKeepsItsTask)
{
    fake::answer("lwt_create_default", {1});
    NasCtrlHandleDpcHeartBreak(12);
    EXPECT_EQ(fake::liveBlocks("NasCtrlHandleDpcHeartBreak"), 1U);
    EXPECT_THAT(fake::calls(), testing::SizeIs(1));
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: Create lwt thread for DPC fault clear lock state.");
}

// ---- CM events

void waitForConnect()
{
    while (g_connected == 0) {
        sched_yield();
    }
}

TEST_F(Dpc, AConnectRunsTheHostsHandlerOnAThread)
{
    uint32_t event = 0;
    NasCtrlHandleDpcEvent(&event);
    waitForConnect();
    EXPECT_EQ(g_connectArg, nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: EDS CM EVENT: connect."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleDpcEvent"));
}

TEST_F(Dpc, AConnectsThreadHasDefaultAttributesAndIsDetachedOnce)
{
    uint32_t event = 0;
    g_watchThreads = true;
    NasCtrlHandleDpcEvent(&event);
    g_watchThreads = false;
    waitForConnect();
    EXPECT_THAT(g_attributes, ElementsAre(nullptr));
    EXPECT_EQ(g_created.size(), 1U);
    EXPECT_EQ(g_detached, g_created);
}

TEST_F(Dpc, AConnectThatCannotDetachItsThreadIsLogged)
{
    uint32_t event = 0;
    g_detachResult = EINVAL;
    NasCtrlHandleDpcEvent(&event);
    waitForConnect();
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: EDS CM EVENT: connect.", "class 3 PROTOCOL: detach thread failed(22)."));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlHandleDpcEvent"));
}

TEST_F(Dpc, AConnectWithoutAThreadEndsTheProcessWithStatus0)
{
    uint32_t event = 0;
    g_createResult = EAGAIN;
    fake::during("kvlog", [] { fprintf(stderr, "%s\n", fake::log().back().c_str()); });
    EXPECT_EXIT(NasCtrlHandleDpcEvent(&event), testing::ExitedWithCode(0),
                "class 1 PROTOCOL: EDS CM EVENT: connect\\.\nclass 3 PROTOCOL: create thread failed\\(11\\)\\.\n$");
}

TEST_F(Dpc, ADisconnectAndUnknownEventsAreOnlyLogged)
{
    for (uint32_t event : {1U, 2U, 0xFFFFFFFFU}) {
        NasCtrlHandleDpcEvent(&event);
    }
    NasCtrlHandleDpcEvent(nullptr);
    EXPECT_EQ(g_connected, 0);
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: EDS CM EVENT: DPC process is disconnect. need exit",
                                         "class 3 PROTOCOL: EDS CM EVENT: DPC process recieve cm event(2).",
                                         "class 3 PROTOCOL: EDS CM EVENT: DPC process recieve cm event(4294967295).",
                                         "3 PROTOCOL: event is NULL, return !!!!!!!!!!!!"));
}

} // namespace
