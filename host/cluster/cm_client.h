/*
 * The node's cluster manager (CM) client: it keeps the node's lease in the cluster store, follows the view of the
 * parallel clients, and tells the library of what changes.
 *
 * One thread of its own renews the lease, elects the master and handles what the store's watch brings, in order. As
 * master it also turns the loss of a client's lease into a heart break. When the store has not answered for as long as
 * a lease lasts, the client counts as disconnected (CM event 1); when it answers again, it connects anew (CM event 0),
 * reads the whole view and tells of what it missed.
 */
#pragma once

#include "cluster/dpc_view.h"
#include "cluster/node_lease.h"

#include <memory>
#include <optional>

namespace host {

// Before NasCtrlClusterInit, which opens the client.
void configureCmClient(const NodeLeaseSettings &settings);

// Starts the client's thread, which delivers the connect event to the library. Once, after NasCtrlClusterInit.
// Returns 0, or an error code when the client is not open or the thread cannot be had.
int connectCmClient();
// Gives the lease up and ends the thread.
void stopCmClient();

struct CmStatus {
    uint32_t node = 0;
    bool connected = false;
    std::optional<uint32_t> master; // nothing while this node cannot know
    std::chrono::seconds ttl{0};
    std::chrono::milliseconds sinceContact{0}; // since the store answered last
};

// From any thread; never wait for the store.
CmStatus cmStatus();
// As this node knows it; null before it has read one.
std::shared_ptr<const DpcView> knownView();

} // namespace host
