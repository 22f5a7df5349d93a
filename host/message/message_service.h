/*
 * The message service: other processes' messages to the registered modules, over a Unix socket, and this node's
 * synchronous calls to the storage-side service, over another. docs/messages.md tells the frames.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <nasctrl/host/message.h>
#include <string>

namespace host {

constexpr unsigned kMaxMessageClients = 1024;

struct MessageSettings {
    std::string socketPath;        // where clients connect; created with mode 0600, replaced when stale
    std::string storageSocketPath; // where the storage-side service listens; empty = there is none
    std::chrono::milliseconds storageTimeout{3000};
    uint32_t nodeId = 1;
    unsigned clients = kMaxMessageClients; // connected at once, at most
};

struct MessageCounters {
    uint64_t connections; // now
    uint64_t accepted;    // since start
    uint64_t messages;    // dispatched to a module
    uint64_t replies;     // sent by handlers
    uint64_t malformed;   // frames that closed their connection
    uint64_t undelivered; // messages for an unknown module
};

// Throws std::runtime_error with one clear line, for example when another process listens on the socket.
void startMessageService(const MessageSettings &settings);
// Closes every connection, waits for handlers that run, removes the socket. Not from a handler.
void stopMessageService();

// From any thread; never waits for a handler.
MessageCounters messageCounters();

} // namespace host
