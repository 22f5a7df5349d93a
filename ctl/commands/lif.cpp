/*
 * nasctl lif: the ports of the node's LIF table.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr size_t kMaxName = 256;

static std::string portId(const std::string &text)
{
    return std::to_string(parseNumber("ID", text, 1, UINT64_MAX));
}

static void addTime(json &request, const std::optional<std::string> &time)
{
    if (time) {
        request["time"] = std::to_string(parseNumber("--time", *time, 0, UINT64_MAX));
    }
}

static std::string portTable(const json &ports, bool colour)
{
    Table table({{"ID", Align::right},
                 {"INDEX", Align::right},
                 {"NAME"},
                 {"ADDRESS"},
                 {"TIME", Align::right},
                 {"PERFORMANCE"}});
    for (const json &port : ports) {
        table.add({shown(port.at("id")),
                   shown(port.at("index")),
                   shown(port.at("name")),
                   shown(port.at("address")),
                   shown(port.at("time")),
                   {port.at("performance") == true ? "on" : "off"}});
    }
    return table.render(colour);
}

static std::string listText(const json &answer, bool colour)
{
    const json &ports = answer.at("ports");
    const size_t busy = answer.at("busy_buckets").size();
    std::string text = ports.empty() ? "" : portTable(ports, colour);
    if (busy != 0) {
        text += "busy: " + std::to_string(busy) + " of 256 parts of the table are left out\n";
    }
    return text.empty() ? "no LIF ports\n" : text;
}

int listPorts(const Session &session)
{
    present(session, AdminClient(session).get("/v1/lif"), listText);
    return kDone;
}

static std::string addedText(const json &answer, bool colour)
{
    const json &port = answer.at("port");
    return port.is_null() ? "index " + shown(answer.at("index")).text + "\n" : portTable(json::array({port}), colour);
}

int addPort(const Session &session, const Words &port, const std::optional<std::string> &time)
{
    if (port.size() != 3) {
        throw UsageFailure("ID, NAME and ADDRESS are needed; nasctl lif add --help tells the form");
    }
    if (port[1].size() > kMaxName) {
        throw UsageFailure("NAME: longer than " + std::to_string(kMaxName) + " bytes");
    }
    checkAddress(port[2]);
    json request = {{"id", portId(port[0])}, {"name", port[1]}, {"address", port[2]}};
    addTime(request, time);
    const std::string answer = AdminClient(session).post("/v1/lif", request);
    present(session, answer, addedText);
    return kDone;
}

static std::string removedText(const json &answer, bool)
{
    std::string text;
    for (const json &id : answer.at("removed")) {
        text += shown(id).text + ": removed\n";
    }
    return text;
}

int deletePort(const Session &session, const std::string &address, const std::optional<std::string> &time)
{
    checkAddress(address);
    json request;
    addTime(request, time);
    const std::string answer = AdminClient(session).remove("/v1/lif/" + address, request);
    const json parsed = json::parse(answer);
    present(session, answer, removedText);
    if (parsed.at("removed").empty()) {
        reportError(session.command, address + ": port " + shown(parsed.at("left").at(0)).text +
                                         " was added later than --time and stays; nasctl lif ls shows its time");
        return kFailed;
    }
    return kDone;
}

// A look-up answers something for any id: what it answers for one that is not in the table is not shown.
static int lookUp(const Session &session, const std::string &path, const std::string &id, const char *key)
{
    const std::string answer = AdminClient(session).get(path + id);
    const bool known = json::parse(answer).at("known").get<bool>();
    present(session, answer, [&](const json &found, bool) {
        return known ? printable(shown(found.at(key)).text) + "\n" : std::string();
    });
    if (!known) {
        reportError(session.command, id + ": no such LIF port; nasctl lif ls lists them");
        return kFailed;
    }
    return kDone;
}

int findPort(const Session &session, const std::string &id)
{
    return lookUp(session, "/v1/lif/index/", portId(id), "index");
}

int namePort(const Session &session, const std::string &id)
{
    return lookUp(session, "/v1/lif/name/", portId(id), "name");
}

} // namespace ctl
