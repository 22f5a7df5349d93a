/*
 * The command registry: named actions of a module that an operator runs with a text and that answer with a text.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace host {

// buf holds the operator's text (NUL-terminated) on entry and the answer on return; null tells a command whose usage
// asks for a text that there is none. Returns the answer's length, 0 for no answer, or the code of a failure.
using CommandHandler = int32_t (*)(char *buf, uint32_t size);

struct Command {
    std::string module;
    std::string name;
    std::string usage;
    CommandHandler handler;
};

struct CommandAnswer {
    int32_t result; // 0 = done
    std::string text;
};

// False when the module has a command of that name already. From any thread.
bool registerCommand(const Command &command);
// By module and name.
std::vector<Command> commands();
// Runs a command on the calling thread; nothing when there is no such command.
std::optional<CommandAnswer> runCommand(const std::string &module, const std::string &name,
                                        const std::optional<std::string> &value);

} // namespace host
