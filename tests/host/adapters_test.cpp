#include "failing_new.h"
#include "fake_library.h"

#include <adapters/adapters.h>
#include <adapters/lif_table.h>
#include <adapters/monitor_pass.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>
#include <node.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class Adapters : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        host::setNodeIdentity({7, "", "1.0.0"});
        configure([](host::AdapterSettings &) {});
    }
    // Node 7 of LS ids 5 and 7, and what change makes of that.
    static void configure(void (*change)(host::AdapterSettings &settings))
    {
        host::AdapterSettings settings;
        settings.nodeName = "node-seven";
        settings.lsIds = {5, 7};
        change(settings);
        host::configureAdapters(settings);
    }
};

// ---- start

TEST_F(Adapters, TellTheNodeInTheLogWhenTheLibraryInitialises)
{
    EXPECT_EQ(NasCtrlInitAdpater(), NAS_OK);
    EXPECT_THAT(fake::library().lines, ElementsAre("6 adapters: node 7 (node-seven), 2 LS ids"));
}

TEST_F(Adapters, FailTheInitialisationWithoutLsIds)
{
    host::configureAdapters({});
    EXPECT_EQ(NasCtrlInitAdpater(), NAS_ERROR);
}

TEST_F(Adapters, TakeTheMachinesNameForANodeWithoutOne)
{
    host::configureAdapters({});
    EXPECT_FALSE(host::adapterSettings().nodeName.empty());
}

TEST_F(Adapters, BringUpTheApplicationDataClusterThatTheConfigurationNames)
{
    fake::library().configuration = {{"cluster_type", "nas"}, {"cm_cluster_id", "42"}};
    EXPECT_EQ(NasCtrlAppdataClusterInitAdapter(), NAS_OK);
    EXPECT_THAT(fake::library().lines, ElementsAre("6 adapters: application-data cluster 42 of type nas"));
}

TEST_F(Adapters, RefuseAnApplicationDataClusterWithoutIdButNotOneWithoutType)
{
    fake::library().configuration = {{"cluster_type", "nas"}};
    EXPECT_EQ(NasCtrlAppdataClusterInitAdapter(), NAS_ERROR);
    fake::library().configuration = {{"cm_cluster_id", "42"}};
    EXPECT_EQ(NasCtrlAppdataClusterInitAdapter(), NAS_OK);
    EXPECT_EQ(fake::library().lines.back(), "6 adapters: application-data cluster 42 of type unknown");
}

TEST_F(Adapters, FillTheEdsNameFromTheConfiguration)
{
    fake::library().configuration = {{"ds_name", "domain-a"}};
    EXPECT_EQ(NasCtrlInitEdsDSNameAdapter(), NAS_OK);
    EXPECT_STREQ(g_nasEdsDsName, "domain-a");
}

TEST_F(Adapters, RefuseAnEdsViewThatLacksTheNodeItself)
{
    EXPECT_EQ(NasCtrInitClusterEdsViewAdapter(), NAS_OK);
    configure([](host::AdapterSettings &settings) { settings.lsIds = {1, 2}; });
    EXPECT_EQ(NasCtrInitClusterEdsViewAdapter(), NAS_ERROR);
    EXPECT_THAT(fake::library().lines,
                ElementsAre("3 adapters: the LS id 7 of this node is not among the configured LS ids"));
}

// ---- facts

TEST_F(Adapters, AnswerTheNodeIdForItsOwnLs)
{
    EXPECT_EQ(CgwGetInitLocalLsId(), 7U);
    EXPECT_EQ(CgwGetClientLsIdByWwn(1, 2, 3, 4, 5, 6), 7U);
}

TEST_F(Adapters, ListTheConfiguredLsIdsUpToTheCallersRoom)
{
    uint32_t ids[3] = {0, 0, 99};
    uint32_t count = 0;
    EXPECT_EQ(GetCfgLsList(ids, 3, &count), 0);
    EXPECT_EQ(count, 2U);
    EXPECT_THAT(ids, ElementsAre(5, 7, 99));
    EXPECT_EQ(GetCfgLsList(ids, 1, &count), 0);
    EXPECT_EQ(count, 1U);
    EXPECT_EQ(GetCfgLsList(nullptr, 1, &count), -EINVAL);
}

