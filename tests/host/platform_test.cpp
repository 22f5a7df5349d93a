#include "platform/log.h"
#include "platform/memory.h"
#include "platform/thread_id.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <latch>
#include <limits>
#include <nasctrl/host/platform.h>
#include <pthread.h>
#include <semaphore>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr uint64_t kNoOwner = ~uint64_t{0};

void runThreads(int count, const std::function<void(int)> &body)
{
    std::vector<std::jthread> threads;
    threads.reserve(static_cast<size_t>(count));
    for (int index = 0; index < count; index++) {
        threads.emplace_back(body, index);
    }
}

// ---------------------------------------------------------------------------------------------------------- the log

class Log : public testing::Test {
protected:
    void SetUp() override
    {
        std::string name = testing::TempDir() + "nasctrl-log-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        directory = name;
        settings.file = directory / "nasctrld.log";
        settings.console = false;
    }
    void TearDown() override
    {
        host::openLog({.file = "", .console = false});
        std::filesystem::remove_all(directory);
    }
    // What the file holds, flushed or not; without the time, after it was seen to be one.
    std::vector<std::string> unflushedLines() const
    {
        std::vector<std::string> lines;
        std::ifstream file(settings.file);
        for (std::string line; std::getline(file, line);) {
            EXPECT_THAT(line.substr(0, 24), MatchesRegex(R"(20[0-9]{2}-[01][0-9]-[0-3][0-9]T)"
                                                         R"([0-2][0-9]:[0-5][0-9]:[0-6][0-9]\.[0-9]{3}Z)"));
            lines.push_back(line.substr(24));
        }
        return lines;
    }
    std::vector<std::string> lines() const
    {
        host::flushLog();
        return unflushedLines();
    }
    static std::string thread() { return "[" + std::to_string(host::osThreadId()) + "]"; }

    std::filesystem::path directory;
    host::LogSettings settings;
};

void logText(uint32_t level, const char *text)
{
    kvlog(666, level, "file.cpp", 7, "func", 0, "%s", text);
}

TEST_F(Log, WritesOneLinePerRecordWithTimeLevelModuleThreadPlaceAndText)
{
    host::openLog(settings);
    kvlog(666, 3, "nas_ip_mgr.cpp", 77, "NasIpMgrInit", 0, "PROTOCOL: add %s failed(%ld)", "10.0.0.1", -22L);
    EXPECT_THAT(lines(), ElementsAre(" error nasctrl" + thread() +
                                     " nas_ip_mgr.cpp:77 NasIpMgrInit: PROTOCOL: add 10.0.0.1 failed(-22)"));
}

TEST_F(Log, NamesTheKnownLevelsAndModulesAndNumbersTheOthers)
{
    settings.threshold = host::kMaxLogLevel;
    host::openLog(settings);
    kvlog(666, 4, "a.cpp", 1, "f", 0, "x");
    kvlog(700, 6, "b.cpp", 2, "g", 0, "y");
    kvlog(12, 5, "c.cpp", 3, "h", 0, "z");
    kvlog(0, 0, nullptr, 0, nullptr, 0, "no place");
    EXPECT_THAT(lines(), ElementsAre(" progress nasctrl" + thread() + " a.cpp:1 f: x",
                                     " info nasctrld" + thread() + " b.cpp:2 g: y",
                                     " 5 12" + thread() + " c.cpp:3 h: z", " 0 0" + thread() + " ?:0 ?: no place"));
}

TEST_F(Log, KeepsARecordOnOneLine)
{
    struct Row {
        const char *name;
        const char *text;
        const char *shown;
    };
    const Row rows[] = {
        {"trailing newline is dropped", "done\n", "done"},
        {"only one of them", "done\n\n", "done\\n"},
        {"newline inside", "a\nb", "a\\nb"},
        {"return and tab", "a\r\tb", "a\\r\\tb"},
        {"other control characters", "\x1b[31mred\x7f\x01", "\\x1b[31mred\\x7f\\x01"},
        {"UTF-8 stays", "Zürich", "Zürich"},
        {"braces and percents stay", "{} %d", "{} %d"},
        {"nothing", "", ""},
    };
    host::openLog(settings);
    for (const Row &row : rows) {
        logText(3, row.text);
        EXPECT_EQ(lines().back(), " error nasctrl" + thread() + " file.cpp:7 func: " + row.shown) << row.name;
    }
}

