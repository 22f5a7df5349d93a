/*
 * The cluster store in a SQLite file that the processes of one machine share.
 *
 * One connection serves the calls, under callMutex_; each watch has a thread and a connection of its own, so that a
 * slow callback holds up nobody. Whoever meets an overdue lease ends it: a call before its own work, a watch when it
 * looks. Nobody else could tell that the lease's keys are still there.
 *
 * Lock order: callMutex_, then the file's own lock between processes. Callbacks run under no lock.
 */
#include "cluster/backends.h"
#include "cluster/sqlite_tables.h"
#include "cluster/store_health.h"
#include "platform/timed_hold.h"

#include <condition_variable>
#include <ctime>
#include <exception>
#include <filesystem>
#include <thread>

namespace host {

namespace {

using Kind = SqliteTransaction::Kind;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

// How soon a watch sees what another process changed; this process's own changes wake it at once.
constexpr milliseconds kWatchPeriod{20};
constexpr size_t kChangesAtOnce = 256;

milliseconds timeSinceBoot()
{
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return std::chrono::duration_cast<milliseconds>(std::chrono::seconds(time.tv_sec) +
                                                    std::chrono::nanoseconds(time.tv_nsec));
}

// Wakes the watches of this process after a change.
class ChangeBell {
public:
    void ring()
    {
        const std::scoped_lock lock(mutex_);
        ++rings_;
        changed_.notify_all();
    }
    uint64_t rings() const
    {
        const std::scoped_lock lock(mutex_);
        return rings_;
    }
    // Until the bell rang again after that many rings, or the period is over.
    void wait(uint64_t heard) const
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kWatchPeriod, [&] { return rings_ != heard; });
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    uint64_t rings_ = 0;
};

class SqliteStore : public Store {
public:
    explicit SqliteStore(const StoreSettings &settings);
    ~SqliteStore() override { pthread_mutex_destroy(&callMutex_); }

    StoreWrite create(const std::string &key, const std::string &value, StoreLease lease) override;
    StoreRead read(const std::string &key) override;
    StoreRead readBack(const std::string &key, uint64_t version) override;
    StoreWrite write(const std::string &key, const std::string &value, uint64_t version, StoreLease lease) override;
    StoreWrite remove(const std::string &key, uint64_t version) override;
    StoreList list(const std::string &prefix) override;
    StoreGrant grant(std::chrono::seconds ttl) override;
    StoreGrant keepAlive(StoreLease lease) override;
    StoreResult revoke(StoreLease lease) override;
    std::unique_ptr<StoreWatch> watch(const std::string &prefix, uint64_t revision, StoreCallback callback) override;
    StoreStatus status() const override { return health_.status(); }

    const StoreSettings &settings() const { return settings_; }
    ChangeBell &bell() { return bell_; }
    milliseconds now() const { return settings_.clock(); }
    void endDueLeases();

private:
    // Runs the work in a transaction; a default answer, which is unknown, when the file cannot be had.
    template <typename Work>
    auto call(Kind kind, Work work) -> decltype(work());
    template <typename Work>
    auto transact(Kind kind, Work &work, steady_clock::time_point until) -> decltype(work());
    bool leaseIsGone(StoreLease lease) { return lease != 0 && !tables_.hasLease(lease); }

