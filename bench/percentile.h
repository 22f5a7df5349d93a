/*
 * What was measured one by one, told as the median and the 99th percentile, which no hiccup of the machine moves.
 */
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
#include <chrono>
#include <string>
#include <vector>

namespace bench {

// The value below which the given part of them lies; orders them.
inline double percentile(std::vector<double> &values, double part)
{
    if (values.empty()) {
        return 0;
    }
    const auto index = static_cast<size_t>(part * static_cast<double>(values.size() - 1));
    const auto place = values.begin() + static_cast<std::ptrdiff_t>(index);
    std::nth_element(values.begin(), place, values.end());
    return *place;
}

// Calls so often as the benchmark wants, one after the other, and tells the median.
template <typename Call>
void measureMedian(benchmark::State &state, Call call)
{
    std::vector<double> microseconds;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        call();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        microseconds.push_back(took.count() * 1e6);
    }
    state.counters["median_us"] = percentile(microseconds, 0.5);
}

inline void tell(benchmark::State &state, const std::string &name, std::vector<double> &microseconds)
{
    state.counters[name + "median_us"] = percentile(microseconds, 0.5);
    state.counters[name + "p99_us"] = percentile(microseconds, 0.99);
}

} // namespace bench