TEST_F(Log, WritesTextsOfAnyLengthWhole)
{
    host::openLog(settings);
    for (const size_t length : {2046U, 2047U, 2048U, 2049U, 60000U}) {
        const std::string text(length, 'x');
        logText(3, text.c_str());
        EXPECT_EQ(lines().back(), " error nasctrl" + thread() + " file.cpp:7 func: " + text) << length;
    }
}

TEST_F(Log, DropsLinesAboveTheThresholdOfTheMoment)
{
    settings.threshold = 4;
    host::openLog(settings);
    logText(4, "kept");
    logText(6, "dropped");
    host::setLogThreshold(6);
    logText(6, "kept now");
    host::setLogThreshold(2);
    logText(3, "dropped now");
    EXPECT_THAT(lines(), ElementsAre(" progress nasctrl" + thread() + " file.cpp:7 func: kept",
                                     " info nasctrl" + thread() + " file.cpp:7 func: kept now"));
    EXPECT_EQ(host::logThreshold(), 2U);
}

TEST_F(Log, ShowsAThreadTheNewestOfItsOwnLinesWhileItLooksOn)
{
    host::openLog(settings);
    std::string last;
    {
        const host::OwnLogLines own;
        EXPECT_EQ(own.last(), "");
        kvlog(666, 3, "f.cpp", 1, "f", 0, "first");
        kvlog(666, 3, "f.cpp", 2, "f", 0, "second %d", 2);
        std::thread([] { kvlog(666, 3, "f.cpp", 3, "f", 0, "of another thread"); }).join();
        last = own.last();
    }
    kvlog(666, 3, "f.cpp", 4, "f", 0, "unseen");
    EXPECT_EQ(last, "second 2");
    EXPECT_EQ(lines().size(), 4U);
}

