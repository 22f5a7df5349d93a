#include "admin/routes.h"

#include "admin/calls.h"
#include <algorithm>
#include <array>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>

namespace host::admin {

namespace {

struct Route {
    std::string_view method;
    std::string_view path; // a '*' at the end stands for one path part, the call's argument
    Lane lane;             // a call that follows takes a query, and no other does
    Answer (*call)(const CallInput &);
};

template <Json (*Call)(const CallInput &)>
Answer json(const CallInput &input)
{
    // Values out of files and adapters may hold any bytes.
    return {kOk, Call(input).dump(-1, ' ', false, Json::error_handler_t::replace)};
}

Answer metrics(const CallInput & /*input*/)
{
    return {kOk, metricsText(), {}, "text/plain; version=0.0.4; charset=utf-8"};
}

constexpr std::array kRoutes = {
    Route{"GET", "/v1/status", Lane::read, json<getStatus>},
    Route{"GET", "/v1/ips", Lane::read, json<getIps>},
    Route{"GET", "/v1/power", Lane::read, json<getPower>},
    Route{"POST", "/v1/power", Lane::change, json<postPower>},
    Route{"GET", "/v1/clusters", Lane::read, json<getClusters>},
    Route{"POST", "/v1/clusters", Lane::change, json<postCluster>},
    Route{"DELETE", "/v1/clusters/*", Lane::change, json<deleteCluster>},
    Route{"GET", "/v1/config", Lane::read, json<getConfig>},
    Route{"GET", "/v1/commands", Lane::read, json<getCommands>},
    Route{"POST", "/v1/commands", Lane::change, json<postCommand>},
    Route{"GET", "/v1/fmm", Lane::read, json<getFmm>},
    Route{"POST", "/v1/fmm", Lane::change, json<postFmm>},
    Route{"GET", "/v1/log", Lane::read, json<getLog>},
    Route{"PUT", "/v1/log", Lane::change, json<putLog>},
    Route{"GET", "/v1/memory", Lane::read, json<getMemory>},
    Route{"GET", "/metrics", Lane::read, metrics},
    Route{"GET", "/v1/monitor", Lane::read, json<getMonitor>},
    Route{"PUT", "/v1/monitor", Lane::change, json<putMonitor>},
    Route{"GET", "/v1/ips/*", Lane::read, json<explainIp>},
    Route{"GET", "/v1/view", Lane::read, json<getView>},
    Route{"GET", "/v1/master", Lane::read, json<getMaster>},
    Route{"GET", "/v1/dpc/*", Lane::read, json<getClient>},
    Route{"POST", "/v1/dpc/join/*", Lane::question, json<joinCluster>},
    Route{"POST", "/v1/dpc/keep/*", Lane::question, json<keepInCluster>},
    Route{"POST", "/v1/dpc/leave/*", Lane::question, json<leaveCluster>},
    Route{"POST", "/v1/dpc/fault/*", Lane::question, json<reportFault>},
    Route{"GET", "/v1/lif", Lane::read, json<getLifPorts>},
    Route{"POST", "/v1/lif", Lane::change, json<postLifPort>},
    Route{"DELETE", "/v1/lif/*", Lane::change, json<deleteLifPort>},
    Route{"GET", "/v1/lif/index/*", Lane::read, json<getLifIndex>},
    Route{"GET", "/v1/lif/name/*", Lane::question, json<getLifName>},
    Route{"GET", "/v1/vpc", Lane::question, json<getVpcs>},
    Route{"POST", "/v1/vpc", Lane::change, json<postVpc>},
    Route{"DELETE", "/v1/vpc", Lane::change, json<deleteVpcs>},
    Route{"GET", "/v1/vpc/of/*", Lane::question, json<getVpcOf>},
    Route{"POST", "/v1/vpc/check", Lane::question, json<postVpcCheck>},
    Route{"POST", "/v1/vpc/save", Lane::change, json<postVpcSave>},
    Route{"POST", "/v1/vpc/reload", Lane::change, json<postVpcReload>},
    Route{"POST", "/v1/ask/*", Lane::question, json<postQuestion>},
    Route{"POST", "/v1/ctrl-ips", Lane::question, json<postControlIps>},
    Route{"GET", "/v1/storage/faults", Lane::service, json<getStorageFaults>},
    Route{"POST", "/v1/storage/faults", Lane::service, json<postStorageFault>},
    Route{"GET", "/v1/events", Lane::follow, json<getEvents>},
    Route{"GET", "/v1/locks", Lane::read, json<getFileLocks>},
    Route{"POST", "/v1/locks", Lane::change, json<postFileLock>},
    Route{"DELETE", "/v1/locks", Lane::change, json<deleteFileLock>},
    Route{"GET", "/v1/name", Lane::read, json<getName>},
    Route{"POST", "/v1/name", Lane::question, json<postName>},
    Route{"POST", "/v1/name/read", Lane::question, json<readName>},
    Route{"POST", "/v1/name/publish", Lane::question, json<publishName>},
    Route{"POST", "/v1/versions", Lane::read, json<parseVersions>},
    Route{"GET", "/v1/shards", Lane::read, json<getShards>},
    Route{"GET", "/v1/shards/index", Lane::read, json<getShardIndex>},
    Route{"GET", "/v1/shards/fsps/*", Lane::question, json<getFspPlacement>},
    Route{"POST", "/v1/shards/fsps", Lane::change, json<postFsp>},
    Route{"POST", "/v1/shards/migrate", Lane::change, json<postMigration>},
    Route{"POST", "/v1/shards/failback", Lane::change, json<postFailback>},
    Route{"POST", "/v1/shards/move", Lane::change, json<postFspMove>},
    Route{"GET", "/v1/shards/policy", Lane::read, json<getShardPolicy>},
    Route{"PUT", "/v1/shards/policy", Lane::change, json<putShardPolicy>},
};

bool pathMatches(const Route &route, std::string_view path)
{
    if (!route.path.ends_with('*')) {
        return path == route.path;
    }
    const std::string_view prefix = route.path.substr(0, route.path.size() - 1);
    return path.size() > prefix.size() && path.starts_with(prefix) &&
           path.find('/', prefix.size()) == std::string_view::npos;
}

struct Target {
    std::string path;
    std::string query;
};

// A call that takes no query has the whole target for its path.
Target targetFor(const Route &route, const std::string &target)
{
    const size_t end = route.lane == Lane::follow ? std::min(target.find('?'), target.size()) : target.size();
    return {target.substr(0, end), target.substr(std::min(end + 1, target.size()))};
}

bool matches(const Route &route, const Request &request)
{
    return pathMatches(route, targetFor(route, request.target).path);
}

std::string argumentOf(const Route &route, const std::string &path)
{
    return route.path.ends_with('*') ? path.substr(route.path.size() - 1) : std::string();
}

const Route *findRoute(const Request &request)
{
    for (const Route &route : kRoutes) {
        if (route.method == request.method && matches(route, request)) {
            return &route;
        }
    }
    return nullptr;
}

Answer noRoute(const Request &request)
{
    std::string allowed;
    for (const Route &route : kRoutes) {
        if (matches(route, request)) {
            allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
        }
    }
    if (allowed.empty()) {
        return errorAnswer(kNotFound, "there is no such call in this version");
    }
    Answer answer = errorAnswer(kMethodNotAllowed, "this path answers to " + allowed + " only");
    answer.allow = allowed;
    return answer;
}

} // namespace

Lane laneOf(const Request &request)
{
    const Route *route = findRoute(request);
    if (route == nullptr) {
        return Lane::read;
    }
    // One that follows without a wait is answered at once.
    const bool waits = targetFor(*route, request.target).query.find("wait=") != std::string::npos;
    return route->lane == Lane::follow && !waits ? Lane::read : route->lane;
}

Answer answerRequest(const Request &request)
{
    const Route *route = findRoute(request);
    if (route == nullptr) {
        return noRoute(request);
    }
    try {
        const Target target = targetFor(*route, request.target);
        return route->call({argumentOf(*route, target.path), request.body, target.query});
    } catch (const CallError &error) {
        return errorAnswer(error.status(), error.what());
    } catch (const std::exception &error) {
        return errorAnswer(kInternalError, error.what());
    }
}

} // namespace host::admin
