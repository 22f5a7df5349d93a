/*
 * The operator's commands of the node's modules.
 */
#include "notify/commands.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/vpc_table.h"
#include <nlohmann/json.hpp>
#include <optional>

namespace host::admin {

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
    const auto answer = runCommand(module, command, value);
    if (!answer) {
        throw CallError(kNotFound, "there is no such command of that module");
    }
    return {{"result", answer->result}, {"text", answer->text}};
}

} // namespace host::admin