TEST_F(Log, ClampsTheThresholdToTheHighestLevel)
{
    host::openLog(settings);
    host::setLogThreshold(1000);
    EXPECT_EQ(host::logThreshold(), host::kMaxLogLevel);
    logText(host::kMaxLogLevel + 1, "beyond every level");
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(Log, FlushesErrorsAtOnce)
{
    host::openLog(settings);
    logText(4, "waits");
    logText(3, "does not");
    EXPECT_EQ(unflushedLines().size(), 2U);
}

TEST_F(Log, CountsWrittenLinesByLevel)
{
    host::openLog(settings);
    const auto before = host::logLineCounts();
    logText(3, "one");
    logText(3, "two");
    logText(6, "three");
    logText(7, "dropped");
    const auto after = host::logLineCounts();
    EXPECT_EQ(after[3] - before[3], 2U);
    EXPECT_EQ(after[6] - before[6], 1U);
    EXPECT_EQ(after[7] - before[7], 0U);
}

TEST_F(Log, AppendsToTheFile)
{
    for (const char *text : {"first", "second"}) {
        host::openLog(settings);
        logText(3, text);
        host::openLog({.file = "", .console = false});
    }
    EXPECT_EQ(unflushedLines().size(), 2U);
}

TEST_F(Log, RefusesAFileThatCannotBeOpenedAndKeepsTheOldLog)
{
    host::openLog(settings);
    const std::string bad = (directory / "nasctrld.log" / "below-a-file").string();
    try {
        host::openLog({.file = bad, .console = false});
        FAIL() << "opened " << bad;
    } catch (const std::runtime_error &error) {
        EXPECT_THAT(error.what(), MatchesRegex("log: [^\n]*" + bad + "[^\n]*"));
    }
    logText(3, "still here");
    EXPECT_EQ(lines().size(), 1U);
}

TEST_F(Log, LeavesErrnoAlone)
{
    host::openLog(settings);
    errno = ENOTTY;
    logText(3, std::string(5000, 'x').c_str());
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(Log, TakesWholeLinesFromManyThreads)
{
    host::openLog(settings);
    runThreads(8, [](int) {
        for (int line = 0; line < 200; line++) {
            logText(6, "text");
        }
    });
    const auto all = lines();
    EXPECT_EQ(all.size(), 1600U);
    EXPECT_THAT(all, testing::Each(MatchesRegex(R"( info nasctrl\[[0-9]+\] file\.cpp:7 func: text)")));
}

TEST_F(Log, AnswersTheLevelOfAClassOfTheMoment)
{
    settings.classLevels = {0, 1, 2, 3};
    host::openLog(settings);
    for (uint32_t logClass = 0; logClass < host::kLogClasses; logClass++) {
        EXPECT_EQ(nas_log_map_get(logClass), logClass);
    }
    host::setLogClassLevel(2, 5);
    EXPECT_EQ(nas_log_map_get(2), 5U);
    host::setLogClassLevel(2, 99);
    EXPECT_EQ(nas_log_map_get(2), host::kMaxLogLevel);
}

TEST_F(Log, AnswersInformationForAnUnknownClass)
{
    host::setLogClassLevel(4, 1);
    EXPECT_EQ(nas_log_map_get(4), 6U);
    EXPECT_EQ(nas_log_map_get(std::numeric_limits<uint32_t>::max()), 6U);
}

// ------------------------------------------------------------------------------------------------------------ memory

host::MemoryAccount accountOf(const std::string &func)
{
    const auto all = host::memoryAccounts();
    const auto row = std::ranges::find(all, func, &host::MemoryAccount::func);
    return row != all.end() ? *row : host::MemoryAccount{"no account", 0, 0, 0};
}

// Totals only grow, so a test counts from what it found.
uint64_t totalOf(const std::string &func)
{
    return accountOf(func).totalBlocks;
}

void expectAccount(const std::string &func, uint64_t liveBlocks, uint64_t liveBytes, uint64_t totalBlocks)
{
    const auto account = accountOf(func);
    EXPECT_EQ(account.func, func);
    EXPECT_EQ(account.liveBlocks, liveBlocks) << func;
    EXPECT_EQ(account.liveBytes, liveBytes) << func;
    EXPECT_EQ(account.totalBlocks, totalBlocks) << func;
}

TEST(Memory, BooksBlocksOnTheFunctionThatAllocatedThem)
{
    const uint64_t total = totalOf("BooksOne");
    void *first = nas_mem_comm_alloc(100, "BooksOne", 1);
    void *second = nas_mem_comm_zalloc(20, "BooksOne", 2);
    expectAccount("BooksOne", 2, 120, total + 2);
    nas_mem_comm_free(first, "SomebodyElse", 9);
    expectAccount("BooksOne", 1, 20, total + 2);
    nas_mem_comm_free(second, "SomebodyElse", 9);
    expectAccount("BooksOne", 0, 0, total + 2);
    EXPECT_EQ(accountOf("SomebodyElse").func, "no account");
}

TEST(Memory, MergesAccountsOfEqualNamesAtDifferentAddresses)
{
    static const char here[] = "MergedName";
    static const char there[] = "MergedName";
    const uint64_t total = totalOf("MergedName");
    void *first = nas_mem_comm_alloc(1, here, 1);
    void *second = nas_mem_comm_alloc(2, there, 1);
    expectAccount("MergedName", 2, 3, total + 2);
    nas_mem_comm_free(first, "", 0);
    nas_mem_comm_free(second, "", 0);
}

TEST(Memory, ListsAccountsByNameOnceEach)
{
    for (const char *func : {"zebra", "apple", "zebra"}) {
        nas_mem_comm_free(nas_mem_comm_alloc(1, func, 1), func, 1);
    }
    std::vector<std::string> names;
    for (const auto &account : host::memoryAccounts()) {
        names.push_back(account.func);
    }
    EXPECT_THAT(names, testing::IsSupersetOf({"apple", "zebra"}));
    EXPECT_TRUE(std::ranges::is_sorted(names));
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()).size(), names.size());
}

