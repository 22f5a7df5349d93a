/*
 * Bringing a node up, and down again.
 */
#pragma once

#include "options.h"

namespace host {

// Runs every step of the start in order and records it. Throws std::runtime_error with one line that names the first
// step that failed and why; what ran before it runs on until stopNode.
void startNode(const NodeOptions &options);

// Stops what was started, last first: admin server, power, message service, storage service, modules; then flushes the
// log. The library's threads live as long as the process, which must then be ended without running destructors under
// them, by _exit. Main thread.
void stopNode();

} // namespace host
