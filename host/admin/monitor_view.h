/*
 * Where the library's monitor stands between two passes.
 */
#pragma once

#include "adapters/monitor_pass.h"
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>

namespace host::admin {

struct MonitorView {
    uint64_t ageMs; // since the last pass began
    MonitorPass pass;
    uint64_t nextMs; // until the next, not counting how long the last one took; 0 = due
};

// Nothing before the first pass.
std::optional<MonitorView> readMonitor();

} // namespace host::admin
