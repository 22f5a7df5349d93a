/*
 * This node's own words with the storage-side service, embedded or not.
 */
#pragma once

#include <cstdint>
#include <string>

namespace host {

// Sends a control request (docs/storage.md) and returns the answer. Waits half a second at most. Throws
// std::runtime_error with one clear line when none comes. From any thread.
std::string askStorageControl(uint32_t opcode, const std::string &request);

} // namespace host
