/*
 * nasctl cmd: the debug commands that the library and the host registered.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "view.h"
#include <cstring>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr int64_t kErrnoEnd = 4096;

static std::string commandTable(const json &answer, bool colour)
{
    Table table({{"MODULE"}, {"COMMAND"}, {"USAGE"}});
    for (const json &command : answer.at("commands")) {
        table.add({shown(command.at("module")), shown(command.at("command")), shown(command.at("usage"))});
    }
    return table.render(colour);
}

int listCommands(const Session &session)
{
    present(session, AdminClient(session).get("/v1/commands"), commandTable);
    return kDone;
}

// The command's own layout stays: its lines and tabs.
static std::string outputText(const json &answer, bool)
{
    const std::string text = printable(answer.at("text").get<std::string>(), "\n\t");
    return text.empty() || text.ends_with('\n') ? text : text + "\n";
}

// Commands of the library say -1 for any failure, so that it is no errno.
static std::string reasonOf(int64_t result)
{
    const bool isErrno = result < -1 && result > -kErrnoEnd;
    return isErrno ? std::string(" (") + std::strerror(static_cast<int>(-result)) + ")" : "";
}

int runCommand(const Session &session, const std::string &module, const std::string &command,
               const std::optional<std::string> &value)
{
    json request = {{"module", module}, {"command", command}};
    if (value) {
        request["value"] = *value;
    }
    const std::string answer = AdminClient(session).post("/v1/commands", request);
    const auto result = json::parse(answer).at("result").get<int64_t>();
    present(session, answer, outputText);
    if (result != 0) {
        reportError(session.command, module + " " + command + ": result " + std::to_string(result) + reasonOf(result) +
                                         "; nasctl cmd lists the commands and their usage");
        return kFailed;
    }
    return kDone;
}

} // namespace ctl
