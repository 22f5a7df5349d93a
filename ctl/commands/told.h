/*
 * What a call led to, as the node answers it: "told" and "untold".
 */
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace ctl {

// A duration of the node in microseconds: "1.204 ms".
std::string durationText(const nlohmann::json &microseconds);

// "; FSP 5 to shard 7, LS 1 to 2" of each move that an event carries, after their number; empty when it carries none.
std::string movesText(const nlohmann::json &event);

// A table of who was told of what and when, and a line for each that should have been and was not. Empty when nobody
// had to be told.
std::string toldText(const nlohmann::json &answer, bool colour);

} // namespace ctl
