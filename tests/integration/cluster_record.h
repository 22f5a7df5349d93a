/*
 * What must hold in a cluster whatever happened to it, told from two records: the changes that the store remembers, and
 * the event streams of the nodes. Each check is a failure of the running test that says what does not hold.
 */
#pragma once

#include "etcd_cluster.h"

#include <map>

namespace integration {

// A publication that a node reported as done.
struct Publication {
    size_t node;
    uint32_t fl;
    uint64_t version;
};

// One life of a node's process, between a start and an end.
struct NodeLife {
    std::string name;                        // for failures
    std::vector<nlohmann::json> events;      // as its stream gave them
    std::map<uint32_t, uint64_t> locksTaken; // by LS id
    std::map<uint32_t, uint64_t> locksHeld;  // at the end
    bool whole = false;                      // it lived to the end, and its stream is complete
};

class ClusterRecord {
public:
    explicit ClusterRecord(std::vector<Change> history);

    // The name's versions follow each other, and every publication stands there once, at the version it was told. Those
    // of a node are in their order.
    void checkPublications(const std::vector<Publication> &publications) const;
    // The view's versions follow each other, and each process that ended became faulty once.
    void checkViews() const;
    // The node was told of each change of the views that it saw, DLG before FMM, and nothing else; of a whole life, its
    // locks were released as often as they had to.
    void checkLife(const NodeLife &life) const;
    // How often the locks of clients must have been released in a life.
    uint64_t releasesOf(const NodeLife &life) const;

    uint64_t newestView() const { return views_.rbegin()->first; }

private:
    struct Client {
        uint64_t session;
        bool faulty;
        uint64_t faults;
    };
    using View = std::map<uint32_t, Client>; // by LS id
    using Lines = std::map<uint32_t, std::vector<std::string>>;
    struct Told {
        Lines lines;                           // of each client, in order
        std::map<uint32_t, uint64_t> releases; // of its locks
    };
    // The part of a life from one view on.
    struct Chapter {
        std::optional<uint64_t> was;
        uint64_t now;
        Lines lines;
    };

    Told expected(const Chapter &chapter) const;
    static void expectClient(Told &told, uint32_t lsId, const Client *before, const Client &client);
    static void expectMissed(Told &told, uint32_t lsId, const Client *before, const Client &client);
    std::vector<Chapter> chapters(const NodeLife &life) const;
    void checkReleases(const NodeLife &life) const;

    std::vector<Change> history_;
    std::map<uint64_t, View> views_; // by version
};

} // namespace integration
