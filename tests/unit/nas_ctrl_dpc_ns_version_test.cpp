#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <memory>
#include <numeric>

using testing::ElementsAre;
using testing::IsEmpty;

using Texts = std::vector<std::string>;
using Versions = std::vector<uint32_t>;

namespace {

constexpr uint32_t kInvalid = 0xFFFFFFFFU;
constexpr const char *kEmptyLine = "class 3 PROTOCOL: NASCTRL_DPC: empty in Bracket.";
constexpr const char *kNoListLine = "class 3 PROTOCOL: NASCTRL_DPC: no verlist found in brackets.";
constexpr const char *kFullLine =
    "class 3 PROTOCOL: NASCTRL_DPC: parse out more version than MAX allowed(256), check!!.";

std::string wrongLine(const std::string &text)
{
    return "class 3 PROTOCOL: NASCTRL_DPC: wrong compa ver(" + text + ") format.";
}

std::string addLine(int32_t version)
{
    return "class 3 PROTOCOL: NASCTRL_DPC: add ver(" + std::to_string(version) + ") err(-1).";
}

std::string pickLine(const std::string &text)
{
    return "class 3 PROTOCOL: NASCTRL_DPC: pick vers in one Bracket err(-1), check(" + text + ").";
}

Versions range(uint32_t first, size_t count)
{
    Versions values(count);
    std::iota(values.begin(), values.end(), first);
    return values;
}

Versions versions(const version_array &array)
{
    return {array.vers, array.vers + array.count};
}

class VersionList : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

// What a text parses to: the result, the versions, and what is logged.
struct Row {
    const char *name;
    std::string text;
    uint32_t result;
    Versions found;
    Texts logged;
};

void expectRows(const std::vector<Row> &rows)
{
    for (const Row &row : rows) {
        fake::reset();
        version_array array = {};
        EXPECT_EQ(ParseCompaVersListFromStr(row.text.c_str(), &array), row.result) << row.name;
        EXPECT_EQ(versions(array), row.found) << row.name;
        EXPECT_EQ(fake::log(), row.logged) << row.name;
    }
}

TEST_F(VersionList, HoldsTheNumbersAndRangesInBrackets)
{
    expectRows({
        {"empty text", "", 0, {}, {}},
        {"one", "[7]", 0, {7}, {}},
        {"number and range", "[1][3-5]", 0, {1, 3, 4, 5}, {}},
        {"falling range", "[5-3]", 0, {3, 4, 5}, {}},
        {"range of one", "[4-4]", 0, {4}, {}},
        {"comma between", "[1],[2]", 0, {1, 2}, {}},
        {"words before and between", "versions [1] and ([2-3])[4]", 0, {1, 2, 3, 4}, {}},
        {"duplicates stay", "[2][1-3][2]", 0, {2, 1, 2, 3, 2}, {}},
        {"leading blanks", "[ \t\n7]", 0, {7}, {}},
        {"sign", "[+7]", 0, {7}, {}},
        {"reading stops at a letter", "[7a8]", 0, {7}, {}},
        {"no number", "[abc]", 0, {0}, {}},
        {"blanks around a range", "[ 3 - 5 ]", 0, {3, 4, 5}, {}},
        {"three ends", "[1-2-3]", 0, {1, 2}, {}},
        {"a minus alone", "[-]", 0, {0}, {}},
        {"a minus before", "[-2]", 0, {0, 1, 2}, {}},
        {"a minus behind", "[2-]", 0, {0, 1, 2}, {}},
        {"a negative end", "[1--1]", 0, {0xFFFFFFFFU, 0, 1}, {}},
        {"the first bracket counts", "[1[2]", 0, {1}, {}},
        {"leading zeros", "[007]", 0, {7}, {}},
        {"not hexadecimal", "[0x10]", 0, {0}, {}},
    });
}

TEST_F(VersionList, TellsOfWhatItAccepts)
{
    expectRows({
        {"empty brackets", "[]", 0, {}, {kEmptyLine}},
        {"empty brackets between", "[1][][2]", 0, {1, 2}, {kEmptyLine}},
        {"no brackets", "1-3", 0, {}, {kNoListLine}},
        {"a blank", " ", 0, {}, {kNoListLine}},
        {"a closing bracket alone", "]", 0, {}, {kNoListLine}},
        {"text behind", "[1]x", 0, {1}, {wrongLine("[1]x")}},
        {"a blank behind", "[1] ", 0, {1}, {wrongLine("[1] ")}},
        {"a closing bracket behind", "[1]]", 0, {1}, {wrongLine("[1]]")}},
    });
}

TEST_F(VersionList, RefusesBracketsThatDoNotPair)
{
    expectRows({
        {"closed first", "]x[1]", kInvalid, {}, {wrongLine("]x[1]")}},
        {"closed first, later", "[1]][2]", kInvalid, {1}, {wrongLine("[1]][2]")}},
        {"not closed", "[7", kInvalid, {}, {wrongLine("[7")}},
        {"not closed, later", "[1],[7", kInvalid, {1}, {wrongLine("[1],[7")}},
        {"an open bracket alone", "[", kInvalid, {}, {wrongLine("[")}},
        {"turned round", "][", kInvalid, {}, {wrongLine("][")}},
    });
}

TEST_F(VersionList, HoldsAtMost256Versions)
{
    expectRows({
        {"exactly full", "[1-256]", 0, range(1, 256), {}},
        {"one too many in a range", "[0-256]", kInvalid, range(0, 256), {kFullLine, addLine(256), pickLine("[0-256]")}},
        {"one too many behind", "[1-256][9]", kInvalid, range(1, 256), {kFullLine, pickLine("[1-256][9]")}},
        {"nothing more is no more", "[1-256][]", 0, range(1, 256), {kEmptyLine}},
    });
}

TEST_F(VersionList, BoundsRangesAndNumbersThatWouldOverflow)
{
    const auto full = [](const std::string &text, int32_t failed) {
        return Texts{kFullLine, addLine(failed), pickLine(text)};
    };
    const std::string huge = std::string(100, '9');
    expectRows({
        {"largest 32 bits", "[4294967295]", 0, {0xFFFFFFFFU}, {}},
        {"largest signed end", "[2147483647-2147483646]", 0, {2147483646, 2147483647}, {}},
        {"all of them", "[0-2147483647]", kInvalid, range(0, 256), full("[0-2147483647]", 256)},
        {"the signed smallest as an end", "[2147483648-2147483647]", kInvalid, range(0x80000000U, 256),
         full("[2147483648-2147483647]", INT32_MIN + 256)},
        {"an end of 32 bits is negative", "[4294967295-1]", 0, {0xFFFFFFFFU, 0, 1}, {}},
        {"an end beyond 32 bits is cut", "[4294967297-3]", 0, {1, 2, 3}, {}},
        {"a number beyond 32 bits is cut", "[4294967299]", 0, {3}, {}},
        {"a number beyond 64 bits", "[" + huge + "]", 0, {0xFFFFFFFFU}, {}},
        {"an end beyond 64 bits", "[" + huge + "-1]", 0, {0xFFFFFFFFU, 0, 1}, {}},
        {"a negative end beyond 64 bits", "[1--" + huge + "]", 0, {0, 1}, {}},
    });
}

TEST_F(VersionList, KeepsWhatItsArrayHeld)
{
    version_array array = {{8}, 1};
    EXPECT_EQ(ParseCompaVersListFromStr("[9]", &array), 0U);
    EXPECT_EQ(versions(array), (Versions{8, 9}));
}

TEST_F(VersionList, NeedsATextAndAnArray)
{
    version_array array = {};
    EXPECT_EQ(ParseCompaVersListFromStr(nullptr, &array), kInvalid);
    EXPECT_EQ(ParseCompaVersListFromStr(nullptr, nullptr), kInvalid);
    EXPECT_EQ(ParseCompaVersListFromStr("[1]", nullptr), kInvalid);
    EXPECT_EQ(array.count, 0);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NASCTRL_DPC: local compa array is NULL.",
                                         "class 3 PROTOCOL: NASCTRL_DPC: local compa array is NULL.",
                                         "3 PROTOCOL: array is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), testing::Each("ParseCompaVersListFromStr"));
}

TEST_F(VersionList, NeedsNoArrayWithoutAVersion)
{
    EXPECT_EQ(ParseCompaVersListFromStr("", nullptr), 0U);
    EXPECT_EQ(ParseCompaVersListFromStr("[]", nullptr), kInvalid);
    const std::string empty = "[]";
    EXPECT_EQ(PickUpVersInOneBracket(empty.data(), empty.data() + 1, nullptr), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: array is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "class 3 PROTOCOL: NASCTRL_DPC: empty in Bracket."));
}

