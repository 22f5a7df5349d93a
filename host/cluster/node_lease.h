/*
 * A node's life in the cluster store: its lease, its key, and who is the master.
 *
 * The master is the node whose key stands under kMasterKey; the key belongs to that node's lease, so it goes when the
 * node does. A node believes what it has read or renewed for as long as one lease lasts and no longer: a node that is
 * cut off stops being master, in its own eyes too, before another can become it.
 *
 * renew and elect are for one thread; the rest is for any.
 */
#pragma once

#include "cluster/store.h"

#include <mutex>
#include <optional>

namespace host {

struct NodeLeaseSettings {
    uint32_t node = 1; // node id, also its LS id
    std::string name;
    std::chrono::seconds ttl{5};
};

using SteadyClock = std::function<std::chrono::milliseconds()>; // never goes back

class NodeLease {
public:
    NodeLease(Store &store, NodeLeaseSettings settings, SteadyClock clock);

    // Takes or renews the lease and the node's key. False when the store did not answer, or another process lives
    // under this node's id.
    bool renew();
    // Reads who is the master and becomes it when nobody is. False when the store did not answer.
    bool elect();
    // Gives the lease up, so that others need not wait for its end.
    void release();

    // Nothing while this node cannot know.
    std::optional<uint32_t> master() const;
    bool isMaster() const { return master() == settings_.node; }

private:
    bool take();
    bool announce();
    void believe(std::optional<uint32_t> master, std::chrono::milliseconds until);

    Store &store_;
    const NodeLeaseSettings settings_;
    const SteadyClock clock_;
    StoreLease lease_ = 0;
    bool announced_ = false;
    bool strangerLogged_ = false;
    std::chrono::milliseconds leaseEnd_{0};

    mutable std::mutex lock_; // guards what follows
    std::optional<uint32_t> master_;
    std::chrono::milliseconds believedUntil_{0};
};

} // namespace host
