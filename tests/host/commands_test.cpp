#include "fake_library.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/host/notify.h>
#include <nasctrl/lif_port.h>
#include <notify/commands.h>
#include <notify/statistics.h>

namespace {

using host::CommandAnswer;
using host::registerCommand;
using host::runCommand;
using testing::ElementsAre;
using testing::IsEmpty;

int32_t echoInBrackets(char *buf, uint32_t size)
{
    const std::string text = "[" + std::string(buf == nullptr ? "null" : buf) + "] " + std::to_string(size) + "\n";
    memcpy(buf, text.c_str(), text.size() + 1);
    return static_cast<int32_t>(text.size());
}

int32_t cutAtCommaAndSayNothing(char *buf, uint32_t)
{
    *strchr(buf, ',') = '\0';
    return 0;
}

int32_t failWithOne(char *, uint32_t)
{
    return 1;
}

int32_t tellWhetherNull(char *buf, uint32_t size)
{
    return buf == nullptr && size == 0 ? -77 : 77;
}

int32_t answerCut(char *buf, uint32_t)
{
    strcpy(buf, "abcdef");
    return 3;
}

class CommandRegistry : public testing::Test {
protected:
    // The registry lives as long as the process; every test uses a module of its own name.
    std::string module() const { return testing::UnitTest::GetInstance()->current_test_info()->name(); }
    void add(const std::string &name, host::CommandHandler handler, const std::string &usage = "usage")
    {
        ASSERT_TRUE(registerCommand({module(), name, usage, handler}));
    }
};

TEST_F(CommandRegistry, RefusesASecondCommandOfTheSameModuleAndName)
{
    add("one", echoInBrackets);
    EXPECT_FALSE(registerCommand({module(), "one", "other", failWithOne}));
    EXPECT_EQ(runCommand(module(), "one", "x")->text, "[x] 1048576\n");
}

TEST_F(CommandRegistry, ListsCommandsByModuleAndName)
{
    add("b", failWithOne, "usage of b");
    add("a", failWithOne);
    std::vector<std::string> names;
    for (const host::Command &command : host::commands()) {
        if (command.module == module()) {
            names.push_back(command.name + ": " + command.usage);
        }
    }
    EXPECT_THAT(names, ElementsAre("a: usage", "b: usage of b"));
}

TEST_F(CommandRegistry, KnowsNoCommandThatNobodyRegistered)
{
    EXPECT_FALSE(runCommand(module(), "none", std::nullopt).has_value());
}

TEST_F(CommandRegistry, HandsTheTextInAndTheAnswerOut)
{
    add("echo", echoInBrackets);
    const CommandAnswer answer = *runCommand(module(), "echo", "hello");
    EXPECT_EQ(answer.text, "[hello] 1048576\n");
    EXPECT_EQ(answer.result, 0) << "a length is a success";
}

TEST_F(CommandRegistry, CutsBlanksAtTheEndOfTheTextOnly)
{
    add("echo", echoInBrackets);
    EXPECT_EQ(runCommand(module(), "echo", " a b \t\n")->text, "[ a b] 1048576\n");
    EXPECT_EQ(runCommand(module(), "echo", " \n")->text, "[] 1048576\n");
}

TEST_F(CommandRegistry, GivesACommandWithoutATextAnEmptyBufferForItsAnswer)
{
    add("echo", echoInBrackets, "-m m -c echo [-v TEXT]");
    EXPECT_EQ(runCommand(module(), "echo", std::nullopt)->text, "[] 1048576\n");
}

TEST_F(CommandRegistry, TellsACommandThatNeedsATextByNullThatItGotNone)
{
    add("needs", tellWhetherNull, "-m m -c needs -v ");
    EXPECT_EQ(runCommand(module(), "needs", std::nullopt)->result, -77);
    EXPECT_EQ(runCommand(module(), "needs", "")->result, 77);
}

TEST_F(CommandRegistry, ShowsNoAnswerWhenTheResultIsZeroEvenIfTheTextWasCutUp)
{
    add("cut", cutAtCommaAndSayNothing);
    EXPECT_EQ(runCommand(module(), "cut", "a,10.0.0.0/8")->text, "");
}

TEST_F(CommandRegistry, ShowsNoAnswerWhenTheCommandLeftTheOperatorsTextAsItWas)
{
    add("fail", failWithOne);
    const CommandAnswer answer = *runCommand(module(), "fail", "12abc");
    EXPECT_EQ(answer.result, 1);
    EXPECT_EQ(answer.text, "");
}

TEST_F(CommandRegistry, CutsTheAnswerAtTheLengthThatTheCommandReturned)
{
    add("short", answerCut);
    EXPECT_EQ(runCommand(module(), "short", std::nullopt)->text, "abc");
}

TEST_F(CommandRegistry, RefusesATextThatLeavesNoRoomForItsEnd)
{
    add("echo", answerCut);
    EXPECT_EQ(runCommand(module(), "echo", std::string(65535, 'x'))->result, 0);
    EXPECT_EQ(runCommand(module(), "echo", std::string(65536, 'x'))->result, -E2BIG);
}

// ---- commands that the library registers

class LibraryCommands : public CommandRegistry {
protected:
    // A record as the library hands it over, of a module with the test's name, cut to its field.
    pum_cmd_t record(const std::string &command, host::CommandHandler handler, const std::string &usage) const
    {
        pum_cmd_t made{};
        made.header0 = 29;
        made.header1 = 1;
        module().copy(made.module, sizeof made.module - 1);
        command.copy(made.command, sizeof made.command);
        usage.copy(made.usage, sizeof made.usage);
        made.handler = handler;
        made.tail0 = 1;
        made.tail1 = 1;
        return made;
    }
    std::string cutModule() const { return module().substr(0, sizeof(pum_cmd_t::module) - 1); }
};

TEST_F(LibraryCommands, AreRunLikeAnyOther)
{
    const pum_cmd_t echo = record("echo", echoInBrackets, "-m m -c echo ");
    EXPECT_EQ(pum_register_cmd(&echo), 0);
    EXPECT_EQ(runCommand(cutModule(), "echo", "hello")->text, "[hello] 1048576\n");
    EXPECT_EQ(runCommand(cutModule(), "echo", std::nullopt)->text, "[] 1048576\n");
}

TEST_F(LibraryCommands, GetNullWhereTheirUsageEndsInAValueAndThereIsNone)
{
    const pum_cmd_t needs = record("needs", tellWhetherNull, "-m m -c needs -v ");
    EXPECT_EQ(pum_register_cmd(&needs), 0);
    EXPECT_EQ(runCommand(cutModule(), "needs", std::nullopt)->result, -77);
    EXPECT_EQ(runCommand(cutModule(), "needs", "1")->result, 77);
}

TEST_F(LibraryCommands, AreCopied)
{
    {
        auto gone = record("gone", failWithOne, "usage");
        EXPECT_EQ(pum_register_cmd(&gone), 0);
        gone = {};
    }
    EXPECT_EQ(runCommand(cutModule(), "gone", std::nullopt)->result, 1);
}

TEST_F(LibraryCommands, MayFillTheirFieldsToTheEnd)
{
    const std::string name(sizeof(pum_cmd_t::command), 'c');
    const pum_cmd_t full = record(name, failWithOne, std::string(sizeof(pum_cmd_t::usage), 'u'));
    EXPECT_EQ(pum_register_cmd(&full), 0);
    EXPECT_EQ(runCommand(cutModule(), name, std::nullopt)->result, 1);
}

TEST_F(LibraryCommands, AreRefusedASecondTimeAndTheFirstStays)
{
    const pum_cmd_t first = record("twice", failWithOne, "usage");
    const pum_cmd_t second = record("twice", echoInBrackets, "usage");
    EXPECT_EQ(pum_register_cmd(&first), 0);
    fake::reset();
    EXPECT_EQ(pum_register_cmd(&second), -EEXIST);
    EXPECT_EQ(runCommand(cutModule(), "twice", std::nullopt)->result, 1);
    EXPECT_THAT(fake::library().lines,
                ElementsAre("3 notify: command " + cutModule() + " twice cannot be registered: error -17"));
}

TEST_F(LibraryCommands, AreRefusedWithoutARecordAHandlerOrAName)
{
    const pum_cmd_t noHandler = record("none", nullptr, "usage");
    const pum_cmd_t noName = record("", failWithOne, "usage");
    EXPECT_EQ(pum_register_cmd(nullptr), -EINVAL);
    EXPECT_EQ(pum_register_cmd(&noHandler), -EINVAL);
    EXPECT_EQ(pum_register_cmd(&noName), -EINVAL);
}

class SysctrlCommands : public testing::Test {
protected:
    static void SetUpTestSuite()
    {
        fake::reset();
        RegisterSysCtrlCmd();
    }
    void SetUp() override { fake::reset(); }
    static CommandAnswer run(const std::string &name, const std::optional<std::string> &value = std::nullopt)
    {
        return runCommand("sysctrl", name, value).value_or(CommandAnswer{12345, "no such command"});
    }
};

TEST_F(SysctrlCommands, AreLoggedWhenTheyAreRegisteredAgain)
{
    RegisterSysCtrlCmd();
    EXPECT_THAT(fake::library().lines, testing::Contains("3 notify: command sysctrl ip_show is registered already"));
}

TEST_F(SysctrlCommands, ShowTheAddressList)
{
    fake::library().ipText = "10.0.0.1 3\n";
    EXPECT_EQ(run("ip_show").text, "10.0.0.1 3\n");
}

struct AddressRow {
    const char *name;
    const char *command;
    const char *value;
    int32_t result;
    std::vector<std::string> calls;
};

TEST_F(SysctrlCommands, AddAndDeleteAddresses)
{
    const AddressRow rows[] = {
        {"add of the default type", "ip_add", "10.0.0.1", 0, {"NasIpMgrAddNewIP(10.0.0.1, 3)"}},
        {"add of another type", "ip_add", "fe80::1,5", 0, {"NasIpMgrAddNewIP(fe80::1, 5)"}},
        {"delete", "ip_del", "10.0.0.1,4", 0, {"NasIpMgrDeleteOldIP(10.0.0.1, 4)"}},
        {"no address", "ip_add", "10.0.0.300", -EINVAL, {}},
        {"no type", "ip_add", "10.0.0.1,", -EINVAL, {}},
        {"a type with letters", "ip_add", "10.0.0.1,3x", -EINVAL, {}},
        {"a type beyond 32 bits", "ip_add", "10.0.0.1,4294967296", -EINVAL, {}},
    };
    for (const AddressRow &row : rows) {
        fake::reset();
        EXPECT_EQ(run(row.command, row.value).result, row.result) << row.name;
        EXPECT_EQ(fake::library().calls, row.calls) << row.name;
    }
}

TEST_F(SysctrlCommands, ThatNeedATextFailWithoutOne)
{
    for (const char *name : {"ip_add", "ip_del", "cluster_add", "cluster_del", "lif_show"}) {
        EXPECT_EQ(run(name).result, -EINVAL) << name;
    }
    EXPECT_THAT(fake::library().calls, IsEmpty());
}

TEST_F(SysctrlCommands, PassARefusalOfTheLibraryOn)
{
    fake::library().result = 1;
    EXPECT_EQ(run("ip_add", "10.0.0.1").result, -EINVAL);
    EXPECT_EQ(run("ip_period", "601").result, -EINVAL);
    EXPECT_EQ(run("cluster_add", "5").result, -EINVAL);
}

TEST_F(SysctrlCommands, AnswerThePeriodAndSetItWhenGivenOne)
{
    EXPECT_EQ(run("ip_period").text, "60\n");
    EXPECT_THAT(fake::library().calls, IsEmpty());
    EXPECT_EQ(run("ip_period", "30").text, "60\n");
    EXPECT_THAT(fake::library().calls, ElementsAre("NasIpMgrSetIpQueryPeriod(30)"));
}

TEST_F(SysctrlCommands, TakeATextWithALineEndWithoutIt)
{
    const CommandAnswer answer = run("ip_period", "60\r\n");
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "60\n");
    EXPECT_THAT(fake::library().calls, ElementsAre("NasIpMgrSetIpQueryPeriod(60)"));
}

