/*
 * The memory pool: malloc with an account per allocating source line.
 *
 * A header in front of each block names its account, so that the block is booked back where it came from, whoever
 * frees it. Accounts are found in a table that only grows: looked up without a lock, extended under g_addMutex, never
 * destroyed. Their counters are spread over shards by thread, so that threads which allocate at the same line do not
 * share a cache line. Callable from every thread.
 */
#include "platform/memory.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace {

constexpr size_t kShards = 8;
constexpr size_t kTableSize = 4096; // a power of two
constexpr size_t kMaxAccounts = kTableSize / 4 * 3;

struct alignas(64) Shard {
    std::atomic<uint64_t> blocks;
    std::atomic<uint64_t> bytes;
    std::atomic<uint64_t> freedBlocks;
    std::atomic<uint64_t> freedBytes;
};

struct Account {
    const char *func;
    uint32_t line;
    std::array<Shard, kShards> shards;
};

struct Header {
    Account *account;
    size_t size;
};
static_assert(sizeof(Header) % alignof(std::max_align_t) == 0, "the block behind the header is aligned for any type");

constinit std::array<std::atomic<Account *>, kTableSize> g_table{};
constinit std::mutex g_addMutex;
constinit size_t g_accounts = 0; // guarded by g_addMutex
// Takes what comes once the table is full, so that the pool goes on.
constinit Account g_others{"(others)", 0, {}};

size_t tableIndex(const char *func, uint32_t line)
{
    const auto key = std::hash<const void *>{}(func)*31 + line;
    return (key * 0x9E3779B97F4A7C15U >> 32) % kTableSize;
}

// The slot that holds the account, or the free one where it belongs. The table never fills up, so there is one.
std::atomic<Account *> &findSlot(const char *func, uint32_t line)
{
    for (size_t index = tableIndex(func, line);; index = (index + 1) % kTableSize) {
        const Account *account = g_table[index].load(std::memory_order_acquire);
        if (account == nullptr || (account->func == func && account->line == line)) {
            return g_table[index];
        }
    }
}

Account &addAccount(const char *func, uint32_t line)
{
    const std::scoped_lock lock(g_addMutex);
    std::atomic<Account *> &slot = findSlot(func, line); // another thread may have added it meanwhile
    Account *account = slot.load(std::memory_order_acquire);
    if (account != nullptr) {
        return *account;
    }
    account = g_accounts < kMaxAccounts ? new (std::nothrow) Account{func, line, {}} : nullptr;
    if (account == nullptr) {
        return g_others;
    }
    g_accounts++;
    slot.store(account, std::memory_order_release);
    return *account;
}

Account &accountOf(const char *func, uint32_t line)
{
    func = func != nullptr ? func : "(unknown)";
    Account *account = findSlot(func, line).load(std::memory_order_acquire);
    return account != nullptr ? *account : addAccount(func, line);
}

Shard &shardOf(Account &account)
{
    static constinit std::atomic<size_t> threads{0};
    thread_local const size_t mine = threads.fetch_add(1, std::memory_order_relaxed) % kShards;
    return account.shards[mine];
}

void *addHeader(void *memory, size_t size, const char *func, uint32_t line)
{
    if (memory == nullptr) {
        return nullptr;
    }
    Account &account = accountOf(func, line);
    Shard &shard = shardOf(account);
    shard.blocks.fetch_add(1, std::memory_order_relaxed);
    shard.bytes.fetch_add(size, std::memory_order_relaxed);
    return new (memory) Header{&account, size} + 1;
}

struct Totals {
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    uint64_t freedBlocks = 0;
    uint64_t freedBytes = 0;
};

// Reads what was freed first: a block whose freeing is seen was allocated before, so nothing live is ever negative.
Totals totalsOf(const Account &account)
{
    Totals totals;
    for (const Shard &shard : account.shards) {
        totals.freedBlocks += shard.freedBlocks.load(std::memory_order_acquire);
        totals.freedBytes += shard.freedBytes.load(std::memory_order_acquire);
    }
    for (const Shard &shard : account.shards) {
        totals.blocks += shard.blocks.load(std::memory_order_relaxed);
        totals.bytes += shard.bytes.load(std::memory_order_relaxed);
    }
    return totals;
}

template <class Visit>
void forEachAccount(Visit visit)
{
    for (const std::atomic<Account *> &slot : g_table) {
        if (const Account *account = slot.load(std::memory_order_acquire)) {
            visit(*account, totalsOf(*account));
        }
    }
    if (const Totals totals = totalsOf(g_others); totals.blocks != 0) {
        visit(g_others, totals);
    }
}

bool tooLarge(size_t size)
{
    return size > std::numeric_limits<size_t>::max() - sizeof(Header);
}

} // namespace

std::vector<host::MemoryAccount> host::memoryAccounts()
{
    std::map<std::string_view, MemoryAccount> byName;
    forEachAccount([&](const Account &account, const Totals &totals) {
        MemoryAccount &row = byName.try_emplace(account.func, MemoryAccount{account.func, 0, 0, 0}).first->second;
        row.liveBlocks += totals.blocks - totals.freedBlocks;
        row.liveBytes += totals.bytes - totals.freedBytes;
        row.totalBlocks += totals.blocks;
    });
    std::vector<MemoryAccount> rows;
    rows.reserve(byName.size());
    for (auto &entry : byName) {
        rows.push_back(std::move(entry.second));
    }
    return rows;
}

std::vector<host::LiveMemory> host::liveMemory()
{
    // A function that is compiled into several places has an account in each.
    std::map<std::pair<std::string_view, uint32_t>, LiveMemory> bySite;
    forEachAccount([&](const Account &account, const Totals &totals) {
        if (totals.blocks == totals.freedBlocks) {
            return;
        }
        const LiveMemory none{account.func, account.line, 0, 0};
        LiveMemory &row = bySite.try_emplace({account.func, account.line}, none).first->second;
        row.blocks += totals.blocks - totals.freedBlocks;
        row.bytes += totals.bytes - totals.freedBytes;
    });
    std::vector<LiveMemory> rows;
    rows.reserve(bySite.size());
    for (auto &entry : bySite) {
        rows.push_back(std::move(entry.second));
    }
    return rows;
}

size_t host::blockSize(const void *block)
{
    return (static_cast<const Header *>(block) - 1)->size;
}

void *nas_mem_comm_alloc(size_t size, const char *func, uint32_t line)
{
    return tooLarge(size) ? nullptr : addHeader(std::malloc(sizeof(Header) + size), size, func, line);
}

void *nas_mem_comm_zalloc(size_t size, const char *func, uint32_t line)
{
    return tooLarge(size) ? nullptr : addHeader(std::calloc(1, sizeof(Header) + size), size, func, line);
}

void nas_mem_comm_free(void *ptr, const char * /*func*/, uint32_t /*line*/)
{
    if (ptr == nullptr) {
        return;
    }
    Header *header = static_cast<Header *>(ptr) - 1;
    Shard &shard = shardOf(*header->account);
    shard.freedBlocks.fetch_add(1, std::memory_order_release);
    shard.freedBytes.fetch_add(header->size, std::memory_order_release);
    std::free(header);
}
