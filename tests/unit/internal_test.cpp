#include "internal/bounded.h"
#include "internal/list.h"
#include "internal/log.h"

#include <gmock/gmock.h>
#include <string>
#include <vector>

namespace {

TEST(Bounded, CopiesCutAtTheCountAndFailWhenTheResultDoesNotFit)
{
    struct Row {
        const char *name;
        size_t size;
        const char *source;
        size_t count;
        bool succeeds;
        const char *result;
    };
    const Row rows[] = {
        {"whole text with room", 8, "abc", 8, true, "abc"},
        {"cut at the count", 4, "abcdef", 3, true, "abc"},
        {"count and size equal, text fits", 4, "abc", 4, true, "abc"},
        {"count and size equal, text does not fit", 4, "abcd", 4, false, ""},
        {"empty text", 4, "", 0, true, ""},
        {"destination above the installed library's own limit", 70000, "abc", 70000, true, "abc"},
    };
    for (const Row &row : rows) {
        std::vector<char> dest(row.size, 'x');
        EXPECT_EQ(nas::strncpy_s(dest.data(), row.size, row.source, row.count) == 0, row.succeeds) << row.name;
        EXPECT_STREQ(dest.data(), row.result) << row.name;
    }
}

TEST(Bounded, CopiesIntoNoRoomFail)
{
    char byte = 'x';
    EXPECT_NE(nas::strncpy_s(&byte, 0, "", 0), 0);
    EXPECT_NE(nas::memcpy_s(&byte, 0, "", 0), 0);
    EXPECT_NE(nas::memmove_s(&byte, 0, "", 0), 0);
    EXPECT_NE(nas::memset_s(&byte, 0, 0, 0), 0);
    EXPECT_EQ(byte, 'x');
}

TEST(Bounded, CopiesOfNullFail)
{
    char dest[4];
    EXPECT_NE(nas::strncpy_s(dest, sizeof dest, nullptr, 4), 0);
    EXPECT_NE(nas::strcpy_s(dest, sizeof dest, nullptr), 0);
    EXPECT_NE(nas::memcpy_s(dest, sizeof dest, nullptr, 4), 0);
    EXPECT_NE(nas::memmove_s(dest, sizeof dest, nullptr, 4), 0);
}

TEST(Bounded, MemoryCopiesTakeTheWholeDestinationAndNoMore)
{
    char dest[4] = {};
    EXPECT_EQ(nas::memcpy_s(dest, sizeof dest, "abcd", 4), 0);
    EXPECT_EQ(std::string(dest, 4), "abcd");
    EXPECT_NE(nas::memcpy_s(dest, sizeof dest, "abcde", 5), 0);
    EXPECT_EQ(nas::memmove_s(dest, sizeof dest, "abcd", 4), 0);
    EXPECT_EQ(nas::memmove_s(dest + 1, 3, dest, 3), 0);
    EXPECT_EQ(std::string(dest, 4), "aabc");
    EXPECT_NE(nas::memmove_s(dest, sizeof dest, "abcde", 5), 0);
}

TEST(Bounded, NegativeLengthsAreNoRoom)
{
    EXPECT_EQ(nas::destinationSize(-1), 0U);
    EXPECT_EQ(nas::destinationSize(0), 0U);
    EXPECT_EQ(nas::destinationSize(7), 7U);
}

TEST(Bounded, AppendedLengthsAddUpToTheTextThatIsThere)
{
    char buffer[8] = "unset";
    EXPECT_EQ(nas::append(buffer, 0, "abc"), 0);
    EXPECT_STREQ(buffer, "unset");
    EXPECT_EQ(nas::append(buffer, 8, "%s", "abc"), 3);
    EXPECT_EQ(nas::append(buffer + 3, 5, "%s", "defghi"), 4);
    EXPECT_STREQ(buffer, "abcdefg");
}

TEST(List, KeepsTheOrderOfAddition)
{
    list_link head;
    list_link first;
    list_link second;
    nas::listInit(&head);
    EXPECT_EQ(nas::listTakeFront(&head), nullptr);
    nas::listAddTail(&head, &second);
    nas::listAddFront(&head, &first);
    EXPECT_EQ(nas::listTakeFront(&head), &first);
    EXPECT_EQ(first.next, &first);
    EXPECT_EQ(nas::listTakeFront(&head), &second);
    EXPECT_TRUE(nas::listEmpty(&head));
}

TEST(Log, FieldsWithoutANulAreShownCutToTheirWidth)
{
    const char field[4] = {'a', 'b', 'c', 'd'};
    EXPECT_STREQ(nas::CutText<4>(field).c_str(), "abcd");
    EXPECT_STREQ(nas::CutText<4>("ab").c_str(), "ab");
}

} // namespace