    const StoreSettings settings_;
    StoreHealth health_;
    ChangeBell bell_;
    pthread_mutex_t callMutex_ = PTHREAD_MUTEX_INITIALIZER;
    SqliteFile file_;     // under callMutex_
    SqliteTables tables_; // under callMutex_
};

StoreSettings withClock(StoreSettings settings)
{
    if (!settings.clock) {
        settings.clock = timeSinceBoot;
    }
    return settings;
}

SqliteStore::SqliteStore(const StoreSettings &settings)
    : settings_(withClock(settings)), health_(settings.file),
      file_(settings.file, SqliteFile::Open::orMake, settings.timeout), tables_(file_, settings.remembered)
{
    prepareTables(file_, settings_.timeout);
}

template <typename Work>
auto SqliteStore::call(Kind kind, Work work) -> decltype(work())
{
    const auto until = steady_clock::now() + settings_.timeout;
    const TimedHold hold(callMutex_, settings_.timeout);
    try {
        if (!hold.held()) {
            throw SqliteError("cluster store " + settings_.file + ": another call does not end");
        }
        auto answer = transact(kind, work, until);
        health_.answered();
        return answer;
    } catch (const std::exception &error) {
        health_.failed(error.what());
        return {};
    }
}

template <typename Work>
auto SqliteStore::transact(Kind kind, Work &work, steady_clock::time_point until) -> decltype(work())
{
    const auto left = std::chrono::duration_cast<milliseconds>(until - steady_clock::now());
    file_.setPatience(std::max(left, milliseconds(0)));
    file_.checkThere();
    const milliseconds time = now();
    const bool due = tables_.anyLeaseDue(time);
    SqliteTransaction transaction(file_, due ? Kind::change : kind);
    if (due) {
        tables_.endDueLeases(time);
    }
    auto answer = work();
    transaction.commit();
    if (due || kind == Kind::change) {
        bell_.ring();
    }
    return answer;
}

StoreWrite SqliteStore::create(const std::string &key, const std::string &value, StoreLease lease)
{
    return call(Kind::change, [&]() -> StoreWrite {
        if (tables_.item(key)) {
            return {StoreResult::exists};
        }
        return leaseIsGone(lease) ? StoreWrite{StoreResult::noLease} : tables_.put({key, value, 1, 0, lease});
    });
}

StoreRead SqliteStore::read(const std::string &key)
{
    return call(Kind::read, [&]() -> StoreRead {
        auto item = tables_.item(key);
        return item ? StoreRead{StoreResult::done, std::move(*item)} : StoreRead{StoreResult::absent, {}};
    });
}

StoreRead SqliteStore::readBack(const std::string &key, uint64_t version)
{
    return call(Kind::read, [&]() -> StoreRead {
        auto item = tables_.itemAt(key, version);
        return item ? StoreRead{StoreResult::done, std::move(*item)} : StoreRead{StoreResult::absent, {}};
    });
}

StoreWrite SqliteStore::write(const std::string &key, const std::string &value, uint64_t version, StoreLease lease)
{
    return call(Kind::change, [&]() -> StoreWrite {
        const auto item = tables_.item(key);
        if (!item || item->version != version) {
            return {item ? StoreResult::differs : StoreResult::absent};
        }
        return leaseIsGone(lease) ? StoreWrite{StoreResult::noLease} : tables_.put({key, value, version + 1, 0, lease});
    });
}

StoreWrite SqliteStore::remove(const std::string &key, uint64_t version)
{
    return call(Kind::change, [&]() -> StoreWrite {
        const auto item = tables_.item(key);
        if (!item || (version != 0 && item->version != version)) {
            return {item ? StoreResult::differs : StoreResult::absent};
        }
        return tables_.remove(key);
    });
}

StoreList SqliteStore::list(const std::string &prefix)
{
    return call(Kind::read, [&] { return StoreList{StoreResult::done, tables_.items(prefix), tables_.revision()}; });
}

StoreGrant SqliteStore::grant(std::chrono::seconds ttl)
{
    return call(Kind::change, [&] { return StoreGrant{StoreResult::done, tables_.grant(ttl, now()), ttl}; });
}

StoreGrant SqliteStore::keepAlive(StoreLease lease)
{
    return call(Kind::change, [&] {
        const auto ttl = tables_.keepAlive(lease, now());
        return ttl ? StoreGrant{StoreResult::done, lease, *ttl} : StoreGrant{StoreResult::noLease};
    });
}

StoreResult SqliteStore::revoke(StoreLease lease)
{
    return call(Kind::change,
                [&] {
                    if (!tables_.hasLease(lease)) {
                        return StoreWrite{StoreResult::noLease};
                    }
                    tables_.endLease(lease);
                    return StoreWrite{StoreResult::done};
                })
        .result;
}

void SqliteStore::endDueLeases()
{
    call(Kind::read, [] { return StoreWrite{StoreResult::done}; });
}

class SqliteWatch : public StoreWatch {
public:
    SqliteWatch(SqliteStore &store, std::string prefix, uint64_t revision, StoreCallback callback)
        : store_(store), prefix_(std::move(prefix)), callback_(std::move(callback)),
          fromTheBeginning_(revision == 0), cursor_{revision + 1, {}}, thread_([this] { run(); })
    {
    }
    ~SqliteWatch() override
    {
        stopping_ = true;
        store_.bell().ring();
        thread_.join();
    }

private:
    void run();
    std::vector<StoreEvent> look();
    std::vector<StoreEvent> readChanges();
    void deliver(const std::vector<StoreEvent> &events);

