/*
 * A command of nasctl that asks the node once and prints its answer: a row tells what is typed, asked, answered and
 * printed.
 */
#pragma once

#include "named_row.h"
#include "scripted_node.h"
#include <string>
#include <vector>

struct AnsweredRow : NamedRow {
    std::vector<std::string> words;
    std::string request; // method and path
    std::string body;
    std::string answer;
    std::string table; // for people; with --json the answer is printed as it came
};

class AnsweredCommand : public NasctlTest, public testing::WithParamInterface<AnsweredRow> {
protected:
    void expectRequest();
};
