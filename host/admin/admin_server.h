/*
 * The admin door: HTTP with JSON on a Unix socket. docs/admin-api.md tells the calls.
 */
#pragma once

#include <string>

namespace host {

// Serves on a thread of its own. Throws std::runtime_error with one clear line when the socket cannot be had.
void startAdminServer(const std::string &socketPath);
// Ends the calls that run and removes the socket.
void stopAdminServer();

} // namespace host
