#include "nas_ip_mgr_fixture.h"

using ip::hooks;
using ip::listed;
using ip::setHook;
using ip::Texts;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

class IpEvents : public ip::IpManager {
protected:
    void SetUp() override
    {
        IpManager::SetUp();
        start();
    }
};

NasIpEvent *take()
{
    return NasIpMgr_GetEventEntry();
}

TEST_F(IpEvents, EventsAreTakenInTheOrderInWhichTheyWereQueued)
{
    NasIpEvent *first = NasIpMgr_CreateEvent("10.0.0.1", 0, 3);
    NasIpEvent *second = NasIpMgr_CreateEvent("10.0.0.2", 1, 4);
    NasIpMgr_AddEvent(first);
    NasIpMgr_AddEvent(second);
    EXPECT_EQ(take(), first);
    EXPECT_EQ(take(), second);
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(first->link.next, &first->link);
    EXPECT_EQ(first->link.prev, &first->link);
    EXPECT_STREQ(second->addr, "10.0.0.2");
    EXPECT_EQ(second->type, 1U);
    EXPECT_EQ(second->protoType, 4U);
    NasIpMgr_ReleaseEvent(first);
    NasIpMgr_ReleaseEvent(second);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IpEvents, NoticesAreTakenInTheOrderInWhichTheyWereQueued)
{
    NasIpNotifyEvent *first = NasIpMgr_CreateNotifyEvent(7, 2);
    NasIpNotifyEvent *second = NasIpMgr_CreateNotifyEvent(9, 1);
    NasIpMgr_AddNotifyEvent(first);
    NasIpMgr_AddNotifyEvent(second);
    EXPECT_EQ(NasIpMgr_GetNotifyEventEntry(), first);
    EXPECT_EQ(NasIpMgr_GetNotifyEventEntry(), second);
    EXPECT_EQ(NasIpMgr_GetNotifyEventEntry(), nullptr);
    EXPECT_EQ(second->tenantId, 9U);
    EXPECT_EQ(second->eventType, 1U);
    NasIpMgr_ReleaseNotifyEvent(first);
    NasIpMgr_ReleaseNotifyEvent(second);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

// A queue's lock, by which it is known here.
template <typename Take>
kvos_spinlock_t *lockOf(Take takeFrom)
{
    takeFrom();
    return fake::lastSpinLock();
}

TEST_F(IpEvents, TheStartInitialisesBothQueuesLocks)
{
    kvos_spinlock_t *events = lockOf(NasIpMgr_GetEventEntry);
    kvos_spinlock_t *notices = lockOf(NasIpMgr_GetNotifyEventEntry);
    ASSERT_NE(events, notices);
    for (kvos_spinlock_t *lock : {events, notices}) {
        ASSERT_NE(lock, nullptr);
        *lock = {1, 2, 3, 4};
    }
    start();
    for (const kvos_spinlock_t *lock : {events, notices}) {
        EXPECT_EQ(lock->lock, 0U);
        EXPECT_EQ(lock->magic, 0xDEAD4EADU);
        EXPECT_EQ(lock->owner_cpu, 0xFFFFFFFFU);
        EXPECT_EQ(lock->owner, ~uint64_t{0});
    }
}

// Whether a record stands in a queue, whenever a lock was just taken or is about to be released.
template <typename Event>
std::function<void(const std::string &)> watch(const Event *ev, Texts &seen)
{
    return [ev, &seen](const std::string &func) {
        seen.push_back(func + (ev->link.next != &ev->link ? " queued" : " alone"));
    };
}

TEST_F(IpEvents, RecordsAreLinkedAndUnlinkedUnderTheirQueuesLock)
{
    Texts events;
    Texts notices;
    NasIpEvent *ev = NasIpMgr_CreateEvent("10.0.0.1", 0, 3);
    NasIpNotifyEvent *notice = NasIpMgr_CreateNotifyEvent(7, 2);
    fake::duringLocks(watch(ev, events));
    NasIpMgr_AddEvent(ev);
    take();
    fake::duringLocks(watch(notice, notices));
    NasIpMgr_AddNotifyEvent(notice);
    NasIpMgr_GetNotifyEventEntry();
    const Texts expected = {"do_kvos_spinlock_lock alone", "do_kvos_spinlock_unlock queued",
                            "do_kvos_spinlock_lock queued", "do_kvos_spinlock_unlock alone"};
    EXPECT_EQ(events, expected);
    EXPECT_EQ(notices, expected);
    NasIpMgr_ReleaseEvent(ev);
    NasIpMgr_ReleaseNotifyEvent(notice);
}

TEST_F(IpEvents, NullEventsAreNeitherQueuedNorFreed)
{
    NasIpMgr_AddEvent(nullptr);
    NasIpMgr_AddNotifyEvent(nullptr);
    NasIpMgr_ReleaseEvent(nullptr);
    NasIpMgr_ReleaseNotifyEvent(nullptr);
    EXPECT_EQ(take(), nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ev is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: ev is NULL, return !!!!!!!!!!!!"));
}

TEST_F(IpEvents, AnAdditionIsReportedAndQueued)
{
    EXPECT_EQ(NasIpMgrAddNewIP("10.0.0.1", 3), 0U);
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: IpEvent :10.0.0.1.", "4 PROTOCOL: Add event ip(10.0.0.1), type:3."));
    EXPECT_THAT(fake::logFuncs(), Each("NasIpMgrAddNewIP"));
    NasIpEvent *ev = take();
    ASSERT_NE(ev, nullptr);
    EXPECT_STREQ(ev->addr, "10.0.0.1");
    EXPECT_EQ(ev->type, NAS_IP_EVENT_ADD);
    EXPECT_EQ(ev->protoType, 3U);
    EXPECT_EQ(fake::logLines().front().file, "nas_ip_mgr_event.cpp");
}

TEST_F(IpEvents, ADeletionIsReportedAndQueued)
{
    EXPECT_EQ(NasIpMgrDeleteOldIP("fe80::1", 4), 0U);
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: IpEvent :fe80::1.", "4 PROTOCOL: Add del event over, ip(fe80::1), type:4."));
    EXPECT_THAT(fake::logFuncs(), Each("NasIpMgrDeleteOldIP"));
    NasIpEvent *ev = take();
    ASSERT_NE(ev, nullptr);
    EXPECT_EQ(ev->type, NAS_IP_EVENT_DELETE);
    EXPECT_EQ(ev->protoType, 4U);
}

TEST_F(IpEvents, ANoticeIsReportedAndQueuedWhateverItsTenant)
{
    EXPECT_EQ(NasIpMgrAddNewNotifyEvent(70000, 2), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Add notify event over, tenantID(70000), eventType(2)."));
    EXPECT_NE(NasIpMgr_GetNotifyEventEntry(), nullptr);
}

TEST_F(IpEvents, AProducerWithoutMemoryReturns1AndQueuesNothing)
{
    for (const auto &produce :
         {+[] { return NasIpMgrAddNewIP("10.0.0.1", 3); }, +[] { return NasIpMgrDeleteOldIP("10.0.0.1", 3); },
          +[] { return NasIpMgrAddNewNotifyEvent(7, 2); }}) {
        fake::failAllocation(1);
        EXPECT_EQ(produce(), 1U);
    }
    EXPECT_EQ(take(), nullptr);
    EXPECT_EQ(NasIpMgr_GetNotifyEventEntry(), nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: IpEvent :10.0.0.1.", "6 PROTOCOL: IpEvent :10.0.0.1."));
}

TEST_F(IpEvents, AnAddressOf46CharactersOrNoneAtAllIsNotQueued)
{
    const std::string longest(45, 'a');
    const std::string tooLong(46, 'a');
    EXPECT_EQ(NasIpMgrAddNewIP(longest.c_str(), 3), 0U);
    EXPECT_EQ(NasIpMgrAddNewIP(tooLong.c_str(), 3), 1U);
    EXPECT_EQ(NasIpMgrAddNewIP(nullptr, 3), 1U);
    EXPECT_EQ(NasIpMgrDeleteOldIP(nullptr, 3), 1U);
    EXPECT_EQ(fake::liveBlocks("NasIpMgr_CreateEvent"), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: IpEvent :" + longest + ".",
                                         "4 PROTOCOL: Add event ip(" + longest + "), type:3.",
                                         "6 PROTOCOL: IpEvent :" + tooLong + ".", "6 PROTOCOL: IpEvent :(null).",
                                         "6 PROTOCOL: IpEvent :(null)."));
}

// ---- notices

TEST_F(IpEvents, NoticesOfOneTenantAreMergedAndTheLargestKindWins)
{
    NasIpMgrAddNewNotifyEvent(7, 2);
    NasIpMgrAddNewNotifyEvent(7, 5);
    NasIpMgrAddNewNotifyEvent(7, 3);
    NasIpMgrAddNewNotifyEvent(9, 1);
    fake::answerAlways("NasAuthAgentNsNotifyLifChange", -5);
    NasIpMgrNotifyEventHandle();
    EXPECT_THAT(fake::calls("NasAuthAgentNsNotifyLifChange"), ElementsAre("NasAuthAgentNsNotifyLifChange(2)"));
    EXPECT_THAT(fake::notifiedTenants(), ElementsAre(Pair(7, 5), Pair(9, 1)));
    EXPECT_EQ(fake::log().back(), "6 PROTOCOL: notify tenants count(2) lif change result(-5)");
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrNotifyEventHandle");
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IpEvents, TheHostGetsAFlagOf1AndTheKindOfEachTenantAndZeroForAllOthers)
{
    NasIpMgrAddNewNotifyEvent(7, 2);
    NasIpMgrAddNewNotifyEvent(7, 5);
    NasIpMgrAddNewNotifyEvent(1024, 6);
    NasIpMgrNotifyEventHandle();
    const std::vector<tenant_change> table = fake::notifiedTable();
    ASSERT_EQ(table.size(), 1025U);
    for (size_t tenant = 0; tenant < table.size(); ++tenant) {
        const bool told = tenant == 7 || tenant == 1024;
        EXPECT_EQ(table[tenant].changed, told ? 1U : 0U) << tenant;
        EXPECT_EQ(table[tenant].event_type, tenant == 7 ? 5U : told ? 6U : 0U) << tenant;
    }
}

TEST_F(IpEvents, KindsAreComparedAsUnsignedNumbersAndKind0IsANoticeToo)
{
    NasIpMgrAddNewNotifyEvent(0, 0);
    NasIpMgrAddNewNotifyEvent(1, 5);
    NasIpMgrAddNewNotifyEvent(1, 0xFFFFFFFFU);
    NasIpMgrNotifyEventHandle();
    EXPECT_THAT(fake::notifiedTenants(), ElementsAre(Pair(0, 0), Pair(1, 0xFFFFFFFFU)));
}

TEST_F(IpEvents, Tenant1024IsDeliveredAndTenant1025Dropped)
{
    NasIpMgrAddNewNotifyEvent(1025, 2);
    NasIpMgrAddNewNotifyEvent(1024, 3);
    NasIpMgrNotifyEventHandle();
    EXPECT_THAT(fake::notifiedTenants(), ElementsAre(Pair(1024, 3)));
    EXPECT_THAT(ip::logStarting("3 "), ElementsAre("3 PROTOCOL: invalid tenantid(1025)"));
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IpEvents, WithoutAValidNoticeTheHostIsNotCalled)
{
    NasIpMgrNotifyEventHandle();
    NasIpMgrAddNewNotifyEvent(1025, 2);
    NasIpMgrNotifyEventHandle();
    EXPECT_THAT(fake::calls("NasAuthAgentNsNotifyLifChange"), IsEmpty());
}

TEST_F(IpEvents, ATableThatCannotBeClearedLeavesTheNoticesQueued)
{
    NasIpMgrAddNewNotifyEvent(7, 2);
    faults::failClear(1, 406);
    NasIpMgrNotifyEventHandle();
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: handle notify event, memset error(406)");
    EXPECT_THAT(fake::calls("NasAuthAgentNsNotifyLifChange"), IsEmpty());
    NasIpMgrNotifyEventHandle();
    EXPECT_THAT(fake::notifiedTenants(), ElementsAre(Pair(7, 2)));
}

// ---- the handler thread

TEST_F(IpEvents, AnIdleHandlerSleeps50Milliseconds)
{
    EXPECT_TRUE(runHandler(2));
    EXPECT_THAT(fake::calls("kvos_msleep"), ElementsAre("kvos_msleep(50)", "kvos_msleep(50)"));
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: Nas ip mgr events handle start, with service status(1)."));
}

TEST_F(IpEvents, AnAdditionTakesTheWholeRoadToTheList)
{
    setHook(1);
    NasIpMgrAddNewIP("10.0.0.1", 3);
    runHandler();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_EQ(fake::liveBlocks(), 1U);
    EXPECT_THAT(fake::log(),
                ElementsAre("6 PROTOCOL: IpEvent :10.0.0.1.", "4 PROTOCOL: Add event ip(10.0.0.1), type:3.",
                            "class 1 PROTOCOL: Nas ip mgr events handle start, with service status(1).",
                            "6 PROTOCOL: Handle event ip:10.0.0.1, type:0, protocol_type:3.",
                            "6 PROTOCOL: IP ADDITION Nas IP(addr 10.0.0.1, protoType 3) invoke add.",
                            "6 PROTOCOL: Nas module(1) IP[addr 10.0.0.1, protoType 3] event[0] need invoke[status 1].",
                            "class 1 PROTOCOL: Add ip without lock, ip:10.0.0.1, protoType:3"));
}

TEST_F(IpEvents, SixAdditionsGoOneByOneAndSevenAsABatch)
{
    for (const size_t count : {size_t{6}, size_t{7}}) {
        SetUp();
        runHeldThreadsAtWaits();
        for (const auto &addr : ip::addresses(count)) {
            NasIpMgrAddNewIP(addr.c_str(), 3);
        }
        runHandler();
        EXPECT_THAT(listed(), testing::ElementsAreArray(ip::withEnding(ip::addresses(count), " 3 63")));
        EXPECT_EQ(fake::heldThreads(), count == 6 ? 2U : 9U);
        EXPECT_EQ(ip::logStarting("class 1 PROTOCOL: Add ip without lock").size(), count == 6 ? 6U : 0U);
        EXPECT_EQ(ip::logStarting("class 1 PROTOCOL: Add ip batch inner finish.").size(), count == 6 ? 0U : 1U);
        EXPECT_EQ(fake::liveBlocks(), count);
    }
}

TEST_F(IpEvents, ADeletionOvertakesTheAdditionsThatWait)
{
    setHook(0);
    NasIpMgrAddNewIP("10.0.0.1", 3);
    NasIpMgrDeleteOldIP("10.0.0.1", 3);
    runHandler();
    EXPECT_THAT(hooks().told, ElementsAre("0 1 10.0.0.1 2", "0 0 10.0.0.1 2"));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

TEST_F(IpEvents, AdditionsAroundADeletionAreStillOneBatch)
{
    runHeldThreadsAtWaits();
    const auto addrs = ip::addresses(7);
    for (size_t i = 0; i < addrs.size(); ++i) {
        NasIpMgrAddNewIP(addrs[i].c_str(), 3);
        if (i == 3) {
            NasIpMgrDeleteOldIP("10.9.9.9", 3);
        }
    }
    runHandler();
    EXPECT_EQ(ip::logStarting("class 1 PROTOCOL: Add ip batch inner finish.").size(), 1U);
    EXPECT_EQ(listed().size(), 7U);
}

TEST_F(IpEvents, AdditionsAfterAnIdleMomentAreCountedAnew)
{
    int sleeps = 0;
    fake::during("kvos_msleep", [&] {
        if (++sleeps == 2) {
            throw fake::Stop{};
        }
        for (const auto &addr : ip::addresses(4, 1)) {
            NasIpMgrAddNewIP(addr.c_str(), 3);
        }
    });
    for (const auto &addr : ip::addresses(4)) {
        NasIpMgrAddNewIP(addr.c_str(), 3);
    }
    fake::runUntilStopped([] { NasIpMgrIpEventHandle(nullptr); });
    EXPECT_EQ(ip::logStarting("class 1 PROTOCOL: Add ip without lock").size(), 8U);
    EXPECT_EQ(listed().size(), 8U);
}

TEST_F(IpEvents, NoticesAreDrainedBeforeEverySingleEvent)
{
    setHook(0);
    hooks().during = [] { NasIpMgrAddNewNotifyEvent(8, 1); };
    NasIpMgrAddNewNotifyEvent(7, 1);
    NasIpMgrDeleteOldIP("10.0.0.1", 3);
    NasIpMgrDeleteOldIP("10.0.0.2", 3);
    runHandler();
    Texts order = ip::logStarting("6 PROTOCOL: ");
    std::erase_if(order, [](const std::string &line) {
        return line.find("notify tenants") == std::string::npos && line.find("Handle event") == std::string::npos;
    });
    const std::string drained = "6 PROTOCOL: notify tenants count(1) lif change result(0)";
    EXPECT_THAT(order, ElementsAre(drained, "6 PROTOCOL: Handle event ip:10.0.0.1, type:1, protocol_type:3.", drained,
                                   "6 PROTOCOL: Handle event ip:10.0.0.2, type:1, protocol_type:3.", drained));
}

TEST_F(IpEvents, AnEventOfAnUnknownTypeIsNeitherHandledNorFreed)
{
    setHook(0);
    NasIpMgr_AddEvent(NasIpMgr_CreateEvent("10.0.0.1", 2, 3));
    NasIpMgrAddNewIP("10.0.0.2", 3);
    runHandler();
    EXPECT_EQ(fake::liveBlocks("NasIpMgr_CreateEvent"), 1U);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63"));
    EXPECT_THAT(hooks().told, ElementsAre("0 0 10.0.0.2 2"));
    EXPECT_THAT(ip::logStarting("6 PROTOCOL: Handle event"),
                ElementsAre("6 PROTOCOL: Handle event ip:10.0.0.1, type:2, protocol_type:3.",
                            "6 PROTOCOL: Handle event ip:10.0.0.2, type:0, protocol_type:3."));
}

TEST_F(IpEvents, AnAddressThatFillsItsFieldIsCutToItsWidth)
{
    const std::string cut(46, 'f');
    for (const uint32_t type : {NAS_IP_EVENT_DELETE, NAS_IP_EVENT_ADD}) {
        NasIpEvent *ev = NasIpMgr_CreateEvent("x", type, 3);
        ip::fillUpTo(ev, offsetof(NasIpEvent, addr), offsetof(NasIpEvent, type), 'f');
        NasIpMgr_AddEvent(ev);
    }
    runHandler();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(ip::logStarting("3 "),
                ElementsAre("3 PROTOCOL: Invalid nas IP(addr " + cut + ", protoType 3).",
                            "3 PROTOCOL: Invalid nas IP(addr " + cut + ", protoType 3).",
                            "3 PROTOCOL: Nas IP(addr " + cut + ", protoType 3) invoke add failed(1).",
                            "3 PROTOCOL: Add ip(" + cut + ", 3) failed, ret 1."));
    EXPECT_THAT(ip::logStarting("6 PROTOCOL: IP DELETION"),
                ElementsAre("6 PROTOCOL: IP DELETION " + cut + ".", "6 PROTOCOL: IP DELETION " + cut + " finish."));
}

TEST_F(IpEvents, ABatchWithoutMemoryLosesItsEvents)
{
    for (const auto &addr : ip::addresses(7)) {
        NasIpMgrAddNewIP(addr.c_str(), 3);
    }
    fake::failAllocation(1);
    runHandler(2);
    EXPECT_THAT(ip::logStarting("3 "), ElementsAre("3 PROTOCOL: Alloc mem for batch add Ip failed, lost cnt:7."));
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks("NasIpMgr_CreateEvent"), 7U);
}

TEST_F(IpEvents, TheReservedSemaphoreIsThere)
{
    EXPECT_EQ(sem_init(&g_sema, 0, 1), 0);
    EXPECT_EQ(sem_trywait(&g_sema), 0);
}

} // namespace
