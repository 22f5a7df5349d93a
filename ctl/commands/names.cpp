/*
 * nasctl ns and nasctl version: the version record in the cluster's name service, and compatible-version texts.
 */
#include "admin_client.h"
#include "commands/cluster_cells.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string nameTable(const json &answer, bool colour)
{
    const json &local = answer.at("local");
    Table fields({{}, {}});
    fields.add({{"name"}, shown(answer.at("name"))});
    fields.add({{"store"}, storeCell(answer.at("store"))});
    fields.add({{"version"}, shown(answer.at("version"))});
    fields.add({{"local copy"},
                {"version " + shown(local.at("version")).text + ", FL " + shown(local.at("fl")).text + ", seq " +
                 shown(local.at("seq")).text}});
    fields.add({{"published"}, {shown(answer.at("published")).text + " by this node"}});
    return fields.render(colour);
}

int showName(const Session &session)
{
    present(session, AdminClient(session).get("/v1/name"), nameTable);
    return kDone;
}

int createName(const Session &session)
{
    present(session, AdminClient(session).post("/v1/name", nullptr), [](const json &answer, bool) {
        return shown(answer.at("name")).text +
               (answer.at("created").get<bool>() ? ": created\n" : ": was there already\n");
    });
    return kDone;
}

int readName(const Session &session)
{
    present(session, AdminClient(session).post("/v1/name/read", nullptr), nameTable);
    return kDone;
}

int publishName(const Session &session, const std::string &fl)
{
    const json request = {{"fl", parseNumber("FL", fl, 0, UINT32_MAX)}};
    present(session, AdminClient(session).post("/v1/name/publish", request), nameTable);
    return kDone;
}

static std::string versionText(const json &answer, bool)
{
    std::string text;
    for (const json &version : answer.at("versions")) {
        text += (text.empty() ? "" : " ") + shown(version).text;
    }
    return answer.at("result") != 0 ? std::string() : (text.empty() ? "no versions" : text) + "\n";
}

int parseVersions(const Session &session, const std::string &text)
{
    const std::string whole = AdminClient(session).post("/v1/versions", {{"text", text}});
    const json answer = json::parse(whole);
    present(session, whole, versionText);
    const json &explanation = answer.at("explanation");
    const std::string why = explanation.is_null() ? "" : shown(explanation).text;
    if (answer.at("result") != 0) {
        reportError(session.command,
                    "the text is wrong (" + answer.at("result").dump() + ")" + (why.empty() ? "" : ": " + why));
        return kFailed;
    }
    if (!why.empty()) {
        reportError(session.command, why); // accepted all the same
    }
    return kDone;
}

} // namespace ctl
