/*
 * Service addresses as JSON: how each stands with every configured module that serves its protocol type.
 */
#pragma once

#include "admin/addresses.h"
#include "modules/modules.h"
#include <nlohmann/json_fwd.hpp>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace host::admin {

class AddressRows {
public:
    explicit AddressRows(std::vector<ModuleState> modules);
    AddressRows(const AddressRows &) = delete;
    AddressRows &operator=(const AddressRows &) = delete;

    nlohmann::ordered_json rowOf(const ServiceAddress &address) const;

private:
    // Addresses may be thousands on both sides, so that they are looked up rather than searched for.
    struct Module {
        const ModuleState *state;
        std::unordered_set<std::string_view> listening;
        std::unordered_map<std::string_view, std::string_view> reasons; // of failures, by address
    };
    static nlohmann::ordered_json stateRow(const Module &module, const std::string &address);

    const std::vector<ModuleState> states_;
    std::vector<Module> modules_; // views of states_
};

} // namespace host::admin
