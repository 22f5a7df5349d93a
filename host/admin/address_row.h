/*
 * A service address as JSON: how it stands with every configured module that serves its protocol type.
 */
#pragma once

#include "admin/addresses.h"
#include "modules/modules.h"
#include <nlohmann/json_fwd.hpp>
#include <vector>

namespace host::admin {

nlohmann::ordered_json addressRow(const ServiceAddress &address, const std::vector<ModuleState> &modules);

} // namespace host::admin
