/*
 * What keeps a node in its cluster, without a thread of its own: rounds that renew the node's lease, elect the master,
 * look after the clients as master and tell of what the store's watch brought.
 *
 * round and waitForWork are for one thread. fetchView and followFetched are for the threads that connect; of several at
 * once, the last to begin wins. applyLock_ is held while a view is told of, so that views are told of one at a time and
 * in order; queueLock_ for a few instructions, also from the watch's thread.
 */
#pragma once

#include "cluster/dpc_clients.h"
#include "cluster/node_lease.h"

#include <condition_variable>
#include <deque>

namespace host {

// Told by the agent, on the thread of its rounds but for the first view and what was missed, of which the thread that
// connects tells.
class AgentListener {
public:
    virtual ~AgentListener() = default;
    // The store answers: read the whole view (fetchView, followFetched), now or soon.
    virtual void connected() = 0;
    // It has not answered for as long as a lease lasts.
    virtual void disconnected() = 0;
    virtual void masterChanged(std::optional<uint32_t> master) = 0;
    virtual void command(int32_t type) = 0;
    virtual void firstView(const DpcView &now) = 0;
    virtual void changed(const DpcView &was, const DpcView &now) = 0;
    virtual void missed(const DpcView &was, const DpcView &now) = 0;
};

class ClusterAgent {
public:
    ClusterAgent(Store &store, const NodeLeaseSettings &settings, const SteadyClock &clock, AgentListener &listener);

    void round();
    // Until there is something to do or a third of a lease has passed. False when the agent was stopped.
    bool waitForWork();
    // Wakes waitForWork for good.
    void stop();
    // Gives the node's lease up; after the last round.
    void leave();

    // Reads the whole view; it becomes the known one with followFetched. done, absent (nobody ever joined), unknown.
    // Throws std::runtime_error when what is stored is no view.
    // Until followFetched, what the watch brings of the view is put aside.
    StoreResult fetchView();
    void followFetched(); // throws what the listener and the store's watch throw; then fetch anew

    // From any thread.
    std::optional<uint32_t> master() const { return lease_.master(); }
    bool isMaster() const { return lease_.isMaster(); }
    bool isConnected() const;
    std::chrono::milliseconds sinceContact() const; // or since its beginning, as long as there was none
    std::shared_ptr<const DpcView> known() const;

private:
    void handleEvents();
    void handle(const StoreEvent &event);
    void handleView(const StoreItem &item);
    void followView(const StoreItem &item);
    void keepContact();
    void noteLoss();
    void noteMaster();
    void stopFollowing();
    void lookAfterClients();
    void setKnown(DpcView view, uint64_t revision);

    Store &store_;
    const NodeLeaseSettings settings_;
    const SteadyClock clock_;
    AgentListener &listener_;
    NodeLease lease_;
    std::optional<uint32_t> toldMaster_;
    std::chrono::milliseconds nextRenewal_{0};

    bool lookAfterClients_ = false; // a client's lease ended

    std::mutex applyLock_;
    bool following_ = false;     // the watch's events continue the known view
    uint64_t knownRevision_ = 0; // of the store, when the known view was read or written
    uint64_t fetches_ = 0;
    std::optional<DpcView> fetched_; // by the last fetch that began
    uint64_t fetchedRevision_ = 0;
    std::optional<StoreItem> skipped_; // the last that the watch brought while nothing was followed

    mutable std::mutex queueLock_; // guards what follows
    std::condition_variable work_;
    std::deque<StoreEvent> events_;
    bool stopped_ = false;
    bool connected_ = false;
    std::chrono::milliseconds lastContact_; // or the agent's beginning
    std::shared_ptr<const DpcView> known_;

    // Under applyLock_; of one life with the store, so that no command is lost between two. The last member, because
    // its callback uses the others.
    std::unique_ptr<StoreWatch> watch_;
};

} // namespace host
