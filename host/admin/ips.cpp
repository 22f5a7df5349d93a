/*
 * The service addresses, and how each stands with every configured module that serves its protocol type.
 */
#include "admin/address_row.h"
#include "admin/addresses.h"
#include "admin/calls.h"
#include "modules/modules.h"
#include <algorithm>
#include <nlohmann/json.hpp>
#include <utility>

namespace host::admin {

namespace {

bool serves(const ModuleState &module, uint32_t protocolType)
{
    const auto &types = module.config.protoTypes;
    return std::find(types.begin(), types.end(), protocolType) != types.end();
}

} // namespace

AddressRows::AddressRows(std::vector<ModuleState> modules) : states_(std::move(modules))
{
    for (const ModuleState &state : states_) {
        Module &module = modules_.emplace_back(Module{&state, {}, {}});
        module.listening.insert(state.listening.begin(), state.listening.end());
        for (const ModuleFailure &failure : state.failures) {
            module.reasons.emplace(failure.address, failure.reason);
        }
    }
}

Json AddressRows::stateRow(const Module &module, const std::string &address)
{
    Json row = {{"slot", module.state->config.slot}, {"name", module.state->config.name}};
    const auto reason = module.reasons.find(address);
    if (module.listening.contains(address)) {
        row["state"] = "listening";
    } else if (reason != module.reasons.end()) {
        row["state"] = "failing";
        row["reason"] = reason->second;
    } else {
        row["state"] = "pending";
    }
    return row;
}

Json AddressRows::rowOf(const ServiceAddress &address) const
{
    Json rows = Json::array();
    for (const Module &module : modules_) {
        if (serves(*module.state, address.protocolType)) {
            rows.push_back(stateRow(module, address.address));
        }
    }
    return {{"address", address.address},
            {"protocol_type", address.protocolType},
            {"status", address.status},
            {"modules", std::move(rows)}};
}

Json getIps(const CallInput & /*input*/)
{
    const auto addresses = readAddresses();
    if (!addresses) {
        return {{"addresses", nullptr}, {"busy", Json::array({"addresses"})}};
    }
    const AddressRows modules(moduleStates());
    Json rows = Json::array();
    for (const ServiceAddress &address : *addresses) {
        rows.push_back(modules.rowOf(address));
    }
    return {{"addresses", std::move(rows)}, {"busy", Json::array()}};
}

} // namespace host::admin
