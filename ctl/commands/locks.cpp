/*
 * nasctl locks: the clients' file locks.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static Cell lengthCell(const json &length)
{
    return length == "0" ? Cell{"to the end"} : shown(length);
}

static std::string lockTable(const json &answer, bool colour)
{
    const json &locks = answer.at("locks");
    if (locks.empty()) {
        return "no file locks\n";
    }
    Table table({{"LS", Align::right}, {"FILE"}, {"START", Align::right}, {"LENGTH", Align::right}, {"KIND"}});
    for (const json &lock : locks) {
        table.add({shown(lock.at("ls_id")),
                   shown(lock.at("file")),
                   shown(lock.at("start")),
                   lengthCell(lock.at("length")),
                   {lock.at("shared") == true ? "shared" : "exclusive"}});
    }
    return table.render(colour);
}

int listLocks(const Session &session)
{
    present(session, AdminClient(session).get("/v1/locks"), lockTable);
    return kDone;
}

static json requestFor(const std::string &lsId)
{
    return {{"ls_id", parseNumber("--ls", lsId, 1, UINT32_MAX)}};
}

static void addRange(const Session &session, json &request, const Words &range)
{
    if (range.size() != 3) {
        throw UsageFailure("FILE, START and LEN are needed; nasctl " + session.command + " --help tells the form");
    }
    if (range[0].empty()) {
        throw UsageFailure("FILE: an empty text is no file");
    }
    request["file"] = range[0];
    request["start"] = std::to_string(parseNumber("START", range[1], 0, UINT64_MAX));
    request["length"] = std::to_string(parseNumber("LEN", range[2], 0, UINT64_MAX));
}

int takeLock(const Session &session, const std::string &lsId, const Words &range, bool shared)
{
    json request = requestFor(lsId);
    addRange(session, request, range);
    request["shared"] = shared;
    present(session, AdminClient(session).post("/v1/locks", request), lockTable);
    return kDone;
}

// What the client still has.
static std::string releasedText(const json &answer, const json &lsId, bool colour)
{
    const bool none = answer.at("locks").empty();
    return none ? "LS " + shown(lsId).text + " holds no file locks\n" : lockTable(answer, colour);
}

int releaseLocks(const Session &session, const std::string &lsId, const Words &range)
{
    json request = requestFor(lsId);
    if (!range.empty()) {
        addRange(session, request, range);
    }
    present(session, AdminClient(session).remove("/v1/locks", request),
            [&](const json &answer, bool colour) { return releasedText(answer, request.at("ls_id"), colour); });
    return kDone;
}

} // namespace ctl
