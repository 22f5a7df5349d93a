#include "nas_ip_mgr_fixture.h"

#include <cstring>

using ip::hooks;
using ip::listed;
using ip::setHook;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

std::string s_periodTold;

class IpMonitor : public ip::IpManager {
protected:
    void SetUp() override
    {
        IpManager::SetUp();
        s_periodTold = "nothing";
        nas_lifport_info_init();
        runHeldThreadsAtWaits();
    }

    static size_t blocksBesideLifTable() { return fake::liveBlocks() - 1; }
};

// ---- start

TEST_F(IpMonitor, StartSetsTheModuleUpAndStartsTheMonitorThenTheHandler)
{
    fake::during("RegisterSysCtrlCmd", [] {
        EXPECT_EQ(g_nasipMgrInitied, 1);
        EXPECT_EQ(g_needRetry, 1);
        EXPECT_NE(g_setPeriodNotifyFunc, nullptr);
        EXPECT_EQ(ip::completions(), 0);
    });
    sem_post(&g_SockIpSem);
    EXPECT_EQ(NasIpMgrInitModule([](const char *) {}), 0);
    EXPECT_THAT(fake::calls(), ElementsAre("RegisterSysCtrlCmd()", "kvos_thrd_create()", "kvos_thrd_create()"));
    EXPECT_EQ(g_ip_monitor_thread_id, 1U);
    EXPECT_EQ(g_ip_event_thread_id, 2U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpMonitor, TheThreadsRunMonitorAndHandler)
{
    NasIpMgrInitModule(nullptr);
    fake::during("kvos_10msleep", [] { throw fake::Stop{}; });
    fake::during("kvos_msleep", [] { throw fake::Stop{}; });
    fake::runThread(0);
    EXPECT_EQ(fake::log().front(), "class 1 PROTOCOL: Nas ip mgr status monitor start.");
    fake::runThread(1);
    EXPECT_EQ(fake::log().back(), "class 1 PROTOCOL: Nas ip mgr events handle start, with service status(1).");
}

TEST_F(IpMonitor, ASecondStartReturns0AndStartsNothing)
{
    NasIpMgrInitModule(nullptr);
    g_needRetry = 0;
    EXPECT_EQ(NasIpMgrInitModule([](const char *) {}), 0);
    EXPECT_EQ(fake::heldThreads(), 2U);
    EXPECT_EQ(fake::calls("RegisterSysCtrlCmd").size(), 1U);
    EXPECT_EQ(g_needRetry, 0);
    EXPECT_EQ(g_setPeriodNotifyFunc, nullptr);
}

TEST_F(IpMonitor, WithoutAMonitorThreadTheStartFailsAndIsNotTriedAgain)
{
    fake::answer("kvos_thrd_create", {-11});
    EXPECT_EQ(NasIpMgrInitModule(nullptr), -11);
    EXPECT_EQ(fake::calls("kvos_thrd_create").size(), 1U);
    EXPECT_EQ(NasIpMgrInitModule(nullptr), 0);
    EXPECT_EQ(fake::calls("kvos_thrd_create").size(), 1U);
}

TEST_F(IpMonitor, WithoutAHandlerThreadTheStartFailsWithTheMonitorRunning)
{
    fake::answer("kvos_thrd_create", {0, -12});
    EXPECT_EQ(NasIpMgrInitModule(nullptr), -12);
    EXPECT_EQ(fake::heldThreads(), 1U);
    EXPECT_EQ(NasIpMgrInitModule(nullptr), 0);
    EXPECT_EQ(fake::heldThreads(), 1U);
}

// ---- period

TEST_F(IpMonitor, PeriodsOf1To600SecondsAreAccepted)
{
    const struct {
        const char *text;
        uint32_t period; // 0 = refused
    } rows[] = {{"1", 1},   {"600", 600}, {"30s", 30}, {" 7", 7},         {"+8", 8},
                {"601", 0}, {"0", 0},     {"-5", 0},   {"abc", 0},        {"", 0},
                {"s30", 0}, {"0x10", 0},  {"1.9", 1},  {"4294967297", 0}, {"99999999999999999999", 0}};
    for (const auto &row : rows) {
        SetUp();
        g_setPeriodNotifyFunc = [](const char *text) { s_periodTold = text; };
        EXPECT_EQ(NasIpMgrSetIpQueryPeriod(row.text), row.period == 0 ? 1 : 0) << row.text;
        EXPECT_EQ(g_periodLength, row.period == 0 ? 60 : row.period) << row.text;
        EXPECT_EQ(s_periodTold, row.period == 0 ? "nothing" : row.text) << row.text;
        const auto refused = ElementsAre("3 PROTOCOL: Period Length Error " + std::string(row.text) + ".");
        if (row.period == 0) {
            EXPECT_THAT(fake::log(), refused) << row.text;
        } else {
            EXPECT_THAT(fake::log(), IsEmpty()) << row.text;
        }
    }
}

TEST_F(IpMonitor, APeriodNeedsNobodyToBeToldAndNoPeriodIsRefused)
{
    EXPECT_EQ(NasIpMgrSetIpQueryPeriod("90"), 0);
    EXPECT_EQ(g_periodLength, 90U);
    EXPECT_EQ(NasIpMgrSetIpQueryPeriod(nullptr), -22);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
}

TEST_F(IpMonitor, ThePeriodIsPrintedAndCutToFit)
{
    g_periodLength = 600;
    const struct {
        uint32_t size;
        const char *text;
    } rows[] = {{1, ""}, {2, "6"}, {4, "600"}, {5, "600\n"}, {16, "600\n"}};
    for (const auto &row : rows) {
        char text[17] = "################";
        EXPECT_EQ(NasIpMgrGetIpQueryPeriod(text, row.size), static_cast<int64_t>(std::strlen(row.text))) << row.size;
        EXPECT_STREQ(text, row.text) << row.size;
        EXPECT_TRUE(text[row.size] == '#' || row.size == 16) << row.size;
    }
}

TEST_F(IpMonitor, APeriodCannotBePrintedIntoNothing)
{
    char text[] = "#";
    EXPECT_EQ(NasIpMgrGetIpQueryPeriod(nullptr, 8), -22);
    EXPECT_EQ(NasIpMgrGetIpQueryPeriod(text, 0), -22);
    EXPECT_STREQ(text, "#");
    faults::failPrint("%d\n", 1);
    EXPECT_EQ(NasIpMgrGetIpQueryPeriod(text, sizeof text), -1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: buflen less than 1 0."));
}

// ---- the monitor thread

// Runs the thread's body for so many passes; action runs in each query, told its number.
template <typename Action>
void runMonitor(int passes, Action action)
{
    int pass = 0;
    fake::during("GetCurNodeIpListAdapter", [&] { action(++pass); });
    fake::during("kvos_10msleep", [&] {
        if (pass == passes) {
            throw fake::Stop{};
        }
    });
    EXPECT_TRUE(fake::runUntilStopped([] { NasIpMgrIpStatusMonitorTask(nullptr); }));
}

TEST_F(IpMonitor, TheFirstSleepIs5SecondsAndTheNextThePeriod)
{
    NasIpMgrInitModule(nullptr);
    runMonitor(3, [](int) {});
    EXPECT_THAT(fake::calls("kvos_10msleep"),
                ElementsAre("kvos_10msleep(500)", "kvos_10msleep(6000)", "kvos_10msleep(6000)"));
}

TEST_F(IpMonitor, TheSleepIsChosenBeforeThePass)
{
    NasIpMgrSetIpQueryPeriod("2");
    runMonitor(4, [](int pass) {
        fake::answerAlways("GetCurNodeIpListAdapter", pass == 2 ? 5 : 0);
        if (pass == 3) {
            NasIpMgrSetIpQueryPeriod("600");
        }
    });
    EXPECT_THAT(fake::calls("kvos_10msleep"),
                ElementsAre("kvos_10msleep(200)", "kvos_10msleep(200)", "kvos_10msleep(500)", "kvos_10msleep(60000)"));
}

TEST_F(IpMonitor, TheRetrysSleepIs5SecondsWithTheLongestPeriodToo)
{
    NasIpMgrSetIpQueryPeriod("600");
    g_needRetry = 1;
    runMonitor(2, [](int) {});
    EXPECT_THAT(fake::calls("kvos_10msleep"), ElementsAre("kvos_10msleep(500)", "kvos_10msleep(60000)"));
}

TEST_F(IpMonitor, ANodeWhoseAddressesAreAllKnownKeepsTheShortSleep)
{
    fake::setNodeIps(ip::onNode({"10.0.0.1"}));
    runMonitor(4, [](int) {});
    EXPECT_THAT(fake::calls("kvos_10msleep"),
                ElementsAre("kvos_10msleep(6000)", "kvos_10msleep(6000)", "kvos_10msleep(500)", "kvos_10msleep(500)"));
}

// ---- one pass

TEST_F(IpMonitor, APassComparesInOrderAndFreesTheList)
{
    setHook(0);
    fake::setClock(1000);
    NasIpMgrAddToList("10.0.0.9", 3, 63);
    NasIpMgrAddToList("10.0.0.1", 3, 62);
    addLifPort(77, "127.0.0.1");
    fake::during("GetCurNodeIpListAdapter", [] {
        EXPECT_EQ(g_ipLastQueryTime, 1000U);
        fake::setClock(1250);
    });
    hooks().during = [] { EXPECT_FALSE(ip::isFree(&g_ipSockIpLockMutex)); };
    fake::setNodeIps(ip::onNode({"10.0.0.1", "10.0.0.2"}));
    const size_t before = fake::log().size();
    NasIpMgrIpStatusMonitor();
    ip::Texts log = fake::log();
    log.erase(log.begin(), log.begin() + static_cast<long>(before));
    EXPECT_THAT(log,
                ElementsAre("class 0 PROTOCOL: Total ip 2 present.",
                            "6 PROTOCOL: IP[addr 10.0.0.9, protoType 3] has been deleted.",
                            "6 PROTOCOL: Nas module(0) IP[addr 10.0.0.9, protoType 3] event[1] need invoke[status 0].",
                            "class 0 PROTOCOL: IP: addr 10.0.0.1, protoType 3 already exist.",
                            "6 PROTOCOL: Nas module(0) IP[addr 10.0.0.1, protoType 3] event[0] need invoke[status 62].",
                            "6 PROTOCOL: Create Thread for ip(10.0.0.2)",
                            "4 PROTOCOL: IP ADDITION Nas IP(addr 10.0.0.2, protoType 3) invoke add.",
                            "6 PROTOCOL: Nas module(0) IP[addr 10.0.0.2, protoType 3] event[0] need invoke[status 0].",
                            "6 PROTOCOL: Auto Detact: Ip is (127.0.0.1), lifport(id:77), don't support perf.",
                            "class 0 PROTOCOL: IpList[10.0.0.1:3:63].", "class 0 PROTOCOL: IpList[10.0.0.2:3:63].",
                            "class 0 PROTOCOL: Get cur node iplist cost 250 ms."));
    EXPECT_THAT(hooks().told, ElementsAre("0 1 10.0.0.9 2", "0 0 10.0.0.1 2", "0 0 10.0.0.2 2"));
    EXPECT_EQ(blocksBesideLifTable(), 2U);
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrIpStatusMonitor");
    EXPECT_EQ(fake::logFuncs()[before], "NasIpMgrIpStatusMonitor");
    EXPECT_EQ(fake::logLines().back().file, "nas_ip_mgr_monitor.cpp");
}

TEST_F(IpMonitor, APassClearsTheRetryFlagBeforeItsWorkAndRetriesAtItsEnd)
{
    setHook(2, 1);
    g_needRetry = 1;
    fake::setNodeIps(ip::onNode({"10.0.0.1"}));
    int calls = 0;
    hooks().during = [&] {
        EXPECT_EQ(g_needRetry, ++calls == 1 ? 0 : 1);
        hooks().results[2] = calls == 1 ? 1 : 0;
    };
    NasIpMgrIpStatusMonitor();
    EXPECT_EQ(calls, 2);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_EQ(g_needRetry, 1);
}

TEST_F(IpMonitor, AFailedQueryAsksForTheRetryAndFreesAListThatCameWithIt)
{
    NasIpMgrAddToList("10.0.0.9", 3, 63);
    fake::setNodeIps(ip::onNode({"10.0.0.1"}), 0, -5);
    NasIpMgrIpStatusMonitor();
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.9 3 63"));
    EXPECT_EQ(blocksBesideLifTable(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Get Node IP failed [-5]."));
}

TEST_F(IpMonitor, AFailedQueryWithoutAListIsHarmless)
{
    fake::setNodeIpsNull(7);
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Get Node IP failed [7]."));
}

TEST_F(IpMonitor, AnUnusableListTouchesNeitherListNorLifPortsNorRetryFlag)
{
    const struct {
        const char *name;
        bool null;
        const char *line;
    } rows[] = {{"null", true, "3 PROTOCOL: Get Node IP returned IP Info NULL."},
                {"failed query", false, "3 PROTOCOL:  query failed."}};
    for (const auto &row : rows) {
        for (const uint8_t flag : {uint8_t{0}, uint8_t{1}}) {
            SetUp();
            g_needRetry = flag;
            NasIpMgrAddToList("10.0.0.9", 3, 63);
            addLifPort(77, "127.0.0.1");
            const size_t before = fake::log().size();
            if (row.null) {
                fake::setNodeIpsNull(0);
            } else {
                fake::setNodeIps(ip::onNode({"10.0.0.1"}), 3);
            }
            NasIpMgrIpStatusMonitor();
            ip::Texts log = fake::log();
            log.erase(log.begin(), log.begin() + static_cast<long>(before));
            EXPECT_THAT(log, ElementsAre(row.line, "3 PROTOCOL: ValidateIpInfo failed [1].")) << row.name;
            EXPECT_EQ(fake::logFuncs()[before], "NasIpMgrValidateIpInfo") << row.name;
            EXPECT_THAT(listed(), ElementsAre("10.0.0.9 3 63")) << row.name;
            EXPECT_EQ(g_needRetry, flag) << row.name;
            EXPECT_EQ(fake::liveBlocks("makeIpList"), 0U) << row.name;
        }
    }
}

TEST_F(IpMonitor, AChangeInALaterTimeUnitThanTheQueryVoidsItsList)
{
    fake::setTime(100);
    g_needRetry = 1;
    fake::setNodeIps(ip::onNode({"10.0.0.1"}));
    fake::during("GetCurNodeIpListAdapter", [] {
        fake::setTime(101);
        NasIpMgrDeleteOldIPInner("10.0.0.1", 3);
    });
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(g_needRetry, 1);
    EXPECT_EQ(fake::log().back(), "6 PROTOCOL: Before IP Query return , notification received [100][101]. Ignore this "
                                  "iteration values");
    EXPECT_EQ(fake::logFuncs().back(), "NasIpMgrIpStatusMonitor");
    EXPECT_EQ(blocksBesideLifTable(), 0U);
}

TEST_F(IpMonitor, AChangeInTheSameTimeUnitAsTheQueryDoesNotVoidItsList)
{
    fake::setTime(100);
    fake::setNodeIps(ip::onNode({"10.0.0.1"}));
    fake::during("GetCurNodeIpListAdapter", [] { NasIpMgrDeleteOldIPInner("10.0.0.1", 3); });
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
}

TEST_F(IpMonitor, AnAddressThatVanishedIsDeletedAndToldAtTheNextValidPass)
{
    setHook(1);
    fake::setNodeIps(ip::onNode({"10.0.0.1", "10.0.0.2"}));
    NasIpMgrIpStatusMonitor();
    hooks().told.clear();
    fake::setNodeIps(ip::onNode({"10.0.0.2"}));
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(hooks().told, ElementsAre("1 1 10.0.0.1 2"));
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63"));
}

// count addresses from 10.1.0.0 on.
ip::Texts manyAddresses(size_t count)
{
    ip::Texts texts;
    for (size_t i = 0; i < count; ++i) {
        texts.push_back("10.1." + std::to_string(i / 256) + "." + std::to_string(i % 256));
    }
    return texts;
}

TEST_F(IpMonitor, ThousandsOfAddressesComeStayAndGo)
{
    const ip::Texts many = manyAddresses(3000);
    fake::setNodeIps(ip::onNode(many));
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAreArray(ip::withEnding(many, " 3 63")));
    EXPECT_EQ(g_needRetry, 0);

    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAreArray(ip::withEnding(many, " 3 63")));
    EXPECT_EQ(g_needRetry, 1);

    fake::setNodeIps({});
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(ip::logStarting("6 PROTOCOL: IP[addr ").size(), 3000U);
    EXPECT_EQ(blocksBesideLifTable(), 0U);
}

TEST_F(IpMonitor, AnAddressThatTheNodeNamesTwiceIsAddedTwiceOnceAndDeletedWhole)
{
    setHook(1);
    fake::setNodeIps(ip::onNode({"10.0.0.1", "10.0.0.1"}));
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.1 3 63"));
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.1 2", "1 0 10.0.0.1 2"));

    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63", "10.0.0.1 3 63"));

    hooks().told.clear();
    fake::setNodeIps({});
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_THAT(hooks().told, ElementsAre("1 1 10.0.0.1 2", "1 1 10.0.0.1 2"));
}

TEST_F(IpMonitor, AddressesThatAreNoneAreListedPendingAndHoldNoOtherUp)
{
    setHook(1);
    fake::setNodeIps(ip::onNode({"10.0.0.300", "", "fe80::1%eth0", std::string(45, '1'), "10.0.0.1"}));
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), ElementsAre("10.0.0.300 3 0", " 3 0", "fe80::1%eth0 3 0", std::string(45, '1') + " 3 0",
                                      "10.0.0.1 3 63"));
    EXPECT_THAT(hooks().told, ElementsAre("1 0 10.0.0.1 2"));
    EXPECT_EQ(g_needRetry, 0); // it is no module that failed

    fake::setNodeIps({});
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(blocksBesideLifTable(), 0U);
}