TEST_F(VersionList, LinesAreLoggedByTheFunctionThatFindsTheFault)
{
    version_array array = {};
    EXPECT_EQ(ParseCompaVersListFromStr("[][0-256]", &array), kInvalid);
    EXPECT_THAT(fake::logFuncs(), ElementsAre("PickUpVersInOneBracket", "AddVerToArry", "PickUpVersInOneBracket",
                                              "ParseCompaVersListFromStr"));
}

// ---- bodies

TEST_F(VersionList, ABodyOf256CharactersIsParsed)
{
    expectRows({
        {"a number", "[" + std::string(255, '0') + "7]", 0, {7}, {}},
        {"a range", "[" + std::string(253, '0') + "1-2]", 0, {1, 2}, {}},
        {"digits to the last character", "[" + std::string(256, '9') + "]", 0, {0xFFFFFFFFU}, {}},
    });
}

TEST_F(VersionList, ABodyOf257CharactersIsRefused)
{
    version_array array = {};
    const std::string text = "[1][" + std::string(256, '0') + "7]";
    const uint32_t result = ParseCompaVersListFromStr(text.c_str(), &array);
    EXPECT_NE(result, 0U);
    EXPECT_EQ(versions(array), (Versions{1}));
    const std::string code = std::to_string(static_cast<int32_t>(result));
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NASCTRL_DPC: sprintf_s err(" + code + ").",
                                         "class 3 PROTOCOL: NASCTRL_DPC: pick vers in one Bracket err(" + code +
                                             "), check(" + text + ")."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("PickUpVersInOneBracket", "ParseCompaVersListFromStr"));
}

