// Owns the node's identity and the record of its start. Identity is written once, before any thread exists; the record
// has a lock of its own.

#include "node.h"

#include <mutex>

namespace host {
namespace {

NodeIdentity s_identity;
std::chrono::steady_clock::time_point s_begin = std::chrono::steady_clock::now();

std::mutex s_stepsLock;
std::vector<StartStep> s_steps;

} // namespace

void setNodeIdentity(const NodeIdentity &identity)
{
    s_identity = identity;
    s_begin = std::chrono::steady_clock::now();
}

const NodeIdentity &nodeIdentity()
{
    return s_identity;
}

std::chrono::milliseconds uptime()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - s_begin);
}

void recordStartStep(const std::string &name, int32_t result)
{
    const std::lock_guard hold(s_stepsLock);
    s_steps.push_back({name, result});
}

std::vector<StartStep> startSteps()
{
    const std::lock_guard hold(s_stepsLock);
    return s_steps;
}

} // namespace host
