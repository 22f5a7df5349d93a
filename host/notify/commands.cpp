// Owns the command registry. Its lock guards the table alone and is not held while a command runs.

#include "notify/commands.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

namespace host {
namespace {

// Of a command's text and of its answer, NUL included. The longest tables have 4,096 lines of 125 characters.
constexpr size_t kTextSize = 65536;
constexpr size_t kAnswerSize = size_t{1024} * 1024;

using Key = std::pair<std::string, std::string>; // module, name

std::mutex s_lock;
std::map<Key, Command> s_commands;

std::optional<Command> find(const Key &key)
{
    const std::lock_guard hold(s_lock);
    const auto found = s_commands.find(key);
    return found == s_commands.end() ? std::nullopt : std::optional(found->second);
}

// A usage that names " -v" outside of brackets: the command cannot run without a text.
bool needsValue(const Command &command)
{
    return command.usage.find(" -v") != std::string::npos;
}

// An answer ends in a new line. With that at its end, the operator's text would look like an answer left out.
std::string withoutTrailingSpace(const std::string &text)
{
    return text.substr(0, text.find_last_not_of(" \t\n\v\f\r") + 1);
}

// A result above 0 is the answer's length, which is a success; unless the buffer still holds the operator's text, and
// so no answer: then it is the code of a failure, as any other.
CommandAnswer answerIn(const std::string &buffer, const std::string &value, int32_t result)
{
    const std::string text = buffer.substr(0, buffer.find('\0'));
    if (result <= 0 || text == value) {
        return {result, ""};
    }
    return {0, text.substr(0, static_cast<size_t>(result))};
}

} // namespace

bool registerCommand(const Command &command)
{
    const std::lock_guard hold(s_lock);
    return s_commands.try_emplace({command.module, command.name}, command).second;
}

std::vector<Command> commands()
{
    const std::lock_guard hold(s_lock);
    std::vector<Command> all;
    all.reserve(s_commands.size());
    for (const auto &[key, command] : s_commands) {
        all.push_back(command);
    }
    return all;
}

std::optional<CommandAnswer> runCommand(const std::string &module, const std::string &name,
                                        const std::optional<std::string> &value)
{
    const std::optional<Command> command = find({module, name});
    if (!command) {
        return std::nullopt;
    }
    // Null tells a command that needs a text that it got none; every other command gets room for its answer.
    if (!value && needsValue(*command)) {
        return CommandAnswer{command->handler(nullptr, 0), ""};
    }
    const std::string text = withoutTrailingSpace(value.value_or(""));
    if (text.size() >= kTextSize) {
        return CommandAnswer{-E2BIG, ""};
    }
    std::string buffer = text;
    buffer.resize(kAnswerSize);
    const int32_t result = command->handler(buffer.data(), static_cast<uint32_t>(buffer.size()));
    return answerIn(buffer, text, result);
}

} // namespace host
