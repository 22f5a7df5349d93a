/*
 * The cluster manager client of a node that knows no other: it has a client id, and one event to tell, its connect.
 */
#pragma once

namespace host {

// Delivers the connect event to the library, on a thread of its own. Once, after NasCtrlClusterInit opened the client.
// Returns 0, or an error code when the client is not open or the thread cannot be had.
int connectCmClient();

} // namespace host
