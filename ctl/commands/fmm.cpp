/*
 * nasctl fmm: events of the FMM side by hand.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "commands/told.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <common/counted.h>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string stateText(const json &answer, bool colour)
{
    const json &changes = answer.at("shard_changes");
    const std::string subscribed = changes.at("subscribed") == true ? "" : ", to which the library has not subscribed";
    std::string text = common::counted(changes.at("announced").get<uint64_t>(), "shard change") + " announced" +
                       subscribed + "\n" +
                       common::counted(answer.at("recoveries").get<uint64_t>(), "recovery", "recoveries") + "\n";
    const json &faulty = answer.at("faulty_processes");
    if (faulty.empty()) {
        return text + "no process is faulty\n";
    }
    Table table({{"FAULTY LS", Align::right}, {"FOR", Align::right}});
    for (const json &process : faulty) {
        table.add({shown(process.at("ls")), {std::to_string(process.at("age_ms").get<int64_t>() / 1000) + " s"}});
    }
    return text + table.render(colour);
}

int showFmm(const Session &session)
{
    present(session, AdminClient(session).get("/v1/fmm"), stateText);
    return kDone;
}

int sendFmmEvent(const Session &session, const std::string &event, const std::optional<std::string> &ls)
{
    json request = {{"event", event}};
    if (ls) {
        request["ls"] = parseNumber("LS", *ls, 0, UINT32_MAX);
    }
    const std::string answer = AdminClient(session).post("/v1/fmm", request);
    const bool whole = json::parse(answer).at("untold").empty();
    present(session, answer, [&ls](const json &told, bool colour) {
        const bool known = told.at("serves_shard") != false;
        return toldText(told, colour) +
               (known ? "" : "LS " + *ls + " serves no shard, so the shard policy leaves it alone\n");
    });
    return whole ? kDone : kFailed;
}

} // namespace ctl
