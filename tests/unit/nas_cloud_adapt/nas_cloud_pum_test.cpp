#include "vpc_file.h"
#include "vpc_fixture.h"

#include <cerrno>
#include <ctime>
#include <events.h>
#include <memory>
#include <nasctrl/host/memory.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Handler = int32_t (*)(char *, uint32_t);

struct Reply {
    int32_t result;
    std::string text; // of the buffer on return

    bool operator==(const Reply &) const = default;
};

void PrintTo(const Reply &reply, std::ostream *stream)
{
    *stream << reply.result << " \"" << reply.text << '"';
}

Reply run(Handler handler, const std::string &argument)
{
    char buf[4096] = {};
    argument.copy(buf, sizeof buf - 1);
    const int32_t result = handler(buf, sizeof buf);
    return {result, buf};
}

// An answer whose length is the result.
Reply answer(const std::string &text)
{
    return {static_cast<int32_t>(text.size()), text};
}

class CloudCommand : public vpc::Table {
protected:
    VpcFile file_;
};

// ---- registration

struct CommandRow {
    const char *name;
    const char *usage;
    Handler handler;
};

constexpr CommandRow kRows[] = {
    {"set_vpc", "-m cloud_adapt -c set_vpc -v [vpcID,IP/Mask]", NasCloudSetVpcInfo},
    {"get_vpc", "-m cloud_adapt -c get_vpc ", NasCloudGetVpcInfo},
    {"clear_vpc", "-m cloud_adapt -c clear_vpc ", NasCloudClearVpcInfo},
    {"get_vpc_by_ip", "-m cloud_adapt -c get_vpc_by_ip -v [ipStr]", NasCloudGetVpcInfoByIP},
    {"check_vpc_id", "-m cloud_adapt -c check_vpc_id -v [ipStr]", NasCloudCheckVpcID},
    {"save_vpc", "-m cloud_adapt -c save_vpc", NasCloudSaveVpc},
    {"reload_vpc", "-m cloud_adapt -c reload_vpc", NasCloudReloadVpc},
};

pum_cmd_t recordOf(const CommandRow &row, bool first)
{
    pum_cmd_t record;
    memset(&record, 0, sizeof record);
    record.header0 = 32;
    record.header1 = first ? 1 : 0;
    strcpy(record.module, "cloud_adapt");
    strcpy(record.command, row.name);
    strcpy(record.usage, row.usage);
    record.handler = row.handler;
    return record;
}

TEST_F(CloudCommand, TheSevenAreRegisteredInOrder)
{
    NasCloudPumRegister();
    const std::vector<pum_cmd_t> records = fake::registeredCommands();
    ASSERT_EQ(records.size(), std::size(kRows));
    for (size_t i = 0; i < records.size(); ++i) {
        const pum_cmd_t expected = recordOf(kRows[i], i == 0);
        EXPECT_EQ(memcmp(&records[i], &expected, sizeof expected), 0) << kRows[i].name;
    }
}

TEST_F(CloudCommand, TheStartRegistersThemAndLoadsTheFile)
{
    file_.write("a;10.1.0.0/16\n");
    EXPECT_EQ(NasCloudAdaptInit(), 0);
    EXPECT_EQ(fake::registeredCommands().size(), std::size(kRows));
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.1.0.0/16"));
}

TEST_F(CloudCommand, TheStartPassesOverRegistrationsThatAreRefused)
{
    for (uint64_t nth = 1; nth <= std::size(kRows); ++nth) {
        SetUp();
        file_.write("a;10.1.0.0/16\n");
        fake::failCall(nth);
        EXPECT_EQ(NasCloudAdaptInit(), 0) << nth;
        EXPECT_EQ(fake::calls("pum_register_cmd").size(), std::size(kRows)) << nth;
        EXPECT_THAT(vpc::table(), ElementsAre("a 10.1.0.0/16")) << nth;
        EXPECT_THAT(fake::log(), IsEmpty()) << nth;
    }
}

// ---- set_vpc

