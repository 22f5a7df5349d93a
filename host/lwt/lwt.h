/*
 * Light-weight threads: fibers pinned to a small pool of worker threads, or a plain thread each.
 */
#pragma once

#include <nasctrl/host/lwt.h>

namespace host {

enum class LwtBackend { fibers, threads };

// The sanitizers do not follow a program from stack to stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr LwtBackend kDefaultLwtBackend = LwtBackend::threads;
#else
constexpr LwtBackend kDefaultLwtBackend = LwtBackend::fibers;
#endif

// Once, before the first light-weight thread. workers counts the threads of the fiber pool.
void startLwt(LwtBackend backend, unsigned workers);

// Ends the pool's workers; light-weight threads that still run are abandoned where they sleep.
void stopLwt();

} // namespace host
