// The real nasctrl-hostcheck, told about hosts of every kind. Each answer is judged whole, with its exit code.
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sstream>
#include <support/process.h>
#include <unistd.h>

namespace {

struct Answer {
    int code;
    std::string text;
    bool operator==(const Answer &) const = default;
};

void PrintTo(const Answer &answer, std::ostream *out)
{
    *out << "code " << answer.code << " and text:\n" << answer.text;
}

Answer run(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), HOSTCHECK);
    const support::Pipe out;
    const pid_t child = support::spawn(std::move(arguments), {.out = out.write, .err = out.write});
    close(out.write);
    std::string text = support::readAll(out.read);
    return {support::exitCodeOf(child), std::move(text)};
}

Answer check(const std::string &host)
{
    return run({"--library", LIBRARY, host});
}

constexpr int kContract = 75; // functions that the library takes from its host

std::string definesAll()
{
    return "defines all " + std::to_string(kContract) + " functions of the contract\n";
}

class Hostcheck : public testing::Test {
protected:
    Hostcheck()
    {
        std::array<char, 32> name{"/tmp/hostcheck.XXXXXX"};
        folder_ = mkdtemp(name.data());
    }
    ~Hostcheck() override { std::filesystem::remove_all(folder_); }
    Hostcheck(const Hostcheck &) = delete;
    Hostcheck &operator=(const Hostcheck &) = delete;

