/*
 * The kernel's id of the calling thread, the one that ps, top and gdb show.
 */
#pragma once

#include <cstdint>

namespace host {

// Asks the kernel once per thread.
uint32_t osThreadId();

} // namespace host
