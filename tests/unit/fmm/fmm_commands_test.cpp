// The commands of module "nas_fmm" and the simulator. The program puts recording functions in the place of the shard
// view's, so that it sees what each command asks of them.
#include <events.h>
#include <fake_host.h>
#include <recorder.h>

#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/fmm.h>
#include <nasctrl/shard_view.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint64_t kData = 0x1122334455667788U;
int g_queue; // its address is the handle

uint32_t recorded(const char *name, const std::vector<std::string> &arguments)
{
    return static_cast<uint32_t>(fake::called(name, arguments));
}

// A function that prints: what it wrote is what it returns.
uint32_t print(const char *name, const char *text, char *buf, uint32_t len)
{
    recorded(name, {fake::number(len)});
    strcpy(buf, text);
    return static_cast<uint32_t>(strlen(text));
}

} // namespace

uint32_t FspModifyShardView(uint32_t fspId, uint32_t dst)
{
    return recorded("FspModifyShardView", {fake::number(fspId), fake::number(dst)});
}
uint32_t FspGetNextLsIdByFsp(uint32_t fspId)
{
    return recorded("FspGetNextLsIdByFsp", {fake::number(fspId)});
}
uint32_t FspMigrationNode(uint32_t src, uint32_t dst, int32_t failback)
{
    return recorded("FspMigrationNode",
                    {fake::number(src), fake::number(dst), fake::number(static_cast<uint32_t>(failback))});
}
uint32_t FspGetNextLsIdByLs(uint32_t lsId)
{
    return recorded("FspGetNextLsIdByLs", {fake::number(lsId)});
}
uint32_t FspGetSrcLsByLsId(uint32_t lsId)
{
    return recorded("FspGetSrcLsByLsId", {fake::number(lsId)});
}
uint32_t FspShowShardView(char *buf, uint32_t len)
{
    return print("FspShowShardView", "the view", buf, len);
}
uint32_t FspGetNodeInfo(char *buf, uint32_t len)
{
    return print("FspGetNodeInfo", "nodes", buf, len);
}
void *fmm_get_lwt_queue(void)
{
    return recorded("fmm_get_lwt_queue", {}) == 0 ? &g_queue : nullptr;
}