TEST_F(Adapters, TellTheOwnerOfAConfiguredControlAddress)
{
    configure([](host::AdapterSettings &settings) { settings.controlIps = {{"127.0.0.9", 3}}; });
    uint32_t ls = 0;
    EXPECT_EQ(CTRL_GetEdsLsidByCtrlIp("127.0.0.9", &ls), 0);
    EXPECT_EQ(ls, 3U);
    EXPECT_EQ(CTRL_GetEdsLsidByCtrlIp("127.0.0.8", &ls), -ENOENT);
    EXPECT_EQ(CTRL_GetEdsLsidByCtrlIp(nullptr, &ls), -EINVAL);
}

// One test: the text is read once in the life of the process.
TEST_F(Adapters, ReadTheDataAddressOnceItIsThereAndKeepItsText)
{
    EXPECT_EQ(getLocalDataAddr(), nullptr);
    fake::library().configuration = {{"dpc_data_ip", "127.0.0.1"}};
    const char *address = getLocalDataAddr();
    EXPECT_STREQ(address, "127.0.0.1");
    fake::library().configuration = {{"dpc_data_ip", "127.0.0.2"}};
    EXPECT_EQ(getLocalDataAddr(), address);
    EXPECT_STREQ(address, "127.0.0.1");
}

// ---- notices

TEST_F(Adapters, LogTheChangedTenantsHoweverFewTheyAre)
{
    std::vector<tenant_change> table(1025);
    table[4] = {1, 2};
    table[1024] = {1, 1};
    table[5] = {0, 9};
    EXPECT_EQ(NasAuthAgentNsNotifyLifChange(2, table.data()), 0);
    EXPECT_THAT(fake::library().lines, ElementsAre("6 adapters: LIFs of tenant 4 changed (kind 2)",
                                                   "6 adapters: LIFs of tenant 1024 changed (kind 1)"));
    EXPECT_EQ(NasAuthAgentNsNotifyLifChange(1, nullptr), -EINVAL);
}

// ---- LIF ports

TEST_F(Adapters, RememberThePortsWhosePerformancePathIsOn)
{
    EXPECT_EQ(CheckLifPortSupportPerf(8), 0U);
    EXPECT_EQ(regLifportAdpter(9, 1), NAS_OK);
    EXPECT_EQ(regLifportAdpter(8, 1), NAS_OK);
    EXPECT_THAT(host::perfPorts(), ElementsAre(8, 9));
    EXPECT_EQ(regLifportAdpter(9, 0), NAS_OK);
    EXPECT_EQ(regLifportAdpter(8, 0), NAS_OK);
    EXPECT_EQ(regLifportAdpter(8, 0), NAS_ERROR) << "switched off twice";
    EXPECT_THAT(host::perfPorts(), IsEmpty());
}

TEST_F(Adapters, FindAPortByItsAddress)
{
    fake::addPort(300, 5, 1, "lif-b", "10.0.0.2");
    uint64_t id = 0;
    const auto find = [&](const char *ip) {
        return getNasLifPortIdByIpAdpter(reinterpret_cast<uintptr_t>(ip), reinterpret_cast<uintptr_t>(&id), 0, 0, 0, 0);
    };
    EXPECT_EQ(find("10.0.0.2"), NAS_OK);
    EXPECT_EQ(id, 300U);
    EXPECT_EQ(find("10.0.0.3"), NAS_INVALID);
    EXPECT_EQ(find(nullptr), NAS_INVALID);
}

TEST_F(Adapters, DoNotFindAPortWhoseBucketIsHeldAndDoNotWaitForIt)
{
    fake::addPort(300, 5, 1, "lif-b", "10.0.0.2");
    kvos_rwlock_write_lock(&g_NfsLifPortInfo.buckets[300 % NAS_LIF_PORT_BUCKETS].lock);
    uint64_t id = 7;
    EXPECT_EQ(getNasLifPortIdByIpAdpter(reinterpret_cast<uintptr_t>("10.0.0.2"), reinterpret_cast<uintptr_t>(&id), 0, 0,
                                        0, 0),
              NAS_INVALID);
    EXPECT_EQ(id, 7U);
}

