#include "cluster/sqlite_tables.h"

#include <fstream>
#include <thread>

namespace host {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPause{5};        // between two tries
constexpr uint64_t kFormat = 0x6e637374; // in the file's header, so that no other program's file is taken for a store
constexpr uint64_t kPut = 0;
constexpr uint64_t kRemoved = 1;

// Keys are blobs, which SQLite orders by their bytes.
constexpr const char *kTables[] = {
    "CREATE TABLE store(id INTEGER PRIMARY KEY CHECK(id = 1), revision INTEGER NOT NULL, forgotten INTEGER NOT NULL,"
    " boot BLOB NOT NULL)",
    "INSERT INTO store VALUES(1, 0, 0, x'')",
    "CREATE TABLE item(key BLOB PRIMARY KEY, value BLOB NOT NULL, version INTEGER NOT NULL, revision INTEGER NOT NULL,"
    " lease INTEGER NOT NULL) WITHOUT ROWID",
    "CREATE INDEX item_lease ON item(lease) WHERE lease != 0",
    "CREATE TABLE lease(id INTEGER PRIMARY KEY AUTOINCREMENT, ttl INTEGER NOT NULL, deadline INTEGER NOT NULL)",
    "CREATE INDEX lease_deadline ON lease(deadline)",
    "CREATE TABLE change(revision INTEGER NOT NULL, key BLOB NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL,"
    " version INTEGER NOT NULL, lease INTEGER NOT NULL, PRIMARY KEY(revision, key)) WITHOUT ROWID",
    "CREATE INDEX change_key ON change(key, revision)",
    "PRAGMA application_id = 0x6e637374",
};

std::string bootOfTheMachine()
{
    std::ifstream file("/proc/sys/kernel/random/boot_id");
    std::string boot;
    std::getline(file, boot);
    return boot;
}

void makeTables(SqliteFile &file)
{
    const uint64_t format = file.numberOf("PRAGMA application_id");
    if (format == kFormat) {
        return;
    }
    if (format != 0 || file.numberOf("SELECT count(*) FROM sqlite_schema") != 0) {
        file.fail("it holds another program's data");
    }
    for (const char *sql : kTables) {
        file.run(sql);
    }
}

void endLeasesOfAnotherBoot(SqliteFile &file)
{
    const std::string boot = bootOfTheMachine();
    SqliteQuery known = file.query("SELECT boot FROM store");
    if (!known.next() || known.bytesAt(0) == boot) {
        return;
    }
    file.run("UPDATE lease SET deadline = 0");
    file.query("UPDATE store SET boot = ?").bytes(boot).run();
}

StoreItem itemOf(const SqliteQuery &row)
{
    return {row.bytesAt(0), row.bytesAt(1), row.numberAt(2), row.numberAt(3), row.numberAt(4)};
}

uint64_t countOf(milliseconds time)
{
    return static_cast<uint64_t>(time.count());
}

std::string tryWriteAheadLog(SqliteFile &file)
{
    SqliteQuery mode = file.query("PRAGMA journal_mode = WAL");
    return mode.next() ? mode.bytesAt(0) : std::string();
}

// SQLite does not wait for another process that changes the mode at the same time, whatever the file's patience is.
void useWriteAheadLog(SqliteFile &file, milliseconds patience)
{
    const auto until = steady_clock::now() + patience;
    for (;;) {
        try {
            const std::string mode = tryWriteAheadLog(file);
            if (mode != "wal") {
                file.fail("no write-ahead log can be kept there, its journal mode stays " + mode);
            }
            return;
        } catch (const SqliteBusy &) {
            if (steady_clock::now() >= until) {
                throw;
            }
        }
        std::this_thread::sleep_for(kPause);
    }
}

} // namespace

void prepareTables(SqliteFile &file, milliseconds patience)
{
    useWriteAheadLog(file, patience);
    file.run("PRAGMA synchronous = FULL"); // what was acknowledged outlives the process and the machine
    SqliteTransaction transaction(file, SqliteTransaction::Kind::change);
    makeTables(file);
    endLeasesOfAnotherBoot(file);
    transaction.commit();
}

std::optional<StoreItem> SqliteTables::item(const std::string &key)
{
    SqliteQuery row = file_.query("SELECT key, value, version, revision, lease FROM item WHERE key = ?");
    return row.bytes(key).next() ? std::optional(itemOf(row)) : std::nullopt;
}

std::optional<StoreItem> SqliteTables::itemAt(const std::string &key, uint64_t version)
{
    auto newest = item(key);
    if (!newest || newest->version == version) {
        return newest;
    }
    // Versions before a removal are those of another life of the key.
    SqliteQuery row = file_.query("SELECT key, value, version, revision, lease FROM change WHERE key = ?1 AND kind = 0"
                                  " AND version = ?2 AND revision > coalesce((SELECT max(revision) FROM change"
                                  " WHERE key = ?1 AND kind = 1), 0)");
    return row.bytes(key).number(version).next() ? std::optional(itemOf(row)) : std::nullopt;
}