TEST_F(IpMonitor, AnEmptyNodeEmptiesTheList)
{
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("10.0.0.2", 3, 63);
    NasIpMgrIpStatusMonitor();
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(blocksBesideLifTable(), 0U);
}

// ---- the sweep

TEST_F(IpMonitor, TheSweepTellsTheModulesUnderTheListMutexWithTheRecordUnlinked)
{
    setHook(0, 1);
    setHook(3);
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    node_ip_list *list = fake::makeIpList({});
    hooks().during = [] {
        EXPECT_FALSE(ip::isFree(&g_ipListMutex));
        EXPECT_THAT(listed(), IsEmpty());
        EXPECT_EQ(fake::liveBlocks("NasIpMgrCreateListNode"), 1U);
    };
    NasIpMgrCleanDeletedIpInfo(list);
    EXPECT_THAT(hooks().told, ElementsAre("0 1 10.0.0.1 2", "3 1 10.0.0.1 2"));
    EXPECT_EQ(fake::liveBlocks("NasIpMgrCreateListNode"), 0U);
    EXPECT_EQ(g_needRetry, 1);
}

TEST_F(IpMonitor, TheSweepKeepsWhatTheNodeHasWithTheSameTypeInTheFirst46Characters)
{
    const std::string full(45, 'a');
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("10.0.0.1", 4, 63);
    NasIpMgrAddToList("10.0.0.11", 3, 63);
    NasIpMgrAddToList(full.c_str(), 3, 0);
    node_ip_list *list = fake::makeIpList({{3, "10.0.0.1"}, {3, full + "b"}});
    NasIpMgrCleanDeletedIpInfo(list);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
}

TEST_F(IpMonitor, TheSweepBoundsFieldsWithoutANul)
{
    NasIpMgrAddToList("x", 3, 63);
    ip::fillUpTo(g_iplistHead.next, offsetof(NasIpListNode, addr), offsetof(NasIpListNode, protoType), 'a');
    node_ip_list *kept = fake::makeIpList({{3, std::string(64, 'a')}});
    NasIpMgrCleanDeletedIpInfo(kept);
    EXPECT_EQ(fake::liveBlocks("NasIpMgrCreateListNode"), 1U);
    node_ip_list *gone = fake::makeIpList({{3, std::string(45, 'a')}});
    NasIpMgrCleanDeletedIpInfo(gone);
    EXPECT_EQ(fake::liveBlocks("NasIpMgrCreateListNode"), 0U);
    EXPECT_EQ(fake::log().front(), "6 PROTOCOL: IP[addr " + std::string(46, 'a') + ", protoType 3] has been deleted.");
}

TEST_F(IpMonitor, ASweepWithoutAListDeletesNothing)
{
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrCleanDeletedIpInfo(nullptr);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 63"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: list is NULL, return !!!!!!!!!!!!"));
}

} // namespace