TEST_F(Adapters, RefuseAPerformancePathThatTheyHaveNoMemoryToRemember)
{
    failing::countdown = 1;
    EXPECT_EQ(regLifportAdpter(9, 1), NAS_ERROR);
    EXPECT_THAT(host::perfPorts(), IsEmpty());
}

TEST_F(Adapters, FindNoPortWithoutMemory)
{
    fake::addPort(300, 5, 1, std::string(100, 'l'), "10.0.0.2");
    uint64_t id = 7;
    uint32_t result = NAS_INVALID;
    failing::sweep(
        [&] {
            result = getNasLifPortIdByIpAdpter(reinterpret_cast<uintptr_t>("10.0.0.2"),
                                               reinterpret_cast<uintptr_t>(&id), 0, 0, 0, 0);
        },
        [&] {
            EXPECT_EQ(result, NAS_ERROR);
            EXPECT_EQ(id, 7U);
            EXPECT_TRUE(host::canWriteAll()) << "no hold is left behind";
        });
    EXPECT_EQ(result, NAS_OK);
}

TEST_F(Adapters, KnowNoPortsBeforeTheTableIsBuilt)
{
    EXPECT_THAT(host::readLifTable().ports, IsEmpty());
}

// ---- the node's addresses

struct FreeList {
    void operator()(node_ip_list *list) const { free(list); }
};
using List = std::unique_ptr<node_ip_list, FreeList>;

List currentList(int32_t expected)
{
    node_ip_list *list = nullptr;
    EXPECT_EQ(GetCurNodeIpListAdapter(&list), expected);
    return List(list);
}

TEST_F(Adapters, AnswerTheLibrarysOwnListAsWorkingAddresses)
{
    fake::listAddress("127.0.0.1", 3, 63);
    fake::listAddress(std::string(45, 'f'), 5, 0);
    const List list = currentList(0);
    ASSERT_NE(list, nullptr);
    ASSERT_EQ(list->count, 2U);
    EXPECT_EQ(list->result, 0);
    EXPECT_STREQ(list->entries[0].addr, "127.0.0.1");
    EXPECT_EQ(list->entries[0].proto_type, 3U);
    EXPECT_NE(IsIpWork(&list->entries[0]), 0U);
    EXPECT_EQ(list->entries[1].addr, std::string(45, 'f'));
    EXPECT_EQ(list->entries[1].proto_type, 5U);
}

TEST_F(Adapters, AnswerAnEmptyListForANodeWithoutAddresses)
{
    const List list = currentList(0);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->count, 0U);
}

void expectFree(pthread_mutex_t &mutex)
{
    ASSERT_EQ(pthread_mutex_trylock(&mutex), 0);
    pthread_mutex_unlock(&mutex);
}

TEST_F(Adapters, LeaveTheListUnlockedBehindThem)
{
    currentList(0);
    expectFree(g_ipSockIpLockMutex);
    expectFree(g_ipListMutex);
}

TEST_F(Adapters, GiveUpOnAListThatStaysLocked)
{
    pthread_mutex_lock(&g_ipListMutex);
    EXPECT_EQ(currentList(-EBUSY), nullptr);
    pthread_mutex_unlock(&g_ipListMutex);
    expectFree(g_ipSockIpLockMutex);
    EXPECT_THAT(fake::library().lines, ElementsAre("3 adapters: the address list stayed locked for 100 ms"));
}

// The list lacks an address until its addition has ended, and the monitor takes what it lacks for gone.
TEST_F(Adapters, AnswerNoListWhileAnAdditionIsUnderWay)
{
    fake::listAddress("127.0.0.1", 3, 63);
    pthread_mutex_lock(&g_ipSockIpLockMutex);
    EXPECT_EQ(currentList(-EBUSY), nullptr);
    pthread_mutex_unlock(&g_ipSockIpLockMutex);
    expectFree(g_ipListMutex);
    EXPECT_THAT(fake::library().lines, ElementsAre("3 adapters: the address list stayed locked for 100 ms"));
}