TEST(Memory, ListsLiveBlocksBySourceLine)
{
    void *blocks[] = {nas_mem_comm_alloc(5, "LiveLines", 10), nas_mem_comm_alloc(6, "LiveLines", 10),
                      nas_mem_comm_alloc(7, "LiveLines", 20), nas_mem_comm_alloc(8, "LiveLines", 30)};
    nas_mem_comm_free(blocks[3], "", 0);
    std::vector<std::string> rows;
    for (const auto &row : host::liveMemory()) {
        if (row.func == "LiveLines") {
            rows.push_back(std::to_string(row.line) + ": " + std::to_string(row.blocks) + "/" +
                           std::to_string(row.bytes));
        }
    }
    EXPECT_THAT(rows, ElementsAre("10: 2/11", "20: 1/7"));
    std::for_each(blocks, blocks + 3, [](void *block) { nas_mem_comm_free(block, "", 0); });
}

TEST(Memory, ClearsOnlyWhereAsked)
{
    auto *bytes = static_cast<unsigned char *>(nas_mem_comm_zalloc(4096, "Clears", 1));
    EXPECT_EQ(std::count(bytes, bytes + 4096, 0), 4096);
    nas_mem_comm_free(bytes, "", 0);
}

TEST(Memory, AlignsBlocksForAnyType)
{
    for (size_t size = 0; size < 100; size++) {
        void *block = nas_mem_comm_alloc(size, "Aligns", 1);
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0U) << size;
        nas_mem_comm_free(block, "", 0);
    }
}

TEST(Memory, RefusesSizesThatLeaveNoRoomForItsOwnHeader)
{
    for (const size_t less : {0U, 1U, 15U}) {
        EXPECT_EQ(nas_mem_comm_alloc(std::numeric_limits<size_t>::max() - less, "TooLarge", 1), nullptr) << less;
        EXPECT_EQ(nas_mem_comm_zalloc(std::numeric_limits<size_t>::max() - less, "TooLarge", 1), nullptr) << less;
    }
    EXPECT_EQ(accountOf("TooLarge").func, "no account");
}

TEST(Memory, IgnoresTheFreeingOfNullAndBooksANamelessFunction)
{
    const uint64_t total = totalOf("(unknown)");
    nas_mem_comm_free(nullptr, "FreesNull", 1);
    nas_mem_comm_free(nas_mem_comm_alloc(1, nullptr, 0), nullptr, 0);
    expectAccount("(unknown)", 0, 0, total + 1);
}

TEST(Memory, KeepsExactAccountsUnderManyThreads)
{
    constexpr int kThreads = 8;
    constexpr int kBlocks = 2000;
    const uint64_t total = totalOf("ManyThreads");
    std::vector<std::vector<void *>> kept(kThreads);
    runThreads(kThreads, [&kept](int thread) {
        for (int block = 0; block < kBlocks; block++) {
            void *memory = nas_mem_comm_alloc(10, "ManyThreads", static_cast<uint32_t>(block % 7));
            if (block % 4 == 0) {
                kept[static_cast<size_t>(thread)].push_back(memory);
            } else {
                nas_mem_comm_free(memory, "", 0);
            }
        }
    });
    expectAccount("ManyThreads", kThreads * kBlocks / 4, kThreads * kBlocks / 4 * 10, total + kThreads * kBlocks);
    // Freed by other threads than those that allocated.
    runThreads(kThreads, [&kept](int thread) {
        for (void *memory : kept[static_cast<size_t>((thread + 1) % kThreads)]) {
            nas_mem_comm_free(memory, "", 0);
        }
    });
    expectAccount("ManyThreads", 0, 0, total + kThreads * kBlocks);
}

