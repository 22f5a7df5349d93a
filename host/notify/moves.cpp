#include "notify/notify.h"

#include <algorithm>
#include <cstddef>

namespace host {
namespace {

// The form of the library's payload.
struct MigrationRecord {
    uint32_t fsp;
    uint32_t shard;
    uint16_t fromLs;
    uint16_t toLs;
    uint8_t reserved[8];
};
static_assert(sizeof(MigrationRecord) == 20);

struct MigrationPayload {
    uint64_t reserved0;
    uint64_t reserved8;
    uint32_t count;
    MigrationRecord *records;
    uint64_t reserved32;
};
static_assert(offsetof(MigrationPayload, count) == 16 && offsetof(MigrationPayload, records) == 24);
static_assert(sizeof(MigrationPayload) == 40);

} // namespace

void readMoves(uint64_t dataWord, EventDetails &details)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the contract hands the address over as a number
    const auto *payload = reinterpret_cast<const MigrationPayload *>(static_cast<uintptr_t>(dataWord));
    if (payload == nullptr || payload->records == nullptr) {
        return;
    }
    details.moveCount = payload->count;
    const size_t count = std::min<size_t>(payload->count, kMaxEventMoves);
    details.moves.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const MigrationRecord &record = payload->records[i];
        details.moves.push_back({record.fsp, record.shard, record.fromLs, record.toLs});
    }
}

} // namespace host