TEST_F(Adapters, FailAPassWhoseAddressesTheyHaveNoMemoryToRecord)
{
    fake::listAddress(std::string(45, 'f'), 5, 0);
    List list;
    int32_t result = 0;
    failing::sweep(
        [&] {
            node_ip_list *answer = nullptr;
            result = GetCurNodeIpListAdapter(&answer);
            list.reset(answer);
        },
        [&] {
            EXPECT_EQ(result, -ENOMEM);
            EXPECT_NE(list, nullptr) << "handed out to be freed";
            EXPECT_EQ(host::lastMonitorPass()->queryResult, -ENOMEM);
        });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(host::nodeAddresses(), SizeIs(1));
}

TEST_F(Adapters, AnswerNothingWithoutMemory)
{
    fake::library().failAllocation = true;
    EXPECT_EQ(currentList(-ENOMEM), nullptr);
}

TEST_F(Adapters, AskTheStorageSideWhenThereIsOne)
{
    configure([](host::AdapterSettings &settings) { settings.hasStorage = true; });
    EXPECT_EQ(currentList(-110), nullptr);
    EXPECT_THAT(fake::library().calls, ElementsAre("GetCurNodeIpList()"));
}

// The library takes the count on trust.
TEST_F(Adapters, RefuseAListOfTheStorageSideThatHoldsLessThanItSays)
{
    configure([](host::AdapterSettings &settings) { settings.hasStorage = true; });
    std::string &list = fake::library().nodeList;
    list = std::string(8 + 2 * 72, '\0');
    list[4] = 2;
    EXPECT_NE(currentList(0), nullptr);
    list.pop_back();
    EXPECT_NE(currentList(-EPROTO), nullptr) << "handed out to be freed";
    EXPECT_THAT(fake::library().lines, ElementsAre("3 adapters: the list of addresses is cut short: it is to hold 2"));
}

TEST(WorkStatus, IsNotWorkingUntilItIsSet)
{
    node_ip_entry entry{};
    EXPECT_EQ(IsIpWork(&entry), 0U);
    SetDefaultIpWorkstatus(&entry);
    EXPECT_EQ(IsIpWork(&entry), 1U);
    EXPECT_EQ(IsIpWork(nullptr), 0U);
}

// ---- messages of module 3

class ControlMessages : public Adapters {
protected:
    // Sends opcode and words to handler; the reply's bytes.
    std::vector<uint8_t> ask(uint32_t (*handler)(svr_msg_t *), std::vector<uint32_t> words, uint32_t expected = NAS_OK)
    {
        svr_msg_t record{};
        record.buffer = words.data();
        record.length = static_cast<uint32_t>(words.size() * sizeof(uint32_t));
        record.sequence = 77;
        EXPECT_EQ(handler(&record), expected);
        return fake::library().sent.empty() ? std::vector<uint8_t>() : fake::library().sent.back().bytes;
    }
};

