/*
 * The service addresses, and how each stands with every configured module that serves its protocol type.
 */
#include "admin/address_row.h"
#include "admin/addresses.h"
#include "admin/calls.h"
#include "modules/modules.h"
#include <algorithm>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

bool serves(const ModuleState &module, uint32_t protocolType)
{
    const auto &types = module.config.protoTypes;
    return std::find(types.begin(), types.end(), protocolType) != types.end();
}

bool listensOn(const ModuleState &module, const std::string &address)
{
    return std::find(module.listening.begin(), module.listening.end(), address) != module.listening.end();
}

Json moduleRow(const ModuleState &module, const std::string &address)
{
    Json row = {{"slot", module.config.slot}, {"name", module.config.name}};
    const auto failure = std::find_if(module.failures.begin(), module.failures.end(),
                                      [&address](const ModuleFailure &each) { return each.address == address; });
    if (listensOn(module, address)) {
        row["state"] = "listening";
    } else if (failure != module.failures.end()) {
        row["state"] = "failing";
        row["reason"] = failure->reason;
    } else {
        row["state"] = "pending";
    }
    return row;
}

} // namespace

Json addressRow(const ServiceAddress &address, const std::vector<ModuleState> &modules)
{
    Json rows = Json::array();
    for (const ModuleState &module : modules) {
        if (serves(module, address.protocolType)) {
            rows.push_back(moduleRow(module, address.address));
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
    const std::vector<ModuleState> modules = moduleStates();
    Json rows = Json::array();
    for (const ServiceAddress &address : *addresses) {
        rows.push_back(addressRow(address, modules));
    }
    return {{"addresses", std::move(rows)}, {"busy", Json::array()}};
}

} // namespace host::admin