TEST_F(SysctrlCommands, ListAddAndDeleteClusters)
{
    EXPECT_EQ(run("cluster_list").text, "Cluster list count : 0\n");
    EXPECT_EQ(run("cluster_add", "18446744073709551615").result, 0);
    EXPECT_EQ(run("cluster_del", "9").result, 0);
    EXPECT_EQ(run("cluster_add", "9x").result, -EINVAL);
    EXPECT_THAT(fake::library().calls, ElementsAre("nas_ctrl_add_to_cluster_list(18446744073709551615)",
                                                   "nas_ctrl_remove_from_cluster_list(9)"));
}

TEST_F(SysctrlCommands, AnswerTheLogLevelAndSetItWithinItsBounds)
{
    EXPECT_EQ(run("log_level").text, "6\n");
    EXPECT_EQ(run("log_level", "4").text, "4\n");
    EXPECT_EQ(run("log_level", "8").result, -EINVAL);
    EXPECT_EQ(fake::library().logThreshold, 4U);
}

TEST_F(SysctrlCommands, ListLifPortsByIndex)
{
    fake::addPort(300, 5, 1, "lif-b", "10.0.0.2");
    fake::addPort(44, 2, 1, "lif-a", "10.0.0.1");
    EXPECT_EQ(run("lif_list").text, "2 44 lif-a 10.0.0.1\n5 300 lif-b 10.0.0.2\n");
}

