/*
 * The power state of the protocol service, and the two routines that change it. No lock: one thread powers the service
 * on or off, any thread asks for the state.
 */
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <nasctrl/power.h>

#include "internal/log.h"

static_assert(offsetof(nas_power_mgr, start) == 0);
static_assert(offsetof(nas_power_mgr, stop) == 8);
static_assert(offsetof(nas_power_mgr, state) == 16);
static_assert(sizeof(nas_power_mgr) == 24);

nas_power_mgr g_nas_power_mgr;

namespace {

/* With this bit cleared, on and going on are both 1, off and going off both 0. */
constexpr uint32_t kGoingOffBit = 2;

uint32_t state()
{
    return std::atomic_ref(g_nas_power_mgr.state).load(std::memory_order_relaxed);
}

void setState(uint32_t state)
{
    std::atomic_ref(g_nas_power_mgr.state).store(state, std::memory_order_relaxed);
}

/* A routine's address for %p. */
const void *shown(nas_power_fn routine)
{
    return reinterpret_cast<const void *>(routine);
}

} // namespace

int32_t nas_ctrl_power_reg(nas_power_fn start, nas_power_fn stop)
{
    if (start == nullptr || stop == nullptr) {
        LOG_ERROR("start %p stop %p", shown(start), shown(stop));
        return -EINVAL;
    }
    g_nas_power_mgr.start = start;
    g_nas_power_mgr.stop = stop;
    setState(NAS_POWER_OFF);
    return 0;
}

/* A service that is still going off may be powered on again: that is meant. */
int32_t nas_ctrl_power_on(void *a, void *b)
{
    if (g_nas_power_mgr.start == nullptr) {
        LOG_NULL("g_nas_power_mgr.start", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    if (NasCtrlIsPoweredOn() != 0) {
        LOG_INFO("already power on or powering");
        return 0;
    }
    setState(NAS_POWER_GOING_ON);
    const int32_t ret = g_nas_power_mgr.start(a, b);
    if (ret != 0) {
        LOG_ERROR("start protocol failed %d", ret);
        setState(NAS_POWER_OFF);
        return NAS_ERROR;
    }
    LOG_INFO("power on success");
    return 0;
}

int32_t nas_ctrl_power_off(void *a, void *b)
{
    if (g_nas_power_mgr.stop == nullptr) {
        LOG_NULL("g_nas_power_mgr.stop", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    if (state() == NAS_POWER_OFF) {
        LOG_INFO("already power off");
        return 0;
    }
    setState(NAS_POWER_GOING_OFF);
    const int32_t ret = g_nas_power_mgr.stop(a, b);
    if (ret != 0) {
        /* A failed stop is not rolled back: the service stays "going off". */
        LOG_ERROR("stop failed %d", ret);
        return NAS_ERROR;
    }
    setState(NAS_POWER_OFF);
    LOG_INFO("power off success");
    return 0;
}

void nas_ctrl_power_on_success(void)
{
    setState(NAS_POWER_ON);
}

uint32_t NasCtrlIsPoweredOn(void)
{
    return (state() & ~kGoingOffBit) == NAS_POWER_ON;
}

uint32_t NasCtrlIsPoweringOffOrPowerOFf(void)
{
    return (state() & ~kGoingOffBit) == NAS_POWER_OFF;
}

uint32_t NasCtrlIsNotPoweredOff(void)
{
    return state() != NAS_POWER_OFF;
}

uint32_t NasCtrlIsPowerOnComplete(void)
{
    return state() == NAS_POWER_ON;
}

uint32_t GetNasPowerOnStatus(void)
{
    return state();
}

int32_t nas_ctrl_rpc_init(void)
{
    return 0;
}
