/*
 * The operator's commands of the node's modules.
 */
#include "notify/commands.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/vpc_table.h"
#include "fmm/policy_runner.h"
#include "fmm/shard_moves.h"
#include <algorithm>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace host::admin {

namespace {

using Value = std::optional<std::string>;
using Ran = std::optional<CommandAnswer>;

// The commands that take the lock of the FSP index, for which the library waits without end.
constexpr const char *kFmmModule = "nas_fmm";

struct IndexCommand {
    std::string_view name;
    enum class Moves : uint8_t { nothing, anFsp, anLs } moves;
};

constexpr IndexCommand kIndexCommands[] = {
    {"modify_fsp_shardview", IndexCommand::Moves::anFsp},
    {"set_node_fault", IndexCommand::Moves::anLs},
    {"failback_shard_view", IndexCommand::Moves::anLs},
    {"show_fsp_shardview", IndexCommand::Moves::nothing},
};

// Null for any other command.
const IndexCommand *indexCommand(const std::string &module, const std::string &command)
{
    const auto *found = std::ranges::find(kIndexCommands, command, &IndexCommand::name);
    return module == kFmmModule && found != std::end(kIndexCommands) ? found : nullptr;
}

Ran runIndexCommand(const IndexCommand &command, const Value &value)
{
    const auto moves = command.moves == IndexCommand::Moves::nothing ? std::unique_lock<std::mutex>() : holdMoves();
    if (!canWriteFspIndex()) {
        throw CallError(kBusy, "the lock of the shard index is held");
    }
    Ran answer = runCommand(kFmmModule, std::string(command.name), value);
    const bool done = answer && answer->result == 0;
    if (done && value && command.moves == IndexCommand::Moves::anLs) {
        noteMoveByHand(static_cast<uint32_t>(strtoul(value->c_str(), nullptr, 0))); // as the library reads it
    }
    return answer;
}

Ran run(const std::string &module, const std::string &command, const Value &value)
{
    const IndexCommand *ofIndex = indexCommand(module, command);
    return ofIndex != nullptr ? runIndexCommand(*ofIndex, value) : runCommand(module, command, value);
}

} // namespace

Json getCommands(const CallInput & /*input*/)
{
    Json rows = Json::array();
    for (const Command &command : commands()) {
        rows.push_back({{"module", command.module}, {"command", command.name}, {"usage", command.usage}});
    }
    return {{"commands", std::move(rows)}};
}

Json postCommand(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"module", "command", "value"});
    const std::string module = textField(fields, "module");
    const std::string command = textField(fields, "command");
    const auto value = optionalTextField(fields, "value");
    std::optional<VpcHold> vpcs;
    if (module == kVpcModule) {
        vpcs.emplace();
    }
    const Ran answer = run(module, command, value);
    if (!answer) {
        throw CallError(kNotFound, "module " + module + " has no command " + command + "; nasctl cmd lists them");
    }
    return {{"result", answer->result}, {"text", answer->text}};
}

} // namespace host::admin
