#include "admin/routes.h"

#include "admin/calls.h"
#include <array>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>

namespace host::admin {

namespace {

struct Route {
    std::string_view method;
    std::string_view path; // a '*' at the end stands for one path part, the call's argument
    Lane lane;
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
    Route{"GET", "/v1/log", Lane::read, json<getLog>},
    Route{"PUT", "/v1/log", Lane::change, json<putLog>},
    Route{"GET", "/v1/memory", Lane::read, json<getMemory>},
    Route{"GET", "/metrics", Lane::read, metrics},
    Route{"GET", "/v1/monitor", Lane::read, json<getMonitor>},
    Route{"PUT", "/v1/monitor", Lane::change, json<putMonitor>},
    Route{"GET", "/v1/ips/*", Lane::read, json<explainIp>},
    Route{"GET", "/v1/lif", Lane::read, json<getLifPorts>},
    Route{"POST", "/v1/lif", Lane::change, json<postLifPort>},
    Route{"DELETE", "/v1/lif/*", Lane::change, json<deleteLifPort>},
    Route{"GET", "/v1/lif/index/*", Lane::read, json<getLifIndex>},
    Route{"GET", "/v1/lif/name/*", Lane::question, json<getLifName>},
    Route{"POST", "/v1/ask/*", Lane::question, json<postQuestion>},
    Route{"POST", "/v1/ctrl-ips", Lane::question, json<postControlIps>},
    Route{"GET", "/v1/name", Lane::read, json<getName>},
    Route{"POST", "/v1/name", Lane::question, json<postName>},
    Route{"POST", "/v1/name/read", Lane::question, json<readName>},
    Route{"POST", "/v1/name/publish", Lane::question, json<publishName>},
    Route{"POST", "/v1/versions", Lane::read, json<parseVersions>},
    Route{"GET", "/v1/storage/faults", Lane::question, json<getStorageFaults>},
    Route{"POST", "/v1/storage/faults", Lane::question, json<postStorageFault>},
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

std::string argumentOf(const Route &route, const std::string &path)
{
    return route.path.ends_with('*') ? path.substr(route.path.size() - 1) : std::string();
}

const Route *findRoute(const Request &request)
{
    for (const Route &route : kRoutes) {
        if (route.method == request.method && pathMatches(route, request.target)) {
            return &route;
        }
    }
    return nullptr;
}

Answer noRoute(const Request &request)
{
    std::string allowed;
    for (const Route &route : kRoutes) {
        if (pathMatches(route, request.target)) {
            allowed += (allowed.empty() ? "" : ", ") + std::string(route.method);
        }
    }
    if (allowed.empty()) {
        return errorAnswer(kNotFound, "there is no such call");
    }
    Answer answer = errorAnswer(kMethodNotAllowed, "this path answers to " + allowed + " only");
    answer.allow = allowed;
    return answer;
}

} // namespace

Lane laneOf(const Request &request)
{
    const Route *route = findRoute(request);
    return route != nullptr ? route->lane : Lane::read;
}

Answer answerRequest(const Request &request)
{
    const Route *route = findRoute(request);
    if (route == nullptr) {
        return noRoute(request);
    }
    try {
        return route->call({argumentOf(*route, request.target), request.body});
    } catch (const CallError &error) {
        return errorAnswer(error.status(), error.what());
    } catch (const std::exception &error) {
        return errorAnswer(kInternalError, error.what());
    }
}

} // namespace host::admin
