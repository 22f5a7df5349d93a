/*
 * What the library's monitor did last, as far as its question for the node's addresses shows it.
 */
#pragma once

#include <cstdint>
#include <optional>

namespace host {

struct MonitorPass {
    bool first; // since the node started: it begins as if something had failed
    // The monitor chooses its sleep by the flag as it stands when a pass begins, and sleeps after the pass.
    bool afterFailure;
    uint32_t sleepSeconds;
    std::optional<int32_t> queryResult; // nothing while the question is under way
};

// The latest pass; nothing before the first. From any thread.
std::optional<MonitorPass> lastMonitorPass();

// On the monitor's thread: a pass has begun; and its question was answered, with 0 or the code of the failure.
void beginMonitorPass();
void noteMonitorQuery(int32_t result);

} // namespace host
