/*
 * The operator's commands of the node's modules.
 */
#include "notify/commands.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include <nlohmann/json.hpp>

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
    const auto answer =
        runCommand(textField(fields, "module"), textField(fields, "command"), optionalTextField(fields, "value"));
    if (!answer) {
        throw CallError(kNotFound, "there is no such command of that module");
    }
    return {{"result", answer->result}, {"text", answer->text}};
}

} // namespace host::admin
