/*
 * nasctl cluster: the remote clusters that the node serves.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <functional>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string clusterTable(const json &answer, bool colour)
{
    const json &clusters = answer.at("clusters");
    if (clusters.is_null()) {
        return "clusters: busy\n";
    }
    if (clusters.empty()) {
        return "no remote clusters\n";
    }
    Table table({{"CLUSTER", Align::right}});
    for (const json &id : clusters) {
        table.add({shown(id)});
    }
    return table.render(colour);
}

int listClusters(const Session &session)
{
    present(session, AdminClient(session).get("/v1/clusters"), clusterTable);
    return kDone;
}

static int change(const Session &session, const Words &ids, const std::function<std::string(const std::string &)> &call)
{
    Words numbers;
    for (const std::string &id : ids) {
        // 0 is the local cluster, which is never in the list.
        numbers.push_back(std::to_string(parseNumber("ID", id, 1, UINT64_MAX)));
    }
    std::string answer;
    int code = kDone;
    for (const std::string &number : numbers) {
        try {
            answer = call(number);
        } catch (const Failure &failure) {
            reportError(session.command, number + ": " + failure.what());
            code = failure.code();
            break;
        }
    }
    if (!answer.empty()) {
        present(session, answer, clusterTable);
    }
    return code;
}

int addClusters(const Session &session, const Words &ids)
{
    return change(session, ids, [&](const std::string &id) {
        return AdminClient(session).post("/v1/clusters", {{"id", id}});
    });
}

int removeClusters(const Session &session, const Words &ids)
{
    return change(session, ids,
                  [&](const std::string &id) { return AdminClient(session).remove("/v1/clusters/" + id); });
}

} // namespace ctl
