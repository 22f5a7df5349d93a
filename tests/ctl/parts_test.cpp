/*
 * The parts of nasctl that need no node: tables, hex, numbers, suggestions.
 */
#include "failure.h"
#include "named_row.h"
#include "parse.h"
#include "table.h"
#include <common/suggest.h>
#include <gtest/gtest.h>

using namespace ctl;

namespace {

TEST(TablePrinter, AlignsColumnsAndLeavesNoBlanksAtTheEnd)
{
    Table table({{"NAME"}, {"COUNT", Align::right}, {"NOTE"}});
    table.add({{"a"}, {"1"}, {"first"}});
    table.add({{"longer"}, {"12345678"}, {""}});
    EXPECT_EQ(table.render(false), "NAME       COUNT  NOTE\n"
                                   "a              1  first\n"
                                   "longer  12345678\n");
}

TEST(TablePrinter, CountsWideAndCombiningLettersAsATerminalDoes)
{
    Table table({{"N"}, {"V"}});
    table.add({{"\u4e2d\u6587"}, {"x"}});
    table.add({{"e\u0301"}, {"y"}});
    EXPECT_EQ(table.render(false), "N     V\n"
                                   "\u4e2d\u6587  x\n"
                                   "e\u0301     y\n");
}

TEST(TablePrinter, LeavesOutTheTitlesWhenThereAreNone)
{
    Table table({{}, {}});
    table.add({{"id"}, {"1"}});
    table.add({{"version"}, {"2"}});
    EXPECT_EQ(table.render(false), "id       1\n"
                                   "version  2\n");
}

TEST(TablePrinter, ColoursChangeNoColumn)
{
    Table table({{"A"}, {"B"}});
    table.add({{"bad", Tone::bad}, {"x"}});
    table.add({{"b", Tone::busy}, {"y"}});
    EXPECT_EQ(table.render(true), "\033[1mA    B\033[0m\n"
                                  "\033[31mbad\033[0m  x\n"
                                  "\033[33mb\033[0m    y\n");
}

TEST(TablePrinter, OfNoRowsPrintsItsTitles)
{
    EXPECT_EQ(Table({{"A"}, {"B"}}).render(false), "A  B\n");
}

struct PrintableRow : NamedRow {
    std::string text;
    std::string shown;
};

class Printable : public testing::TestWithParam<PrintableRow> {};

TEST_P(Printable, TextIsHarmlessToATerminal)
{
    EXPECT_EQ(printable(GetParam().text), GetParam().shown);
}

const PrintableRow kPrintableRows[] = {
    {"Plain", "abc \u00e9 \u4e2d \U0001f600", "abc \u00e9 \u4e2d \U0001f600"},
    {"Newline", "a\nb\tc", "a\\nb\\tc"},
    {"Escape", "\033[2J", "\\x1b[2J"},
    {"Nul", std::string("a\0b", 3), "a\\x00b"},
    {"Delete", "\x7f", "\\x7f"},
    {"C1Control", "\u009b", "\\xc2\\x9b"},
    {"LoneByte", "\xff", "\\xff"},
    {"CutSequence", "a\xe4\xb8", "a\\xe4\\xb8"},
    {"Overlong", "\xc0\xaf", "\\xc0\\xaf"},
    {"Overlong3", "\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
    {"Surrogate", "\xed\xa0\x80", "\\xed\\xa0\\x80"},
    {"BeyondUnicode", "\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
    {"Empty", "", ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, Printable, testing::ValuesIn(kPrintableRows), rowName);

TEST(PrintableText, KeepsTheControlCharactersItIsToldToKeep)
{
    EXPECT_EQ(printable("a\nb\tc\r", "\n\t"), "a\nb\tc\\x0d");
}

TEST(HexParser, ReadsPairsOfDigitsOfBothCasesWithBlanksBetween)
{
    EXPECT_EQ(parseHex(" 00ff\n Ab\tcD "), std::string("\x00\xff\xab\xcd", 4));
    EXPECT_EQ(parseHex(""), "");
    EXPECT_EQ(parseHex(" \n"), "");
}

struct BadHexRow : NamedRow {
    const char *text;
    const char *error;
};

class BadHex : public testing::TestWithParam<BadHexRow> {};

TEST_P(BadHex, IsRefusedWithItsPlace)
{
    try {
        parseHex(GetParam().text);
        FAIL() << "accepted";
    } catch (const UsageFailure &failure) {
        EXPECT_STREQ(failure.what(), GetParam().error);
        EXPECT_EQ(failure.code(), kUsage);
    }
}

const BadHexRow kBadHexRows[] = {
    {"OneDigit", "a", "HEX: the digit at character 1 stands alone; a byte takes two hex digits"},
    {"OddDigits", "00 1", "HEX: the digit at character 4 stands alone; a byte takes two hex digits"},
    {"BlankInsideAByte", "0 0", "HEX: the digit at character 1 stands alone; a byte takes two hex digits"},
    {"FirstDigit", "g0", "HEX: character 1 is \"g\", not a hex digit"},
    {"SecondDigit", "00 0-", "HEX: character 5 is \"-\", not a hex digit"},
    {"Sign", "+1", "HEX: character 1 is \"+\", not a hex digit"},
};

INSTANTIATE_TEST_SUITE_P(Rows, BadHex, testing::ValuesIn(kBadHexRows), rowName);

TEST(HexPrinter, WritesTwoLowerCaseDigitsForEachByte)
{
    EXPECT_EQ(toHex(std::string("\x00\x0f\xff\xa5", 4)), "000fffa5");
    EXPECT_EQ(toHex(""), "");
}

TEST(Numbers, AreDecimalOrHexadecimalWithinTheirBounds)
{
    EXPECT_EQ(parseNumber("N", "18446744073709551615", 0, UINT64_MAX), UINT64_MAX);
    EXPECT_EQ(parseNumber("N", "0x1F", 0, 31), 31U);
    EXPECT_EQ(parseNumber("N", "007", 7, 7), 7U);
    for (const char *text : {"", "6", "8", " 7", "7 ", "+7", "-7", "0x", "7x", "18446744073709551616"}) {
        EXPECT_THROW(parseNumber("N", text, 7, 7), UsageFailure) << text;
    }
}

struct NearestRow : NamedRow {
    const char *word;
    const char *meant;
};

class Nearest : public testing::TestWithParam<NearestRow> {};

TEST_P(Nearest, WordIsTheOneWithTheFewestSlips)
{
    EXPECT_EQ(common::nearest(GetParam().word, {"status", "power", "ip", "cluster", "mem", "msg"}), GetParam().meant);
}

const NearestRow kNearestRows[] = {
    {"SwappedLetters", "statsu", "status"},
    {"MissingLetter", "powr", "power"},
    {"LetterTooMany", "meem", "mem"},
    {"OtherLetter", "mes", "mem"},
    {"TwoSlips", "clsutr", "cluster"},
    {"ThreeSlips", "clstrs", ""},
    {"OneSlipForThreeLetters", "mexx", ""},
    {"TwoLetters", "ms", ""},
    {"SlipsEverywhere", "xy", ""},
    {"Empty", "", ""},
    {"MuchTooLong", "statusstatusstatus", ""},
};

INSTANTIATE_TEST_SUITE_P(Rows, Nearest, testing::ValuesIn(kNearestRows), rowName);

} // namespace
