/*
 * The way of one request: the registered module's handler, and the reply that it sends.
 */
#pragma once

#include "message/frame.h"
#include "message/message_service.h"

namespace host {

// Who sent a request.
struct Sender {
    unsigned slot; // below kMaxMessageClients; no other request of the same slot is under way
    int socket;    // to which the answer will go; open until dispatch returns
};

// What goes back to the client. The payload is valid until the slot's next dispatch.
struct Answer {
    uint32_t direction;
    int32_t result;
    std::span<const std::byte> payload;
};

// Runs the handler of the request's module on this thread.
Answer dispatch(const FrameHeader &request, std::span<std::byte> payload, const Sender &sender);

} // namespace host
