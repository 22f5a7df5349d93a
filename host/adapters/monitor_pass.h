/*
 * What the library's monitor did last, as far as its question for the node's addresses shows it.
 */
#pragma once

#include <cstdint>
#include <nasctrl/ip_manager.h>
#include <optional>
#include <string>
#include <vector>

namespace host {

struct MonitorPass {
    bool first; // since the node started: it begins hurried
    // The monitor chooses its sleep by g_needRetry as it stands when a pass begins, and sleeps after the pass.
    bool hurried;
    uint32_t sleepSeconds;
    std::optional<int32_t> queryResult; // nothing while the question is under way
};

// The latest pass; nothing before the first. From any thread.
std::optional<MonitorPass> lastMonitorPass();

// One of the node's addresses as an answer to the monitor's question told it.
struct NodeAddress {
    std::string address;
    uint32_t protocolType;
    bool working;
};

// Those of the latest question that did not fail. From any thread.
std::vector<NodeAddress> nodeAddresses();

// On the monitor's thread: a pass has begun; and its question was answered, with 0 and a list, or with the code of the
// failure. Only a list takes memory to note, and may throw std::bad_alloc, whereupon nothing is noted.
void beginMonitorPass();
void noteMonitorQuery(int32_t result, const node_ip_list *list);

} // namespace host