std::vector<uint8_t> bytes(std::initializer_list<std::string> parts)
{
    std::vector<uint8_t> all;
    for (const std::string &part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

std::string word(uint32_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof(value)};
}

std::string wide(uint64_t value)
{
    return {reinterpret_cast<const char *>(&value), sizeof(value)};
}

std::string field(std::string text, size_t size)
{
    text.resize(size);
    return text;
}

TEST_F(ControlMessages, TellTheController)
{
    EXPECT_EQ(ask(NasCtrlGetControllerInfoAdapter, {44}), bytes({word(7), word(7), field("node-seven", 64)}));
    EXPECT_EQ(fake::library().sent[0].sequence, 77U);
}

TEST_F(ControlMessages, TellTheNameOfAConfiguredTenant)
{
    configure([](host::AdapterSettings &settings) { settings.tenants = {{4, "blue"}}; });
    EXPECT_EQ(ask(NasCtrlGetTenantNameByTenantID, {47, 4}), bytes({word(0), word(4), field("blue", 64)}));
}

TEST_F(ControlMessages, AnswerAnUnknownTenantWithResultOneAndNoName)
{
    EXPECT_EQ(ask(NasCtrlGetTenantNameByTenantID, {47, 5}), bytes({word(1), word(5), field("", 64)}));
}

TEST_F(ControlMessages, SendNothingToATenantRequestWithoutAnId)
{
    ask(NasCtrlGetTenantNameByTenantID, {47}, NAS_INVALID);
    EXPECT_THAT(fake::library().sent, IsEmpty());
}

TEST_F(ControlMessages, PassOnThatAReplyCouldNotBeSent)
{
    fake::library().result = 9;
    ask(NasCtrlGetControllerInfoAdapter, {44}, 9);
}

TEST_F(ControlMessages, ListLifPortsByIndex)
{
    fake::addPort(300, 5, 1000, "lif-b", "10.0.0.2");
    fake::addPort(44, 2, 2000, "lif-a", "10.0.0.1");
    EXPECT_EQ(ask(NasCtrlGetLifInfoAdapter, {40}),
              bytes({word(2), word(2), word(0), word(0),                                                 //
                     wide(44), wide(2000), word(2), field("lif-a", 264), field("10.0.0.1", 48), word(0), //
                     wide(300), wide(1000), word(5), field("lif-b", 264), field("10.0.0.2", 48), word(0)}));
}

TEST_F(ControlMessages, ListLifPortsFromTheGivenIndexOn)
{
    fake::addPort(300, 5, 1000, "lif-b", "10.0.0.2");
    fake::addPort(44, 2, 2000, "lif-a", "10.0.0.1");
    EXPECT_EQ(ask(NasCtrlGetLifInfoAdapter, {40, 3}),
              bytes({word(2), word(1), word(0), word(0), //
                     wide(300), wide(1000), word(5), field("lif-b", 264), field("10.0.0.2", 48), word(0)}));
}

TEST_F(ControlMessages, SendNoListOfLifPortsWithPortsLeftOut)
{
    fake::addPort(300, 5, 1000, "lif-b", "10.0.0.2");
    kvos_rwlock_write_lock(&g_NfsLifPortInfo.buckets[1].lock);
    ask(NasCtrlGetLifInfoAdapter, {40}, NAS_ERROR);
    EXPECT_THAT(fake::library().sent, IsEmpty());
}

TEST_F(ControlMessages, FailWithoutMemoryForAListOfLifPorts)
{
    fake::addPort(300, 5, 1000, "lif-b", "10.0.0.2");
    svr_msg_t record{};
    uint32_t result = NAS_OK;
    failing::sweep([&] { result = NasCtrlGetLifInfoAdapter(&record); },
                   [&] {
                       EXPECT_EQ(result, NAS_ERROR);
                       EXPECT_THAT(fake::library().sent, IsEmpty());
                   });
    EXPECT_EQ(result, NAS_OK);
    EXPECT_THAT(fake::library().sent, SizeIs(1));
}

TEST_F(ControlMessages, CutAListOfLifPortsThatFillsAReplyAndTellWhereToGoOn)
{
    for (uint32_t index = 0; index < 3121; ++index) {
        fake::addPort(index + 1, index, 1, "l", "10.0.0.1");
    }
    const std::vector<uint8_t> first = ask(NasCtrlGetLifInfoAdapter, {40});
    EXPECT_THAT(first, SizeIs(16 + 3120 * 336));
    EXPECT_EQ(std::vector(first.begin(), first.begin() + 16), bytes({word(3121), word(3120), word(3120), word(0)}));
    const std::vector<uint8_t> rest = ask(NasCtrlGetLifInfoAdapter, {40, 3120});
    EXPECT_EQ(std::vector(rest.begin(), rest.begin() + 16), bytes({word(3121), word(1), word(0), word(0)}));
}

} // namespace
