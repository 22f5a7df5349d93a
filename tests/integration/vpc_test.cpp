// The VPC table of a real node: its commands, its file under the root, and files that an operator spoilt.
#include "node.h"

#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <iterator>

namespace integration {
namespace {

using testing::HasSubstr;
using testing::IsSupersetOf;

class VpcNode : public testing::Test {
protected:
    VpcNode() : file_(node_.root() + "/opt/dr/config/vpc.local.conf") {}

    void write(const std::string &text) const
    {
        std::filesystem::create_directories(std::filesystem::path(file_).parent_path());
        std::ofstream(file_, std::ios::binary) << text;
    }
    std::string read() const
    {
        std::ifstream file(file_, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    // What a command of the cloud module prints.
    std::string command(const std::string &name, const std::vector<std::string> &value = {}) const
    {
        std::vector<std::string> words = {"cmd", "-m", "cloud_adapt", "-c", name};
        words.insert(words.end(), value.begin(), value.end());
        const Outcome outcome = node_.ctl(words);
        EXPECT_EQ(outcome.exitCode, 0) << name << ": " << outcome.err;
        return outcome.out;
    }
    // "ID ADDRESS/LENGTH" of every record.
    std::vector<std::string> records() const
    {
        std::vector<std::string> all;
        const nlohmann::json listed = node_.json({"vpc", "ls"});
        for (const auto &record : listed["records"]) {
            all.push_back(record["id"].get<std::string>() + " " + record["address"].get<std::string>() + "/" +
                          record["length"].dump());
        }
        return all;
    }

    Node node_;
    std::string file_;
};

TEST_F(VpcNode, KeepsItsTableInAFileUnderItsRoot)
{
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    ASSERT_EQ(node_.ctl({"vpc", "add", "vpc-a", "10.1.0.0/16"}).exitCode, 0);
    EXPECT_EQ(node_.ctl({"vpc", "lookup", "10.1.7.9"}).out, "vpc-a\n");
    EXPECT_EQ(node_.ctl({"vpc", "lookup", "10.2.0.1"}).out, "vpc_id_default\n");
    EXPECT_EQ(node_.ctl({"vpc", "save"}).out, "1 record saved in " + file_ + "\n");
    EXPECT_EQ(read(), "vpc-a;10.1.0.0/16\n\n");
    EXPECT_EQ(node_.stop(SIGTERM), 0);
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_THAT(records(), testing::ElementsAre("vpc-a 10.1.0.0/16"));
}

TEST_F(VpcNode, OffersTheCommandsOfTheCloudModule)
{
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    std::vector<std::string> names;
    const nlohmann::json listed = node_.json({"cmd"});
    for (const auto &row : listed["commands"]) {
        names.push_back(row["module"].get<std::string>() + " " + row["command"].get<std::string>());
    }
    EXPECT_THAT(names, IsSupersetOf({"cloud_adapt set_vpc", "cloud_adapt get_vpc", "cloud_adapt clear_vpc",
                                     "cloud_adapt get_vpc_by_ip", "cloud_adapt check_vpc_id", "cloud_adapt save_vpc",
                                     "cloud_adapt reload_vpc"}));
    EXPECT_EQ(command("set_vpc", {"-v", "a,10.0.0.0/8"}), "");
    EXPECT_EQ(command("set_vpc", {"-v", "a,10.0.0.0/8"}), "Already exist.\n");
    EXPECT_EQ(command("set_vpc", {"-v", std::string(128, 'i') + ",10.0.0.0/8"}),
              "VPC ID must be maximum 127 characters\n");
    EXPECT_THAT(command("get_vpc"), HasSubstr("10.0.0.0"));
    EXPECT_THAT(command("get_vpc_by_ip", {"-v", "10.9.9.9"}), HasSubstr("VpcID : a\n"));
    EXPECT_EQ(command("check_vpc_id", {"-v", "a"}), "Congratulations, you get it!\n");
    EXPECT_EQ(command("save_vpc"), "");
    EXPECT_EQ(command("clear_vpc"), "");
    EXPECT_EQ(command("check_vpc_id", {"-v", "a"}), "Sorry, it's not exist!\n");
    EXPECT_EQ(command("reload_vpc"), "");
    EXPECT_THAT(records(), testing::ElementsAre("a 10.0.0.0/8"));
    EXPECT_EQ(node_.ctl({"cmd", "-m", "cloud_adapt", "-c", "set_vpc"}).exitCode, 1) << "needs a text";
}

TEST_F(VpcNode, StartsWithAHandEditedFileAndTakesWhatIsGoodInIt)
{
    const std::string longest(128, 'i');
    write("# not a record\nvpc-a;10.1.0.0/16\n;;vpc-b;10.2.0.0/24\n" + longest + ";10.3.0.0/8\n" + longest +
          "i;10.4.0.0/8\nno-network;\nvpc-c;10.5.0.0");
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_THAT(records(), testing::ElementsAre("vpc-a 10.1.0.0/16", "vpc-b 10.2.0.0/24", longest + " 10.3.0.0/8",
                                                "no-network \n/0", "vpc-c 10.5.0.0/0"));
    EXPECT_THAT(node_.log(), HasSubstr("Input string is not valid, not include '/'."));
}

TEST_F(VpcNode, SaysWhyAFileThatIsADirectoryIsNeitherSavedNorReloaded)
{
    std::filesystem::create_directories(file_);
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    for (const auto &[verb, done] : {std::pair{"save", "written"}, {"reload", "read"}}) {
        const Outcome outcome = node_.ctl({"vpc", verb});
        EXPECT_EQ(outcome.exitCode, 1) << verb;
        EXPECT_THAT(outcome.err, HasSubstr(file_ + " cannot be " + done + ": Is a directory")) << verb;
    }
    EXPECT_TRUE(node_.running());
}

TEST_F(VpcNode, RefusesTheRecordBeyondTheHundredth)
{
    std::string text;
    for (int i = 0; i < 150; ++i) {
        text += "v;10.0.0." + std::to_string(i) + "/32\n";
    }
    write(text);
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_EQ(records().size(), 100U);
    const Outcome outcome = node_.ctl({"vpc", "add", "a", "10.1.0.0/16"});
    EXPECT_EQ(outcome.exitCode, 1);
    EXPECT_THAT(outcome.err, HasSubstr("the table is full with 100 records"));
}

TEST_F(VpcNode, TellsWhatASaveLeftOfALongerFileAndAReloadBringsItBack)
{
    write("gone;10.1.0.0/16\n\nalso-gone;10.2.0.0/16\n\n");
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_EQ(node_.ctl({"vpc", "clear"}).out, "2 records removed; the file stays as it is\n");
    ASSERT_EQ(node_.ctl({"vpc", "add", "new", "10.3.0.0/16"}).exitCode, 0);
    EXPECT_EQ(node_.ctl({"vpc", "save"}).out,
              "1 record saved in " + file_ + "; 24 bytes of an older, longer text stay behind them\n");
    EXPECT_EQ(node_.ctl({"vpc", "reload"}).out, "1 record added from " + file_ + "; 2 in the table\n");
    EXPECT_THAT(records(), testing::ElementsAre("new 10.3.0.0/16", "also-gone 10.2.0.0/16"));
}

} // namespace
} // namespace integration
