#include "platform/log.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <nasctrl/host/config.h>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// Both readers, seen alike.
struct Reader {
    const char *name;
    int32_t (*load)(const char *path);
    int32_t (*get)(const char *path, const char *section, const char *key, char *buffer, uint32_t size);
};

int32_t getItem(const char * /*path*/, const char *section, const char *key, char *buffer, uint32_t size)
{
    return kvos_cfg_getItemValue(section, key, buffer, size);
}

const Reader kReaders[] = {{"SingleFile", kvos_cfg_init, getItem},
                           {"FileByPath", ProtoCfgLoadFile, ProtoCfgGetStringValue}};

class ConfigFiles : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "nasctrl-config-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        host::openLog({.file = directory / "log", .console = false});
    }
    void TearDown() override
    {
        host::openLog({.file = "", .console = false});
        std::filesystem::remove_all(directory);
    }
    std::string write(const std::string &name, const std::string &text) const
    {
        std::string path = directory / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    // The texts of the error lines so far.
    std::vector<std::string> errors() const
    {
        std::vector<std::string> texts;
        std::ifstream file(directory / "log");
        for (std::string line; std::getline(file, line);) {
            EXPECT_NE(line.find(" error nasctrld["), std::string::npos) << line;
            texts.push_back(line.substr(line.find(": ") + 2));
        }
        return texts;
    }

    std::filesystem::path directory;
};

class Config : public ConfigFiles, public testing::WithParamInterface<Reader> {
protected:
    // The value, or "(none)".
    static std::string get(const std::string &path, const char *section, const char *key)
    {
        std::vector<char> buffer(70000);
        const auto size = static_cast<uint32_t>(buffer.size());
        return GetParam().get(path.c_str(), section, key, buffer.data(), size) == 0 ? buffer.data() : "(none)";
    }
    static int32_t load(const std::string &path) { return GetParam().load(path.c_str()); }
};

