/*
 * nasctl vpc: which networks belong to which virtual private cloud.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <algorithm>
#include <common/counted.h>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr size_t kMaxId = 127;

static bool breaksTheFile(char c)
{
    return c == ';' || static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

static std::string checkedId(const std::string &id)
{
    if (std::ranges::any_of(id, breaksTheFile)) {
        throw UsageFailure("ID: must hold neither ; nor control characters, which its file could not keep");
    }
    if (id.empty() || id.size() > kMaxId) {
        throw UsageFailure("ID: must have 1 to " + std::to_string(kMaxId) + " bytes");
    }
    return id;
}

static std::string recordTable(const json &records, bool colour)
{
    Table table({{"SLOT", Align::right}, {"ID"}, {"NETWORK"}});
    for (const json &record : records) {
        table.add({shown(record.at("slot")),
                   shown(record.at("id")),
                   {shown(record.at("address")).text + "/" + shown(record.at("length")).text}});
    }
    return table.render(colour);
}

static std::string counted(const json &count)
{
    return common::counted(count.get<uint64_t>(), "record");
}

static std::string listText(const json &answer, bool colour)
{
    const json &records = answer.at("records");
    return records.empty() ? "no VPC records\n" : recordTable(records, colour);
}

int listVpcs(const Session &session)
{
    present(session, AdminClient(session).get("/v1/vpc"), listText);
    return kDone;
}

static std::string addedText(const json &answer, bool colour)
{
    const std::string note = answer.at("added") == true ? "" : "it was there already\n";
    return recordTable(json::array({answer.at("record")}), colour) + note;
}

int addVpc(const Session &session, const Words &record)
{
    if (record.size() != 2) {
        throw UsageFailure("ID and NETWORK are needed; nasctl vpc add --help tells the form");
    }
    checkNetwork(record[1]);
    const json request = {{"id", checkedId(record[0])}, {"network", record[1]}};
    const std::string answer = AdminClient(session).post("/v1/vpc", request);
    present(session, answer, addedText);
    return kDone;
}

int lookUpVpc(const Session &session, const std::string &address)
{
    checkIpv4(address);
    const std::string answer = AdminClient(session).get("/v1/vpc/of/" + address);
    present(session, answer,
            [](const json &found, bool) { return nameable(printable(found.at("id").get<std::string>())) + "\n"; });
    return kDone;
}

int checkVpc(const Session &session, const std::string &id)
{
    const std::string answer = AdminClient(session).post("/v1/vpc/check", {{"id", checkedId(id)}});
    const bool known = json::parse(answer).at("known").get<bool>();
    present(session, answer, [known](const json &, bool) { return std::string(known ? "known\n" : ""); });
    if (!known) {
        reportError(session.command, id + ": no record has this id; nasctl vpc ls lists them");
        return kFailed;
    }
    return kDone;
}

int clearVpcs(const Session &session)
{
    present(session, AdminClient(session).remove("/v1/vpc"), [](const json &answer, bool) {
        return counted(answer.at("removed")) + " removed; the file stays as it is\n";
    });
    return kDone;
}

static std::string savedText(const json &answer, bool)
{
    const json &left = answer.at("left_bytes");
    const std::string tail = left == 0 ? "" : "; " + left.dump() + " bytes of an older, longer text stay behind them";
    return counted(answer.at("records")) + " saved in " + printable(answer.at("file").get<std::string>()) + tail + "\n";
}

int saveVpcs(const Session &session)
{
    present(session, AdminClient(session).post("/v1/vpc/save", {}), savedText);
    return kDone;
}

static std::string reloadedText(const json &answer, bool)
{
    return counted(answer.at("added")) + " added from " + printable(answer.at("file").get<std::string>()) + "; " +
           answer.at("records").dump() + " in the table\n";
}

int reloadVpcs(const Session &session)
{
    present(session, AdminClient(session).post("/v1/vpc/reload", {}), reloadedText);
    return kDone;
}

} // namespace ctl
