/*
 * How an address stands with the modules that serve it, as cells of a table.
 */
#pragma once

#include "table.h"
#include <nlohmann/json_fwd.hpp>
#include <vector>

namespace ctl {

// Three cells: those that accepted it, those that have not tried it yet, those that refuse it and why.
std::vector<Cell> moduleCells(const nlohmann::json &modules);

} // namespace ctl
