/*
 * The tables of the cluster store in a SQLite file: keys, leases, and the changes that watches read. Every function
 * runs inside a transaction of the caller's, and throws SqliteError.
 */
#pragma once

#include "cluster/sqlite_file.h"
#include "cluster/store.h"
#include <optional>

namespace host {

// Makes the tables unless the file has them. Ends all leases when the machine was started anew since they were granted:
// their holders are gone, and so is the clock that their deadlines were read on. Waits that long for the processes that
// prepare the same file.
void prepareTables(SqliteFile &file, std::chrono::milliseconds patience);

// Where a reader of the changes stands.
struct ChangeCursor {
    uint64_t revision = 1; // the next change is of this revision or newer
    std::string key;       // and, of this very revision, of this key or one behind it
};

class SqliteTables {
public:
    SqliteTables(SqliteFile &file, uint32_t remembered) : file_(file), remembered_(remembered) {}

    uint64_t revision() { return file_.numberOf("SELECT revision FROM store"); }
    uint64_t forgotten()
    {
        return file_.numberOf("SELECT forgotten FROM store");
    } // newest revision without its changes

    std::optional<StoreItem> item(const std::string &key);
    std::optional<StoreItem> itemAt(const std::string &key, uint64_t version);
    std::vector<StoreItem> items(const std::string &prefix);
    // Writes the item and its change at a new revision, which the answer has.
    StoreWrite put(const StoreItem &item);
    StoreWrite remove(const std::string &key);

    StoreLease grant(std::chrono::milliseconds ttl, std::chrono::milliseconds now);
    // The lease's time, counted anew from now; nothing when it has ended.
    std::optional<std::chrono::milliseconds> keepAlive(StoreLease lease, std::chrono::milliseconds now);
    bool hasLease(StoreLease lease);
    void endLease(StoreLease lease);
    bool anyLeaseDue(std::chrono::milliseconds now);
    void endDueLeases(std::chrono::milliseconds now);

    // Some of the changes from the cursor on, oldest first, and moves the cursor behind them. Fewer than asked for are
    // all that there are.
    std::vector<StoreEvent> changes(ChangeCursor &cursor, size_t most);

private:
    uint64_t newRevision();

    SqliteFile &file_;
    uint32_t remembered_;
};

} // namespace host