namespace {

std::string argumentOf(uint64_t data)
{
    std::string bytes(72, '\0');
    memcpy(bytes.data(), &data, sizeof data);
    return bytes;
}

// ---- the table

TEST(FmmCommandTable, IsRegisteredInOrderWhateverTheHostAnswers)
{
    fake::reset();
    fake::answerAlways("pum_register_cmd", -17);
    nsa_fmm_cmd_init();
    EXPECT_THAT(fake::calls(), ElementsAre("pum_register_cmd(\"nas_fmm\", \"shard_change\")",
                                           "pum_register_cmd(\"nas_fmm\", \"node_fault\")",
                                           "pum_register_cmd(\"nas_fmm\", \"node_recover\")",
                                           "pum_register_cmd(\"nas_fmm\", \"modify_fsp_shardview\")",
                                           "pum_register_cmd(\"nas_fmm\", \"set_node_fault\")",
                                           "pum_register_cmd(\"nas_fmm\", \"show_fsp_shardview\")",
                                           "pum_register_cmd(\"nas_fmm\", \"get_node_info\")",
                                           "pum_register_cmd(\"nas_fmm\", \"failback_shard_view\")"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

// All 4624 bytes of a record but its handler, which is zeroed.
std::string recordOf(const std::string &command, const std::string &usage)
{
    std::string bytes(4624, '\0');
    bytes[0] = 29;
    bytes[4] = 1;
    bytes.replace(8, 7, "nas_fmm");
    bytes.replace(40, command.size(), command);
    bytes.replace(104, usage.size(), usage);
    bytes[4616] = 1;
    bytes[4620] = 1;
    return bytes;
}

TEST(FmmCommandTable, HoldsTheRecordsByteForByte)
{
    fake::reset();
    nsa_fmm_cmd_init();
    std::vector<std::string> records;
    for (pum_cmd_t record : fake::registeredCommands()) {
        EXPECT_NE(record.handler, nullptr) << record.command;
        record.handler = nullptr;
        records.emplace_back(reinterpret_cast<const char *>(&record), sizeof record);
    }
    EXPECT_THAT(records, ElementsAre(recordOf("shard_change", "-m nas_fmm -c shard_change"),
                                     recordOf("node_fault", "-m nas_fmm -c node_fault -v "),
                                     recordOf("node_recover", "-m nas_fmm -c node_recover -v "),
                                     recordOf("modify_fsp_shardview", "-m nas_fmm -c modify_fsp_shardview -v "),
                                     recordOf("set_node_fault", "-m nas_fmm -c set_node_fault -v "),
                                     recordOf("show_fsp_shardview", "-m nas_fmm -c show_fsp_shardview"),
                                     recordOf("get_node_info", "-m nas_fmm -c get_node_info "),
                                     recordOf("failback_shard_view", "-m nas_fmm -c failback_shard_view -v ")));
}

// ---- the commands

class FmmCommand : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        nsa_fmm_cmd_init();
        for (const pum_cmd_t &command : fake::registeredCommands()) {
            handlers_[command.command] = command.handler;
        }
        fake::reset();
    }
    void TearDown() override
    {
        EXPECT_THAT(fake::log(), IsEmpty());
        EXPECT_EQ(fake::liveBlocks(), 0U);
    }

    // Null = no value.
    int32_t run(const std::string &command, const char *value)
    {
        if (value == nullptr) {
            return handlers_.at(command)(nullptr, 0);
        }
        strcpy(buffer_, value);
        return handlers_.at(command)(buffer_, sizeof buffer_);
    }

    std::map<std::string, int32_t (*)(char *, uint32_t)> handlers_;
    char buffer_[128] = "";
};

TEST_F(FmmCommand, ShardChangeTellsFmmAlone)
{
    fake::answer("notifyCall", {3});
    EXPECT_EQ(run("shard_change", ""), 0);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(1, 0, 0)"));
    EXPECT_EQ(fake::notices().at(0).argument, argumentOf(0));
}

TEST_F(FmmCommand, ShardChangeNeedsNoBuffer)
{
    EXPECT_EQ(run("shard_change", nullptr), 0);
    EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(1, 0, 0)"));
}

struct NodeValue {
    const char *value;
    uint64_t sent;
};

// What cannot be read counts as 0: these two take any text.
constexpr NodeValue kNodeValues[] = {
    {"7", 7},
    {"0x0C", 12},
    {"017", 15},
    {"12abc", 12},
    {"abc", 0},
    {"", 0},
    {"  9", 9},
    {"08", 0},
    {"-1", 0xFFFFFFFFU},
    {"4294967295", 0xFFFFFFFFU},
    {"4294967301", 5},
    {"99999999999999999999999", 0xFFFFFFFFU},
};

TEST_F(FmmCommand, NodeFaultSendsTheLow32BitsOfItsValue)
{
    for (const NodeValue &row : kNodeValues) {
        fake::reset();
        EXPECT_EQ(run("node_fault", row.value), 0) << row.value;
        EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(1, 5, " + std::to_string(row.sent) + ")")) << row.value;
        EXPECT_EQ(fake::notices().at(0).argument, argumentOf(row.sent)) << row.value;
    }
}

TEST_F(FmmCommand, NodeRecoverSendsTheFaultEventToo)
{
    for (const NodeValue &row : kNodeValues) {
        fake::reset();
        EXPECT_EQ(run("node_recover", row.value), 0) << row.value;
        EXPECT_THAT(fake::calls(), ElementsAre("notifyCall(1, 5, " + std::to_string(row.sent) + ")")) << row.value;
    }
}

TEST_F(FmmCommand, NodeEventsSucceedAlsoWhenFmmRefusesThem)
{
    fake::answerAlways("notifyCall", -9);
    EXPECT_EQ(run("node_fault", "1"), 0);
    EXPECT_EQ(run("node_recover", "1"), 0);
}

TEST_F(FmmCommand, NodeEventsWithoutAValueSendNothing)
{
    EXPECT_EQ(run("node_fault", nullptr), 1);
    EXPECT_EQ(run("node_recover", nullptr), 1);
    EXPECT_THAT(fake::calls(), IsEmpty());
}

struct Action {
    const char *command;
    const char *lookUp; // with its bracket
    const char *before; // the action up to its first id, and what follows the ids
    bool lookedUpFirst; // of the two ids
    const char *after;
};

constexpr Action kActions[] = {
    {"modify_fsp_shardview", "FspGetNextLsIdByFsp(", "FspModifyShardView(", false, ")"},
    {"set_node_fault", "FspGetNextLsIdByLs(", "FspMigrationNode(", false, ", 0)"},
    {"failback_shard_view", "FspGetSrcLsByLsId(", "FspMigrationNode(", true, ", 1)"},
};

std::vector<std::string> callsOf(const Action &action, const std::string &id, const std::string &found)
{
    const std::string ids = action.lookedUpFirst ? found + ", " + id : id + ", " + found;
    return {action.lookUp + id + ")", action.before + ids + action.after};
}

TEST_F(FmmCommand, ShardActionsTakeDecimalHexadecimalAndOctalValues)
{
    constexpr std::pair<const char *, const char *> kValues[] = {
        {"12", "12"},
        {"0x0C", "12"},
        {"0Xc", "12"},
        {"014", "12"},
        {"0", "0"},
        {" 12", "12"},
        {"+12", "12"},
        {"-1", "4294967295"},
        {"70000", "70000"},
        {"4294967308", "12"},
        {"99999999999999999999999", "4294967295"},
    };
    for (const Action &action : kActions) {
        for (const auto &[value, id] : kValues) {
            fake::reset();
            fake::answer(std::string(action.lookUp, strlen(action.lookUp) - 1), {34});
            EXPECT_EQ(run(action.command, value), 0) << action.command << " " << value;
            EXPECT_EQ(fake::calls(), callsOf(action, id, "34")) << action.command << " " << value;
        }
    }
}

TEST_F(FmmCommand, ShardActionsRefuseWhatIsNotAWholeNumber)
{
    for (const Action &action : kActions) {
        for (const char *value : {"12abc", "abc", "", " ", "12 ", "1,2", "0x", "0xg", "08", "1.5", "--1", "LS1"}) {
            fake::reset();
            EXPECT_EQ(run(action.command, value), 1) << action.command << " '" << value << "'";
            EXPECT_THAT(fake::calls(), IsEmpty()) << action.command << " '" << value << "'";
        }
        EXPECT_EQ(run(action.command, nullptr), 1) << action.command;
        EXPECT_THAT(fake::calls(), IsEmpty()) << action.command;
    }
}

TEST_F(FmmCommand, ShardActionsAskTheShardViewAlsoWhenNoOtherLsIsFound)
{
    for (const Action &action : kActions) {
        fake::reset();
        fake::answer(std::string(action.lookUp, strlen(action.lookUp) - 1), {0xFFFFFFFF});
        run(action.command, "5");
        EXPECT_EQ(fake::calls(), callsOf(action, "5", "4294967295")) << action.command;
    }
}

TEST_F(FmmCommand, ShardActionsPassTheResultOn)
{
    fake::answer("FspModifyShardView", {1});
    fake::answer("FspMigrationNode", {1, 0xFFFFFFFF});
    EXPECT_EQ(run("modify_fsp_shardview", "5"), 1);
    EXPECT_EQ(run("set_node_fault", "5"), 1);
    EXPECT_EQ(run("failback_shard_view", "5"), -1);
}

TEST_F(FmmCommand, PrintingCommandsHandTheBufferOnAndReturnTheLength)
{
    EXPECT_EQ(run("show_fsp_shardview", ""), 8);
    EXPECT_STREQ(buffer_, "the view");
    EXPECT_EQ(run("get_node_info", ""), 5);
    EXPECT_STREQ(buffer_, "nodes");
    EXPECT_THAT(fake::calls(), ElementsAre("FspShowShardView(128)", "FspGetNodeInfo(128)"));
}

// ---- the simulator

class FmmSimulator : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { EXPECT_EQ(fake::liveBlocks(), 0U); }
    kvlwt_task_sem_t sem_{};
};

TEST_F(FmmSimulator, MoveInIsDeliveredByTheQueueToDlgThenFmmAndThenRaisesTheSemaphore)
{
    EXPECT_EQ(nas_fmm_vnode_movein_callback_simulator(kData, &sem_), 0);
    EXPECT_THAT(fake::calls(), ElementsAre("fmm_get_lwt_queue()", "lwt_work_enqueue()"));
    EXPECT_TRUE(fake::runJob());
    EXPECT_THAT(fake::calls(),
                ElementsAre("fmm_get_lwt_queue()", "lwt_work_enqueue()", "notifyCall(2, 1, 1234605616436508552)",
                            "notifyCall(1, 1, 1234605616436508552)",
                            "kvlwt_task_sem_up(666, \"nas_fmm_vnode_move_lwt_wrapper\")"));
    EXPECT_EQ(fake::notices().at(0).argument, argumentOf(kData));
    EXPECT_EQ(fake::notices().at(1).argument, argumentOf(kData));
    EXPECT_EQ(fake::upsOf(&sem_), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive vnode move in.", "6 PROTOCOL: Start lwt, event:1.",
                                         "6 PROTOCOL: After Start lwt, event:1.", "6 PROTOCOL: In lwt, event:1."));
    EXPECT_THAT(fake::logFuncs(),
                ElementsAre("nas_fmm_vnode_movein_callback_simulator", "nas_fmm_vnode_callback_simulator",
                            "nas_fmm_vnode_callback_simulator", "nas_fmm_vnode_move_lwt_simulator"));
}