[[noreturn]] void fillTheTableOfAccounts()
{
    constexpr uint32_t kLines = 10000;
    for (uint32_t line = 0; line < kLines; line++) {
        nas_mem_comm_free(nas_mem_comm_alloc(3, "ManyLines", line), "", 0);
    }
    const auto own = accountOf("ManyLines");
    const auto others = accountOf("(others)");
    const bool shared = own.totalBlocks > 1000 && others.totalBlocks > 1000;
    const bool complete = own.totalBlocks + others.totalBlocks == kLines;
    const bool noneLive = own.liveBlocks + others.liveBlocks == 0;
    std::_Exit(shared && complete && noneLive ? 0 : 1);
}

// In a process of its own, because the table stays full.
TEST(Memory, CollectsTheRestInOneAccountWhenThereAreTooManySourceLines)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(fillTheTableOfAccounts(), testing::ExitedWithCode(0), "");
}

// ----------------------------------------------------------------------------------------------------------- threads

struct ThreadReport {
    std::latch done{1};
    std::string name;
    pthread_t self = 0;
    bool detached = false;
};

void *report(void *arg)
{
    auto *own = static_cast<ThreadReport *>(arg);
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    pthread_attr_t attributes;
    int state = 0;
    pthread_getattr_np(pthread_self(), &attributes);
    pthread_attr_getdetachstate(&attributes, &state);
    pthread_attr_destroy(&attributes);
    own->name = name;
    own->self = pthread_self();
    own->detached = state == PTHREAD_CREATE_DETACHED;
    own->done.count_down();
    return nullptr;
}

TEST(Threads, RunDetachedUnderANameAndAreKnownByTheirId)
{
    ThreadReport seen;
    unsigned long id = 0;
    ASSERT_EQ(kvos_thrd_create(report, &seen, &id), 0);
    seen.done.wait();
    EXPECT_THAT(seen.name, MatchesRegex("nas-[0-9]+"));
    EXPECT_EQ(seen.self, id);
    EXPECT_TRUE(seen.detached);
}

struct IdCheck {
    std::latch done{1};
    unsigned long id = 0;
    bool stored = false;
};

TEST(Threads, HaveTheirIdStoredBeforeTheBodyRuns)
{
    IdCheck check;
    const auto body = [](void *arg) -> void * {
        auto *own = static_cast<IdCheck *>(arg);
        own->stored = own->id == pthread_self();
        own->done.count_down();
        return nullptr;
    };
    ASSERT_EQ(kvos_thrd_create(body, &check, &check.id), 0);
    check.done.wait();
    EXPECT_TRUE(check.stored);
}

struct Meeting {
    explicit Meeting(size_t count) : begun(static_cast<std::ptrdiff_t>(count)) {}
    std::latch begun;
    std::counting_semaphore<> ended{0};
};

void *meet(void *meeting)
{
    auto *own = static_cast<Meeting *>(meeting);
    own->begun.arrive_and_wait();
    own->ended.release();
    return nullptr;
}

// Starts count threads that all run at once, waits until each has done its part, and tells their ids.
std::set<unsigned long> runTogether(size_t count)
{
    static std::deque<Meeting> meetings; // a thread may still be leaving a meeting that is over
    Meeting &meeting = meetings.emplace_back(count);
    std::set<unsigned long> ids;
    for (size_t i = 0; i < count; ++i) {
        unsigned long id = 0;
        EXPECT_EQ(kvos_thrd_create(meet, &meeting, &id), 0);
        ids.insert(id);
    }
    for (size_t i = 0; i < count; ++i) {
        meeting.ended.acquire();
    }
    return ids;
}

TEST(Threads, RunAllAtOnceHoweverManyWaitForWork)
{
    EXPECT_EQ(runTogether(50).size(), 50U);
    EXPECT_EQ(runTogether(50).size(), 50U);
    EXPECT_EQ(runTogether(3).size(), 3U);
}