TEST_F(CloudCommand, SetAddsARecordWithoutAnAnswerAndTellsADuplicate)
{
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,10.0.0.0/8").result, 0);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8"));
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,10.0.0.0/8"), answer("Already exist.\n"));
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(CloudCommand, SetSkipsLeadingCommasAndCutsTheIdAtTheNext)
{
    EXPECT_EQ(run(NasCloudSetVpcInfo, ",,a,10.0.0.0/8").result, 0);
    EXPECT_EQ(run(NasCloudSetVpcInfo, "b,10.0.0.0/8,c").result, 0);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8", "b 10.0.0.0/8"));
}

TEST_F(CloudCommand, SetOfNothingButCommasIsNotValid)
{
    for (const char *argument : {"", ",", ",,,"}) {
        fake::reset();
        EXPECT_EQ(run(NasCloudSetVpcInfo, argument), answer("Input is not valid. Provide option -v vpcID,IP/Mask\n"));
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Input is not valid."));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCloudSetVpcInfo"));
    }
    EXPECT_THAT(vpc::table(), IsEmpty());
}

TEST_F(CloudCommand, SetWithoutANetworkFails)
{
    for (const char *argument : {"a", "a,", "a,/"}) {
        fake::reset();
        EXPECT_EQ(run(NasCloudSetVpcInfo, argument), answer("set_vpc failed\n")) << argument;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Input string is not valid, not include '/'.",
                                             "3 PROTOCOL: NasSetVpcInfo failed."));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSetVpcInfo", "NasCloudSetVpcInfo"));
    }
}

TEST_F(CloudCommand, SetTakesIdsOfAtMost127Characters)
{
    const std::string longest(127, 'i');
    EXPECT_EQ(run(NasCloudSetVpcInfo, longest + ",10.0.0.0/8").result, 0);
    EXPECT_THAT(vpc::table(), ElementsAre(longest + " 10.0.0.0/8"));
    for (const size_t length : {128, 129, 3000}) {
        fake::reset();
        EXPECT_EQ(run(NasCloudSetVpcInfo, std::string(length, 'i') + ",10.1.0.0/8"),
                  answer("VPC ID must be maximum 127 characters\n"));
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: VPC ID must be maximum 127 characters."));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCloudSetVpcInfo"));
    }
    EXPECT_EQ(vpc::table().size(), 1U);
}

