/*
 * The node at a glance.
 */
#include "admin/addresses.h"
#include "admin/calls.h"
#include "cluster/cm_client.h"
#include "message/message_service.h"
#include "modules/modules.h"
#include "node.h"
#include <algorithm>
#include <nasctrl/ip_manager.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace host::admin {

namespace {

Json nodePart()
{
    const NodeIdentity &node = nodeIdentity();
    return {{"id", node.id},
            {"root", node.root},
            {"pid", getpid()},
            {"version", node.version},
            {"uptime_ms", uptime().count()}};
}

Json startPart()
{
    Json steps = Json::array();
    for (const StartStep &step : startSteps()) {
        steps.push_back({{"step", step.name}, {"result", step.result}});
    }
    return steps;
}

Json addressesPart()
{
    const auto addresses = readAddresses();
    if (!addresses) {
        return nullptr;
    }
    const auto waits = [](const ServiceAddress &each) {
        return (each.status & NAS_IP_ALL_NOTIFIED) != NAS_IP_ALL_NOTIFIED;
    };
    return {{"total", addresses->size()}, {"pending", std::count_if(addresses->begin(), addresses->end(), waits)}};
}

Json modulesPart()
{
    Json modules = Json::array();
    for (const ModuleState &module : moduleStates()) {
        modules.push_back({{"slot", module.config.slot},
                           {"name", module.config.name},
                           {"protocol_types", module.config.protoTypes},
                           {"port", module.config.port},
                           {"listening", module.listening.size()},
                           {"failing", module.failures.size()}});
    }
    return modules;
}

Json messagesPart()
{
    const MessageCounters counters = messageCounters();
    return {{"connections", counters.connections}, {"accepted", counters.accepted},
            {"messages", counters.messages},       {"replies", counters.replies},
            {"malformed", counters.malformed},     {"undelivered", counters.undelivered}};
}

Json clusterPart()
{
    const CmStatus status = cmStatus();
    const auto view = knownView();
    return {{"store", storePart()},
            {"connected", status.connected},
            {"master", status.master ? Json(*status.master) : Json()},
            {"view_version", view != nullptr ? Json(view->version) : Json()},
            {"clients", view != nullptr ? view->clients.size() : 0}};
}

Json memoryPart()
{
    const Json memory = getMemory({});
    return {{"blocks", memory.at("blocks")}, {"bytes", memory.at("bytes")}};
}

} // namespace

Json getStatus(const CallInput &input)
{
    Json addresses = addressesPart();
    Json busy = Json::array();
    if (addresses.is_null()) {
        busy.push_back("addresses");
    }
    return {{"node", nodePart()},       {"power", getPower(input)},
            {"start", startPart()},     {"addresses", std::move(addresses)},
            {"modules", modulesPart()}, {"messages", messagesPart()},
            {"memory", memoryPart()},   {"cluster", clusterPart()},
            {"busy", std::move(busy)}};
}

} // namespace host::admin
