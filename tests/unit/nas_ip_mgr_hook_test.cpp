#include "nas_ip_mgr_fixture.h"

using ip::hooks;
using ip::listed;
using ip::setHook;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using IpHooks = ip::IpManager;

uint32_t invoke(uint32_t event, const char *addr, uint32_t &mask)
{
    return NasIpMgrInvokeEvent(event, addr, 3, &mask, 0);
}

TEST_F(IpHooks, ModulesUpTo5RegisterAHookAndOthersAreRefused)
{
    EXPECT_EQ(NasIpMgrRegisterIpEvent(5, ip::kHooks[5]), 0U);
    EXPECT_EQ(NasIpMgrRegisterIpEvent(6, ip::kHooks[0]), 1U);
    EXPECT_EQ(g_pIpEventCallBacks[5], ip::kHooks[5]);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Module(5) regist IP event hook success.",
                                         "3 PROTOCOL: Module(6) regist IP event hook failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrRegisterIpEvent", "NasIpMgrRegisterIpEvent"));
}

TEST_F(IpHooks, ALaterRegistrationReplacesAnEarlierOneAndNullClearsIt)
{
    NasIpMgrRegisterIpEvent(2, ip::kHooks[0]);
    NasIpMgrRegisterIpEvent(2, ip::kHooks[2]);
    EXPECT_EQ(g_pIpEventCallBacks[2], ip::kHooks[2]);
    EXPECT_EQ(NasIpMgrRegisterIpEvent(2, nullptr), 0U);
    EXPECT_EQ(g_pIpEventCallBacks[2], nullptr);
}

TEST_F(IpHooks, AMaskHasABitForEachOfTheSixModules)
{
    uint32_t mask = 0;
    for (uint32_t module = 0; module < 6; ++module) {
        EXPECT_EQ(AlreadyNotified(module, mask), 0U) << module;
        SetNotificationSuccess(module, &mask);
        EXPECT_EQ(AlreadyNotified(module, mask), 1U) << module;
    }
    EXPECT_EQ(mask, 63U);
}

TEST_F(IpHooks, AnyOtherModuleHasNoBit)
{
    uint32_t mask = 0;
    for (const uint32_t module : {6U, 31U, 32U, 0xFFFFFFFFU}) {
        SetNotificationSuccess(module, &mask);
        EXPECT_EQ(AlreadyNotified(module, 0xFFFFFFFFU), 0U) << module;
    }
    EXPECT_EQ(mask, 0U);
}

