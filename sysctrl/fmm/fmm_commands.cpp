/*
 * The debug commands of module "nas_fmm", and the simulator that delivers vnode moves through the work queue of the FMM
 * jobs.
 *
 * Owns the command table, which is never written, and takes no lock. Commands come from the host's threads; a queued
 * move belongs to the queue until its wrapper runs on a light-weight thread, which frees it.
 */
#include <cstddef>
#include <cstdlib>
#include <nasctrl/fmm.h>
#include <nasctrl/host/lwt.h>
#include <nasctrl/host/notify.h>
#include <nasctrl/shard_view.h>
#include <optional>

#include "internal/fmm_notice.h"
#include "internal/list.h"
#include "internal/log.h"
#include "internal/pool.h"

static_assert(offsetof(pum_cmd_t, header0) == 0);
static_assert(offsetof(pum_cmd_t, header1) == 4);
static_assert(offsetof(pum_cmd_t, module) == 8);
static_assert(offsetof(pum_cmd_t, command) == 40);
static_assert(offsetof(pum_cmd_t, usage) == 104);
static_assert(offsetof(pum_cmd_t, handler) == 4608);
static_assert(offsetof(pum_cmd_t, tail0) == 4616);
static_assert(offsetof(pum_cmd_t, tail1) == 4620);
static_assert(sizeof(pum_cmd_t) == 4624);

static_assert(offsetof(lwt_work_t, link) == 0);
static_assert(offsetof(lwt_work_t, owner) == 16);
static_assert(offsetof(lwt_work_t, zero0) == 24);
static_assert(offsetof(lwt_work_t, func) == 32);
static_assert(offsetof(lwt_work_t, zero1) == 40);
static_assert(offsetof(lwt_work_t, minus_one) == 48);
static_assert(offsetof(lwt_work_t, host_private) == 56);
static_assert(sizeof(lwt_work_t) == 64);

static_assert(offsetof(vnode_move_item, work) == 0);
static_assert(offsetof(vnode_move_item, job) == 64);
static_assert(sizeof(vnode_move_item) == 88);

namespace {

constexpr int32_t kBadValue = 1;
constexpr int32_t kMoveAway = 0; /* of FspMigrationNode: a node failed */
constexpr int32_t kMoveBack = 1;

/* ---- commands ---- */

/* Only FMM is told; word is the first 32 bits of the argument. */
int32_t tellFmm(uint32_t event, uint32_t word)
{
    notify_arg_t argument = {};
    argument.data = word;
    notifyCall(NOTIFY_MODULE_FMM, event, &argument);
    return 0;
}

/* A whole decimal, 0x hexadecimal or 0 octal number, cut to 32 bits; nothing for any other text. */
std::optional<uint32_t> parseId(const char *text)
{
    if (text == nullptr) {
        return std::nullopt;
    }
    char *end = nullptr;
    const unsigned long id = strtoul(text, &end, 0);
    if (end == text || *end != '\0') {
        return std::nullopt;
    }
    return static_cast<uint32_t>(id);
}

int32_t shardChange(char * /*buf*/, uint32_t /*size*/)
{
    return tellFmm(NAS_FMM_EVENT_SHARD_CHG, 0);
}

/* Serves node_recover too, which sends the fault event as well: a debug command for the fault road, not a mistake. */
int32_t nodeFault(char *buf, uint32_t /*size*/)
{
    return buf != nullptr ? tellFmm(NAS_FMM_EVENT_NODE_FAULT, static_cast<uint32_t>(strtoul(buf, nullptr, 0)))
                          : kBadValue;
}

int32_t modifyFspShardView(char *buf, uint32_t /*size*/)
{
    const std::optional<uint32_t> fsp = parseId(buf);
    return fsp ? static_cast<int32_t>(FspModifyShardView(*fsp, FspGetNextLsIdByFsp(*fsp))) : kBadValue;
}

int32_t setNodeFault(char *buf, uint32_t /*size*/)
{
    const std::optional<uint32_t> ls = parseId(buf);
    return ls ? static_cast<int32_t>(FspMigrationNode(*ls, FspGetNextLsIdByLs(*ls), kMoveAway)) : kBadValue;
}

int32_t showFspShardView(char *buf, uint32_t size)
{
    return static_cast<int32_t>(FspShowShardView(buf, size));
}

int32_t getNodeInfo(char *buf, uint32_t size)
{
    return static_cast<int32_t>(FspGetNodeInfo(buf, size));
}

int32_t failbackShardView(char *buf, uint32_t /*size*/)
{
    const std::optional<uint32_t> ls = parseId(buf);
    return ls ? static_cast<int32_t>(FspMigrationNode(FspGetSrcLsByLsId(*ls), *ls, kMoveBack)) : kBadValue;
}

constexpr uint32_t kHeader0 = 29;
constexpr uint32_t kHeader1 = 1;
constexpr uint32_t kTail = 1;

/* The rows differ in name, the end of their usage, and action. */
#define FMM_COMMAND(name, usageEnd, action)                                                                            \
    {                                                                                                                  \
        kHeader0, kHeader1, "nas_fmm", name, "-m nas_fmm -c " name usageEnd, action, kTail, kTail                      \
    }

const pum_cmd_t kCommands[] = {
    FMM_COMMAND("shard_change", "", shardChange),
    FMM_COMMAND("node_fault", " -v ", nodeFault),
    FMM_COMMAND("node_recover", " -v ", nodeFault),
    FMM_COMMAND("modify_fsp_shardview", " -v ", modifyFspShardView),
    FMM_COMMAND("set_node_fault", " -v ", setNodeFault),
    FMM_COMMAND("show_fsp_shardview", "", showFspShardView),
    FMM_COMMAND("get_node_info", " ", getNodeInfo),
    FMM_COMMAND("failback_shard_view", " -v ", failbackShardView),
};

/* ---- simulator ---- */

constexpr const char *kWrapperName = "nas_fmm_vnode_move_lwt_wrapper"; /* what the log and the host are told */

void moveWrapper(void *lwtArg)
{
    if (lwtArg == nullptr) {
        LOG_LINE_AS(kWrapperName, NASCTRL_LOG_ERROR, "%s is NULL, return !!!!!!!!!!!!", "lwtArg");
        return;
    }
    auto *item = static_cast<vnode_move_item *>(lwtArg);
    nas_fmm_vnode_move_lwt_simulator(item);
    kvlwt_task_sem_up(static_cast<kvlwt_task_sem_t *>(item->job.sem), NASCTRL_LOG_MODULE, kWrapperName);
    nas_mem_comm_free(item, kWrapperName, __LINE__);
}

/* A zeroed item needs no more than its links, its function and the number that is not zero. */
void prepareWork(vnode_move_item *item)
{
    nas::listInit(&item->work.link);
    item->work.owner = item;
    item->work.func = moveWrapper;
    item->work.minus_one = -1;
}

} // namespace

