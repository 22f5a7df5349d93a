/*
 * nasctl log: the levels of the node's log.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "parse.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr uint64_t kMaxLevel = 7;
constexpr uint64_t kMaxClass = 3;

static std::string levelTable(const json &answer, bool colour)
{
    Table table({{"CLASS"}, {"LEVEL", Align::right}});
    table.add({{"threshold"}, shown(answer.at("threshold"))});
    size_t number = 0;
    for (const json &level : answer.at("classes")) {
        table.add({{std::to_string(number++)}, shown(level)});
    }
    return table.render(colour);
}

int showLogLevels(const Session &session, const std::optional<std::string> &logClass)
{
    const std::optional<uint64_t> number =
        logClass ? std::optional(parseNumber("--class", *logClass, 0, kMaxClass)) : std::nullopt;
    present(session, AdminClient(session).get("/v1/log"), [number](const json &answer, bool colour) {
        return number ? shown(answer.at("classes").at(*number)).text + "\n" : levelTable(answer, colour);
    });
    return kDone;
}

int setLogLevel(const Session &session, const std::string &level, const std::optional<std::string> &logClass)
{
    const uint64_t levelNumber = parseNumber("LEVEL", level, 0, kMaxLevel);
    json request = {{"threshold", levelNumber}};
    if (logClass) {
        request = {{"class", parseNumber("--class", *logClass, 0, kMaxClass)}, {"level", levelNumber}};
    }
    present(session, AdminClient(session).put("/v1/log", request), levelTable);
    return kDone;
}

} // namespace ctl
