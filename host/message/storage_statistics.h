/*
 * What the calls to the storage-side service came to: their number by type and result, and how long they took. Counted
 * without a lock; what is read together may be a call apart.
 */
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace host {

// How a call ended. The numbers index counts below.
enum class StorageResult : uint8_t {
    ok,
    refused,     // answered, and the answer's own result is not 0
    timedOut,    // no answer in time
    unreachable, // nobody listens
    closed,      // the connection ended during the call
    malformed,   // the answer is none, or too short for a result
    failed,      // any other code, the service's own among them
};
constexpr size_t kStorageResults = 7;
constexpr std::array<const char *, kStorageResults> kStorageResultNames = {
    "ok", "refused", "timed_out", "unreachable", "closed", "malformed", "failed"};

struct StorageCallKind {
    uint32_t type;
    const char *name;
};
// The types that the library sends, and a last row for any other.
constexpr std::array kStorageCallKinds = {
    StorageCallKind{1, "node_ips"},       StorageCallKind{3, "hdfs_conf"},    StorageCallKind{4, "neighbor_ips"},
    StorageCallKind{5, "zone_ips"},       StorageCallKind{6, "node_ifaces"},  StorageCallKind{9, "global_zone_ips"},
    StorageCallKind{10, "zone_node_ids"}, StorageCallKind{11, "tenant"},      StorageCallKind{13, "contacted_zone"},
    StorageCallKind{14, "subnet_ips"},    StorageCallKind{15, "zone_domain"}, StorageCallKind{0, "other"},
};
constexpr size_t kStorageCallTypes = kStorageCallKinds.size();

// Upper bounds of the classes of duration, in seconds; a last class holds what took longer.
constexpr std::array kStorageDurationBounds = {0.0001, 0.0005, 0.001, 0.005, 0.01, 0.05, 0.1, 0.5, 1.0, 3.0, 10.0};
constexpr size_t kStorageDurationClasses = kStorageDurationBounds.size() + 1;

struct StorageCallCounts {
    std::array<uint64_t, kStorageResults> byResult;
    std::array<uint64_t, kStorageDurationClasses> byDuration;
    std::chrono::nanoseconds total;
};

void countStorageCall(uint32_t type, StorageResult result, std::chrono::nanoseconds duration);
// By row of kStorageCallKinds.
std::array<StorageCallCounts, kStorageCallTypes> storageCallCounts();

} // namespace host