INSTANTIATE_TEST_SUITE_P(Readers, Config, testing::ValuesIn(kReaders),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_P(Config, ReadsValuesBySectionAndKey)
{
    struct Row {
        const char *name;
        const char *text;
        const char *section;
        const char *key;
        const char *value;
    };
    const Row rows[] = {
        {"plain", "[GLOBAL]\na=1\n", "GLOBAL", "a", "1"},
        {"blanks around names and value", " [ GLOBAL ] \n  a \t=  one two  \n", "GLOBAL", "a", "one two"},
        {"last line without a newline", "[GLOBAL]\na=1", "GLOBAL", "a", "1"},
        {"lines that end as on other systems", "[GLOBAL]\r\na=1\r\n", "GLOBAL", "a", "1"},
        {"empty value", "[GLOBAL]\na=\n", "GLOBAL", "a", ""},
        {"value with equals signs and comment characters", "[GLOBAL]\na=b=c;d#e\n", "GLOBAL", "a", "b=c;d#e"},
        {"dots in key", "[GLOBAL]\na.b.c=1\n", "GLOBAL", "a.b.c", "1"},
        {"dots in section", "[NET.V4]\na=1\n", "NET.V4", "a", "1"},
        {"dots do not join", "[NET.V4]\na=1\n", "NET", "V4.a", "(none)"},
        {"comment lines", "# a=1\n[GLOBAL]\n; a=2\n  # a=3\na=4\n", "GLOBAL", "a", "4"},
        {"same key in two sections", "[A]\nk=1\n[B]\nk=2\n", "B", "k", "2"},
        {"key before the first section", "k=0\n[A]\nk=1\n", "", "k", "0"},
        {"key before the first section is in no other", "k=0\n[A]\nx=1\n", "A", "k", "(none)"},
        {"a section is no key", "[A]\nx=1\n", "", "A", "(none)"},
        {"empty section", "[A]\n[B]\nk=1\n", "B", "k", "1"},
        {"no such key", "[A]\nx=1\n", "A", "y", "(none)"},
        {"no such section", "[A]\nx=1\n", "B", "x", "(none)"},
        {"names keep their case", "[A]\nx=1\n", "a", "X", "(none)"},
        {"empty file", "", "A", "x", "(none)"},
    };
    for (const Row &row : rows) {
        const std::string path = write("table.conf", row.text);
        EXPECT_EQ(load(path), 0) << row.name;
        EXPECT_EQ(get(path, row.section, row.key), row.value) << row.name;
    }
    EXPECT_THAT(errors(), IsEmpty());
}

TEST_P(Config, ReadsAVeryLongValueWhole)
{
    std::string value;
    while (value.size() < 60000) {
        value += std::to_string(value.size()) + ":10.0.0.1,";
    }
    const std::string path = write("long.conf", "[GLOBAL]\nlist=" + value + "\nnext=1\n");
    ASSERT_EQ(load(path), 0);
    EXPECT_EQ(get(path, "GLOBAL", "list"), value);
    EXPECT_EQ(get(path, "GLOBAL", "next"), "1");
}

TEST_P(Config, RefusesAMalformedFileWithItsLineAndKeepsWhatWasLoaded)
{
    struct Row {
        const char *text;
        const char *error;
    };
    const Row rows[] = {
        {"[A]\nx=1\n[B]\nx=2\n\n[A]\ny=1\n", ":6: duplicate section name"},
        {"[A]\nx=1\n# comment\nx=2\n", ":4: duplicate key name"},
        {"x=1\nx=2\n", ":2: duplicate key name"},
        {"[A]\nx=1\njust words\n", ":3: '=' character not found in line"},
        {"[A]\n=1\n", ":2: key expected"},
        {"\n[A\nx=1\n", ":2: unmatched '['"},
    };
    const std::string path = write("file.conf", "[A]\nx=old\n");
    ASSERT_EQ(load(path), 0);
    for (const Row &row : rows) {
        write("file.conf", row.text);
        EXPECT_NE(load(path), 0) << row.text;
        EXPECT_EQ(errors().back(), path + row.error);
        EXPECT_EQ(get(path, "A", "x"), "old") << row.text;
    }
    EXPECT_EQ(errors().size(), std::size(rows));
}

TEST_P(Config, RefusesANulCharacterWithItsLine)
{
    using namespace std::string_literals;
    const std::string path = write("binary.conf", "[A]\nx=1\ny=a\0b\n"s);
    EXPECT_NE(load(path), 0);
    EXPECT_THAT(errors(), ElementsAre(path + ":3: NUL character"));
}

TEST_P(Config, RefusesWhatIsNoReadableFile)
{
    const std::string missing = directory / "missing.conf";
    const std::string folder = directory;
    EXPECT_NE(load(missing), 0);
    EXPECT_NE(load(folder), 0);
    EXPECT_THAT(errors(), ElementsAre(missing + ": No such file or directory", folder + ": Is a directory"));
}

TEST_P(Config, ReplacesEverythingOnAReload)
{
    const std::string path = write("file.conf", "[A]\nx=1\ny=1\n");
    ASSERT_EQ(load(path), 0);
    write("file.conf", "[A]\nx=2\n");
    ASSERT_EQ(load(path), 0);
    EXPECT_EQ(get(path, "A", "x"), "2");
    EXPECT_EQ(get(path, "A", "y"), "(none)");
}

TEST_P(Config, RefusesAValueThatDoesNotFitAndLeavesTheBuffer)
{
    const std::string path = write("file.conf", "[A]\nx=12345\nempty=\n");
    ASSERT_EQ(load(path), 0);
    char buffer[8] = "before!";
    EXPECT_NE(GetParam().get(path.c_str(), "A", "x", buffer, 5), 0);
    EXPECT_NE(GetParam().get(path.c_str(), "A", "empty", buffer, 0), 0);
    EXPECT_NE(GetParam().get(path.c_str(), "A", "none", buffer, 8), 0);
    EXPECT_STREQ(buffer, "before!");
    EXPECT_EQ(GetParam().get(path.c_str(), "A", "x", buffer, 6), 0);
    EXPECT_EQ(std::string(buffer, 8), std::string("12345\0!\0", 8));
}

TEST_P(Config, RefusesNullArguments)
{
    const std::string path = write("file.conf", "[A]\nx=1\n");
    ASSERT_EQ(load(path), 0);
    char buffer[8] = "before!";
    EXPECT_NE(GetParam().load(nullptr), 0);
    EXPECT_NE(GetParam().get(path.c_str(), nullptr, "x", buffer, 8), 0);
    EXPECT_NE(GetParam().get(path.c_str(), "A", nullptr, buffer, 8), 0);
    EXPECT_NE(GetParam().get(path.c_str(), "A", "x", nullptr, 8), 0);
    EXPECT_STREQ(buffer, "before!");
}

TEST_P(Config, ShowsReadersOneWholeFileOrTheOtherWhileItIsReloaded)
{
    const std::string path = write("file.conf", "[A]\nx=" + std::string(1000, 'a') + "\n");
    ASSERT_EQ(load(path), 0);
    std::jthread reloader([&] {
        for (int turn = 0; turn < 100; turn++) {
            const char letter = turn % 2 == 0 ? 'b' : 'a';
            load(write("next.conf", "[A]\nx=" + std::string(1000, letter) + "\n"));
            std::filesystem::rename(directory / "next.conf", path);
            load(path);
        }
    });
    for (int turn = 0; turn < 500; turn++) {
        const std::string value = get(path, "A", "x");
        ASSERT_EQ(value, std::string(1000, value[0]));
    }
}

TEST_F(ConfigFiles, StandSideBySideUnderTheirPaths)
{
    const std::string first = write("first.conf", "[A]\nx=1\n");
    const std::string second = write("second.conf", "[A]\nx=2\n");
    ASSERT_EQ(ProtoCfgLoadFile(first.c_str()), 0);
    ASSERT_EQ(ProtoCfgLoadFile(second.c_str()), 0);
    char buffer[8] = "";
    EXPECT_EQ(ProtoCfgGetStringValue(first.c_str(), "A", "x", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "1");
    EXPECT_EQ(ProtoCfgGetStringValue(second.c_str(), "A", "x", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "2");
}

TEST_F(ConfigFiles, AreReadUnderTheirPathOnlyOnceLoaded)
{
    const std::string path = write("file.conf", "[A]\nx=1\n");
    char buffer[8] = "before!";
    EXPECT_NE(ProtoCfgGetStringValue(path.c_str(), "A", "x", buffer, sizeof buffer), 0);
    EXPECT_NE(ProtoCfgGetStringValue(nullptr, "A", "x", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "before!");
}

} // namespace
