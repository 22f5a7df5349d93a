#include "admin/routes.h"

#include "admin/calls.h"
#include <array>
#include <exception>
#include <nlohmann/json.hpp>
#include <string_view>

namespace host::admin {

namespace {

enum class Effect { reads, changes };

struct Route {
    std::string_view method;
    std::string_view path; // a '*' at the end stands for one path part, the call's argument
    Effect effect;
    Json (*call)(const CallInput &);
};

constexpr std::array kRoutes = {
    Route{"GET", "/v1/status", Effect::reads, getStatus},
    Route{"GET", "/v1/ips", Effect::reads, getIps},
    Route{"GET", "/v1/power", Effect::reads, getPower},
    Route{"POST", "/v1/power", Effect::changes, postPower},
    Route{"GET", "/v1/clusters", Effect::reads, getClusters},
    Route{"POST", "/v1/clusters", Effect::changes, postCluster},
    Route{"DELETE", "/v1/clusters/*", Effect::changes, deleteCluster},
    Route{"GET", "/v1/config", Effect::reads, getConfig},
    Route{"GET", "/v1/commands", Effect::reads, getCommands},
    Route{"POST", "/v1/commands", Effect::changes, postCommand},
    Route{"GET", "/v1/log", Effect::reads, getLog},
    Route{"PUT", "/v1/log", Effect::changes, putLog},
    Route{"GET", "/v1/memory", Effect::reads, getMemory},
    Route{"GET", "/v1/storage/faults", Effect::reads, getStorageFaults},
    Route{"POST", "/v1/storage/faults", Effect::changes, postStorageFault},
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

Answer runCall(const Route &route, const Request &request)
{
    const Json result = route.call({argumentOf(route, request.target), request.body});
    // Values out of files and adapters may hold any bytes.
    return {kOk, result.dump(-1, ' ', false, Json::error_handler_t::replace)};
}

} // namespace

bool changesSomething(const Request &request)
{
    const Route *route = findRoute(request);
    return route != nullptr && route->effect == Effect::changes;
}

Answer answerRequest(const Request &request)
{
    const Route *route = findRoute(request);
    if (route == nullptr) {
        return noRoute(request);
    }
    try {
        return runCall(*route, request);
    } catch (const CallError &error) {
        return errorAnswer(error.status(), error.what());
    } catch (const std::exception &error) {
        return errorAnswer(kInternalError, error.what());
    }
}

} // namespace host::admin
