/*
 * The operator's commands of the node's modules.
 */
#include "notify/commands.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/vpc_table.h"
#include "fmm/shard_table.h"
#include "notify/notify.h"
#include <nlohmann/json.hpp>
#include <optional>

namespace host::admin {

namespace {

constexpr const char *kFmmModule = "nas_fmm";
constexpr const char *kFspMove = "modify_fsp_shardview";

// The command queues jobs, the last of which frees the record of the move: none may end before all are queued. It would
// wait for the index without end, and everybody who notifies with it.
void holdNotices(std::optional<NotifyHold> &notices)
{
    if (!canWriteFspIndex()) {
        throw CallError(kBusy, "the lock of the shard index is held");
    }
    notices.emplace();
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
    std::optional<NotifyHold> notices;
    if (module == kFmmModule && command == kFspMove) {
        holdNotices(notices);
    }
    const auto answer = runCommand(module, command, value);
    if (!answer) {
        throw CallError(kNotFound, "there is no such command of that module");
    }
    return {{"result", answer->result}, {"text", answer->text}};
}

} // namespace host::admin
