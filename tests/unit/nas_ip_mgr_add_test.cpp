#include "nas_ip_mgr_fixture.h"

#include <cerrno>
#include <nasctrl/host/memory.h>

using ip::hooks;
using ip::listed;
using ip::setHook;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

class IpAddition : public ip::IpManager {
protected:
    // Queued events for the batch and one-by-one forms, in a list of the caller's.
    void queue(const ip::Texts &addrs)
    {
        for (const auto &addr : addrs) {
            NasIpEvent *ev = NasIpMgr_CreateEvent(addr.c_str(), NAS_IP_EVENT_ADD, 3);
            ev->link.prev = pending.prev;
            ev->link.next = &pending;
            static_cast<list_link *>(pending.prev)->next = &ev->link;
            pending.prev = &ev->link;
        }
    }

    static void addInParallel(const std::vector<fake::Address> &addrs)
    {
        node_ip_list *list = fake::makeIpList(addrs);
        NasIpMgrAddNewIpInParallel(list);
        nas_mem_comm_free(list, "addInParallel", 0);
    }

    list_link pending{&pending, &pending};
};

// ---- one address

TEST_F(IpAddition, ANewAddressIsToldToTheModulesAndRecorded)
{
    setHook(3, 9);
    EXPECT_EQ(NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3), 0);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 55"));
    EXPECT_EQ(fake::log().front(), "6 PROTOCOL: IP ADDITION Nas IP(addr 10.0.0.1, protoType 3) invoke add.");
    EXPECT_EQ(fake::logLines().front().file, "nas_ip_mgr_add.cpp");
}

TEST_F(IpAddition, AKnownAddressIsNotAddedAgainButWhatIsPendingIsRetried)
{
    setHook(3);
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("10.0.0.2", 3, 55);
    EXPECT_EQ(NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3), 0);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.2 3 63"));
    EXPECT_THAT(hooks().told, ElementsAre("3 0 10.0.0.2 2"));
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 0 PROTOCOL: IP: addr 10.0.0.1, protoType 3 already exist.",
                    "6 PROTOCOL: Nas IP[addr 10.0.0.1, protoType 3] already exist.",
                    "6 PROTOCOL: Nas module(3) IP[addr 10.0.0.2, protoType 3] event[0] need invoke[status 55]."));
}

TEST_F(IpAddition, AKnownAddressOfAnotherTypeBecomesASecondRecord)
{
    NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3);
    NasIpMgrAddNewIPWithoutLock("10.0.0.1", 4);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.1 4 63"));
}

TEST_F(IpAddition, AnAddressOfNoFamilyFailsAndIsRecordedAllTheSame)
{
    EXPECT_EQ(NasIpMgrAddNewIPWithoutLock("nas.example", 3), 1);
    EXPECT_THAT(listed(), ElementsAre("nas.example 3 0"));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: IP ADDITION Nas IP(addr nas.example, protoType 3) invoke add.",
                                         "3 PROTOCOL: Invalid nas IP(addr nas.example, protoType 3).",
                                         "3 PROTOCOL: Nas IP(addr nas.example, protoType 3) invoke add failed(1)."));
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrAddNewIPWithoutLock");
}

