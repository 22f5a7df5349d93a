/*
 * The power state of the protocol service, and its switch.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include <array>
#include <nasctrl/power.h>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

struct StateName {
    uint32_t state;
    const char *name;
};

constexpr std::array kStateNames = {
    StateName{NAS_POWER_OFF, "off"},
    StateName{NAS_POWER_ON, "on"},
    StateName{NAS_POWER_GOING_OFF, "going off"},
    StateName{NAS_POWER_GOING_ON, "going on"},
};

struct Action {
    const char *name;
    int32_t (*run)(void *, void *);
};

constexpr std::array kActions = {
    Action{"on", nas_ctrl_power_on},
    Action{"off", nas_ctrl_power_off},
};

const char *nameOf(uint32_t state)
{
    for (const StateName &row : kStateNames) {
        if (row.state == state) {
            return row.name;
        }
    }
    return "unknown";
}

void runAction(const Action &action)
{
    const int32_t result = action.run(nullptr, nullptr);
    if (result != 0) {
        throw CallError(kInternalError, std::string("power ") + action.name + " failed with " + std::to_string(result) +
                                            "; the state is " + nameOf(GetNasPowerOnStatus()));
    }
}

} // namespace

Json getPower(const CallInput & /*input*/)
{
    const uint32_t state = GetNasPowerOnStatus();
    return {{"state", state}, {"name", nameOf(state)}};
}

Json postPower(const CallInput &input)
{
    const std::string wanted = textField(parseFields(input.body, {"action"}), "action");
    for (const Action &action : kActions) {
        if (action.name == wanted) {
            runAction(action);
            return getPower(input);
        }
    }
    throw CallError(kBadRequest, "action: must be \"on\" or \"off\"");
}

} // namespace host::admin
