// What the cluster store promises of its file: that it outlives its writers, is shared between processes, and is not
// somebody else's.
#include "store_backends.h"

#include <array>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gmock/gmock.h>
#include <random>
#include <sqlite3.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using host::StoreResult;
using store_test::Events;
using store_test::told;
using testing::ElementsAre;

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class SqliteStore : public testing::Test {
protected:
    std::unique_ptr<host::Store> open() { return host::openStore(backend_.settings()); }

    store_test::SqliteBackend backend_;
};

// A foreign connection to the file, as another program would have it.
class Connection {
public:
    explicit Connection(const std::string &file) { sqlite3_open(file.c_str(), &handle_); }
    ~Connection() { sqlite3_close(handle_); }
    Connection(const Connection &) = delete;
    Connection &operator=(const Connection &) = delete;
    void run(const char *sql) { ASSERT_EQ(sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sql; }

private:
    sqlite3 *handle_ = nullptr;
};

std::string refusalOf(const host::StoreSettings &settings)
{
    try {
        host::openStore(settings);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "(accepted)";
}

std::string refusalOf(const std::string &file)
{
    host::StoreSettings settings;
    settings.file = file;
    return refusalOf(settings);
}

// A process that runs the work and leaves without any of the test's clean-up.
template <typename Work>
pid_t startProcess(Work work)
{
    const pid_t pid = fork();
    if (pid == 0) {
        work();
        _exit(0);
    }
    return pid;
}

int exitCodeOf(pid_t pid)
{
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

// Creates one key after the other, from the number on, and tells the pipe of each that was acknowledged.
[[noreturn]] void writeForEver(const host::StoreSettings &settings, uint32_t number, int pipeEnd)
{
    const auto store = host::openStore(settings);
    for (;; ++number) {
        if (store->create("k" + std::to_string(number), std::to_string(number)).result != StoreResult::done ||
            write(pipeEnd, &number, sizeof number) != sizeof number) {
            _exit(1);
        }
    }
}

// Kills a writer after it acknowledged that many keys, in the middle of a later one; returns the next free number.
uint32_t killWriter(const host::StoreSettings &settings, uint32_t first, uint32_t acknowledged)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    const pid_t pid = startProcess([&] { writeForEver(settings, first, ends[1]); });
    close(ends[1]);
    uint32_t number = first;
    uint32_t last = first - 1;
    while (last + 1 - first < acknowledged && read(ends[0], &number, sizeof number) == sizeof number) {
        last = number;
    }
    kill(pid, SIGKILL);
    while (read(ends[0], &number, sizeof number) == sizeof number) {
        last = number;
    }
    close(ends[0]);
    EXPECT_EQ(exitCodeOf(pid), -SIGKILL);
    EXPECT_GE(last + 1 - first, acknowledged);
    return last + 1;
}

TEST_F(SqliteStore, KeepsEveryAcknowledgedWriteOfAProcessThatIsKilled)
{
    std::minstd_rand random(4711);
    uint32_t next = 1;
    for (int round = 0; round < 12; ++round) {
        const uint32_t acknowledged = next;
        next = killWriter(backend_.settings(), next, 1 + static_cast<uint32_t>(random() % 20));
        const auto store = open();
        for (uint32_t number = acknowledged; number < next; ++number) {
            EXPECT_EQ(store->read("k" + std::to_string(number)).item.value, std::to_string(number));
        }
        ++next; // the write that the kill met may have been made
    }
}

TEST_F(SqliteStore, AWriterThatIsKilledLeavesTheRevisionsAndTheHistoryWhole)
{
    const uint32_t next = killWriter(backend_.settings(), 1, 10);
    const auto store = open();
    Events events;
    const auto watch = store->watch("", 0, events.callback());
    const auto list = store->list("");
    const auto seen = events.wait(list.items.size());
    ASSERT_EQ(seen.size(), list.items.size());
    EXPECT_GE(seen.size(), next - 1);
    for (size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].item.revision, i + 1);
    }
    EXPECT_EQ(list.revision, seen.size());
}

