/*
 * What was measured one by one, told as the median and the 99th percentile, which no hiccup of the machine moves.
 */
#pragma once

#include <algorithm>
#include <benchmark/benchmark.h>
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

inline void tell(benchmark::State &state, const std::string &name, std::vector<double> &microseconds)
{
    state.counters[name + "median_us"] = percentile(microseconds, 0.5);
    state.counters[name + "p99_us"] = percentile(microseconds, 0.99);
}

} // namespace bench