    std::string file(const std::string &name) const { return folder_ / name; }
    std::string write(const std::string &name, const std::string &content) const
    {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    // A host without faults, to be spoilt.
    static std::string goodHost()
    {
        std::ostringstream content;
        content << std::ifstream(MINIMAL_HOST, std::ios::binary).rdbuf();
        return content.str();
    }

private:
    std::filesystem::path folder_;
};

TEST_F(Hostcheck, FindsNothingAmissInTheMinimalHost)
{
    EXPECT_EQ(check(MINIMAL_HOST), (Answer{0, definesAll() + "replaces no function of the library\n"
                                                             "the library can be loaded into it\n"}));
}

TEST_F(Hostcheck, NamesWhatTheReferenceHostReplaces)
{
    EXPECT_EQ(check(NASCTRLD), (Answer{0, definesAll() + "replaces 3 functions of the library:\n"
                                                         "  NasCtrlExecuteDpcEventTask\n"
                                                         "  NasCtrlHandleDpcConnectEvent\n"
                                                         "  NasCtrlHandleDpcEventAdapter\n"
                                                         "the library can be loaded into it\n"}));
}

TEST_F(Hostcheck, JudgesASharedLibraryLikeAProgram)
{
    EXPECT_EQ(check(LIBRARY_HOST), (Answer{0, definesAll() + "replaces no function of the library\n"
                                                             "the library can be loaded into it\n"}));
}

TEST_F(Hostcheck, NamesWhatAHostLacksAndWhatItReplaces)
{
    EXPECT_EQ(check(LACKING_HOST), (Answer{1, "lacks 2 of " + std::to_string(kContract) +
                                                  " functions of the contract:\n"
                                                  "  hash_u64_id\n"
                                                  "  ns_set\n"
                                                  "replaces 1 function of the library:\n"
                                                  "  HdfsCtrlGetTenantId\n"
                                                  "the library cannot be loaded into it: it lacks functions\n"}));
}

TEST_F(Hostcheck, TellsAFunctionThatIsOnlyNotExportedFromOneThatIsNotThere)
{
    const Answer answer = check(CLOSED_HOST);
    EXPECT_EQ(answer.code, 1);
    EXPECT_THAT(answer.text, testing::HasSubstr("  hash_u64_id\n  kvlog  (defined, but not exported)\n"));
}

TEST_F(Hostcheck, FindsFunctionsInTheLibrariesThatAHostBringsAlong)
{
    EXPECT_EQ(check(HOST_OF_PARTS), (Answer{0, definesAll() + "replaces no function of the library\n"
                                                              "the library can be loaded into it\n"}));
}

TEST_F(Hostcheck, TakesALibraryWhoseFolderHasBlanksAndColonsInItsName)
{
    std::filesystem::create_directory(file("a b:c"));
    const std::string library = file("a b:c/libnasctrl.so.1");
    std::filesystem::copy_file(LIBRARY, library);
    EXPECT_EQ(run({"--library", library, MINIMAL_HOST}).code, 0);
    EXPECT_EQ(run({"--library", library, LACKING_HOST}).code, 1);
}

TEST_F(Hostcheck, NamesALibraryThatTheHostNeedsAndThatIsNotThere)
{
    std::string host = goodHost();
    const std::string needed = "libnasctrl.so.1";
    for (size_t at = host.find(needed); at != std::string::npos; at = host.find(needed, at)) {
        host.replace(at, needed.size(), "libabsent1.so.1");
    }
    EXPECT_EQ(check(write("host", host)),
              (Answer{1, definesAll() + "replaces no function of the library\n"
                                        "the library cannot be loaded into it: there is no libabsent1.so.1\n"}));
}

TEST_F(Hostcheck, RefusesAHostOfAnotherMachine)
{
    std::string host = goodHost();
    host[18] = '\xB7'; // the field of the machine: AArch64
    EXPECT_EQ(check(write("host", host)),
              (Answer{1, definesAll() + "replaces no function of the library\n"
                                        "the library cannot be loaded into it: it is made for another machine\n"}));
}

TEST_F(Hostcheck, RefusesAStaticProgram)
{
    const Answer answer = check("/sbin/ldconfig");
    EXPECT_EQ(answer.code, 1);
    EXPECT_THAT(answer.text, testing::EndsWith("the library cannot be loaded into it: it is linked statically\n"));
}

TEST_F(Hostcheck, DoesNotJudgeWhatIsNoHost)
{
    const std::string text = write("text", "#!/bin/sh\necho a host\n");
    EXPECT_EQ(check(text),
              (Answer{2, "nasctrl-hostcheck: " + text + ": neither an executable nor a shared library\n"}));
    const std::string empty = write("empty", "");
    EXPECT_EQ(check(empty),
              (Answer{2, "nasctrl-hostcheck: " + empty + ": neither an executable nor a shared library\n"}));
    EXPECT_EQ(check("/absent"), (Answer{2, "nasctrl-hostcheck: /absent: No such file or directory\n"}));
    EXPECT_EQ(check("/tmp"), (Answer{2, "nasctrl-hostcheck: /tmp: not a file\n"}));
    EXPECT_EQ(run({"--library", "/absent", MINIMAL_HOST}),
              (Answer{2, "nasctrl-hostcheck: /absent: No such file or directory; name the library with --library\n"}));
}

// Wherever a host is cut, it gets an answer.
TEST_F(Hostcheck, SurvivesHostsThatAreCutOff)
{
    const std::string host = goodHost();
    for (const size_t length : {4, 16, 63, 64, 500, 4096}) {
        const Answer answer = check(write("host", host.substr(0, length)));
        EXPECT_TRUE(answer.code == 1 || answer.code == 2) << length << " bytes: " << testing::PrintToString(answer);
        EXPECT_THAT(answer.text, testing::EndsWith("\n"));
    }
}

TEST_F(Hostcheck, TellsOfAWrongCommandLineInOneLine)
{
    EXPECT_EQ(run({}), (Answer{2, "nasctrl-hostcheck: HOST is required; nasctrl-hostcheck --help tells the form\n"}));
    EXPECT_EQ(run({"--libary", "x", MINIMAL_HOST}),
              (Answer{2, "nasctrl-hostcheck: --libary: no such option; did you mean --library?\n"}));
    EXPECT_EQ(run({"--libary=x"}),
              (Answer{2, "nasctrl-hostcheck: --libary: no such option; did you mean --library?\n"}));
    EXPECT_EQ(run({MINIMAL_HOST, "word"}),
              (Answer{2, "nasctrl-hostcheck: word: one argument too many; nasctrl-hostcheck --help tells the form\n"}));
    EXPECT_EQ(run({"--library"}), (Answer{2, "nasctrl-hostcheck: --library needs a value\n"}));
    EXPECT_EQ(run({"--version"}).code, 0);
    EXPECT_EQ(run({"--help"}).code, 0);
}

} // namespace
