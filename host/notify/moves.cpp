#include "notify/notify.h"

#include <algorithm>
#include <nasctrl/shard_view.h>

namespace host {

void readMoves(uint64_t dataWord, EventDetails &details)
{
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the contract hands the address over as a number
    const auto *payload = reinterpret_cast<const migration_payload *>(static_cast<uintptr_t>(dataWord));
    if (payload == nullptr || payload->records == nullptr) {
        return;
    }
    details.moveCount = payload->count;
    const size_t count = std::min<size_t>(payload->count, kMaxEventMoves);
    details.moves.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const migration_record &record = payload->records[i];
        details.moves.push_back({record.fspId, record.shardId, record.srcLs, record.dstLs});
    }
}

} // namespace host
