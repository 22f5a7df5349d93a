#include "message/storage_statistics.h"

#include <algorithm>
#include <atomic>

namespace host {

namespace {

struct AtomicCounts {
    std::array<std::atomic<uint64_t>, kStorageResults> byResult;
    std::array<std::atomic<uint64_t>, kStorageDurationClasses> byDuration;
    std::atomic<int64_t> totalNs;
};

constinit std::array<AtomicCounts, kStorageCallTypes> s_counts{};

size_t rowOf(uint32_t type)
{
    const auto *row = std::ranges::find(kStorageCallKinds, type, &StorageCallKind::type);
    const auto index = static_cast<size_t>(row - kStorageCallKinds.begin());
    return std::min(index, kStorageCallTypes - 1);
}

size_t classOf(std::chrono::nanoseconds duration)
{
    const double seconds = std::chrono::duration<double>(duration).count();
    const auto *bound = std::ranges::lower_bound(kStorageDurationBounds, seconds);
    return static_cast<size_t>(bound - kStorageDurationBounds.begin());
}

template <size_t Size>
std::array<uint64_t, Size> read(const std::array<std::atomic<uint64_t>, Size> &counts)
{
    std::array<uint64_t, Size> values{};
    std::ranges::transform(counts, values.begin(), [](const auto &c) { return c.load(std::memory_order_relaxed); });
    return values;
}

} // namespace

void countStorageCall(uint32_t type, StorageResult result, std::chrono::nanoseconds duration)
{
    AtomicCounts &counts = s_counts[rowOf(type)];
    counts.byResult[static_cast<size_t>(result)].fetch_add(1, std::memory_order_relaxed);
    counts.byDuration[classOf(duration)].fetch_add(1, std::memory_order_relaxed);
    counts.totalNs.fetch_add(duration.count(), std::memory_order_relaxed);
}

std::array<StorageCallCounts, kStorageCallTypes> storageCallCounts()
{
    std::array<StorageCallCounts, kStorageCallTypes> rows{};
    std::ranges::transform(s_counts, rows.begin(), [](const AtomicCounts &counts) {
        return StorageCallCounts{read(counts.byResult), read(counts.byDuration),
                                 std::chrono::nanoseconds(counts.totalNs.load(std::memory_order_relaxed))};
    });
    return rows;
}

} // namespace host
