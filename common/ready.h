/*
 * Telling whoever started a program that it is ready.
 */
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace common {

// Writes the line, which ends with a newline, to standard output and to the descriptor, which it closes, and tells the
// service manager when the environment variable NOTIFY_SOCKET names its socket (a path, or "@" and an abstract name).
// Returns a line without a newline for each of them that could not be told.
std::vector<std::string> tellReady(const std::string &line, std::optional<int> descriptor);

} // namespace common
