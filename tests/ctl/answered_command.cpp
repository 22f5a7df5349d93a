#include "answered_command.h"

void AnsweredCommand::expectRequest()
{
    const auto asked = node_.requests();
    ASSERT_EQ(asked.size(), 1U);
    EXPECT_EQ(asked[0].line, GetParam().request + " HTTP/1.1");
    EXPECT_EQ(asked[0].body, GetParam().body);
}

TEST_P(AnsweredCommand, PrintsATableForPeople)
{
    node_.answer(GetParam().answer);
    EXPECT_EQ(run(GetParam().words), (Outcome{GetParam().table, "", 0}));
    expectRequest();
}

TEST_P(AnsweredCommand, PrintsTheAnswerAsItCameWithJson)
{
    node_.answer(GetParam().answer);
    std::vector<std::string> words = GetParam().words;
    words.emplace_back("--json");
    EXPECT_EQ(run(words), (Outcome{GetParam().answer + "\n", "", 0}));
    expectRequest();
}
