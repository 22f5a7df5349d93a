/*
 * What a node knows of itself: its identity, and how its start went.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace host {

struct NodeIdentity {
    uint32_t id = 1;  // node id, also its LS id
    std::string root; // the directory that holds the node's files; empty = the machine's own
    std::string version;
};

struct StartStep {
    std::string name; // the function that was called
    int32_t result;
};

// Set once, before anything else of the host runs; the clock of uptime() starts here.
void setNodeIdentity(const NodeIdentity &identity);
const NodeIdentity &nodeIdentity();
std::chrono::milliseconds uptime();

// From any thread.
void recordStartStep(const std::string &name, int32_t result);
std::vector<StartStep> startSteps();

} // namespace host