TEST_F(SqliteStore, ProcessesShareTheFileAndLoseNoWrite)
{
    constexpr int kProcesses = 3;
    constexpr int kEach = 15;
    std::array<pid_t, kProcesses> processes{};
    for (pid_t &pid : processes) { // none of them finds the file there, or all but one do
        pid = startProcess([this] {
            const auto store = open();
            store->create("count", "0");
            for (int done = 0; done < kEach;) {
                const auto found = store->read("count");
                const std::string next = std::to_string(std::stoi(found.item.value) + 1);
                done += store->write("count", next, found.item.version).result == StoreResult::done ? 1 : 0;
            }
        });
    }
    for (const pid_t pid : processes) {
        EXPECT_EQ(exitCodeOf(pid), 0);
    }
    EXPECT_EQ(open()->read("count").item.value, std::to_string(kProcesses * kEach));
}

// While it lives, tells of every statement that a connection of this process begins, if that was opened in the
// meantime.
class StatementTrace {
public:
    explicit StatementTrace(std::function<void(const std::string &sql)> begun)
    {
        s_begun = std::move(begun);
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(follow));
    }
    ~StatementTrace() { sqlite3_reset_auto_extension(); }
    StatementTrace(const StatementTrace &) = delete;
    StatementTrace &operator=(const StatementTrace &) = delete;

private:
    static int follow(sqlite3 *handle, const char ** /*error*/, const void * /*routines*/)
    {
        return sqlite3_trace_v2(handle, SQLITE_TRACE_STMT, tell, nullptr);
    }
    static int tell(unsigned /*what*/, void * /*context*/, void *statement, void * /*text*/)
    {
        s_begun(sqlite3_sql(static_cast<sqlite3_stmt *>(statement)));
        return 0;
    }

    static inline std::function<void(const std::string &sql)> s_begun;
};

TEST_F(SqliteStore, WaitsForAnotherProcessThatPreparesTheFile)
{
    Connection other(backend_.file());
    other.run("BEGIN IMMEDIATE");
    int tries = 0;
    const StatementTrace trace([&](const std::string &sql) {
        if (sql.starts_with("PRAGMA journal_mode") && ++tries == 2) {
            other.run("ROLLBACK");
        }
    });
    EXPECT_EQ(refusalOf(backend_.settings()), "(accepted)");
    EXPECT_EQ(tries, 2);
}

TEST_F(SqliteStore, AFileThatStaysInAnotherProcessesHoldIsRefused)
{
    Connection other(backend_.file());
    other.run("BEGIN EXCLUSIVE");
    auto settings = backend_.settings();
    settings.timeout = milliseconds(20);
    EXPECT_EQ(refusalOf(settings), "cluster store " + backend_.file() + ": database is locked");
    other.run("ROLLBACK");
    EXPECT_EQ(refusalOf(settings), "(accepted)");
}

TEST_F(SqliteStore, AWatchTellsWhatAnotherProcessWrites)
{
    const auto store = open();
    Events events;
    // The process is there before the watch's thread, because a process with threads cannot be split safely.
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    const pid_t pid = startProcess([&] {
        char go = 0;
        if (read(ends[0], &go, 1) == 1) {
            open()->create("a", "theirs");
        }
    });
    const auto watch = store->watch("", 0, events.callback());
    ASSERT_EQ(write(ends[1], "g", 1), 1);
    EXPECT_THAT(told(events.wait(1)), ElementsAre("put a theirs v1"));
    EXPECT_EQ(exitCodeOf(pid), 0);
    close(ends[0]);
    close(ends[1]);
}

// Each look of a watch asks for the time once, at its begin, so the second one that is asked tells that a whole look
// was made in between.
TEST_F(SqliteStore, AWatchThatCannotReadTheChangesTellsOfALossWhenItCan)
{
    auto looks = std::make_shared<std::atomic<int>>(0);
    auto settings = backend_.settings();
    settings.clock = [looks] { return milliseconds(++*looks); };
    const auto store = host::openStore(settings);
    store->create("a", "one");
    Events events;
    const auto watch = store->watch("", 0, events.callback());
    events.wait(1);
    Connection other(backend_.file());

    other.run("BEGIN; UPDATE store SET revision = 9, forgotten = 9; ALTER TABLE change RENAME TO taken; COMMIT");
    const int before = *looks;
    EXPECT_TRUE(store_test::eventually([&] { return *looks >= before + 2; }));
    EXPECT_EQ(events.count(), 1U);
    other.run("ALTER TABLE taken RENAME TO change");

    const auto seen = events.wait(2);
    EXPECT_THAT(told(seen), ElementsAre("put a one v1", "lost"));
    EXPECT_EQ(seen.back().item.revision, 10U);
}

