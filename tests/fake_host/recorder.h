/*
 * What the files of the fake host share: a recorded call is written down, runs the test's action for its name, and is
 * answered as scripted. A subject with scripts of its own keeps them in its own file and clears them at reset.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fake {

// Arguments as they stand in calls().
std::string quoted(const char *text);
std::string number(uint64_t value);
std::string number(uint32_t value);

void record(const std::string &name, const std::vector<std::string> &arguments);
// A call without a way to fail: recorded and answered.
int64_t called(const std::string &name, const std::vector<std::string> &arguments);
// A call whose non-zero result is a failure.
int64_t calledFailable(const std::string &name, const std::vector<std::string> &arguments);

// Runs at every reset(). For static initialisers: struct with this call in its constructor, one a file.
struct AtReset {
    explicit AtReset(void (*clear)());
};

} // namespace fake
