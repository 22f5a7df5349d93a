/*
 * nasctl ip monitor and ip explain: when the node looks at its addresses next, and all that it knows of one.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "commands/module_cells.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <arpa/inet.h>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr uint64_t kMaxPeriod = 600;
constexpr uint64_t kMsPerTenth = 100;
constexpr uint64_t kTenthsPerSecond = 10;

static std::string seconds(uint64_t ms)
{
    const uint64_t tenths = ms / kMsPerTenth;
    return std::to_string(tenths / kTenthsPerSecond) + "." + std::to_string(tenths % kTenthsPerSecond) + " s";
}

static Cell lastPassCell(const json &pass)
{
    if (pass.is_null()) {
        return {"none yet"};
    }
    const std::string when = seconds(pass.at("age_ms").get<uint64_t>()) + " ago";
    const json &result = pass.at("result");
    if (result.is_null()) {
        return {when + ", waits for the node's addresses"};
    }
    if (result == 0) {
        return {when};
    }
    return {when + ", the node's addresses could not be read (" + result.dump() + ")", Tone::bad};
}

static Cell nextPassCell(const json &pass)
{
    if (pass.is_null()) {
        return {"at once"};
    }
    const auto left = pass.at("in_ms").get<uint64_t>();
    const std::string sleep = pass.at("sleep_s").dump() + " s after the last";
    return {(left == 0 ? "due, " : "in " + seconds(left) + ", ") + sleep + (pass.at("early") == true ? ", early" : "")};
}

static std::string failingTable(const json &failing, bool colour)
{
    if (failing.empty()) {
        return "";
    }
    Table table({{"ADDRESS"}, {"SLOT", Align::right}, {"MODULE"}, {"REASON"}});
    for (const json &row : failing) {
        table.add({shown(row.at("address")),
                   shown(row.at("slot")),
                   shown(row.at("name")),
                   {shown(row.at("reason")).text, Tone::bad}});
    }
    return "\n" + table.render(colour);
}

static std::string monitorText(const json &answer, bool colour)
{
    const json &why = answer.at("why");
    Table fields({{}, {}});
    fields.add({{"period"}, {answer.at("period_s").dump() + " s"}});
    fields.add({{"last pass"}, lastPassCell(answer.at("last_pass"))});
    fields.add({{"next pass"}, nextPassCell(answer.at("next_pass"))});
    fields.add({{"then"}, {answer.at("retry") == true ? "5 s after it" : "a period after it"}});
    fields.add({{"hurry"}, {why.is_null() ? "-" : shown(why).text}});
    return fields.render(colour) + failingTable(answer.at("failing"), colour);
}

// Sets the period first when there is one.
static std::string askMonitor(const AdminClient &client, const std::optional<std::string> &period)
{
    if (!period) {
        return client.get("/v1/monitor");
    }
    const uint64_t seconds = parseNumber("--period", *period, 1, kMaxPeriod);
    return client.put("/v1/monitor", {{"period", seconds}});
}

int showMonitor(const Session &session, const std::optional<std::string> &period)
{
    present(session, askMonitor(AdminClient(session), period), monitorText);
    return kDone;
}

static std::string portsText(const json &ports)
{
    std::string text;
    for (const json &port : ports) {
        text += (text.empty() ? "" : ", ") + shown(port.at("id")).text + " (" + shown(port.at("name")).text + ")";
    }
    return text.empty() ? "-" : text;
}

static Cell knownCell(const json &answer)
{
    if (answer.at("entries").is_null()) {
        return shown(nullptr);
    }
    const json &why = answer.at("why_unknown");
    return why.is_null() ? Cell{"yes"} : Cell{"no: " + shown(why).text, Tone::bad};
}

static std::string entryTable(const json &entries, bool colour)
{
    if (entries.is_null() || entries.empty()) {
        return "";
    }
    Table table({{"LISTED AS"},
                 {"TYPE", Align::right},
                 {"STATUS", Align::right},
                 {"ACCEPTED BY"},
                 {"PENDING"},
                 {"FAILING"},
                 {"VERDICT"}});
    for (const json &entry : entries) {
        std::vector<Cell> row = {shown(entry.at("address")), shown(entry.at("protocol_type")),
                                 shown(entry.at("status"))};
        for (const Cell &cell : moduleCells(entry.at("modules"))) {
            row.push_back(cell);
        }
        row.push_back(shown(entry.at("verdict")));
        table.add(row);
    }
    return "\n" + table.render(colour);
}

static std::string explanation(const json &answer, bool colour)
{
    const json &next = answer.at("next_try_ms");
    const json &busy = answer.at("busy");
    const bool portsBusy = std::find(busy.begin(), busy.end(), "lif_ports") != busy.end();
    Table fields({{}, {}});
    fields.add({{"address"}, {shown(answer.at("address")).text + " (" + shown(answer.at("family")).text + ")"}});
    fields.add({{"known"}, knownCell(answer)});
    fields.add({{"next try"}, {next.is_null() ? "-" : "in " + seconds(next.get<uint64_t>())}});
    fields.add(
        {{"LIF ports"}, {portsText(answer.at("lif_ports")) + (portsBusy ? " (part of the table is busy)" : "")}});
    return fields.render(colour) + entryTable(answer.at("entries"), colour);
}

int explainAddress(const Session &session, const std::string &address)
{
    checkAddress(address);
    present(session, AdminClient(session).get("/v1/ips/" + address), explanation);
    return kDone;
}

} // namespace ctl