TEST_F(VersionList, ABodyIsReadNoFurtherThanItsBracket)
{
    version_array array = {};
    const std::string text = "[12]34-56";
    EXPECT_EQ(PickUpVersInOneBracket(text.data(), text.data() + 3, &array), 0U);
    EXPECT_EQ(versions(array), (Versions{12}));
}

TEST_F(VersionList, ABodyNeedsItsBracketsInOrderAndAnArray)
{
    version_array array = {};
    const std::string text = "[1]";
    EXPECT_EQ(PickUpVersInOneBracket(nullptr, text.data() + 2, &array), kInvalid);
    EXPECT_EQ(PickUpVersInOneBracket(text.data(), nullptr, &array), kInvalid);
    EXPECT_EQ(PickUpVersInOneBracket(text.data(), text.data() + 2, nullptr), kInvalid);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: open is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: close is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: array is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
    EXPECT_NE(PickUpVersInOneBracket(text.data() + 2, text.data(), &array), 0U);
    EXPECT_NE(PickUpVersInOneBracket(text.data(), text.data(), &array), 0U);
    EXPECT_EQ(array.count, 0);
}

// ---- the array

TEST_F(VersionList, AVersionIsAddedBehindTheOthers)
{
    version_array array = {};
    EXPECT_EQ(AddVerToArry(0xFFFFFFFFU, &array), 0U);
    EXPECT_EQ(AddVerToArry(0, &array), 0U);
    EXPECT_EQ(versions(array), (Versions{0xFFFFFFFFU, 0}));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VersionList, AFullOrNegativeArrayRefuses)
{
    version_array array = {};
    array.count = 255;
    EXPECT_EQ(AddVerToArry(7, &array), 0U);
    EXPECT_EQ(array.vers[255], 7U);
    for (const int32_t count : {256, 257, INT32_MAX, -1, INT32_MIN}) {
        fake::reset();
        array.count = count;
        EXPECT_EQ(AddVerToArry(9, &array), kInvalid);
        EXPECT_EQ(array.count, count);
        EXPECT_THAT(fake::log(), ElementsAre(kFullLine));
    }
    EXPECT_EQ(AddVerToArry(9, nullptr), kInvalid);
    EXPECT_EQ(fake::log().back(), "3 PROTOCOL: array is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!");
}

// ---- 10 MB

constexpr size_t kMegabytes10 = 10 * 1000 * 1000;

TEST_F(VersionList, TenMegabytesOfOpenBracketsAreRefused)
{
    version_array array = {};
    EXPECT_EQ(ParseCompaVersListFromStr(std::string(kMegabytes10, '[').c_str(), &array), kInvalid);
    EXPECT_EQ(fake::log().size(), 1U);
    EXPECT_EQ(array.count, 0);
}

TEST_F(VersionList, TenMegabytesOfClosingBracketsHoldNothing)
{
    version_array array = {};
    EXPECT_EQ(ParseCompaVersListFromStr(std::string(kMegabytes10, ']').c_str(), &array), 0U);
    EXPECT_THAT(fake::log(), ElementsAre(kNoListLine));
}

TEST_F(VersionList, TenMegabytesOfVersionsFillTheArray)
{
    version_array array = {};
    std::string text;
    while (text.size() < kMegabytes10) {
        text += "[1],";
    }
    EXPECT_EQ(ParseCompaVersListFromStr(text.c_str(), &array), kInvalid);
    EXPECT_EQ(versions(array), Versions(256, 1));
    EXPECT_EQ(fake::log().size(), 2U);
    EXPECT_EQ(fake::log()[0], kFullLine);
}

TEST_F(VersionList, OneBodyOfTenMegabytesIsRefused)
{
    version_array array = {};
    EXPECT_NE(ParseCompaVersListFromStr(("[" + std::string(kMegabytes10, '1') + "]").c_str(), &array), 0U);
    EXPECT_EQ(array.count, 0);
}

TEST_F(VersionList, TenThousandEmptyBracketsAreTakenInOnePass)
{
    version_array array = {};
    std::string text;
    for (int i = 0; i < 10000; ++i) {
        text += "[]";
    }
    EXPECT_EQ(ParseCompaVersListFromStr((text + "[7]").c_str(), &array), 0U);
    EXPECT_EQ(versions(array), (Versions{7}));
    EXPECT_EQ(fake::log().size(), 10000U);
}

} // namespace
