/*
 * The calls of the admin door, one function per row of the route table. Each returns the JSON of a 200 answer or throws
 * CallError. Calls that read run beside the one change that may be under way and never wait for work of the node;
 * changes run one at a time.
 */
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace host::admin {

// Members keep the order in which docs/admin-api.md lists them.
using Json = nlohmann::ordered_json;

struct CallInput {
    std::string argument; // what the path holds in place of the route's '*'
    std::string body;
    std::string query = {}; // what follows the path's '?', for the calls that take one
};

// A part of several answers: the cluster store and what became of the last call to it; null = there is none.
Json storePart();

Json getStatus(const CallInput &input);
Json getIps(const CallInput &input);
Json getPower(const CallInput &input);
Json postPower(const CallInput &input);
Json getClusters(const CallInput &input);
Json postCluster(const CallInput &input);
Json deleteCluster(const CallInput &input);
Json getConfig(const CallInput &input);
Json getCommands(const CallInput &input);
Json postCommand(const CallInput &input);
Json getFmm(const CallInput &input);
Json postFmm(const CallInput &input);
Json getLog(const CallInput &input);
Json putLog(const CallInput &input);
Json getMemory(const CallInput &input);
Json getStorageFaults(const CallInput &input);
Json postStorageFault(const CallInput &input);
Json getMonitor(const CallInput &input);
Json putMonitor(const CallInput &input);
Json explainIp(const CallInput &input);
Json getView(const CallInput &input);
Json getMaster(const CallInput &input);
Json getClient(const CallInput &input);
Json joinCluster(const CallInput &input);
Json keepInCluster(const CallInput &input);
Json leaveCluster(const CallInput &input);
Json reportFault(const CallInput &input);
Json getLifPorts(const CallInput &input);
Json postLifPort(const CallInput &input);
Json deleteLifPort(const CallInput &input);
Json getLifIndex(const CallInput &input);
Json getLifName(const CallInput &input);
Json getVpcs(const CallInput &input);
Json postVpc(const CallInput &input);
Json deleteVpcs(const CallInput &input);
Json getVpcOf(const CallInput &input);
Json postVpcCheck(const CallInput &input);
Json postVpcSave(const CallInput &input);
Json postVpcReload(const CallInput &input);
Json postQuestion(const CallInput &input);
Json postControlIps(const CallInput &input);
Json getEvents(const CallInput &input);
Json getFileLocks(const CallInput &input);
Json postFileLock(const CallInput &input);
Json deleteFileLock(const CallInput &input);
Json getName(const CallInput &input);
Json postName(const CallInput &input);
Json readName(const CallInput &input);
Json publishName(const CallInput &input);
Json parseVersions(const CallInput &input);
Json getShards(const CallInput &input);
Json getShardIndex(const CallInput &input);
Json getFspPlacement(const CallInput &input);
Json postFsp(const CallInput &input);
Json postMigration(const CallInput &input);
Json postFailback(const CallInput &input);
Json postFspMove(const CallInput &input);
Json getShardPolicy(const CallInput &input);
Json putShardPolicy(const CallInput &input);

// What the node counts, as Prometheus text.
std::string metricsText();

} // namespace host::admin