TEST_F(FmmSimulator, MoveOutIsEvent2)
{
    EXPECT_EQ(nas_fmm_vnode_moveout_callback_simulator(5, &sem_), 0);
    fake::runAllJobs();
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre("notifyCall(2, 2, 5)", "notifyCall(1, 2, 5)"));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive vnode move out.", "6 PROTOCOL: Start lwt, event:2.",
                                         "6 PROTOCOL: After Start lwt, event:2.", "6 PROTOCOL: In lwt, event:2."));
    EXPECT_EQ(fake::logFuncs().at(0), "nas_fmm_vnode_moveout_callback_simulator");
}

TEST_F(FmmSimulator, RaisesTheLightWeightFormForAPlainCallerToo)
{
    fake::answerAlways("kvlwt_is_lwtcontext", 0);
    nas_fmm_vnode_callback_simulator(1, kData, &sem_);
    fake::runAllJobs();
    EXPECT_EQ(fake::upsOf(&sem_), 1U);
    EXPECT_THAT(fake::calls("kvlwt_is_lwtcontext"), IsEmpty());
}

TEST_F(FmmSimulator, PreparesTheItemForTheQueue)
{
    nas_fmm_vnode_callback_simulator(2, kData, &sem_);
    lwt_work_t *work = fake::queuedJob(0);
    EXPECT_EQ(work->link.next, work);
    EXPECT_EQ(work->link.prev, work);
    EXPECT_EQ(work->owner, work);
    EXPECT_EQ(work->zero0, 0U);
    EXPECT_NE(work->func, nullptr);
    EXPECT_EQ(work->zero1, 0U);
    EXPECT_EQ(work->minus_one, -1);
    EXPECT_EQ(work->pad, 0U);
    EXPECT_EQ(work->host_private, 0U);
    const auto &job = reinterpret_cast<const vnode_move_item *>(work)->job;
    EXPECT_EQ(job.event, 2U);
    EXPECT_EQ(job.isLwt, 0U);
    EXPECT_EQ(job.sem, &sem_);
    EXPECT_EQ(job.data, kData);
    fake::runAllJobs();
}