TEST(Threads, OneAfterTheOtherAreMostlyTheSame)
{
    std::set<unsigned long> ids;
    for (int i = 0; i < 1000; ++i) {
        ids.merge(runTogether(1));
    }
    EXPECT_LT(ids.size(), 100U);
}

TEST(Threads, AreRefusedWithoutBodyOrPlaceForTheId)
{
    unsigned long id = 7;
    EXPECT_EQ(kvos_thrd_create(nullptr, nullptr, &id), EINVAL);
    EXPECT_EQ(kvos_thrd_create(report, nullptr, nullptr), EINVAL);
    EXPECT_EQ(id, 7U);
}

// -------------------------------------------------------------------------------------------------------------- time

TEST(Time, NeverRunsBackwards)
{
    const uint64_t fine = kvos_time_gettime();
    const uint64_t coarse = kvos_time_getmillisec();
    EXPECT_GE(kvos_time_gettime(), fine);
    EXPECT_GE(kvos_time_getmillisec(), coarse);
    EXPECT_GE(coarse, fine / 1'000'000);
}

TEST(Time, SleepsLastAtLeastAsLongAsAsked)
{
    const uint64_t start = kvos_time_gettime();
    kvos_msleep(3);
    const uint64_t middle = kvos_time_gettime();
    kvos_10msleep(1);
    EXPECT_GE(middle - start, 3'000'000U);
    EXPECT_GE(kvos_time_gettime() - middle, 10'000'000U);
}

TEST(Time, SleepsGoOnAfterASignal)
{
    struct sigaction ignore = {};
    ignore.sa_handler = [](int) {};
    sigaction(SIGUSR1, &ignore, nullptr);
    std::latch ready(1);
    std::atomic<bool> over = false;
    std::jthread sleeper([&] {
        const uint64_t start = kvos_time_gettime();
        ready.count_down();
        kvos_msleep(30);
        EXPECT_GE(kvos_time_gettime() - start, 30'000'000U);
        over = true;
    });
    ready.wait();
    while (!over) {
        pthread_kill(sleeper.native_handle(), SIGUSR1);
        kvos_msleep(1);
    }
}

// -------------------------------------------------------------------------------------------------------- spin locks

TEST(SpinLock, LetsOneThreadInAtATime)
{
    kvos_spinlock_t lock = {0, 0xDEAD4EAD, 0xFFFFFFFF, kNoOwner};
    uint64_t counter = 0;
    runThreads(4, [&](int) {
        for (int turn = 0; turn < 20000; turn++) {
            do_kvos_spinlock_lock(&lock);
            const uint64_t seen = counter;
            if (turn % 16 == 0) {
                std::this_thread::yield(); // the others gather at the lock meanwhile
            }
            counter = seen + 1;
            do_kvos_spinlock_unlock(&lock);
        }
    });
    EXPECT_EQ(counter, 80000U);
    EXPECT_EQ(lock.lock, 0U);
}

TEST(SpinLock, NamesItsOwnerWhileItIsHeld)
{
    kvos_spinlock_t lock = {0, 0xDEAD4EAD, 0xFFFFFFFF, kNoOwner};
    do_kvos_spinlock_lock(&lock);
    EXPECT_NE(lock.lock, 0U);
    EXPECT_EQ(lock.owner, host::osThreadId());
    EXPECT_NE(lock.owner_cpu, 0xFFFFFFFFU);
    do_kvos_spinlock_unlock(&lock);
    EXPECT_EQ(lock.lock, 0U);
    EXPECT_EQ(lock.owner, kNoOwner);
    EXPECT_EQ(lock.owner_cpu, 0xFFFFFFFFU);
    EXPECT_EQ(lock.magic, 0xDEAD4EADU);
}