TEST_F(IpHooks, WithoutAMaskNothingIsSetAndNoHookIsCalled)
{
    setHook(0);
    SetNotificationSuccess(0, nullptr);
    EXPECT_EQ(NasIpMgrInvokeEvent(0, "10.0.0.1", 3, nullptr, 0), 1U);
    EXPECT_THAT(hooks().told, IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: mask is NULL, return !!!!!!!!!!!!",
                                         "3 PROTOCOL: mask is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(IpHooks, WithoutAnyHookAllModulesCountAsTold)
{
    uint32_t mask = 0;
    EXPECT_EQ(invoke(0, "10.0.0.1", mask), 0U);
    EXPECT_EQ(mask, 63U);
    EXPECT_THAT(fake::log(), IsEmpty());
    EXPECT_THAT(fake::calls("ModuleNeedInvokeAdapter"), IsEmpty());
}

TEST_F(IpHooks, HooksAreCalledInOrderWithEventAddressAndFamily)
{
    setHook(4);
    setHook(1);
    uint32_t mask = 0;
    EXPECT_EQ(invoke(1, "fe80::1", mask), 0U);
    EXPECT_EQ(mask, 63U);
    EXPECT_THAT(hooks().told, ElementsAre("1 1 fe80::1 10", "4 1 fe80::1 10"));
    EXPECT_THAT(
        fake::log(),
        ElementsAre("6 PROTOCOL: Nas module(1) IP[addr fe80::1, protoType 3] event[1] need invoke[status 1].",
                    "6 PROTOCOL: Nas module(4) IP[addr fe80::1, protoType 3] event[1] need invoke[status 15]."));
}

TEST_F(IpHooks, AModuleThatDoesNotServeTheTypeCountsAsTold)
{
    setHook(0);
    setHook(1);
    fake::answer("ModuleNeedInvokeAdapter", {0, 1});
    uint32_t mask = 0;
    invoke(0, "10.0.0.1", mask);
    EXPECT_EQ(mask, 63U);
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.1 2"));
    EXPECT_THAT(fake::calls(), ElementsAre("ModuleNeedInvokeAdapter(0, 3)", "ModuleNeedInvokeAdapter(1, 3)"));
}

TEST_F(IpHooks, AModuleThatWasToldIsNeitherAskedForNorCalled)
{
    setHook(0);
    setHook(1);
    uint32_t mask = 1;
    invoke(0, "10.0.0.1", mask);
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.1 2"));
    EXPECT_THAT(fake::calls(), ElementsAre("ModuleNeedInvokeAdapter(1, 3)"));
}

TEST_F(IpHooks, AFailingHookLeavesItsBitClearAsksForTheRetryAndStopsNobody)
{
    setHook(2, 7);
    setHook(5);
    uint32_t mask = 0;
    EXPECT_EQ(invoke(0, "10.0.0.1", mask), 0U);
    EXPECT_EQ(mask, 59U);
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_THAT(hooks().told, ElementsAre("2 0 10.0.0.1 2", "5 0 10.0.0.1 2"));
    EXPECT_THAT(
        fake::log(),
        ElementsAre("6 PROTOCOL: Nas module(2) IP[addr 10.0.0.1, protoType 3] event[0] need invoke[status 3].",
                    "3 PROTOCOL: Nas module(2) IP(addr 10.0.0.1, protoType 3) event(0) invoke(status 3) fail(7).",
                    "6 PROTOCOL: Nas module(5) IP[addr 10.0.0.1, protoType 3] event[0] need invoke[status 27]."));
}

TEST_F(IpHooks, AnAddressOfNoFamilyTellsNobodyAndChangesNoBit)
{
    setHook(0);
    uint32_t mask = 4;
    EXPECT_EQ(invoke(0, "nas.example", mask), 1U);
    EXPECT_EQ(invoke(0, nullptr, mask), 1U);
    EXPECT_EQ(mask, 4U);
    EXPECT_EQ(g_needRetry, 0);
    EXPECT_THAT(hooks().told, IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Invalid nas IP(addr nas.example, protoType 3).",
                                         "3 PROTOCOL: Invalid nas IP(addr (null), protoType 3)."));
}

TEST_F(IpHooks, WithoutFloatingAddressesNobodyIsToldAndNoBitIsSet)
{
    setHook(0);
    g_floatIpSupport = 0;
    uint32_t mask = 0;
    EXPECT_EQ(invoke(0, "10.0.0.1", mask), 0U);
    EXPECT_EQ(invoke(0, "nas.example", mask), 0U);
    EXPECT_EQ(mask, 0U);
    EXPECT_THAT(hooks().told, IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpHooks, TheRetryTellsOnlyTheModulesThatHaveNotAccepted)
{
    setHook(0);
    setHook(2, 1);
    NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 59"));
    hooks().told.clear();
    hooks().results[2] = 0;
    NasRetryPendingAddNotification();
    EXPECT_THAT(hooks().told, ElementsAre("2 0 10.0.0.1 2"));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    NasRetryPendingAddNotification();
    EXPECT_THAT(hooks().told, ElementsAre("2 0 10.0.0.1 2"));
}

TEST_F(IpHooks, TheRetryGoesThroughTheListInOrderWithItsMutexHeld)
{
    setHook(1);
    NasIpMgrAddToList("10.0.0.2", 3, 0);
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("fe80::1", 4, 61);
    hooks().during = [] { EXPECT_FALSE(ip::isFree(&g_ipListMutex)); };
    NasRetryPendingAddNotification();
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.2 2", "1 0 fe80::1 10"));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63", "10.0.0.1 3 63", "fe80::1 4 63"));
}

TEST_F(IpHooks, AHookRegisteredLaterDoesNotReachAddressesThatAreComplete)
{
    NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3);
    setHook(1);
    NasRetryPendingAddNotification();
    EXPECT_THAT(hooks().told, IsEmpty());
}

TEST_F(IpHooks, WithoutFloatingAddressesTheRetryVisitsRecordsWithoutEffect)
{
    setHook(1);
    g_floatIpSupport = 0;
    NasIpMgrAddNewIPWithoutLock("10.0.0.1", 3);
    NasRetryPendingAddNotification();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 0"));
    EXPECT_THAT(hooks().told, IsEmpty());
}

} // namespace