    SqliteStore &store_;
    const std::string prefix_;
    const StoreCallback callback_;
    bool fromTheBeginning_; // what was forgotten before the first look is not missed
    ChangeCursor cursor_;
    std::unique_ptr<SqliteFile> file_; // null until the file can be had
    uint64_t dataVersion_ = 0;
    std::atomic<bool> stopping_ = false;
    std::thread thread_; // the last member, because it uses the others
};

void SqliteWatch::run()
{
    while (!stopping_) {
        const uint64_t heard = store_.bell().rings();
        std::vector<StoreEvent> events;
        try {
            events = look();
        } catch (const std::exception &) {
            file_.reset(); // the calls of the store tell why; look again
        }
        deliver(events);
        if (events.empty() && !stopping_) {
            store_.bell().wait(heard);
        }
    }
}

// SQLite counts in the data version what the other connections change, which costs no look into the file.
std::vector<StoreEvent> SqliteWatch::look()
{
    const StoreSettings &settings = store_.settings();
    if (!file_) {
        file_ = std::make_unique<SqliteFile>(settings.file, SqliteFile::Open::existing, settings.timeout);
        dataVersion_ = 0;
    }
    file_->checkThere();
    if (SqliteTables(*file_, settings.remembered).anyLeaseDue(store_.now())) {
        store_.endDueLeases();
    }
    const uint64_t dataVersion = file_->numberOf("PRAGMA data_version");
    if (dataVersion == dataVersion_) {
        return {};
    }
    auto events = readChanges();
    if (events.empty()) {
        dataVersion_ = dataVersion;
    }
    return events;
}

std::vector<StoreEvent> SqliteWatch::readChanges()
{
    SqliteTables tables(*file_, store_.settings().remembered);
    SqliteTransaction transaction(*file_, Kind::read);
    std::vector<StoreEvent> events;
    ChangeCursor cursor = cursor_;
    const uint64_t forgotten = tables.forgotten();
    if (forgotten >= cursor.revision) {
        cursor = {forgotten + 1, {}};
        if (!fromTheBeginning_) {
            events.push_back(lostBefore(cursor.revision));
        }
    }
    for (StoreEvent &event : tables.changes(cursor, kChangesAtOnce)) {
        events.push_back(std::move(event));
    }
    transaction.commit();
    cursor_ = std::move(cursor); // not before: what a failed look found is found again
    fromTheBeginning_ = false;
    return events;
}

void SqliteWatch::deliver(const std::vector<StoreEvent> &events)
{
    for (const StoreEvent &event : events) {
        if (stopping_) {
            return;
        }
        if (event.kind == StoreEvent::Kind::lost || event.item.key.starts_with(prefix_)) {
            callback_(event);
        }
    }
}

std::unique_ptr<StoreWatch> SqliteStore::watch(const std::string &prefix, uint64_t revision, StoreCallback callback)
{
    return std::make_unique<SqliteWatch>(*this, prefix, revision, std::move(callback));
}

} // namespace

std::unique_ptr<Store> openSqliteStore(const StoreSettings &settings)
{
    try {
        const auto directory = std::filesystem::path(settings.file).parent_path();
        if (!directory.empty()) {
            std::filesystem::create_directories(directory);
        }
        return std::make_unique<SqliteStore>(settings);
    } catch (const std::filesystem::filesystem_error &error) {
        throw SqliteError("cluster store " + settings.file + ": " + error.code().message());
    }
}

} // namespace host
