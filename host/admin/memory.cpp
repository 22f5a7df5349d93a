/*
 * The memory pool's accounts.
 */
#include "platform/memory.h"

#include "admin/calls.h"
#include <nlohmann/json.hpp>

namespace host::admin {

Json getMemory(const CallInput & /*input*/)
{
    Json accounts = Json::array();
    uint64_t blocks = 0;
    uint64_t bytes = 0;
    for (const MemoryAccount &account : memoryAccounts()) {
        accounts.push_back({{"function", account.func},
                            {"live_blocks", account.liveBlocks},
                            {"live_bytes", account.liveBytes},
                            {"total_blocks", account.totalBlocks}});
        blocks += account.liveBlocks;
        bytes += account.liveBytes;
    }
    return {{"accounts", std::move(accounts)}, {"blocks", blocks}, {"bytes", bytes}};
}

} // namespace host::admin