TEST_F(FmmSimulator, WithoutASemaphoreQueuesNothing)
{
    EXPECT_EQ(nas_fmm_vnode_movein_callback_simulator(kData, nullptr), 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive vnode move in.", "3 PROTOCOL: Sem is NULL!"));
    EXPECT_EQ(fake::logFuncs().at(1), "nas_fmm_vnode_callback_simulator");
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(FmmSimulator, WithoutAQueueLeavesTheCallerWaiting)
{
    fake::answer("fmm_get_lwt_queue", {1});
    EXPECT_EQ(nas_fmm_vnode_moveout_callback_simulator(kData, &sem_), 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Receive vnode move out.", "3 PROTOCOL: Get lwt queue is NULL!"));
    EXPECT_THAT(fake::calls(), ElementsAre("fmm_get_lwt_queue()"));
    EXPECT_EQ(fake::upsOf(&sem_), 0U);
}

TEST_F(FmmSimulator, WithoutMemoryLeavesTheCallerWaiting)
{
    fake::failAllocation(1);
    nas_fmm_vnode_callback_simulator(1, kData, &sem_);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Malloc failed!"));
    EXPECT_THAT(fake::calls(), ElementsAre("fmm_get_lwt_queue()"));
    EXPECT_EQ(fake::upsOf(&sem_), 0U);
}

TEST_F(FmmSimulator, ThatTheQueueRefusesFreesItsItemAndLeavesTheCallerWaiting)
{
    fake::answer("lwt_work_enqueue", {-105});
    nas_fmm_vnode_callback_simulator(1, kData, &sem_);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Start lwt, event:1.", "6 PROTOCOL: After Start lwt, event:1.",
                                         "3 PROTOCOL: Start lwt failed"));
    EXPECT_EQ(fake::upsOf(&sem_), 0U);
    EXPECT_EQ(fake::queuedJobs(), 0U);
}

TEST_F(FmmSimulator, QueuesEveryMove)
{
    nas_fmm_vnode_callback_simulator(1, 1, &sem_);
    nas_fmm_vnode_callback_simulator(2, 2, &sem_);
    fake::runAllJobs();
    EXPECT_THAT(fake::calls("notifyCall"), ElementsAre("notifyCall(2, 1, 1)", "notifyCall(1, 1, 1)",
                                                       "notifyCall(2, 2, 2)", "notifyCall(1, 2, 2)"));
    EXPECT_EQ(fake::upsOf(&sem_), 2U);
}

TEST_F(FmmSimulator, WrapperWithoutAnItemIsLogged)
{
    nas_fmm_vnode_callback_simulator(1, kData, &sem_);
    void (*wrapper)(void *) = fake::queuedJob(0)->func;
    fake::runAllJobs();
    fake::reset();
    wrapper(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: lwtArg is NULL, return !!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_vnode_move_lwt_wrapper"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(FmmSimulator, DeliveryWithoutAJobIsLogged)
{
    nas_fmm_vnode_move_lwt_simulator(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: job is NULL, return !!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_fmm_vnode_move_lwt_simulator"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(FmmSimulator, DeliveryNeitherRaisesTheSemaphoreNorFreesTheItem)
{
    vnode_move_item item{};
    item.job = {1, 0, &sem_, kData};
    nas_fmm_vnode_move_lwt_simulator(&item);
    EXPECT_EQ(fake::notices().size(), 2U);
    EXPECT_THAT(fake::calls("kvlwt_task_sem_up"), IsEmpty());
}

// Whatever fails first: the caller is woken once when both modules were told, and not at all otherwise.
TEST_F(FmmSimulator, KeepsNothingWhicheverCallFails)
{
    uint64_t failing = 0;
    do {
        fake::reset();
        fake::failCall(++failing);
        nas_fmm_vnode_movein_callback_simulator(kData, &sem_);
        fake::runAllJobs();
        EXPECT_EQ(fake::notices().size(), 2U * fake::upsOf(&sem_)) << "call " << failing;
        EXPECT_EQ(fake::liveBlocks(), 0U) << "call " << failing;
    } while (fake::failableCalls() >= failing);
    EXPECT_EQ(failing, 5U) << "allocation, place in the queue and two notices can fail";
}

} // namespace
