/*
 * The parallel clients: the view as this node knows it, and the doors through which clients join, stay, leave and are
 * reported faulty. Showing asks nobody; what changes something waits for the cluster store.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "cluster/cm_client.h"
#include "cluster/dpc_clients.h"
#include "node.h"

#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

constexpr uint32_t kMaxTtl = 3600;
constexpr uint32_t kDefaultTtl = 3;

Json reasonOf(const DpcClient &client)
{
    switch (client.faultReason) {
    case kNoFault:
        return nullptr;
    case kProcessFault:
        return "process fault";
    case kHeartBreak:
        return "heart break";
    default:
        return "reason " + std::to_string(client.faultReason);
    }
}

Json rowOf(const DpcClient &client)
{
    Json attributes = Json::object();
    for (const auto &[name, value] : client.attributes) {
        attributes[name] = value;
    }
    return {{"ls", client.lsId},
            {"state", client.runState == kRunning ? "running" : "faulty"},
            {"last_fault", reasonOf(client)},
            {"faults", client.faults},
            {"session", std::to_string(client.session)},
            {"node", client.node},
            {"attributes", std::move(attributes)}};
}

std::shared_ptr<Store> requireStore()
{
    auto store = clusterStore();
    if (!store) {
        throw CallError(kBusy, "the node has no cluster store");
    }
    return store;
}

// Runs a change of the cluster and turns its refusal into the call's.
template <typename Change>
auto cluster(Change change)
{
    const auto store = requireStore();
    try {
        return change(*store);
    } catch (const CmRefused &refused) {
        throw CallError(kBadRequest, refused.what());
    } catch (const StoreUnreachable &silent) {
        throw CallError(kBusy, silent.what());
    }
}

uint32_t lsIdOf(const CallInput &input)
{
    const uint64_t id = parseId(input.argument);
    if (id > UINT32_MAX) {
        throw CallError(kBadRequest, "id: must be below 4294967296");
    }
    return static_cast<uint32_t>(id);
}

std::vector<std::pair<std::string, std::string>> attributesOf(const Json &fields)
{
    std::vector<std::pair<std::string, std::string>> attributes;
    for (const std::string &text : textsField(fields, "attributes", kMaxDpcAttributes)) {
        const size_t equals = text.find('=');
        const std::string name = text.substr(0, equals);
        if (equals == std::string::npos || name.empty() || name.size() > kMaxDpcAttributeName ||
            text.size() - equals - 1 > kMaxDpcAttributeValue) {
            throw CallError(kBadRequest, "attributes: " + text + " is not NAME=VALUE of at most 31 and 255 characters");
        }
        attributes.emplace_back(name, text.substr(equals + 1));
    }
    return attributes;
}

} // namespace

Json getView(const CallInput & /*input*/)
{
    const CmStatus status = cmStatus();
    const auto view = knownView();
    Json rows = Json::array();
    if (view != nullptr) {
        for (const DpcClient &client : view->clients) {
            rows.push_back(rowOf(client));
        }
    }
    return {{"version", view != nullptr ? Json(view->version) : Json()},
            {"connected", status.connected},
            {"master", status.master ? Json(*status.master) : Json()},
            {"clients", std::move(rows)}};
}

Json getClient(const CallInput &input)
{
    const uint32_t lsId = lsIdOf(input);
    const auto view = knownView();
    const DpcClient *client = view != nullptr ? view->find(lsId) : nullptr;
    if (client == nullptr) {
        throw CallError(kNotFound,
                        "LS " + std::to_string(lsId) + " is not in the view; nasctl dpc ls lists its clients");
    }
    return rowOf(*client);
}

Json getMaster(const CallInput & /*input*/)
{
    const CmStatus status = cmStatus();
    return {{"node", status.node},
            {"master", status.master ? Json(*status.master) : Json()},
            {"is_master", status.master == status.node},
            {"connected", status.connected},
            {"ttl_s", status.ttl.count()},
            {"since_contact_ms", status.sinceContact.count()}};
}

Json joinCluster(const CallInput &input)
{
    const Json fields = input.body.empty() ? Json::object() : parseFields(input.body, {"ttl_s", "attributes"});
    JoinRequest request;
    request.lsId = lsIdOf(input);
    request.node = nodeIdentity().id;
    request.ttl = std::chrono::seconds(optionalNumberField(fields, "ttl_s", kMaxTtl).value_or(kDefaultTtl));
    request.attributes = attributesOf(fields);
    if (request.ttl.count() == 0) {
        throw CallError(kBadRequest, "ttl_s: must not be 0");
    }
    const Membership member = cluster([&](Store &store) { return joinClient(store, request); });
    return {{"ls", request.lsId},
            {"session", std::to_string(member.session)},
            {"lease", std::to_string(member.lease)},
            {"ttl_ms", member.ttl.count()}};
}

Json keepInCluster(const CallInput &input)
{
    const StoreLease lease = parseId(textField(parseFields(input.body, {"lease"}), "lease"));
    cluster([&](Store &store) { return keepClientAlive(store, lease), true; });
    return {{"ls", lsIdOf(input)}};
}

Json leaveCluster(const CallInput &input)
{
    const uint32_t lsId = lsIdOf(input);
    cluster([&](Store &store) { return removeClient(store, lsId), true; });
    return {{"ls", lsId}};
}

Json reportFault(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"reason", "ends_process"});
    const uint32_t lsId = lsIdOf(input);
    const auto reason = static_cast<int32_t>(numberField(fields, "reason", INT32_MAX));
    const bool ends = optionalNumberField(fields, "ends_process", 1).value_or(0) == 1;
    cluster([&](Store &store) { return failClient(store, lsId, reason, ends), true; });
    return {{"ls", lsId}, {"reason", reason}};
}

} // namespace host::admin
