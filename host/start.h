/*
 * Bringing a node up, and down again.
 */
#pragma once

#include "options.h"

namespace host {

// Runs every step of the start in order and records it. Throws std::runtime_error with one line that names the first
// step that failed and why; what ran before it keeps running until the process ends.
void startNode(const NodeOptions &options);

// Powers off, closes every door and flushes the log. The library's threads live as long as the process, which must be
// ended without running destructors under them: by _exit.
void stopNode();

} // namespace host
