/*
 * The monitor of the node's addresses: its period, its last pass, its next one, and why that comes early.
 */
#include "admin/monitor_view.h"

#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "modules/modules.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <nasctrl/host/platform.h>
#include <nasctrl/ip_manager.h>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

constexpr uint64_t kNsPerMs = 1'000'000; // the host's time is in nanoseconds
constexpr uint64_t kMsPerSecond = 1000;
constexpr uint32_t kMaxPeriod = 600;
constexpr const char *kPeriodRule = "period: must be a whole number from 1 to 600";

uint64_t ageOf(uint64_t time)
{
    const uint64_t now = kvos_time_gettime();
    return now > time ? (now - time) / kNsPerMs : 0;
}

uint64_t period()
{
    std::array<char, 16> text{};
    NasIpMgrGetIpQueryPeriod(text.data(), static_cast<uint32_t>(text.size()));
    return strtoull(text.data(), nullptr, 10);
}

Json failuresOf(const std::vector<ModuleState> &modules)
{
    Json rows = Json::array();
    for (const ModuleState &module : modules) {
        for (const ModuleFailure &failure : module.failures) {
            rows.push_back({{"address", failure.address},
                            {"slot", module.config.slot},
                            {"name", module.config.name},
                            {"reason", failure.reason}});
        }
    }
    return rows;
}

// Whether a pass may have met an address that it knew: the library hurries after each of them. The first pass knew
// none.
bool mayHaveKnown(const MonitorPass &pass)
{
    const auto addresses = nodeAddresses();
    return !pass.first && std::ranges::any_of(addresses, &NodeAddress::working);
}

// One line, or null when nothing makes the monitor hurry.
Json whyEarly(const std::optional<MonitorView> &view, bool retry, size_t failures)
{
    if (!retry && !(view && view->pass.hurried)) {
        return nullptr;
    }
    if (!view) {
        return "the first pass comes at once";
    }
    const int32_t result = view->pass.queryResult.value_or(0);
    if (result != 0) {
        return "the node's addresses could not be read (" + std::to_string(result) + ")";
    }
    if (failures != 0) {
        return "modules refuse addresses (" + std::to_string(failures) + ")";
    }
    if (view->pass.first && !retry) {
        return "the node has just started";
    }
    if (!retry) {
        return "it was due before the last pass began";
    }
    return mayHaveKnown(view->pass) ? "the pass found addresses that it knew already" : "an addition failed";
}

Json lastPass(const std::optional<MonitorView> &view)
{
    if (!view) {
        return nullptr;
    }
    const auto &result = view->pass.queryResult;
    return {{"age_ms", view->ageMs}, {"result", result ? Json(*result) : Json()}};
}

Json nextPass(const std::optional<MonitorView> &view)
{
    if (!view) {
        return nullptr;
    }
    const bool early = view->pass.hurried && view->pass.sleepSeconds < period();
    return {{"in_ms", view->nextMs}, {"sleep_s", view->pass.sleepSeconds}, {"early", early}};
}

} // namespace

std::optional<MonitorView> readMonitor()
{
    const auto pass = lastMonitorPass();
    const uint64_t begin = std::atomic_ref(g_ipLastQueryTime).load();
    if (!pass || begin == 0) {
        return std::nullopt;
    }
    const uint64_t age = ageOf(begin);
    const uint64_t sleep = pass->sleepSeconds * kMsPerSecond;
    return MonitorView{age, *pass, sleep > age ? sleep - age : 0};
}

Json getMonitor(const CallInput & /*input*/)
{
    const auto view = readMonitor();
    const bool retry = std::atomic_ref(g_needRetry).load() != 0;
    Json failures = failuresOf(moduleStates());
    Json why = whyEarly(view, retry, failures.size());
    return {{"period_s", period()}, {"last_pass", lastPass(view)}, {"next_pass", nextPass(view)},
            {"retry", retry},       {"why", std::move(why)},       {"failing", std::move(failures)}};
}

Json putMonitor(const CallInput &input)
{
    const uint32_t wanted = numberField(parseFields(input.body, {"period"}), "period", kMaxPeriod);
    if (NasIpMgrSetIpQueryPeriod(std::to_string(wanted).c_str()) != 0) {
        throw CallError(kBadRequest, kPeriodRule);
    }
    return getMonitor(input);
}

} // namespace host::admin
