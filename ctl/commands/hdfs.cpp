/*
 * nasctl hdfs, ifaces, ip node and ctrl-ips: what the storage-side service answers to the node's questions.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr size_t kMaxSubnet = 63;

// A record's fields have names of their own, so its members are shown as they come: "fs_id" as "fs id".
static std::string titleOf(const std::string &key, bool upper)
{
    std::string title = key;
    std::replace(title.begin(), title.end(), '_', ' ');
    if (upper) {
        std::transform(title.begin(), title.end(), title.begin(), [](unsigned char c) { return std::toupper(c); });
    }
    return title;
}

// Null is a field that the answer was too short for.
static Cell fieldCell(const json &value)
{
    if (value.is_null()) {
        return {"missing", Tone::bad};
    }
    const Cell cell = shown(value);
    return cell.text.empty() ? Cell{"-"} : cell;
}

static std::string entryTable(const nlohmann::ordered_json &entries, bool colour)
{
    std::vector<Column> columns;
    for (const auto &[key, value] : entries.at(0).items()) {
        columns.push_back({titleOf(key, true), value.is_number() ? Align::right : Align::left});
    }
    Table table(columns);
    for (const auto &entry : entries) {
        if (entry.size() != columns.size()) {
            throw Failure(
                "the node's answer has entries of different shapes; node and nasctl are of different versions");
        }
        std::vector<Cell> row;
        for (const auto &field : entry.items()) {
            row.push_back(fieldCell(field.value()));
        }
        table.add(row);
    }
    return table.render(colour);
}

static std::string answerText(const nlohmann::ordered_json &answer, bool colour)
{
    Table fields({{}, {}});
    for (const auto &[key, value] : answer.items()) {
        if (key == "rest" && value.is_object()) {
            fields.add({{"rest"}, {value.at("hex").get<std::string>()}});
            fields.add({{}, {value.at("text").get<std::string>()}});
        } else if (key != "entries" && key != "rest") {
            fields.add({{titleOf(key, false)}, fieldCell(value)});
        }
    }
    const auto entries = answer.find("entries");
    const bool listed = entries != answer.end() && !entries->empty();
    return fields.render(colour) + (listed ? "\n" + entryTable(*entries, colour) : "");
}

// Whether the code tells that nobody took the question, or that whoever did has gone or keeps silent.
static bool isUnanswered(const json &code)
{
    constexpr int kUnanswered[] = {-ETIMEDOUT, -ECONNREFUSED, -EPIPE, -ECONNRESET};
    return std::ranges::any_of(kUnanswered, [&code](int each) { return code == each; });
}

static int ask(const Session &session, const std::string &question, const json &request)
{
    const std::string text = AdminClient(session).post("/v1/ask/" + question, request);
    const auto whole = nlohmann::ordered_json::parse(text);
    const auto &answer = whole.at("answer");
    present(session, text,
            [&](const json &, bool colour) { return answer.is_null() ? std::string() : answerText(answer, colour); });
    if (answer.is_null()) {
        const char *hint = isUnanswered(whole.at("code")) ? "is the storage-side service running?"
                                                          : "nasctl storage status shows its data and faults";
        reportError(session.command, "the question failed with " + whole.at("code").dump() + " (" +
                                         shown(whole.at("reason")).text + "); " + hint);
        return kFailed;
    }
    if (answer.at("result") != 0) {
        reportError(session.command, "the storage-side service answered with result " + answer.at("result").dump() +
                                         "; its data has no such thing");
        return kFailed;
    }
    return kDone;
}

int askStorage(const Session &session, const std::string &question)
{
    return ask(session, question, nullptr);
}

int askAboutAddress(const Session &session, const std::string &question, const std::string &address)
{
    checkAddress(address);
    return ask(session, question, {{"address", address}});
}

int askAboutZone(const Session &session, const std::string &question, const ZoneWords &zone)
{
    if (zone.subnet.size() > kMaxSubnet) {
        throw UsageFailure("SUBNET: longer than " + std::to_string(kMaxSubnet) + " bytes");
    }
    return ask(session, question,
               {{"fs_id", parseNumber("--fs-id", zone.fsId, 0, UINT32_MAX)},
                {"tenant_id", parseNumber("--tenant-id", zone.tenantId, 0, UINT32_MAX)},
                {"subnet", zone.subnet}});
}

int askAboutNeighbours(const Session &session, const std::string &lsId)
{
    return ask(session, "neighbors", {{"eds_ls_id", parseNumber("LS", lsId, 0, INT32_MAX)}});
}

static std::string ownerTable(const json &answer, bool colour)
{
    Table table({{"CONTROL ADDRESS"}, {"LS", Align::right}});
    for (const json &row : answer.at("addresses")) {
        const json &ls = row.at("ls_id");
        table.add({shown(row.at("address")), ls.is_null() ? Cell{"unknown", Tone::bad} : shown(ls)});
    }
    return table.render(colour);
}

int showControlIps(const Session &session, const Words &addresses)
{
    for (const std::string &address : addresses) {
        checkAddress(address);
    }
    present(session, AdminClient(session).post("/v1/ctrl-ips", {{"addresses", addresses}}), ownerTable);
    return kDone;
}

} // namespace ctl
