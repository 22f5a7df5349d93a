/*
 * nasctl config: what the configuration getters answer.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "view.h"
#include <algorithm>
#include <common/suggest.h>
#include <nlohmann/json.hpp>

namespace ctl {

// Keeps the members of the node's objects in their order.
using json = nlohmann::ordered_json;

static std::string configTable(const nlohmann::json &answer, bool colour)
{
    Table table({{"GETTER"}, {"RESULT", Align::right}, {"VALUE"}});
    for (const nlohmann::json &getter : answer.at("getters")) {
        const nlohmann::json &result = getter.at("result");
        const bool failed = result != 0;
        table.add({shown(getter.at("name")),
                   {shown(result).text, failed ? Tone::bad : Tone::plain},
                   failed ? Cell{"-"} : shown(getter.at("value"))});
    }
    return table.render(colour);
}

static const json &getterNamed(const json &getters, const std::string &name)
{
    const auto found =
        std::find_if(getters.begin(), getters.end(), [&](const json &getter) { return getter.at("name") == name; });
    if (found != getters.end()) {
        return *found;
    }
    Words names;
    for (const json &getter : getters) {
        names.push_back(getter.at("name").get<std::string>());
    }
    const std::string meant = common::suggestion(name, names);
    throw UsageFailure(name + ": no such getter" + (meant.empty() ? "; nasctl config lists them" : meant));
}

static std::string chosen(const std::string &answer, const Words &names)
{
    const json all = json::parse(answer);
    json getters = json::array();
    for (const std::string &name : names) {
        getters.push_back(getterNamed(all.at("getters"), name));
    }
    return json{{"getters", getters}}.dump();
}

int showConfig(const Session &session, const Words &names)
{
    const std::string answer = AdminClient(session).get("/v1/config");
    present(session, names.empty() ? answer : chosen(answer, names), configTable);
    return kDone;
}

} // namespace ctl