std::vector<StoreItem> SqliteTables::items(const std::string &prefix)
{
    std::vector<StoreItem> items;
    SqliteQuery row = file_.query("SELECT key, value, version, revision, lease FROM item WHERE key >= ? ORDER BY key");
    row.bytes(prefix);
    while (row.next()) {
        StoreItem item = itemOf(row);
        if (!item.key.starts_with(prefix)) {
            break;
        }
        items.push_back(std::move(item));
    }
    return items;
}

uint64_t SqliteTables::newRevision()
{
    SqliteQuery row =
        file_.query("UPDATE store SET revision = revision + 1, forgotten = max(forgotten, revision + 1 - ?)"
                    " RETURNING revision, forgotten");
    row.number(remembered_).next();
    const uint64_t revision = row.numberAt(0);
    const uint64_t forgotten = row.numberAt(1);
    row.run();
    file_.query("DELETE FROM change WHERE revision <= ?").number(forgotten).run();
    return revision;
}

StoreWrite SqliteTables::put(const StoreItem &item)
{
    const uint64_t revision = newRevision();
    file_.query("INSERT OR REPLACE INTO item(key, value, version, revision, lease) VALUES(?, ?, ?, ?, ?)")
        .bytes(item.key)
        .bytes(item.value)
        .number(item.version)
        .number(revision)
        .number(item.lease)
        .run();
    file_.query("INSERT INTO change(revision, key, kind, value, version, lease) VALUES(?, ?, ?, ?, ?, ?)")
        .number(revision)
        .bytes(item.key)
        .number(kPut)
        .bytes(item.value)
        .number(item.version)
        .number(item.lease)
        .run();
    return {StoreResult::done, item.version, revision};
}

StoreWrite SqliteTables::remove(const std::string &key)
{
    const uint64_t revision = newRevision();
    file_.query("DELETE FROM item WHERE key = ?").bytes(key).run();
    file_.query("INSERT INTO change(revision, key, kind, value, version, lease) VALUES(?, ?, ?, x'', 0, 0)")
        .number(revision)
        .bytes(key)
        .number(kRemoved)
        .run();
    return {StoreResult::done, 0, revision};
}

StoreLease SqliteTables::grant(milliseconds ttl, milliseconds now)
{
    SqliteQuery row = file_.query("INSERT INTO lease(ttl, deadline) VALUES(?, ?) RETURNING id");
    row.number(countOf(ttl)).number(countOf(now + ttl)).next();
    const StoreLease lease = row.numberAt(0);
    row.run();
    return lease;
}

std::optional<milliseconds> SqliteTables::keepAlive(StoreLease lease, milliseconds now)
{
    SqliteQuery row = file_.query("UPDATE lease SET deadline = ? + ttl WHERE id = ? RETURNING ttl");
    if (!row.number(countOf(now)).number(lease).next()) {
        return std::nullopt;
    }
    const milliseconds ttl(row.numberAt(0));
    row.run();
    return ttl;
}

bool SqliteTables::hasLease(StoreLease lease)
{
    return file_.query("SELECT 1 FROM lease WHERE id = ?").number(lease).next();
}

void SqliteTables::endLease(StoreLease lease)
{
    if (file_.query("SELECT 1 FROM item WHERE lease != 0 AND lease = ?").number(lease).next()) {
        file_
            .query("INSERT INTO change(revision, key, kind, value, version, lease)"
                   " SELECT ?, key, 1, x'', 0, 0 FROM item WHERE lease != 0 AND lease = ?")
            .number(newRevision())
            .number(lease)
            .run();
        file_.query("DELETE FROM item WHERE lease != 0 AND lease = ?").number(lease).run();
    }
    file_.query("DELETE FROM lease WHERE id = ?").number(lease).run();
}

bool SqliteTables::anyLeaseDue(milliseconds now)
{
    return file_.query("SELECT 1 FROM lease WHERE deadline <= ?").number(countOf(now)).next();
}

void SqliteTables::endDueLeases(milliseconds now)
{
    std::vector<StoreLease> due;
    {
        SqliteQuery row = file_.query("SELECT id FROM lease WHERE deadline <= ? ORDER BY deadline, id");
        row.number(countOf(now));
        while (row.next()) {
            due.push_back(row.numberAt(0));
        }
    }
    for (const StoreLease lease : due) {
        endLease(lease);
    }
}

std::vector<StoreEvent> SqliteTables::changes(ChangeCursor &cursor, size_t most)
{
    std::vector<StoreEvent> events;
    SqliteQuery row = file_.query("SELECT key, value, version, revision, lease, kind FROM change"
                                  " WHERE (revision, key) >= (?, ?) ORDER BY revision, key LIMIT ?");
    row.number(cursor.revision).bytes(cursor.key).number(most);
    while (row.next()) {
        events.push_back({row.numberAt(5) == kPut ? StoreEvent::Kind::put : StoreEvent::Kind::removed, itemOf(row)});
    }
    if (events.size() == most) {
        cursor = {events.back().item.revision, events.back().item.key + '\0'};
    } else {
        cursor = {std::max(cursor.revision, revision() + 1), {}};
    }
    return events;
}

} // namespace host