TEST_F(CloudCommand, SetTakesAddressesOfAtMost20Characters)
{
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,0000000000010.1.0.0/16").result, 0);
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,00000000000010.1.0.0/16").result, 0);
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,000000000000010.1.0.0/16"), answer("set_vpc failed\n"));
    EXPECT_THAT(vpc::table(), ElementsAre("a 0000000000010.1.0.0/16", "a 00000000000010.1.0.0/16"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memcpy failed.", "3 PROTOCOL: NasSetVpcInfo failed."));
}

TEST_F(CloudCommand, SetIntoAFullTableFails)
{
    vpc::fill();
    EXPECT_EQ(run(NasCloudSetVpcInfo, "a,10.0.0.0/8"), answer("set_vpc failed\n"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: NasSetVpcInfo failed."));
}

// ---- the other commands

TEST_F(CloudCommand, GetListsTheTableSortedTwice)
{
    char expected[1024];
    vpc::put(0, "a", "10.0.0.0", 8);
    vpc::put(1, "a", "10.0.0.0", 16);
    // Equal records change places at every sort, so that an even number of sorts shows: 8 before 16.
    const Reply reply = run(NasCloudGetVpcInfo, "ignored");
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8", "a 10.0.0.0/16"));
    NasSortVpc();
    NasListVpcInfo(expected, sizeof expected);
    EXPECT_EQ(reply, answer(expected));
}

TEST_F(CloudCommand, ClearFreesTheTableAndLeavesTheFile)
{
    vpc::set("a", "10.0.0.0/8");
    NasVpcSave();
    EXPECT_EQ(run(NasCloudClearVpcInfo, "ignored"), (Reply{0, "ignored"}));
    EXPECT_THAT(vpc::table(), IsEmpty());
    EXPECT_EQ(file_.read(), "a;10.0.0.0/8\n\n");
}

std::string framed(const std::string &id)
{
    const std::string dashes(49, '-');
    return dashes + "\nVpcID : " + id + "\n" + dashes + "\n";
}

TEST_F(CloudCommand, GetByIpAnswersTheIdBetweenDashes)
{
    const std::string longest(128, 'i');
    vpc::set("a", "10.1.0.0/16");
    vpc::set(longest, "11.0.0.0/8");
    EXPECT_EQ(run(NasCloudGetVpcInfoByIP, "10.1.7.9"), answer(framed("a")));
    EXPECT_EQ(run(NasCloudGetVpcInfoByIP, "10.2.0.1"), answer(framed("vpc_id_default")));
    EXPECT_EQ(run(NasCloudGetVpcInfoByIP, "11.2.0.1"), answer(framed(longest)));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(CloudCommand, GetByIpTakesATextThatIsNoAddressForAllOnes)
{
    EXPECT_EQ(run(NasCloudGetVpcInfoByIP, "nonsense"), answer(framed("")));
    vpc::fill();
    EXPECT_EQ(run(NasCloudGetVpcInfoByIP, "nonsense"), answer(framed("vpc_id_default")));
}

TEST_F(CloudCommand, CheckTellsWhetherAnIdIsKnown)
{
    vpc::set("a", "10.1.0.0/16");
    EXPECT_EQ(run(NasCloudCheckVpcID, "a"), answer("Congratulations, you get it!\n"));
    EXPECT_EQ(run(NasCloudCheckVpcID, "b"), answer("Sorry, it's not exist!\n"));
    EXPECT_EQ(run(NasCloudCheckVpcID, ""), answer("Congratulations, you get it!\n"));
}

TEST_F(CloudCommand, SaveWritesTheFileAndReloadAddsItToTheTable)
{
    vpc::set("a", "10.1.0.0/16");
    EXPECT_EQ(run(NasCloudSaveVpc, "ignored"), (Reply{0, "ignored"}));
    EXPECT_EQ(file_.read(), "a;10.1.0.0/16\n\n");
    NasClearVpcInfo();
    vpc::set("b", "10.2.0.0/16");
    EXPECT_EQ(run(NasCloudReloadVpc, "ignored"), (Reply{0, "ignored"}));
    EXPECT_THAT(vpc::table(), ElementsAre("b 10.2.0.0/16", "a 10.1.0.0/16"));
}

TEST_F(CloudCommand, CommandsThatReadOrAnswerRefuseANullBuffer)
{
    struct Row {
        const char *func;
        Handler handler;
    };
    for (const Row &row :
         {Row{"NasCloudSetVpcInfo", NasCloudSetVpcInfo}, Row{"NasCloudGetVpcInfo", NasCloudGetVpcInfo},
          Row{"NasCloudGetVpcInfoByIP", NasCloudGetVpcInfoByIP}, Row{"NasCloudCheckVpcID", NasCloudCheckVpcID}}) {
        fake::reset();
        EXPECT_EQ(row.handler(nullptr, 0), -22) << row.func;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
        EXPECT_THAT(fake::logFuncs(), ElementsAre(row.func));
    }
}

TEST_F(CloudCommand, CommandsThatNeedNoTextWorkWithoutABuffer)
{
    vpc::set("a", "10.1.0.0/16");
    EXPECT_EQ(NasCloudSaveVpc(nullptr, 0), 0);
    EXPECT_EQ(NasCloudClearVpcInfo(nullptr, 0), 0);
    EXPECT_THAT(vpc::table(), IsEmpty());
    EXPECT_EQ(NasCloudReloadVpc(nullptr, 0), 0);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.1.0.0/16"));
}

TEST_F(CloudCommand, AnswersAreCutToTheRoom)
{
    vpc::set("a", "10.1.0.0/16");
    struct Row {
        Handler handler;
        std::string argument;
    };
    for (const Row &row : {Row{NasCloudSetVpcInfo, "a,10.1.0.0/16"}, Row{NasCloudSetVpcInfo, ","},
                           Row{NasCloudGetVpcInfoByIP, "10.1.7.9"}, Row{NasCloudCheckVpcID, "b"}}) {
        const std::string whole = run(row.handler, row.argument).text;
        for (size_t size = row.argument.size() + 1; size <= whole.size() + 1; ++size) {
            const auto buf = std::make_unique<char[]>(size); // exactly sized, so that a sanitizer sees a step outside
            memcpy(buf.get(), row.argument.c_str(), row.argument.size() + 1);
            EXPECT_EQ(row.handler(buf.get(), static_cast<uint32_t>(size)), static_cast<int32_t>(size - 1));
            EXPECT_EQ(std::string(buf.get()), whole.substr(0, size - 1));
        }
    }
}

TEST_F(CloudCommand, AnAnswerWithoutRoomIsNotWritten)
{
    char buf[] = "b";
    EXPECT_EQ(NasCloudCheckVpcID(buf, 0), 0);
    EXPECT_STREQ(buf, "b");
}

// ---- the identity client

std::string localTime(time_t time)
{
    tm parts = {};
    char text[64];
    localtime_r(&time, &parts);
    parts.tm_isdst = 0;
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
    return text;
}

uint32_t notPassed(const std::string &expiry)
{
    const iam_token token = {"token", expiry.c_str()};
    return NasIsTokenExpired(&token);
}

class IamClient : public vpc::Table {};

TEST_F(IamClient, ATokenCountsUntilItsTimeHasPassed)
{
    EXPECT_EQ(notPassed(localTime(time(nullptr) + 3600)), 1U);
    EXPECT_EQ(notPassed(localTime(time(nullptr) - 3600)), 0U);
    EXPECT_EQ(notPassed("2199-12-31T23:59:59"), 1U);
    EXPECT_EQ(notPassed("1999-12-31T23:59:59"), 0U);
}

TEST_F(IamClient, AnExpiryThatIsNoTimeHasPassed)
{
    EXPECT_EQ(notPassed(""), 0U);
    EXPECT_EQ(notPassed("tomorrow"), 0U);
}

TEST_F(IamClient, NoTokenAndNoExpiryDoNotCount)
{
    const iam_token token = {"token", nullptr};
    EXPECT_EQ(NasIsTokenExpired(nullptr), 0U);
    EXPECT_EQ(NasIsTokenExpired(&token), 0U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IamClient, TokensAreGivenBackToThePool)
{
    void *first = nas_mem_comm_alloc(8, "first", 1);
    void *second = nas_mem_comm_alloc(8, "second", 1);
    NasFreeIamToken(first, second);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    NasFreeIamToken(nullptr, nas_mem_comm_alloc(8, "second", 1));
    NasFreeIamToken(nas_mem_comm_alloc(8, "first", 1), nullptr);
    NasFreeIamToken(nullptr, nullptr);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IamClient, TheAccountIsStoredAsGiven)
{
    const iam_account account = {{1, ~uint64_t{0}, 3}};
    NasSetIamAccoutInfo(&account);
    EXPECT_THAT(gAcc.fields, ElementsAre(1, ~uint64_t{0}, 3));
    NasSetIamAccoutInfo(nullptr);
    EXPECT_THAT(gAcc.fields, ElementsAre(1, ~uint64_t{0}, 3));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: a is NULL, return !!!!!!!!!!!!"));
}

TEST_F(IamClient, IsMarkedInitialised)
{
    bInitialed = 0;
    EXPECT_EQ(NasInitNasIam(), 0);
    EXPECT_EQ(bInitialed, 1);
}

TEST_F(IamClient, TheRequestPathIsEmpty)
{
    EXPECT_EQ(gToken.token, nullptr);
    EXPECT_EQ(gToken.expiry, nullptr);
    EXPECT_EQ(NasGetIamToken(), 0);
    EXPECT_EQ(NasParseTokenData(), 0);
    EXPECT_EQ(NasSendIamRequest(), 0);
    EXPECT_EQ(NasReceiveIamData(), 0);
    EXPECT_THAT(fake::calls(), IsEmpty());
}

} // namespace
