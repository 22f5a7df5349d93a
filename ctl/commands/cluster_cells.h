/*
 * How the node stands with its cluster, as cells of a table.
 */
#pragma once

#include "table.h"
#include <nlohmann/json_fwd.hpp>

namespace ctl {

// The cluster store, and why it cannot be reached.
Cell storeCell(const nlohmann::json &store);

// "LS 2", or that it is not known.
Cell masterCell(const nlohmann::json &master);

} // namespace ctl