// Some failures of the library keep a hold for good; whoever looks must not wait for its end.
TEST_F(SysctrlCommands, ListTheOtherLifPortsWhenABucketIsHeldAndSayWhichIsLeftOut)
{
    fake::addPort(300, 5, 1, "lif-b", "10.0.0.2");
    fake::addPort(45, 2, 1, "lif-a", "10.0.0.1");
    kvos_rwlock_write_lock(&g_NfsLifPortInfo.buckets[300 % NAS_LIF_PORT_BUCKETS].lock);
    const CommandAnswer answer = run("lif_list");
    EXPECT_EQ(answer.result, 0);
    EXPECT_EQ(answer.text, "2 45 lif-a 10.0.0.1\nbusy: ports with an id of 44 modulo 256\n");
}

uint32_t indexOfNine(uint64_t id)
{
    return id == 9 ? 17 : 0;
}

uint32_t nameOfNine(uint64_t id, char *buf, uint32_t len)
{
    if (id == 8) {
        return 1;
    }
    return snprintf(buf, len, "%s", id == 9 ? "lif-nine" : "") < 0 ? 1 : 0;
}

TEST_F(SysctrlCommands, ShowWhatStatisticsKnowOfALifPort)
{
    ASSERT_EQ(statis_int_handle_register(0, indexOfNine), 0);
    ASSERT_EQ(statis_string_handle_register(0, nameOfNine), 0);
    EXPECT_EQ(run("lif_show", "9").text, "17 lif-nine\n");
    EXPECT_EQ(run("lif_show", "10").result, -ENOENT) << "an empty name";
    EXPECT_EQ(run("lif_show", "8").result, -ENOENT) << "a failed look-up";
    EXPECT_EQ(run("lif_show", "nine").result, -EINVAL);
}

