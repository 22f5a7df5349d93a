/*
 * The way of one request: the registered module's handler, and the reply that it sends.
 */
#pragma once

#include "message/frame.h"

namespace host {

constexpr unsigned kMaxMessageThreads = 64;

// What goes back to the client. The payload is valid until the thread's next dispatch.
struct Answer {
    uint32_t direction;
    int32_t result;
    std::span<const std::byte> payload;
};

// Says which of the service's threads (0 to kMaxMessageThreads - 1) the calling one is; once, before it dispatches.
void becomeMessageThread(unsigned index);

// Runs the handler of the request's module on this thread. client is the socket to which its answer will go, open
// until dispatch returns.
Answer dispatch(const FrameHeader &request, std::span<std::byte> payload, int client);

} // namespace host