TEST(SpinLock, OfZeroesIsUnlocked)
{
    kvos_spinlock_t lock = {};
    do_kvos_spinlock_lock(&lock);
    do_kvos_spinlock_unlock(&lock);
    EXPECT_EQ(lock.lock, 0U);
}

// ----------------------------------------------------------------------------------------------- reader-writer locks

class WriteHold {
public:
    explicit WriteHold(kvos_rwlock_t &lock) : lock_(lock) { kvos_rwlock_write_lock(&lock_); }
    ~WriteHold() { kvos_rwlock_write_unlock(&lock_); }
    WriteHold(const WriteHold &) = delete;
    WriteHold &operator=(const WriteHold &) = delete;

private:
    kvos_rwlock_t &lock_;
};

class ReadHold {
public:
    explicit ReadHold(kvos_rwlock_t &lock) : lock_(lock) { kvos_rwlock_read_lock(&lock_); }
    ~ReadHold() { kvos_rwlock_read_unlock(&lock_); }
    ReadHold(const ReadHold &) = delete;
    ReadHold &operator=(const ReadHold &) = delete;

private:
    kvos_rwlock_t &lock_;
};

// Returns once the thread sleeps in the kernel; never, when it spins.
void awaitSleeping(uint32_t thread)
{
    const std::string path = "/proc/self/task/" + std::to_string(thread) + "/stat";
    for (std::string line; line.find(") S ") == std::string::npos;) {
        std::this_thread::yield();
        std::ifstream file(path);
        std::getline(file, line);
    }
}

class WaitingThread {
public:
    explicit WaitingThread(std::function<void()> body)
        : thread_([this, work = std::move(body)] {
              id_ = host::osThreadId();
              started_.count_down();
              work();
          })
    {
        started_.wait();
    }
    void awaitSleep() const { awaitSleeping(id_); }

private:
    std::latch started_{1};
    uint32_t id_ = 0;
    std::jthread thread_;
};

TEST(RwLock, KeepsWritersApartFromEachOtherAndFromReaders)
{
    kvos_rwlock_t lock = {};
    uint64_t first = 0;
    uint64_t second = 0;
    std::atomic<int> torn = 0;
    runThreads(8, [&](int thread) {
        for (int turn = 0; turn < 3000; turn++) {
            if (thread % 2 == 0) {
                const WriteHold hold(lock);
                first++;
                second++;
            } else {
                const ReadHold hold(lock);
                torn += first != second;
            }
        }
    });
    EXPECT_EQ(first, 12000U);
    EXPECT_EQ(second, 12000U);
    EXPECT_EQ(torn, 0);
}

TEST(RwLock, LetsReadersInTogether)
{
    kvos_rwlock_t lock = {};
    std::latch inside(4);
    runThreads(4, [&](int) {
        const ReadHold hold(lock);
        inside.arrive_and_wait();
    });
    const WriteHold afterwards(lock);
}

TEST(RwLock, PutsWaitersToSleepUntilTheHolderLeaves)
{
    kvos_rwlock_t lock = {};
    std::atomic<int> entered = 0;
    kvos_rwlock_write_lock(&lock);
    {
        const WaitingThread reader([&] {
            const ReadHold hold(lock);
            entered++;
        });
        const WaitingThread writer([&] {
            const WriteHold hold(lock);
            entered++;
        });
        reader.awaitSleep();
        writer.awaitSleep();
        EXPECT_EQ(entered, 0);
        kvos_rwlock_write_unlock(&lock);
    }
    EXPECT_EQ(entered, 2);
}

TEST(RwLock, LetsAWaitingWriterInBeforeReadersThatComeLater)
{
    kvos_rwlock_t lock = {};
    std::string order;
    kvos_rwlock_read_lock(&lock);
    {
        const WaitingThread writer([&] {
            const WriteHold hold(lock);
            order += "writer ";
        });
        writer.awaitSleep();
        const WaitingThread reader([&] {
            const ReadHold hold(lock);
            order += "reader ";
        });
        reader.awaitSleep();
        kvos_rwlock_read_unlock(&lock);
    }
    EXPECT_EQ(order, "writer reader ");
}