TEST_F(IpAddition, ANullAddressIsRefused)
{
    EXPECT_EQ(NasIpMgrAddNewIPWithoutLock(nullptr, 3), -22);
    EXPECT_EQ(NasIpMgrAddNewIPInner(nullptr, 3), -22);
    EXPECT_EQ(NasIpMgrDeleteOldIPInner(nullptr, 3), -22);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: pIp is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: pIp is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "class 1 PROTOCOL: Add ip without lock, ip:(null), protoType:3",
                                         "3 PROTOCOL: pIp is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(IpAddition, TheHandlersAdditionNotesTheTimeAndHoldsTheWholeOperationsMutex)
{
    fake::setTime(12345);
    setHook(0, 1);
    hooks().during = [] {
        EXPECT_EQ(g_ipChangeTime, 12345U);
        EXPECT_FALSE(ip::isFree(&g_ipSockIpLockMutex));
        EXPECT_TRUE(ip::isFree(&g_ipListMutex));
    };
    EXPECT_EQ(NasIpMgrAddNewIPInner("10.0.0.1", 3), 0);
    EXPECT_EQ(hooks().told.size(), 1U);
    EXPECT_EQ(fake::log().back(), "class 1 PROTOCOL: Add ip without lock, ip:10.0.0.1, protoType:3");
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrAddNewIPInner");
}

// ---- one by one

TEST_F(IpAddition, OneByOneAddsInOrderAndFreesTheEvents)
{
    queue({"10.0.0.2", "nas.example", "10.0.0.1"});
    NasIpMgrAddNewIpOneByOne(&pending);
    EXPECT_EQ(pending.next, &pending);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63", "nas.example 3 0", "10.0.0.1 3 63"));
    EXPECT_EQ(fake::liveBlocks(), 3U);
    EXPECT_EQ(ip::logStarting("3 ").back(), "3 PROTOCOL: Add ip(nas.example, 3) failed, ret 1.");
}

TEST_F(IpAddition, NullListsAndWorkAreLoggedAndIgnored)
{
    NasIpMgrAddNewIpOneByOne(nullptr);
    NasIpMgrAddNewIpBatchInner(nullptr, 7);
    NasIpMgrAddNewIpInParallel(nullptr);
    EXPECT_EQ(NasIpMgrAddNewIpInThread(nullptr), nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: pending is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: pending is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: list is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: work is NULL, return !!!!!!!!!!!!"));
}

// ---- batch

TEST_F(IpAddition, ABatchAddsEveryEventOnAThreadOfItsOwnAndFreesWhatItTook)
{
    fake::setTime(777);
    runHeldThreadsAtWaits();
    queue(ip::addresses(7));
    setHook(0);
    hooks().during = [] { EXPECT_FALSE(ip::isFree(&g_ipSockIpLockMutex)); };
    NasIpMgrAddNewIpBatchInner(&pending, 7);
    EXPECT_EQ(g_ipChangeTime, 777U);
    EXPECT_EQ(pending.next, &pending);
    EXPECT_THAT(listed(), ElementsAreArray(ip::withEnding(ip::addresses(7), " 3 63")));
    EXPECT_EQ(fake::heldThreads(), 7U);
    EXPECT_EQ(fake::liveBlocks(), 7U);
    EXPECT_EQ(ip::completions(), 0);
    EXPECT_EQ(fake::log().back(), "class 1 PROTOCOL: Add ip batch inner finish.");
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrAddNewIpBatchInner");
}

TEST_F(IpAddition, ABatchWithoutMemoryLeavesItsEventsWhereTheyAre)
{
    fake::setTime(777);
    queue(ip::addresses(7));
    fake::failAllocation(1);
    NasIpMgrAddNewIpBatchInner(&pending, 7);
    EXPECT_EQ(g_ipChangeTime, 777U);
    EXPECT_EQ(fake::liveBlocks("NasIpMgr_CreateEvent"), 7U);
    EXPECT_NE(pending.next, &pending);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Alloc mem for batch add Ip failed, lost cnt:7."));
}

TEST_F(IpAddition, AnAddressThatCannotBeCopiedStaysEmptyAndIsRefusedLater)
{
    runHeldThreadsAtWaits();
    queue({"10.0.0.1", "10.0.0.2"});
    faults::failNextCutCopy(400);
    NasIpMgrAddNewIpBatchInner(&pending, 2);
    EXPECT_THAT(listed(), ElementsAre(" 3 0", "10.0.0.2 3 63"));
    EXPECT_THAT(ip::logStarting("3 "), ElementsAre("3 PROTOCOL: Copy ip(10.0.0.1, 3) failed, ret 400.",
                                                   "3 PROTOCOL: Invalid nas IP(addr , protoType 3).",
                                                   "3 PROTOCOL: Nas IP(addr , protoType 3) invoke add failed(1)."));
    EXPECT_EQ(fake::liveBlocks(), 2U);
}

TEST_F(IpAddition, ABatchTakesNoMoreEventsThanItsCount)
{
    runHeldThreadsAtWaits();
    queue(ip::addresses(3));
    NasIpMgrAddNewIpBatchInner(&pending, 2);
    EXPECT_EQ(listed().size(), 2U);
    EXPECT_EQ(fake::liveBlocks("NasIpMgr_CreateEvent"), 1U);
}

TEST_F(IpAddition, EntriesOfABatchThatGetNoEventStayZeroAndDoNotWork)
{
    runHeldThreadsAtWaits();
    queue(ip::addresses(2));
    NasIpMgrAddNewIpBatchInner(&pending, 4);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.2 3 63"));
    EXPECT_EQ(fake::heldThreads(), 2U);
    EXPECT_THAT(ip::logStarting("6 PROTOCOL: The current"),
                ElementsAre("6 PROTOCOL: The current ip: is invalid", "6 PROTOCOL: The current ip: is invalid"));
    EXPECT_EQ(fake::liveBlocks(), 2U);
}

TEST_F(IpAddition, EntriesOfABatchThatGetNoEventAreOfNoFamilyWhereEveryEntryWorks)
{
    runHeldThreadsAtWaits();
    fake::answerAlways("IsIpWork", 1);
    queue(ip::addresses(2));
    NasIpMgrAddNewIpBatchInner(&pending, 3);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.2 3 63", " 0 0"));
    EXPECT_THAT(ip::logStarting("3 "), ElementsAre("3 PROTOCOL: Invalid nas IP(addr , protoType 0).",
                                                   "3 PROTOCOL: Nas IP(addr , protoType 0) invoke add failed(1)."));
    EXPECT_EQ(fake::liveBlocks(), 3U);
}

// ---- in parallel

TEST_F(IpAddition, ThirtyNewAddressesStart25ThreadsWaitForThemAndStartFiveMore)
{
    std::vector<size_t> startedAtWait;
    faults::duringWait([&, next = size_t{0}]() mutable {
        startedAtWait.push_back(fake::heldThreads());
        while (next < fake::heldThreads()) {
            fake::runThread(next++);
        }
    });
    addInParallel(ip::onNode(ip::addresses(30)));
    std::vector<size_t> expected(25, 25);
    expected.insert(expected.end(), 5, 30);
    EXPECT_EQ(startedAtWait, expected);
    EXPECT_THAT(listed(), ElementsAreArray(ip::withEnding(ip::addresses(30), " 3 63")));
    EXPECT_THAT(ip::logStarting("4 PROTOCOL: CurIndex"), ElementsAre("4 PROTOCOL: CurIndex(24), totalNum(30)"));
    EXPECT_EQ(ip::logStarting("6 PROTOCOL: Create Thread for ip(").size(), 30U);
    EXPECT_EQ(g_needRetry, 0);
    EXPECT_EQ(fake::liveBlocks(), 30U);
}

TEST_F(IpAddition, ThreadsAreWaitedForInGroupsOf25)
{
    const struct {
        size_t addresses;
        size_t groups;
    } rows[] = {{1, 0}, {24, 0}, {25, 1}, {26, 1}, {50, 2}, {60, 2}};
    for (const auto &row : rows) {
        SetUp();
        runHeldThreadsAtWaits();
        addInParallel(ip::onNode(ip::addresses(row.addresses)));
        EXPECT_EQ(ip::logStarting("4 PROTOCOL: CurIndex").size(), row.groups) << row.addresses;
        EXPECT_EQ(faults::waits(), row.addresses) << row.addresses;
        EXPECT_EQ(listed().size(), row.addresses) << row.addresses;
        EXPECT_EQ(ip::completions(), 0) << row.addresses;
    }
}

TEST_F(IpAddition, AnAddressThatDoesNotWorkIsSkipped)
{
    addInParallel({{3, "10.0.0.1", false}});
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(fake::heldThreads(), 0U);
    EXPECT_EQ(g_needRetry, 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: The current ip:10.0.0.1 is invalid"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrAddNewIpInParallel"));
}

TEST_F(IpAddition, AKnownAddressStartsNoThreadAndAsksForTheRetry)
{
    setHook(1);
    NasIpMgrAddToList("10.0.0.1", 3, 61);
    addInParallel(ip::onNode({"10.0.0.1"}));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_EQ(fake::heldThreads(), 0U);
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.1 2"));
}

TEST_F(IpAddition, AKnownAddressOfAnotherTypeStartsAThread)
{
    runHeldThreadsAtWaits();
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    addInParallel(ip::onNode({"10.0.0.1"}, 4));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.1 4 63"));
    EXPECT_EQ(g_needRetry, 0);
}

TEST_F(IpAddition, AnEntryThatFillsItsFieldIsCutToItsWidthAndNeverAdded)
{
    runHeldThreadsAtWaits();
    const std::string cut(64, 'f');
    std::vector<fake::Address> node = {{3, cut}, {3, cut, false}, {3, std::string(64, 'e')}};
    node_ip_list *list = fake::makeIpList(node);
    list->entries[0].work_status = 0x66666666U;
    NasIpMgrAddNewIpInParallel(list);
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_THAT(ip::logStarting("6 "), ElementsAre("6 PROTOCOL: Create Thread for ip(" + cut + ")",
                                                   "6 PROTOCOL: The current ip:" + cut + " is invalid",
                                                   "6 PROTOCOL: Create Thread for ip(" + std::string(64, 'e') + ")"));
    EXPECT_THAT(
        ip::logStarting("4 "),
        ElementsAre("4 PROTOCOL: IP ADDITION Nas IP(addr " + cut + ", protoType 3) invoke add.",
                    "4 PROTOCOL: IP ADDITION Nas IP(addr " + std::string(64, 'e') + ", protoType 3) invoke add."));
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

TEST_F(IpAddition, AWaitIsRepeatedAfterASignalAndGivenUpAfterAnyOtherError)
{
    runHeldThreadsAtWaits();
    faults::failWaits({EINTR, EINTR, 0, EINVAL});
    addInParallel(ip::onNode(ip::addresses(3)));
    EXPECT_EQ(faults::waits(), 5U);
    EXPECT_EQ(ip::completions(), 1);
    EXPECT_EQ(listed().size(), 3U);
}

TEST_F(IpAddition, ThreadsThatCannotBeStartedAskForTheRetryAndAreNotWaitedFor)
{
    runHeldThreadsAtWaits();
    fake::answer("kvos_thrd_create", {0, 11, 0});
    addInParallel(ip::onNode(ip::addresses(3)));
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_EQ(faults::waits(), 2U);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 0", "10.0.0.1 3 63", "10.0.0.3 3 63"));
}

TEST_F(IpAddition, WorkWithoutMemoryAsksForTheRetryAndIsNotWaitedFor)
{
    runHeldThreadsAtWaits();
    fake::failAllocation(2);
    addInParallel(ip::onNode(ip::addresses(3)));
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_EQ(fake::heldThreads(), 2U);
    EXPECT_EQ(faults::waits(), 2U);
    EXPECT_EQ(ip::completions(), 0);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 0", "10.0.0.1 3 63", "10.0.0.3 3 63"));
    EXPECT_THAT(ip::logStarting("3 "), ElementsAre("3 PROTOCOL: malloc ipInfo failed, ip(10.0.0.2, 3)"));
    EXPECT_EQ(fake::liveBlocks(), 3U);
}

// ---- the addition thread

TEST_F(IpAddition, AnAdditionThreadPointsIntoItsStartersTextAndPostsTheSemaphore)
{
    node_ip_list *list = fake::makeIpList(ip::onNode({"10.0.0.1"}));
    EXPECT_EQ(CreateThreadForIpAdd(list->entries[0].addr, 3), 0);
    list->entries[0].addr[7] = '2';
    EXPECT_EQ(ip::completions(), 0);
    EXPECT_FALSE(fake::runThread(0));
    EXPECT_EQ(ip::completions(), 1);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63"));
    EXPECT_EQ(fake::liveBlocks("CreateThreadForIpAdd"), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: IP ADDITION Nas IP(addr 10.0.0.2, protoType 3) invoke add."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrAddNewIpInThread"));
}

TEST_F(IpAddition, AnAdditionThreadRecordsAnAddressThatNobodyTook)
{
    EXPECT_EQ(CreateThreadForIpAdd("nas.example", 0xFFFFFFFFU), 0);
    fake::runThread(0);
    EXPECT_EQ(ip::completions(), 1);
    EXPECT_THAT(listed(), ElementsAre("nas.example 4294967295 0"));
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: Nas IP(addr nas.example, protoType 4294967295) invoke add failed(1).");
}

TEST_F(IpAddition, WithoutMemoryForItsWorkTheAddressIsListedForTheRetry)
{
    fake::failAllocation(1);
    EXPECT_EQ(CreateThreadForIpAdd("10.0.0.1", 3), 1);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 0"));
    EXPECT_EQ(fake::heldThreads(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: malloc ipInfo failed, ip(10.0.0.1, 3)"));
}

TEST_F(IpAddition, WithoutAThreadTheAddressIsListedForTheRetryAndItsWorkNotFreed)
{
    setHook(2);
    fake::answer("kvos_thrd_create", {-11});
    EXPECT_EQ(CreateThreadForIpAdd("10.0.0.1", 3), -11);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 0"));
    EXPECT_EQ(fake::liveBlocks("CreateThreadForIpAdd"), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Create listen sock for ip(10.0.0.1, 3) failed, ret:-11."));
    NasRetryPendingAddNotification();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_THAT(hooks().told, ElementsAre("2 0 10.0.0.1 2"));
}

TEST_F(IpAddition, ANullAddressStartsNothing)
{
    EXPECT_EQ(CreateThreadForIpAdd(nullptr, 3), 1);
    EXPECT_THAT(fake::calls("kvos_thrd_create"), IsEmpty());
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: addr is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(IpAddition, WorkWithoutAddressOrSemaphoreIsFreedWithoutHarm)
{
    auto *work = static_cast<ip_add_work *>(nas_mem_comm_zalloc(sizeof(ip_add_work), "test", 0));
    EXPECT_EQ(NasIpMgrAddNewIpInThread(work), nullptr);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(listed(), IsEmpty());
}

// ---- deletion

TEST_F(IpAddition, ADeletionTellsTheModulesAndRemovesTheRecords)
{
    fake::setTime(4711);
    setHook(4, 5);
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("10.0.0.1", 4, 63);
    hooks().during = [] {
        EXPECT_EQ(g_ipChangeTime, 4711U);
        EXPECT_FALSE(ip::isFree(&g_ipSockIpLockMutex));
        EXPECT_EQ(listed().size(), 2U);
    };
    EXPECT_EQ(NasIpMgrDeleteOldIPInner("10.0.0.1", 3), 0);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 4 63"));
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_THAT(
        fake::log(),
        ElementsAre("6 PROTOCOL: IP DELETION 10.0.0.1.",
                    "6 PROTOCOL: Nas module(4) IP[addr 10.0.0.1, protoType 3] event[1] need invoke[status 15].",
                    "3 PROTOCOL: Nas module(4) IP(addr 10.0.0.1, protoType 3) event(1) invoke(status 15) fail(5).",
                    "class 0 PROTOCOL: Delete nas IP(addr 10.0.0.1, protoType 3, status 63).",
                    "6 PROTOCOL: IP DELETION 10.0.0.1 finish."));
}

TEST_F(IpAddition, AnAddressThatIsNotListedIsToldAsDeletedAllTheSame)
{
    setHook(0);
    setHook(5);
    EXPECT_EQ(NasIpMgrDeleteOldIPInner("10.0.0.1", 3), 0);
    EXPECT_THAT(hooks().told, ElementsAre("0 1 10.0.0.1 2", "5 1 10.0.0.1 2"));
}

TEST_F(IpAddition, ADeletionThatTheModulesCannotBeToldOfStillRemovesTheRecord)
{
    NasIpMgrAddToList("nas.example", 3, 0);
    EXPECT_EQ(NasIpMgrDeleteOldIPInner("nas.example", 3), 0);
    EXPECT_THAT(listed(), IsEmpty());
}

} // namespace
