/*
 * The policy that moves FSPs away from storage LSs that are reported faulty, and back.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "fmm/policy_runner.h"
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

constexpr std::array<const char *, 3> kModes = {"off", "dry-run", "on"}; // in the order of PolicyMode

PolicyMode modeOf(const std::string &name)
{
    const auto *found = std::ranges::find(kModes, name);
    if (found == kModes.end()) {
        refuse("mode", "must be off, dry-run or on");
    }
    return static_cast<PolicyMode>(found - kModes.begin());
}

std::chrono::seconds steadyField(const Json &fields)
{
    const uint32_t steady = numberField(fields, "steady_s", static_cast<uint32_t>(kMaxSteady.count()));
    if (steady == 0) {
        refuse("steady_s", "must not be 0");
    }
    return std::chrono::seconds(steady);
}

Json stepRow(const PolicyStep &step, ShardPolicy::Time now)
{
    Json in;
    if (step.due) {
        in = std::max<int64_t>(duration_cast<milliseconds>(*step.due - now).count(), 0);
    }
    return {{"action", step.action == PolicyStep::Action::migrate ? "migrate" : "failback"},
            {"ls", step.lsId},
            {"from", step.from},
            {"to", step.to},
            {"fsps", step.fsps},
            {"in_ms", std::move(in)},
            {"why", step.why}};
}

Json reportRows(const PolicyView &view)
{
    Json rows = Json::array();
    for (const auto &[lsId, report] : view.reports) {
        rows.push_back({{"ls", lsId},
                        {"state", report.faulty ? "faulty" : "running"},
                        {"age_ms", duration_cast<milliseconds>(view.now - report.since).count()},
                        {"moved", report.moved}});
    }
    return rows;
}

Json planRows(const PolicyView &view)
{
    if (!view.plan) {
        return {};
    }
    Json rows = Json::array();
    for (const PolicyStep &step : *view.plan) {
        rows.push_back(stepRow(step, view.now));
    }
    return rows;
}

} // namespace

Json getShardPolicy(const CallInput & /*input*/)
{
    const PolicyView view = policyView();
    return {{"mode", kModes.at(static_cast<size_t>(view.settings.mode))},
            {"steady_s", view.settings.steady.count()},
            {"reports", reportRows(view)},
            {"plan", planRows(view)},
            {"busy", view.plan ? Json::array() : Json::array({"plan"})}};
}

Json putShardPolicy(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"mode", "steady_s"});
    PolicySettings settings = policySettings();
    if (const auto mode = optionalTextField(fields, "mode")) {
        settings.mode = modeOf(*mode);
    }
    if (fields.contains("steady_s")) {
        settings.steady = steadyField(fields);
    }
    setPolicy(settings);
    return getShardPolicy(input);
}

} // namespace host::admin
