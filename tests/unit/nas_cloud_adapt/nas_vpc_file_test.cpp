#include "vpc_file.h"
#include "vpc_fixture.h"

#include <cerrno>
#include <filesystem>
#include <sys/stat.h>

using testing::ElementsAre;
using testing::IsEmpty;
using vpc::put;

namespace {

constexpr char kNoNetwork[] = "3 PROTOCOL: Input string is not valid, not include '/'.";
constexpr char kNoText[] = "3 PROTOCOL: Input string is not valid, not include ';'.";

size_t openFiles()
{
    const std::filesystem::directory_iterator folder("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

class VpcFileOnDisk : public vpc::Table {
protected:
    void SetUp() override
    {
        vpc::Table::SetUp();
        open_ = openFiles();
    }
    void TearDown() override
    {
        EXPECT_EQ(openFiles(), open_);
        vpc::Table::TearDown();
    }

    VpcFile file_;

private:
    size_t open_ = 0;
};

// ---- saving

TEST_F(VpcFileOnDisk, HoldsALineAndAnEmptyOneForEachUsedRecordInTableOrder)
{
    put(0, "vpc-b", "10.2.0.0", 16);
    put(2, "vpc-a", "10.1.0.0", -8);
    NasVpcSave();
    EXPECT_EQ(file_.read(), "vpc-b;10.2.0.0/16\n\nvpc-a;10.1.0.0/-8\n\n");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, IsMadeForItsOwnerAlone)
{
    const mode_t mask = umask(0);
    NasVpcSave();
    umask(mask);
    struct stat status = {};
    ASSERT_EQ(stat(file_.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    EXPECT_EQ(status.st_size, 0);
}

TEST_F(VpcFileOnDisk, KeepsTheTailOfALongerOlderText)
{
    file_.write("older;10.1.0.0/16\n\noldest;10.2.0.0/16\n\n");
    put(0, "a", "10.3.0.0", 8);
    NasVpcSave();
    EXPECT_EQ(file_.read(), "a;10.3.0.0/8\n\n/16\n\noldest;10.2.0.0/16\n\n");
}

TEST_F(VpcFileOnDisk, IsLeftAsItIsByAnEmptyTable)
{
    file_.write("older;10.1.0.0/16\n\n");
    NasVpcSave();
    EXPECT_EQ(file_.read(), "older;10.1.0.0/16\n\n");
}

TEST_F(VpcFileOnDisk, IsCutWhereTheTextOfAFullTableOutgrowsItsBuffer)
{
    std::string whole;
    for (size_t i = 0; i < 100; ++i) {
        const std::string id(128, static_cast<char>('A' + i % 26));
        put(i, id, "00000000000000000001", -32768);
        whole += id + ";00000000000000000001/-32768\n\n";
    }
    NasVpcSave();
    ASSERT_GT(whole.size(), 15599U);
    EXPECT_EQ(file_.read(), whole.substr(0, 15599));
}

TEST_F(VpcFileOnDisk, IsEmptyWhenThereIsNoMemoryForTheText)
{
    put(0, "a", "10.3.0.0", 8);
    fake::failAllocation(1);
    NasVpcSave();
    EXPECT_TRUE(std::filesystem::exists(file_.path()));
    EXPECT_EQ(file_.read(), "");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, ATextInMemoryIsHeldByTheSaveAlone)
{
    put(0, "a", "10.3.0.0", 8);
    std::filesystem::create_symlink("/dev/full", file_.path());
    size_t held = 0;
    fake::during("kvlog", [&] { held = fake::liveBlocks("NasVpcSave"); });
    NasVpcSave();
    EXPECT_EQ(held, 1U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(VpcFileOnDisk, AWriteThatFailsIsLoggedWithItsReason)
{
    put(0, "a", "10.3.0.0", 8);
    std::filesystem::create_symlink("/dev/full", file_.path());
    NasVpcSave();
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Write err : 28."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasVpcSave"));
}

TEST_F(VpcFileOnDisk, AFileThatCannotBeWrittenIsLeftAloneInSilence)
{
    put(0, "a", "10.3.0.0", 8);
    file_.write("older;10.1.0.0/16\n\n");
    file_.refuseWriting(EACCES);
    NasVpcSave();
    EXPECT_EQ(file_.read(), "older;10.1.0.0/16\n\n");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, WithoutItsFolderItIsNotSaved)
{
    put(0, "a", "10.3.0.0", 8);
    std::filesystem::remove_all(std::filesystem::path(file_.path()).parent_path());
    NasVpcSave();
    EXPECT_FALSE(std::filesystem::exists(file_.path()));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, ADirectoryInItsPlaceIsNeitherSavedNorLoaded)
{
    put(0, "a", "10.3.0.0", 8);
    std::filesystem::create_directory(file_.path());
    NasVpcSave();
    NasVpcLoad();
    EXPECT_TRUE(std::filesystem::is_directory(file_.path()));
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.3.0.0/8"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

// ---- loading

TEST_F(VpcFileOnDisk, GivesBackWhatWasSavedAndRefusesTheEmptyLines)
{
    vpc::set("vpc-a", "10.1.0.0/16");
    vpc::set("vpc-b", "10.2.0.0/24");
    NasVpcSave();
    NasClearVpcInfo();
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), ElementsAre("vpc-a 10.1.0.0/16", "vpc-b 10.2.0.0/24"));
    EXPECT_THAT(fake::log(), ElementsAre(kNoNetwork, kNoNetwork));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasSetVpcInfo"));
}

TEST_F(VpcFileOnDisk, IsAddedToTheTable)
{
    vpc::set("b", "10.2.0.0/16");
    vpc::set("mine", "10.9.0.0/16");
    file_.write("a;10.1.0.0/16\nb;10.2.0.0/16\n");
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), ElementsAre("b 10.2.0.0/16", "mine 10.9.0.0/16", "a 10.1.0.0/16"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, NoFileLoadsNothingInSilence)
{
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

struct LineRow {
    const char *name;
    std::string text;
    vpc::Texts records;
    vpc::Texts log;
};

void PrintTo(const LineRow &row, std::ostream *stream)
{
    *stream << row.name;
}

class Lines : public VpcFileOnDisk, public testing::WithParamInterface<LineRow> {};

TEST_P(Lines, OfAnyKindHaveTheirOutcome)
{
    file_.write(GetParam().text);
    NasVpcLoad();
    EXPECT_EQ(vpc::table(), GetParam().records);
    EXPECT_EQ(fake::log(), GetParam().log);
}

constexpr char kTooLong[] = "3 PROTOCOL: Memcpy failed.";
const std::string kId127(127, 'i');
const std::string kId128(128, 'i');
const std::string kId129(129, 'i');

const LineRow kLineRows[] = {
    {"Empty", "", {}, {}},
    {"LastLineWithoutANewline", "a;10.1.0.0/16", {"a 10.1.0.0/16"}, {}},
    {"LeadingSemicolons", ";;a;10.1.0.0/16\n", {"a 10.1.0.0/16"}, {}},
    {"SemicolonBehind", "a;10.1.0.0/16;more\n", {"a 10.1.0.0/16"}, {}},
    {"TwoSemicolons", "a;;10.1.0.0/16\n", {"a ;10.1.0.0/16"}, {}},
    {"Windows", "a;10.1.0.0/16\r\n", {"a 10.1.0.0/16"}, {}},
    {"Blanks", " a ; 10.1.0.0/16\n", {" a   10.1.0.0/16"}, {}},
    {"NoSlash", "a;10.1.0.0\n", {"a 10.1.0.0\n/0"}, {}},
    {"NoSlashAtTheEnd", "a;10.1.0.0", {"a 10.1.0.0/0"}, {}},
    {"NoNetwork", "a;\n", {"a \n/0"}, {}},
    {"NoNetworkAtTheEnd", "a;", {}, {kNoNetwork}},
    {"NoSemicolon", "10.1.0.0/16\nb;10.2.0.0/16\n", {"b 10.2.0.0/16"}, {kNoNetwork}},
    {"EmptyLines", "\n\nb;10.2.0.0/16\n", {"b 10.2.0.0/16"}, {kNoNetwork, kNoNetwork}},
    {"SlashesAlone", "a;//", {}, {kNoNetwork}},
    {"SemicolonsAndANewline", ";;\nb;10.2.0.0/16\n", {"b 10.2.0.0/16"}, {kNoNetwork}},
    {"SemicolonsAtTheEnd", "b;10.2.0.0/16\n;;", {"b 10.2.0.0/16"}, {kNoText}},
    {"NulEndsTheReading", std::string("\0\nb;10.2.0.0/16\n", 16), {}, {kNoText}},
    {"NulInsideALine", std::string("a;10.1.0.0/1\0006\nb;10.2.0.0/16\n", 29), {"a 10.1.0.0/1", "b 10.2.0.0/16"}, {}},
    {"Comment", "# a;10.1.0.0/16\n", {"# a 10.1.0.0/16"}, {}},
    {"NoMask", "a;10.1.0.0/\n", {"a 10.1.0.0/0"}, {}},
    {"JunkMask", "a;10.1.0.0/wide\n", {"a 10.1.0.0/0"}, {}},
    {"MaskBeyond16Bits", "a;10.1.0.0/65552\n", {"a 10.1.0.0/16"}, {}},
    {"NegativeMask", "a;10.1.0.0/-16\n", {"a 10.1.0.0/-16"}, {}},
    {"IdOf127", kId127 + ";10.1.0.0/16\n", {kId127 + " 10.1.0.0/16"}, {}},
    {"IdOf128", kId128 + ";10.1.0.0/16\n", {kId128 + " 10.1.0.0/16"}, {}},
    {"IdOf129", kId129 + ";10.1.0.0/16\nb;10.2.0.0/16\n", {"b 10.2.0.0/16"}, {kTooLong}},
    {"AddressOf19", "a;0000000000010.1.0.0/16\n", {"a 0000000000010.1.0.0/16"}, {}},
    {"AddressOf20", "a;00000000000010.1.0.0/16\n", {"a 00000000000010.1.0.0/16"}, {}},
    {"AddressOf21", "a;000000000000010.1.0.0/16\nb;10.2.0.0/16\n", {"b 10.2.0.0/16"}, {kTooLong}},
};

INSTANTIATE_TEST_SUITE_P(Rows, Lines, testing::ValuesIn(kLineRows),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VpcFileOnDisk, ALineIsReadInPiecesOf255Characters)
{
    // The first piece ends behind "10.1.0.0/1", the second is a line of its own.
    const std::string slashes(255 - std::string("a;10.1.0.0/1").size(), '/');
    file_.write("a;" + slashes + "10.1.0.0/16;b;10.2.0.0/24\n");
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.1.0.0/1", "6 b;10.2.0.0/24"));
}

TEST_F(VpcFileOnDisk, MoreLinesThanTheTableHasRoomForAreLeftOut)
{
    std::string text;
    for (int i = 0; i < 150; ++i) {
        text += "v;10.0.0." + std::to_string(i) + "/32\n";
    }
    file_.write(text);
    NasVpcLoad();
    EXPECT_EQ(vpc::table().size(), 100U);
    EXPECT_EQ(vpc::table().back(), "v 10.0.0.99/32");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcFileOnDisk, WhatIsAppendedWhileItIsReadIsReadToo)
{
    file_.write("a;10.1.0.0/16\n\n");
    fake::during("kvlog", [&] {
        if (fake::log().size() == 1) {
            file_.append("b;10.2.0.0/16\n");
        }
    });
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.1.0.0/16", "b 10.2.0.0/16"));
    EXPECT_THAT(fake::log(), ElementsAre(kNoNetwork));
}

TEST_F(VpcFileOnDisk, AReloadBringsBackTheRecordsOfATail)
{
    vpc::set("gone", "10.1.0.0/16");
    vpc::set("also-gone", "10.2.0.0/16");
    NasVpcSave();
    NasClearVpcInfo();
    vpc::set("new", "10.3.0.0/16");
    NasVpcSave();
    NasClearVpcInfo();
    NasVpcLoad();
    EXPECT_THAT(vpc::table(), ElementsAre("new 10.3.0.0/16", "also-gone 10.2.0.0/16"));
}

} // namespace
