/*
 * This node as a client of the storage-side service.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <nasctrl/host/message.h>
#include <string>

namespace host {

// Where the service listens (empty = there is none), how long a call may take, and the id of this node. Closes the
// connections that no call uses; calls under way end as they began.
void configureStorageClient(const std::string &path, std::chrono::milliseconds timeout, uint32_t nodeId);

// svr_upcall_sync without its checks and with a time limit of its own.
int32_t callStorage(const svr_call_t &call, std::chrono::milliseconds timeout, void **response, uint32_t *length);

} // namespace host
