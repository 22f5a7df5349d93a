/*
 * Reading a text of compatible versions, beside std::from_chars over the same numbers: one range of all versions that
 * an array holds, and 10,000 brackets of one version each, in texts of as many as an array holds.
 */
#include "platform/log.h"

#include <benchmark/benchmark.h>
#include <charconv>
#include <memory>
#include <nasctrl/version_ns.h>
#include <string>
#include <vector>

namespace {

constexpr int kBrackets = 10000;
constexpr int kBracketsOfAText = 250;

std::vector<std::string> texts()
{
    std::vector<std::string> texts;
    for (int i = 0; i < kBrackets; ++i) {
        if (i % kBracketsOfAText == 0) {
            texts.emplace_back();
        }
        texts.back() += (texts.back().empty() ? "[" : ",[") + std::to_string(i) + "]";
    }
    return texts;
}

void parse(benchmark::State &state, const std::vector<std::string> &all)
{
    host::LogSettings log;
    log.console = false;
    host::openLog(log);
    const auto found = std::make_unique<version_array>();
    for (auto _ : state) {
        for (const std::string &text : all) {
            found->count = 0;
            if (ParseCompaVersListFromStr(text.c_str(), found.get()) != 0) {
                state.SkipWithError("refused");
            }
            benchmark::DoNotOptimize(found->vers);
        }
    }
}

// Every number of the text, whatever stands between them.
void readNumbers(benchmark::State &state, const std::vector<std::string> &all)
{
    for (auto _ : state) {
        for (const std::string &text : all) {
            const char *end = text.data() + text.size();
            for (const char *next = text.data(); next < end;) {
                uint32_t number = 0;
                const auto [stop, error] = std::from_chars(next, end, number);
                next = error == std::errc() ? stop : next + 1;
                benchmark::DoNotOptimize(number);
            }
        }
    }
}

void parseRange(benchmark::State &state)
{
    parse(state, {"[1-256]"});
}
BENCHMARK(parseRange);

void fromCharsOverTheRange(benchmark::State &state)
{
    readNumbers(state, {"[1-256]"});
}
BENCHMARK(fromCharsOverTheRange);

void parseBrackets(benchmark::State &state)
{
    parse(state, texts());
}
BENCHMARK(parseBrackets);

void fromCharsOverTheBrackets(benchmark::State &state)
{
    readNumbers(state, texts());
}
BENCHMARK(fromCharsOverTheBrackets);

} // namespace
