/*
 * What the message service counts, without a lock.
 */
#pragma once

#include <atomic>
#include <cstdint>

namespace host {

struct AtomicMessageCounters {
    std::atomic<uint64_t> connections;
    std::atomic<uint64_t> accepted;
    std::atomic<uint64_t> messages;
    std::atomic<uint64_t> replies;
    std::atomic<uint64_t> malformed;
    std::atomic<uint64_t> undelivered;
};

inline constinit AtomicMessageCounters counters{};

} // namespace host