TEST_F(SqliteStore, KeepsWhatItHoldsWhenItIsClosed)
{
    open()->create("a", "one");
    open()->write("a", "two", 1);
    const auto found = open()->read("a");
    EXPECT_EQ(found.item.value, "two");
    EXPECT_EQ(found.item.version, 2U);
}

TEST_F(SqliteStore, KeepingALeaseAliveStartsItsTimeAnew)
{
    const auto store = open();
    const auto lease = store->grant(seconds(10));
    store->create("a", "leased", lease.lease);
    backend_.passTime(seconds(10) - milliseconds(1));
    EXPECT_EQ(store->keepAlive(lease.lease).result, StoreResult::done);
    backend_.passTime(seconds(10) - milliseconds(1));
    EXPECT_EQ(store->read("a").result, StoreResult::done);
    backend_.passTime(milliseconds(1));
    EXPECT_EQ(store->read("a").result, StoreResult::absent);
}

TEST_F(SqliteStore, LeasesEndInTheOrderOfTheirDeadlines)
{
    const auto store = open();
    const auto late = store->grant(seconds(5));
    const auto early = store->grant(seconds(2));
    store->create("a", "late", late.lease);
    store->create("b", "early", early.lease);
    Events events;
    const auto watch = store->watch("", store->list("").revision, events.callback());
    backend_.passTime(seconds(60));
    EXPECT_THAT(told(events.wait(2)), ElementsAre("removed b", "removed a"));
}

TEST_F(SqliteStore, ALeaseOutlivesItsHolderUntilItsTimeIsOver)
{
    const auto lease = open()->grant(seconds(10));
    open()->create("a", "leased", lease.lease);
    const auto store = open();
    EXPECT_EQ(store->read("a").item.lease, lease.lease);
    backend_.passTime(seconds(10));
    EXPECT_EQ(store->read("a").result, StoreResult::absent);
}

TEST_F(SqliteStore, AStartOfTheMachineEndsTheLeases)
{
    const auto lease = open()->grant(seconds(10));
    open()->create("a", "leased", lease.lease);
    open()->create("b", "free");
    Connection(backend_.file()).run("UPDATE store SET boot = x'00'"); // as if another boot had granted them
    const auto store = open();
    EXPECT_EQ(store->read("a").result, StoreResult::absent);
    EXPECT_EQ(store->read("b").result, StoreResult::done);
}

TEST_F(SqliteStore, LeavesTheFileToAnotherWriterAndSaysUnknownWhenItDoesNotEnd)
{
    auto settings = backend_.settings();
    settings.timeout = milliseconds(50);
    const auto store = host::openStore(settings);
    store->create("a", "one");
    Connection other(backend_.file());
    other.run("BEGIN IMMEDIATE");
    EXPECT_EQ(store->write("a", "two", 1).result, StoreResult::unknown);
    EXPECT_EQ(store->status().error, "cluster store " + backend_.file() + ": database is locked");
    EXPECT_EQ(store->read("a").item.value, "one");
    other.run("ROLLBACK");
    EXPECT_EQ(store->write("a", "two", 1).result, StoreResult::done);
}

TEST_F(SqliteStore, SaysThatItsFileWasTakenAway)
{
    const auto store = open();
    store->create("a", "one");
    backend_.takeAway();
    EXPECT_EQ(store->read("a").result, StoreResult::unknown);
    EXPECT_EQ(store->status().error, "cluster store " + backend_.file() + ": the file was taken away");
    EXPECT_FALSE(std::filesystem::exists(backend_.file()));
    backend_.giveBack();
    EXPECT_EQ(store->read("a").item.value, "one");
}