// Two threads of one kind stream in until one thread of the other kind has had its turns: each of these has to end.
void streamUntilOtherHadTurns(const std::function<void()> &stream, const std::function<void()> &other)
{
    std::atomic<bool> over = false;
    runThreads(3, [&](int thread) {
        if (thread == 0) {
            for (int turn = 0; turn < 100; turn++) {
                other();
            }
            over = true;
        }
        while (!over) {
            stream();
        }
    });
}

TEST(RwLock, StarvesNeitherWritersNorReaders)
{
    kvos_rwlock_t lock = {};
    int turns = 0;
    const auto read = [&] {
        const ReadHold hold(lock);
        std::this_thread::yield();
    };
    const auto write = [&] {
        const WriteHold hold(lock);
        turns++;
        std::this_thread::yield();
    };
    streamUntilOtherHadTurns(read, write);
    EXPECT_EQ(turns, 100);
    streamUntilOtherHadTurns(write, read);
    EXPECT_GE(turns, 100);
}

// ----------------------------------------------------------------------------------------------------------- numbers

TEST(Numbers, AreReadFromTheBeginningOfAText)
{
    struct Row {
        const char *text;
        uint64_t number;
    };
    const Row rows[] = {
        {"0", 0},
        {"42", 42},
        {"007", 7},
        {"12abc", 12},
        {"3.5", 3},
        {"", 0},
        {"abc", 0},
        {"-5", 0},
        {"+5", 0},
        {" 5", 0},
        {"18446744073709551615", 18446744073709551615U},
        {"18446744073709551616", 18446744073709551615U},
        {"99999999999999999999999", 18446744073709551615U},
        {nullptr, 0},
    };
    for (const Row &row : rows) {
        EXPECT_EQ(kvos_str_tou64(row.text), row.number) << (row.text != nullptr ? row.text : "null");
    }
}

// The first outputs of the generator splitmix64 for two seeds, as published with it.
TEST(Hash, IsTheFinaliserOfSplitmix64ReducedByTheModulus)
{
    constexpr uint64_t kOfZero = 0xE220A8397B1DCDAFU;
    constexpr uint64_t kOf1234567 = 6457827717110365317U;
    for (const uint32_t modulus : {1U, 2U, 8U, 1000U, 4096U, 0x80000000U, 0xFFFFFFFFU}) {
        EXPECT_EQ(hash_u64_id(0, modulus), kOfZero % modulus) << modulus;
        EXPECT_EQ(hash_u64_id(1234567, modulus), kOf1234567 % modulus) << modulus;
    }
}

TEST(Hash, AnswersZeroForModulusZero)
{
    EXPECT_EQ(hash_u64_id(0, 0), 0U);
    EXPECT_EQ(hash_u64_id(~uint64_t{0}, 0), 0U);
}

struct Ids {
    const char *name;
    uint64_t first;
    uint64_t step;
};

// Ids as they come in practice: each bucket gets its share, give or take a tenth.
TEST(Hash, SpreadsRegularIdsEvenly)
{
    constexpr Ids kIds[] = {
        {"in a row", 0, 1},
        {"multiples of 8", 0, 8},
        {"multiples of 4096", 1, 4096},
        {"high words", 0, uint64_t{1} << 32U},
    };
    constexpr uint32_t kShare = 2000;
    for (const Ids &ids : kIds) {
        for (const uint32_t buckets : {3U, 8U, 12U}) {
            std::vector<uint32_t> filled(buckets);
            for (uint64_t n = 0; n < uint64_t{buckets} * kShare; ++n) {
                ++filled.at(hash_u64_id(ids.first + n * ids.step, buckets));
            }
            for (const uint32_t count : filled) {
                EXPECT_NEAR(count, kShare, kShare / 10.0) << ids.name << ", " << buckets << " buckets";
            }
        }
    }
}

} // namespace
