// The command line of nasstored.
#include <gmock/gmock.h>
#include <sstream>
#include <storage/options.h>

using testing::HasSubstr;

namespace storage {
namespace {

Options parse(const std::vector<std::string> &arguments)
{
    std::ostringstream out;
    return parseOptions(arguments, "1.0.0", out).value();
}

TEST(StoredOptions, HaveDefaults)
{
    const Options options = parse({});
    EXPECT_EQ(options.service.socketPath, "/run/nasctrl/storage.sock");
    EXPECT_EQ(options.service.dataFile, "");
    EXPECT_EQ(options.log.file, "");
    EXPECT_EQ(options.log.threshold, 6U);
    EXPECT_TRUE(options.log.console);
    EXPECT_EQ(options.readyFd, std::nullopt);
}

TEST(StoredOptions, TakeEveryFlag)
{
    const Options options = parse(
        {"--socket", "/s", "--data", "/d", "--log-file", "/l", "--log-level", "3", "--ready-fd", "5", "--no-console"});
    EXPECT_EQ(options.service.socketPath, "/s");
    EXPECT_EQ(options.service.dataFile, "/d");
    EXPECT_EQ(options.log.file, "/l");
    EXPECT_EQ(options.log.threshold, 3U);
    EXPECT_FALSE(options.log.console);
    EXPECT_EQ(options.readyFd, 5);
}

TEST(StoredOptions, AreRefusedInOneLine)
{
    const std::pair<std::vector<std::string>, const char *> rows[] = {
        {{"--sokcet", "x"}, "--sokcet: no such option; did you mean --socket?"},
        {{"--strange"}, "--strange: no such option; nasstored --help tells the form"},
        {{"word"}, "word: one argument too many; nasstored --help tells the form"},
        {{"--socket", "/s", "word"}, "word: one argument too many; nasstored --help tells the form"},
        {{"--socket"}, "--socket needs a value"},
        {{"--log-level", "8"}, "--log-level: 8 is not a whole number from 0 to 7"},
        {{"--ready-fd", "x"}, "--ready-fd: x is not a whole number from 0 to 2147483647"},
        {{"--data", ""}, "--data: an empty text is not a path, leave the option out instead"},
    };
    for (const auto &[arguments, line] : rows) {
        try {
            parse(arguments);
            ADD_FAILURE() << line << " was expected";
        } catch (const UsageError &error) {
            EXPECT_STREQ(error.what(), line);
        }
    }
}

TEST(StoredOptions, HelpAndVersionAreWrittenAndLeaveNothingToRun)
{
    std::ostringstream out;
    EXPECT_EQ(parseOptions({"--version"}, "1.2.3", out), std::nullopt);
    EXPECT_EQ(out.str(), "nasstored 1.2.3\n");
    EXPECT_EQ(parseOptions({"--help"}, "1.2.3", out), std::nullopt);
    EXPECT_THAT(out.str(), HasSubstr("--socket PATH"));
}

} // namespace
} // namespace storage
