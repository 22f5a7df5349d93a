// How calls to the storage-side service are counted. The counts belong to the process, so tests look at what is added.
#include "message/storage_statistics.h"

#include <gtest/gtest.h>
#include <string>

namespace {

using std::chrono::nanoseconds;

constexpr size_t kOther = host::kStorageCallTypes - 1;

TEST(StorageStatistics, CountACallUnderItsTypeAndResult)
{
    const auto before = host::storageCallCounts();
    host::countStorageCall(15, host::StorageResult::closed, nanoseconds(7));
    const auto after = host::storageCallCounts();
    for (size_t row = 0; row < host::kStorageCallTypes; ++row) {
        for (size_t result = 0; result < host::kStorageResults; ++result) {
            const bool counted = host::kStorageCallKinds.at(row).name == std::string("zone_domain") &&
                                 host::kStorageResultNames.at(result) == std::string("closed");
            EXPECT_EQ(after[row].byResult[result] - before[row].byResult[result], counted ? 1 : 0) << row << result;
        }
    }
}

TEST(StorageStatistics, CountUnknownTypesTogether)
{
    const auto before = host::storageCallCounts()[kOther];
    for (const uint32_t type : {0U, 2U, 12U, 4294967295U}) {
        host::countStorageCall(type, host::StorageResult::ok, nanoseconds(1));
    }
    const auto after = host::storageCallCounts()[kOther];
    EXPECT_EQ(after.byResult[0] - before.byResult[0], 4U);
}

struct DurationRow {
    nanoseconds duration;
    size_t durationClass;
};

TEST(StorageStatistics, PutADurationIntoTheFirstClassThatHoldsIt)
{
    const DurationRow rows[] = {{nanoseconds(0), 0},
                                {nanoseconds(100'000), 0},
                                {nanoseconds(100'001), 1},
                                {nanoseconds(1'000'000'000), 8},
                                {nanoseconds(10'000'000'000), 10},
                                {nanoseconds(10'000'000'001), 11}};
    for (const DurationRow &row : rows) {
        const auto before = host::storageCallCounts()[kOther];
        host::countStorageCall(0, host::StorageResult::ok, row.duration);
        const auto after = host::storageCallCounts()[kOther];
        for (size_t i = 0; i < host::kStorageDurationClasses; ++i) {
            EXPECT_EQ(after.byDuration[i] - before.byDuration[i], i == row.durationClass ? 1 : 0)
                << row.duration.count() << " ns, class " << i;
        }
        EXPECT_EQ(after.total - before.total, row.duration);
    }
}

} // namespace
