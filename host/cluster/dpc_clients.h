/*
 * The clients' side of the cluster store: how a client joins, stays, leaves or fails. Every change is one write of the
 * shared view, repeated when somebody else wrote in between.
 *
 * From any thread. Each call waits for the store, at most for a few of its time-outs.
 */
#pragma once

#include "cluster/dpc_view.h"
#include "cluster/store.h"

#include <functional>
#include <optional>

namespace host {

// Where things lie in the store.
inline const std::string kCmPrefix = "nasctrl/cm/";
inline const std::string kViewKey = kCmPrefix + "view";
inline const std::string kClientPrefix = kCmPrefix + "client/";
inline const std::string kNodePrefix = kCmPrefix + "node/";
inline const std::string kMasterKey = kCmPrefix + "master";
inline const std::string kCommandKey = kCmPrefix + "command";
inline const std::string kServicePrefix = kCmPrefix + "service/";

// A call that was refused: what() says why, in one line.
struct CmRefused : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The store did not answer; whether the change was made is not known.
struct StoreUnreachable : std::runtime_error {
    StoreUnreachable();
};

struct JoinRequest {
    uint32_t lsId = 0;
    uint32_t node = 0;
    std::chrono::seconds ttl{3};
    std::vector<std::pair<std::string, std::string>> attributes;
};

struct Membership {
    uint64_t session = 0;
    StoreLease lease = 0;
    std::chrono::milliseconds ttl{0};
};

// Throw CmRefused or StoreUnreachable.

// The client lives from then on as long as its lease; refused while a process of that LS lives.
Membership joinClient(Store &store, const JoinRequest &request);
// Refused when the lease has ended.
void keepClientAlive(Store &store, StoreLease lease);
// Takes a client out of the view, and ends its lease.
void removeClient(Store &store, uint32_t lsId);
// Reports a fault; endsProcess ends the lease too. Refused when that leaves a client as it was: faulty, without a lease
// to end.
void failClient(Store &store, uint32_t lsId, int32_t reason, bool endsProcess);
// The running clients whose lease is gone become faulty by heart break; how many. For the master.
size_t breakHearts(Store &store);

// Nothing when nobody ever joined. Throws StoreUnreachable, or std::runtime_error when what is stored is no view.
std::optional<DpcView> readView(Store &store);

} // namespace host
