#include "ebsctrl_stub_handlers.h"

#include <nasctrl/fmm.h>
#include <recorder.h>

namespace {

bool g_lost = false;

int32_t deliver(const char *name, uint64_t data, void *sem)
{
    const auto *payload = reinterpret_cast<const migration_payload *>(data);
    shard::Texts moves;
    for (uint32_t i = 0; i < payload->count; ++i) {
        const migration_record &move = payload->records[i];
        moves.push_back(std::to_string(move.fspId) + " to " + std::to_string(move.shardId) + " of " +
                        std::to_string(move.srcLs) + "-" + std::to_string(move.dstLs));
    }
    fake::record(name, moves);
    if (!g_lost) {
        kvlwt_task_sem_up(static_cast<kvlwt_task_sem_t *>(sem), 666, name);
    }
    return 0;
}

} // namespace

namespace shard {

void loseMoves(bool lost)
{
    g_lost = lost;
}

} // namespace shard

int32_t nas_fmm_vnode_moveout_callback_simulator(uint64_t data, void *sem)
{
    return deliver("moveout", data, sem);
}
int32_t nas_fmm_vnode_movein_callback_simulator(uint64_t data, void *sem)
{
    return deliver("movein", data, sem);
}
