/*
 * A kvlog that keeps what it is given, for tests of one service of the host.
 */
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace recorded {

inline std::mutex lock;
inline std::condition_variable changed;
inline std::vector<std::string> kept;

inline void clear()
{
    const std::scoped_lock hold(lock);
    kept.clear();
}

// Each line as "<level> <text>".
inline std::vector<std::string> lines()
{
    const std::scoped_lock hold(lock);
    return kept;
}

// Waits until the line is there; false when it does not come.
inline bool await(const std::string &line)
{
    std::unique_lock hold(lock);
    return changed.wait_for(hold, std::chrono::seconds(20),
                            [&] { return std::find(kept.begin(), kept.end(), line) != kept.end(); });
}

} // namespace recorded
