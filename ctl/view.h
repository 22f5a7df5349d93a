/*
 * From the node's JSON to what people read, shared by the commands.
 */
#pragma once

#include "session.h"
#include "table.h"
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

namespace ctl {

// Writes to standard output. Whether it went out is checked once, when the program ends.
void print(const std::string &text);

// Prints the answer: as it came with --json, else what `render` makes of it. Nothing is printed when the answer does
// not have the documented shape (nlohmann::json::exception).
using Render = std::function<std::string(const nlohmann::json &answer, bool colour)>;
void present(const Session &session, const std::string &answer, const Render &render);

// A value in a cell: text as it is, lists with commas, null (work holds the lock that guards it) as "busy".
Cell shown(const nlohmann::json &value);

// The value under a key; a part that is null as a whole makes each of its values null. Throws
// nlohmann::json::exception when there is no such key.
const nlohmann::json &at(const nlohmann::json &part, const char *key);

} // namespace ctl
