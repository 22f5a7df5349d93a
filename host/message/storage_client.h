/*
 * This node as a client of the storage-side service.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace host {

// Where the service listens (empty = there is none), how long a call may take, and the id of this node. Closes the
// connections that no call uses; calls under way end as they began.
void configureStorageClient(const std::string &path, std::chrono::milliseconds timeout, uint32_t nodeId);

} // namespace host