TEST_F(SysctrlCommands, SayBusyForALifPortWhoseBucketIsHeld)
{
    ASSERT_EQ(statis_int_handle_register(0, indexOfNine), 0);
    ASSERT_EQ(statis_string_handle_register(0, nameOfNine), 0);
    fake::addPort(9, 17, 1, "lif-nine", "10.0.0.1");
    kvos_rwlock_write_lock(&g_NfsLifPortInfo.buckets[9].lock);
    EXPECT_EQ(run("lif_show", "9").result, -EBUSY);
    kvos_rwlock_write_unlock(&g_NfsLifPortInfo.buckets[9].lock);
    EXPECT_EQ(run("lif_show", "9").text, "17 lif-nine\n");
}

TEST(Statistics, RefuseAKindOutOfBoundsAndANullLookUp)
{
    EXPECT_EQ(statis_int_handle_register(8, indexOfNine), -EINVAL);
    EXPECT_EQ(statis_string_handle_register(8, nameOfNine), -EINVAL);
    EXPECT_EQ(statis_int_handle_register(1, nullptr), -EINVAL);
    EXPECT_EQ(host::statisticsIndex(8, 1), std::nullopt);
    EXPECT_EQ(host::statisticsName(1, 1), std::nullopt) << "a kind that nobody registered";
}

} // namespace