TEST_F(SqliteStore, DoesNotWriteIntoAFileThatTookThePlaceOfItsOwn)
{
    const auto store = open();
    store->create("a", "one");
    backend_.takeAway();
    const auto other = open();
    EXPECT_EQ(store->create("b", "two").result, StoreResult::unknown);
    EXPECT_EQ(other->list("").items.size(), 0U);
}

TEST_F(SqliteStore, MakesTheFolderOfItsFile)
{
    auto settings = backend_.settings();
    settings.file = backend_.file() + ".d/deep/cluster.db";
    EXPECT_EQ(host::openStore(settings)->create("a", "").result, StoreResult::done);
    EXPECT_TRUE(std::filesystem::exists(settings.file));
}

TEST_F(SqliteStore, RefusesAFileThatIsNotItsOwn)
{
    const std::string text = backend_.file() + ".txt";
    std::ofstream(text) << std::string(4096, 'x');
    EXPECT_EQ(refusalOf(text), "cluster store " + text + ": file is not a database");

    const std::string foreign = backend_.file() + ".foreign";
    Connection(foreign).run("CREATE TABLE t(x)");
    EXPECT_EQ(refusalOf(foreign), "cluster store " + foreign + ": it holds another program's data");

    const std::string marked = backend_.file() + ".marked";
    Connection(marked).run("PRAGMA application_id = 7");
    EXPECT_EQ(refusalOf(marked), "cluster store " + marked + ": it holds another program's data");

    const std::string folder = std::filesystem::path(backend_.file()).parent_path();
    EXPECT_EQ(refusalOf(folder), "cluster store " + folder + ": unable to open database file");
    EXPECT_EQ(refusalOf(std::string(":memory:")),
              "cluster store :memory:: no write-ahead log can be kept there, its journal mode stays memory");
    EXPECT_EQ(refusalOf(text + "/cluster.db"), "cluster store " + text + "/cluster.db: Not a directory");
}

// ---- how a store is named

std::string refusalOfText(const std::string &text)
{
    try {
        host::parseStore(text);
    } catch (const std::invalid_argument &error) {
        return error.what();
    }
    return "(accepted)";
}

TEST(StoreText, NamesAFileOrEndPoints)
{
    EXPECT_EQ(host::parseStore("sqlite:/var/c.db").file, "/var/c.db");
    EXPECT_THAT(host::parseStore("sqlite:/var/c.db").endpoints, testing::IsEmpty());
    EXPECT_THAT(host::parseStore("etcd:http://10.0.0.1:2379,https://b:1/").endpoints,
                ElementsAre("http://10.0.0.1:2379", "https://b:1"));
}

TEST(StoreText, RefusesEverythingElse)
{
    const char *const form = " is not a cluster store, write sqlite:PATH or etcd:URL[,URL...]";
    EXPECT_EQ(refusalOfText(""), form);
    EXPECT_EQ(refusalOfText("sqlite:"), std::string("sqlite:") + form);
    EXPECT_EQ(refusalOfText("/var/c.db"), std::string("/var/c.db") + form);
    const char *const url = " is not an end point of the form http://HOST:PORT";
    EXPECT_EQ(refusalOfText("etcd:"), url);
    EXPECT_EQ(refusalOfText("etcd:localhost:2379"), std::string("localhost:2379") + url);
    EXPECT_EQ(refusalOfText("etcd:http://"), std::string("http://") + url);
    EXPECT_EQ(refusalOfText("etcd:http://a:1,"), url);
    EXPECT_EQ(refusalOfText("etcd:http://a:1, http://b:1"), std::string(" http://b:1") + url);
}

TEST(StoreText, ResultsHaveNames)
{
    EXPECT_STREQ(nameOf(StoreResult::done), "done");
    EXPECT_STREQ(nameOf(StoreResult::noLease), "noLease");
    EXPECT_STREQ(nameOf(StoreResult::unknown), "unknown");
    EXPECT_FALSE(isRefused(StoreResult::done));
    EXPECT_TRUE(isRefused(StoreResult::differs));
    EXPECT_FALSE(isRefused(StoreResult::unknown));
}

} // namespace
