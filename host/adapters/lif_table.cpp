#include "adapters/lif_table.h"

#include "platform/locks.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <nasctrl/lif_port.h>

namespace host {

namespace {

using Clock = std::chrono::steady_clock;

// For the whole table: buckets that are held when it is used up are left out at once.
constexpr std::chrono::milliseconds kMaxWait{50};

const NasLifPortEntry *entryOf(const void *link)
{
    return reinterpret_cast<const NasLifPortEntry *>(static_cast<const char *>(link) - offsetof(NasLifPortEntry, link));
}

NasLifPortBucket &bucketOf(uint64_t id)
{
    return g_NfsLifPortInfo.buckets[id % NAS_LIF_PORT_BUCKETS];
}

bool collect(NasLifPortBucket &bucket, Clock::time_point until, std::vector<LifPort> &ports)
{
    const TimedReadHold hold(&bucket.lock, until - Clock::now());
    if (!hold.held()) {
        return false;
    }
    for (const void *link = bucket.head.next; link != &bucket.head; link = static_cast<const list_link *>(link)->next) {
        const NasLifPortEntry *entry = entryOf(link);
        ports.push_back({entry->id, entry->time, entry->index, entry->name, entry->ip});
    }
    return true;
}

bool canWriteUntil(NasLifPortBucket &bucket, Clock::time_point until)
{
    const bool taken = writeLockInTime(&bucket.lock, until - Clock::now());
    if (taken) {
        kvos_rwlock_write_unlock(&bucket.lock);
    }
    return taken;
}

} // namespace

bool lifTableIsBuilt()
{
    // The library stores find last, when the buckets are ready to be walked.
    return std::atomic_ref(g_NfsLifPortInfo.find).load() != nullptr;
}

LifTable readLifTable()
{
    LifTable table;
    if (!lifTableIsBuilt()) {
        return table;
    }
    const auto until = Clock::now() + kMaxWait;
    for (uint32_t bucket = 0; bucket < NAS_LIF_PORT_BUCKETS; ++bucket) {
        if (!collect(g_NfsLifPortInfo.buckets[bucket], until, table.ports)) {
            table.busyBuckets.push_back(bucket);
        }
    }
    std::ranges::sort(table.ports, {}, &LifPort::index);
    return table;
}

bool ownsSlot(uint64_t id, uint32_t index)
{
    return index < NAS_LIF_PORT_SLOTS && std::atomic_ref(g_NfsLifPortInfo.slots[index]).load() == id;
}

bool canRead(uint64_t id)
{
    return TimedReadHold(&bucketOf(id).lock, kMaxWait).held();
}

bool canWrite(uint64_t id)
{
    return canWriteUntil(bucketOf(id), Clock::now() + kMaxWait);
}

bool canWriteAll()
{
    const auto until = Clock::now() + kMaxWait;
    for (uint32_t bucket = 0; bucket < NAS_LIF_PORT_BUCKETS; ++bucket) {
        if (!canWriteUntil(g_NfsLifPortInfo.buckets[bucket], until)) {
            return false;
        }
    }
    return true;
}

} // namespace host
