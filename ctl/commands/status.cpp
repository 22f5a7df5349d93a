/*
 * nasctl status: the node on one screen.
 */
#include "admin_client.h"
#include "commands/cluster_cells.h"
#include "commands/commands.h"
#include "view.h"
#include <common/counted.h>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string durationText(uint64_t ms)
{
    struct Unit {
        uint64_t seconds;
        const char *name;
    };
    constexpr Unit units[] = {{86400, " d"}, {3600, " h"}, {60, " min"}, {1, " s"}};
    uint64_t seconds = ms / 1000;
    std::string text;
    for (const Unit &unit : units) {
        if (seconds >= unit.seconds || (unit.seconds == 1 && text.empty())) {
            text += (text.empty() ? "" : " ") + std::to_string(seconds / unit.seconds) + unit.name;
            seconds %= unit.seconds;
        }
    }
    return text;
}

// "4 total, 1 pending": the values under the keys, or busy as a whole.
static Cell counts(const json &part, const std::vector<const char *> &keys)
{
    if (part.is_null()) {
        return shown(part);
    }
    std::string text;
    for (const char *key : keys) {
        text += (text.empty() ? "" : ", ") + shown(part.at(key)).text + " " + key;
    }
    return {text};
}

static Cell powerCell(const json &power)
{
    if (power.is_null()) {
        return shown(power);
    }
    return {shown(power.at("name")).text + " (" + shown(power.at("state")).text + ")"};
}

static Cell viewCell(const json &cluster)
{
    const json &version = cluster.at("view_version");
    const std::string text = version.is_null() ? "none read yet"
                                               : "version " + shown(version).text + ", " +
                                                     common::counted(cluster.at("clients").get<uint64_t>(), "client");
    const bool connected = cluster.at("connected").get<bool>();
    return {text + (connected ? "" : ", not connected"), connected ? Tone::plain : Tone::bad};
}

static std::string summary(const json &answer, bool colour)
{
    const json &node = answer.at("node");
    const json &uptime = at(node, "uptime_ms");
    Table fields({{}, {}});
    for (const char *key : {"id", "root", "pid", "version"}) {
        fields.add({{key}, shown(at(node, key))});
    }
    fields.add({{"uptime"}, uptime.is_null() ? shown(uptime) : Cell{durationText(uptime.get<uint64_t>())}});
    fields.add({{"power"}, powerCell(answer.at("power"))});
    fields.add({{"addresses"}, counts(answer.at("addresses"), {"total", "pending"})});
    fields.add({{"messages"},
                counts(answer.at("messages"),
                       {"connections", "accepted", "messages", "replies", "malformed", "undelivered"})});
    fields.add({{"memory"}, counts(answer.at("memory"), {"blocks", "bytes"})});
    const json &cluster = answer.at("cluster");
    fields.add({{"store"}, storeCell(cluster.at("store"))});
    fields.add({{"master"}, masterCell(cluster.at("master"))});
    fields.add({{"view"}, viewCell(cluster)});
    return fields.render(colour);
}

static std::string startTable(const json &steps, bool colour)
{
    if (steps.is_null()) {
        return "start steps: busy\n";
    }
    Table table({{"START STEP"}, {"RESULT", Align::right}});
    for (const json &step : steps) {
        const json &result = step.at("result");
        table.add({shown(step.at("step")), {shown(result).text, result == 0 ? Tone::plain : Tone::bad}});
    }
    return table.render(colour);
}

static std::string moduleTable(const json &modules, bool colour)
{
    if (modules.is_null()) {
        return "modules: busy\n";
    }
    Table table({{"SLOT", Align::right},
                 {"MODULE"},
                 {"TYPES"},
                 {"PORT", Align::right},
                 {"LISTENING", Align::right},
                 {"FAILING", Align::right}});
    for (const json &module : modules) {
        Cell failing = shown(module.at("failing"));
        failing.tone = module.at("failing") == 0 ? failing.tone : Tone::bad;
        table.add({shown(module.at("slot")), shown(module.at("name")), shown(module.at("protocol_types")),
                   shown(module.at("port")), shown(module.at("listening")), failing});
    }
    return table.render(colour);
}

static std::string statusText(const json &answer, bool colour)
{
    return summary(answer, colour) + "\n" + startTable(answer.at("start"), colour) + "\n" +
           moduleTable(answer.at("modules"), colour);
}

int showStatus(const Session &session)
{
    present(session, AdminClient(session).get("/v1/status"), statusText);
    return kDone;
}

} // namespace ctl