void nsa_fmm_cmd_init(void)
{
    for (const pum_cmd_t &command : kCommands) {
        pum_register_cmd(&command);
    }
}

int32_t nas_fmm_vnode_movein_callback_simulator(uint64_t data, void *sem)
{
    LOG_INFO("Receive vnode move in.");
    nas_fmm_vnode_callback_simulator(NAS_FMM_EVENT_VNODE_MOVEIN, data, sem);
    return 0;
}

int32_t nas_fmm_vnode_moveout_callback_simulator(uint64_t data, void *sem)
{
    LOG_INFO("Receive vnode move out.");
    nas_fmm_vnode_callback_simulator(NAS_FMM_EVENT_VNODE_MOVEOUT, data, sem);
    return 0;
}

/* Unlike nas_fmm_vnode_callback, it leaves the caller waiting when it fails. */
void nas_fmm_vnode_callback_simulator(uint32_t event, uint64_t data, void *sem)
{
    if (sem == nullptr) {
        LOG_ERROR("Sem is NULL!");
        return;
    }
    void *queue = fmm_get_lwt_queue();
    if (queue == nullptr) {
        LOG_ERROR("Get lwt queue is NULL!");
        return;
    }
    auto *item = POOL_NEW(vnode_move_item);
    if (item == nullptr) {
        LOG_ERROR("Malloc failed!");
        return;
    }
    item->job.event = event;
    item->job.data = data;
    item->job.sem = sem;
    LOG_INFO("Start lwt, event:%d.", static_cast<int>(event));
    prepareWork(item);
    const int32_t ret = lwt_work_enqueue(queue, &item->work);
    LOG_INFO("After Start lwt, event:%d.", static_cast<int>(event));
    if (ret != 0) {
        LOG_ERROR("Start lwt failed");
        POOL_FREE(item);
    }
}

void nas_fmm_vnode_move_lwt_simulator(void *job)
{
    if (job == nullptr) {
        LOG_NULL_VOID("job");
        return;
    }
    const vnode_move_job &move = static_cast<vnode_move_item *>(job)->job;
    LOG_INFO("In lwt, event:%d.", static_cast<int>(move.event));
    nas::tellDlgAndFmm(move.event, move.data);
}
