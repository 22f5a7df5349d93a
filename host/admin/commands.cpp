/*
 * The operator's commands of the node's modules.
 */
#include "notify/commands.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/vpc_table.h"
#include "fmm/shard_table.h"
#include <algorithm>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>

namespace host::admin {

namespace {

// The commands that take the lock of the FSP index, for which the library waits without end.
constexpr const char *kFmmModule = "nas_fmm";
constexpr std::string_view kIndexCommands[] = {"modify_fsp_shardview", "set_node_fault", "failback_shard_view",
                                               "show_fsp_shardview"};

void requireIndex(const std::string &module, const std::string &command)
{
    const bool needed = module == kFmmModule && std::ranges::find(kIndexCommands, command) != std::end(kIndexCommands);
    if (needed && !canWriteFspIndex()) {
        throw CallError(kBusy, "the lock of the shard index is held");
    }
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
    requireIndex(module, command);
    const auto answer = runCommand(module, command, value);
    if (!answer) {
        throw CallError(kNotFound, "module " + module + " has no command " + command + "; nasctl cmd lists them");
    }
    return {{"result", answer->result}, {"text", answer->text}};
}

} // namespace host::admin
