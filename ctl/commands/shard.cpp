/*
 * nasctl shard: which storage shard serves an FSP, which LS serves a shard, and moves between them.
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

constexpr uint64_t kMaxFsp = UINT32_MAX - 1;

static uint64_t parseFsp(const std::string &text)
{
    return parseNumber("FSP", text, 0, kMaxFsp);
}

static uint64_t parseLs(const std::string &what, const std::string &text)
{
    return parseNumber(what, text, 0, UINT32_MAX);
}

static Cell statusCell(const json &shard)
{
    return {shown(shard.at("status")).text, shard.at("status") == "FAULT" ? Tone::bad : Tone::plain};
}

// Null is not "busy" here, but nothing to show.
static Cell orDash(const json &value)
{
    return value.is_null() ? Cell{"-"} : shown(value);
}

static std::string shardTable(const json &answer, bool colour)
{
    const json &shards = answer.at("shards");
    if (shards.empty()) {
        return "no shards\n";
    }
    Table table({{"SHARD", Align::right},
                 {"LS", Align::right},
                 {"ADDRESS"},
                 {"STATUS"},
                 {"FSPS", Align::right},
                 {"WENT TO LS", Align::right},
                 {""}});
    for (const json &shard : shards) {
        table.add({shown(shard.at("shard")),
                   shown(shard.at("ls")),
                   shown(shard.at("address")),
                   statusCell(shard),
                   shown(shard.at("fsps")),
                   orDash(shard.at("takeover_ls")),
                   {shard.at("ls") == answer.at("local_ls") ? "this node" : ""}});
    }
    return table.render(colour);
}

int listShards(const Session &session)
{
    present(session, AdminClient(session).get("/v1/shards"), shardTable);
    return kDone;
}

static std::string indexTable(const json &answer, bool colour)
{
    const json &fsps = answer.at("fsps");
    if (fsps.is_null()) {
        return "the index is busy, ask again\n";
    }
    std::string count = std::to_string(fsps.size()) + " of " + answer.at("room").dump() + " places are taken\n";
    if (fsps.empty()) {
        return count;
    }
    Table table({{"FSP", Align::right}, {"SHARD", Align::right}, {"LS", Align::right}, {"VERSION", Align::right}});
    for (const json &fsp : fsps) {
        table.add({shown(fsp.at("fsp")), shown(fsp.at("shard")), shown(fsp.at("ls")), shown(fsp.at("version"))});
    }
    return table.render(colour) + count;
}

int showShardIndex(const Session &session)
{
    present(session, AdminClient(session).get("/v1/shards/index"), indexTable);
    return kDone;
}

static std::string placementText(const json &fsp, bool colour)
{
    Table table({{""}, {""}});
    table.add({{"FSP"}, shown(fsp.at("fsp"))});
    table.add({{"shard"}, orDash(fsp.at("shard"))});
    table.add({{"LS"}, orDash(fsp.at("ls"))});
    table.add({{"address"}, orDash(fsp.at("address"))});
    table.add({{"version"}, orDash(fsp.at("version"))});
    table.add({{"next LS"}, orDash(fsp.at("next_ls"))});
    const std::string note = "it is not in the index; this is where its first look-up puts it\n";
    return table.render(colour) + (fsp.at("known") == true ? "" : note);
}

int showFsp(const Session &session, const std::string &fsp, bool place)
{
    const AdminClient node(session);
    const uint64_t id = parseFsp(fsp);
    present(session,
            place ? node.post("/v1/shards/fsps", {{"fsp", id}}) : node.get("/v1/shards/fsps/" + std::to_string(id)),
            placementText);
    return kDone;
}

static std::string movedTable(const json &answer, bool colour)
{
    const json &moved = answer.at("moved");
    if (moved.is_null()) {
        return "the index is busy; nasctl shard show tells later what moved\n";
    }
    if (moved.empty()) {
        return "";
    }
    Table table(
        {{"FSP", Align::right}, {"FROM SHARD", Align::right}, {"TO SHARD", Align::right}, {"VERSION", Align::right}});
    for (const json &fsp : moved) {
        table.add(
            {shown(fsp.at("fsp")), shown(fsp.at("from_shard")), shown(fsp.at("to_shard")), shown(fsp.at("version"))});
    }
    return table.render(colour);
}

// "LS 1 to LS 2: 3 FSPs moved in 0.112 ms"
static std::string summary(const json &answer)
{
    const json &moved = answer.at("moved");
    const std::string what = moved.is_null() ? "FSPs" : common::counted(moved.size(), "FSP");
    return "LS " + shown(answer.at("from")).text + " to LS " + shown(answer.at("to")).text + ": " + what +
           " moved in " + durationText(answer.at("took_us")) + "\n";
}

static std::string shortenedText(const json &answer)
{
    std::string text;
    for (const json &each : answer.at("shortened")) {
        text += "LS " + shown(each.at("ls")).text + " is LS " + shown(each.at("in_events")).text +
                " in the moves of events, which have 16 bits for it\n";
    }
    return text;
}

static std::string moveReport(const json &answer, bool colour)
{
    if (answer.at("empty_index") == true) {
        return "the index is empty: nothing moved, nothing was marked, and nobody was told\n";
    }
    if (answer.at("from") == answer.at("to")) {
        return "it is on LS " + shown(answer.at("to")).text + " already: nothing moved, and nobody was told\n";
    }
    return summary(answer) + movedTable(answer, colour) + toldText(answer, colour) + shortenedText(answer);
}

// Tells of what the library refused or cut short behind what was done.
static int report(const Session &session, const std::string &answer)
{
    const json parsed = json::parse(answer);
    present(session, answer, moveReport);
    if (parsed.at("result") != 0) {
        reportError(session.command, "the library's call failed with " + parsed.at("result").dump() +
                                         ", the node's log tells why; what moved stays moved");
        return kFailed;
    }
    return parsed.at("untold").empty() ? kDone : kFailed;
}

int migrateShard(const Session &session, const std::string &ls, const std::optional<std::string> &to)
{
    json request = {{"ls", parseLs("LS", ls)}};
    if (to) {
        request["to"] = parseLs("--to", *to);
    }
    return report(session, AdminClient(session).post("/v1/shards/migrate", request));
}

int failShardBack(const Session &session, const std::string &ls)
{
    const json request = {{"ls", parseLs("LS", ls)}};
    return report(session, AdminClient(session).post("/v1/shards/failback", request));
}

int moveFsp(const Session &session, const std::string &fsp, const std::string &to)
{
    const json request = {{"fsp", parseFsp(fsp)}, {"to", parseLs("--to", to)}};
    return report(session, AdminClient(session).post("/v1/shards/move", request));
}

} // namespace ctl
