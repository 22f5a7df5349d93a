/*
 * The cluster store: what the nodes of a cluster agree on. Small values under text keys, written only where nobody else
 * wrote in between; leases that take their keys with them; watches that tell of every change in order.
 *
 * Two back ends keep this contract: a SQLite file, which the processes of one machine share, and etcd, which serves
 * several machines.
 *
 * Threads: every function may be called from any thread, several at a time, also from a watch's callback. A call waits
 * at most for the time-out of the store's settings and, but for a watch without a thread, never throws.
 *
 * Units: a version counts the writes of one key since it was created; it is 1 after the creation, and starts at 1 again
 * when the key is removed and created anew. A revision counts the changes of the whole store; it never goes back and
 * never repeats. 0 is no version, no revision and no lease.
 *
 * Ownership: everything is copied; results belong to the caller. Keys are not empty and hold no NUL, values are any
 * bytes. A store outlives its watches.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace host {

// Done; or refused, and nothing changed (exists to noLease); or unknown.
enum class StoreResult {
    done,
    exists,  // a key that was to be created
    absent,  // a key that was to be there
    differs, // a key that has another version
    noLease, // the lease has ended, or there never was one
    // The answer did not come in time, or the store cannot be reached. A change may have been made, or may yet be made:
    // read to find out, and take a value that is one's own for success.
    unknown,
};

const char *nameOf(StoreResult result);

constexpr bool isRefused(StoreResult result)
{
    return result != StoreResult::done && result != StoreResult::unknown;
}

using StoreLease = uint64_t;

struct StoreItem {
    std::string key;
    std::string value;
    uint64_t version = 0;
    uint64_t revision = 0; // of its last write
    StoreLease lease = 0;
};

struct StoreRead {
    StoreResult result = StoreResult::unknown; // done, absent, unknown
    StoreItem item;
};

struct StoreList {
    StoreResult result = StoreResult::unknown; // done, unknown
    std::vector<StoreItem> items;              // by key, ascending
    uint64_t revision = 0;                     // of the store when it was read: where a watch goes on
};

struct StoreWrite {
    StoreResult result = StoreResult::unknown;
    uint64_t version = 0;  // of the key, when done
    uint64_t revision = 0; // of this change, when done
};

struct StoreGrant {
    StoreResult result = StoreResult::unknown; // done, unknown; a keep-alive: done, noLease, unknown
    StoreLease lease = 0;
    std::chrono::milliseconds ttl{0}; // from when the store handled the call; etcd may grant more than was asked for
};

struct StoreEvent {
    enum class Kind {
        put,     // item is what was written
        removed, // item has the key, and the revision of the removal; also when a lease ended
        // Changes may be missing before item.revision, because the store no longer remembers them: list again. The
        // watch goes on by itself; leave out what is not newer than that list.
        lost,
    };
    Kind kind = Kind::put;
    StoreItem item; // lost: only the revision
};

// Runs on a thread of the store, one call at a time for a watch, in the order of the revisions. Must not throw, and
// must not stop its own watch. Changes of one revision (a lease's keys) come one by one, ordered by key.
using StoreCallback = std::function<void(const StoreEvent &event)>;

// A running watch. Its destructor stops it: when that returns, the callback has ended and will not run again.
class StoreWatch {
public:
    StoreWatch() = default;
    virtual ~StoreWatch() = default;
    StoreWatch(const StoreWatch &) = delete;
    StoreWatch &operator=(const StoreWatch &) = delete;
};

struct StoreStatus {
    std::string place;     // as in the settings, without the kind: the file, or the end point that answered last
    bool reachable = true; // what the last call found; true before the first
    std::string error;     // of the last call that failed, one line; empty = none yet
};

class Store {
public:
    Store() = default;
    virtual ~Store() = default;
    Store(const Store &) = delete;
    Store &operator=(const Store &) = delete;

    // Writes a key that is not there: done, exists, noLease, unknown. With a lease, the key vanishes when that ends.
    virtual StoreWrite create(const std::string &key, const std::string &value, StoreLease lease = 0) = 0;

    // done, absent, unknown.
    virtual StoreRead read(const std::string &key) = 0;

    // What the key held at that version, since it was last created. Also absent when the store remembers it no longer.
    // done, absent, unknown.
    virtual StoreRead readBack(const std::string &key, uint64_t version) = 0;

    // Writes a key that still has this version: done, absent, differs, noLease, unknown. The key belongs to this lease
    // alone from then on, or to none.
    virtual StoreWrite write(const std::string &key, const std::string &value, uint64_t version,
                             StoreLease lease = 0) = 0;

    // Removes a key that still has this version; 0 = whatever its version is. done, absent, differs, unknown.
    virtual StoreWrite remove(const std::string &key, uint64_t version = 0) = 0;

    // All keys that begin with the prefix; an empty prefix means all keys.
    virtual StoreList list(const std::string &prefix) = 0;

    // A new lease that ends after ttl (whole seconds, at least 1) unless it is kept alive.
    virtual StoreGrant grant(std::chrono::seconds ttl) = 0;
    // Starts the time of a lease anew: done, noLease, unknown. Whoever holds it counts its time from before the call.
    virtual StoreGrant keepAlive(StoreLease lease) = 0;
    // Ends a lease and removes its keys: done, noLease, unknown.
    virtual StoreResult revoke(StoreLease lease) = 0;

    // Tells of every change after the revision (0 = of all that the store remembers) of a key that begins with the
    // prefix. Waits for nothing: a store that cannot be reached is tried again until it can. Never null; throws
    // std::system_error when there is no thread to be had.
    [[nodiscard]] virtual std::unique_ptr<StoreWatch> watch(const std::string &prefix, uint64_t revision,
                                                            StoreCallback callback) = 0;

    // Never waits and never asks the store.
    virtual StoreStatus status() const = 0;
};

// As create and write, but a lost answer is settled: the value is read back, and when the key held it at the version
// that follows, the write is done. For values that nobody else writes. Unknown only when the store cannot be read
// either, or no longer remembers; waits for up to four time-outs.
StoreWrite createSettled(Store &store, const std::string &key, const std::string &value, StoreLease lease = 0);
StoreWrite writeSettled(Store &store, const std::string &key, const std::string &value, uint64_t version,
                        StoreLease lease = 0);

// Milliseconds on a clock that never goes back and that all processes of the machine share.
using StoreClock = std::function<std::chrono::milliseconds()>;

struct StoreSettings {
    std::string file;                   // SQLite, when there are no end points
    std::vector<std::string> endpoints; // etcd, for example http://127.0.0.1:2379; tried in turn
    std::chrono::milliseconds timeout{2000};
    uint32_t remembered = 10000; // changes that the SQLite file keeps for watches
    StoreClock clock;            // of the SQLite leases; empty = the machine's time since its start
};

// "sqlite:PATH" or "etcd:URL[,URL...]". Throws std::invalid_argument: what the text is not.
StoreSettings parseStore(const std::string &text);

// Throws std::runtime_error with one clear line when the SQLite file cannot be had. An etcd that cannot be reached is
// no error here: its calls are unknown until it can.
std::unique_ptr<Store> openStore(const StoreSettings &settings);

// The node's own store, null before its start step ran and after it was undone; hold it no longer than needed.
std::shared_ptr<Store> clusterStore();
void startClusterStore(const StoreSettings &settings); // throws as openStore
void stopClusterStore();

} // namespace host
