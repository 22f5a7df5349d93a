/*
 * nasctl shard policy: whether the node moves FSPs away from faulty storage LSs by itself, and what it would do.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <cstdint>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

constexpr uint64_t kMaxSteady = 86400;
constexpr int64_t kMsPerSecond = 1000;

static std::string secondsText(const json &ms)
{
    return std::to_string(ms.get<int64_t>() / kMsPerSecond) + " s";
}

static std::string reportTable(const json &reports, bool colour)
{
    if (reports.empty()) {
        return "";
    }
    Table table({{"LS", Align::right}, {"REPORTED"}, {"FOR", Align::right}, {"MOVED BY THE POLICY"}});
    for (const json &report : reports) {
        const bool faulty = report.at("state") == "faulty";
        table.add({shown(report.at("ls")),
                   {shown(report.at("state")).text, faulty ? Tone::bad : Tone::plain},
                   {secondsText(report.at("age_ms"))},
                   {report.at("moved") == true ? "yes" : "no"}});
    }
    return table.render(colour);
}

static Cell dueCell(const json &inMs)
{
    if (inMs.is_null()) {
        return {"waits"};
    }
    return {inMs == 0 ? "now" : "in " + secondsText(inMs)};
}

static std::string planTable(const json &plan, bool colour)
{
    if (plan.is_null()) {
        return "the index is busy, so the plan is not known; ask again\n";
    }
    if (plan.empty()) {
        return "nothing is to be moved\n";
    }
    Table table({{"PLAN"},
                 {"LS", Align::right},
                 {"FROM", Align::right},
                 {"TO", Align::right},
                 {"FSPS", Align::right},
                 {"DUE"},
                 {"WHY"}});
    for (const json &step : plan) {
        table.add({shown(step.at("action")), shown(step.at("ls")), shown(step.at("from")), shown(step.at("to")),
                   shown(step.at("fsps")), dueCell(step.at("in_ms")), shown(step.at("why"))});
    }
    return table.render(colour);
}

static std::string policyText(const json &answer, bool colour)
{
    return "policy " + shown(answer.at("mode")).text + ", back after " + shown(answer.at("steady_s")).text +
           " s of steady running\n" + reportTable(answer.at("reports"), colour) + planTable(answer.at("plan"), colour);
}

static std::string modeOf(const std::string &state, bool dryRun)
{
    if (state != "on" && state != "off") {
        throw UsageFailure(nameable(state) + ": the policy is on or off");
    }
    if (dryRun && state == "off") {
        throw UsageFailure("--dry-run: a policy that is off does nothing; nasctl shard policy shows what it would do");
    }
    return dryRun ? "dry-run" : state;
}

int shardPolicy(const Session &session, const std::optional<std::string> &state,
                const std::optional<std::string> &steady, bool dryRun)
{
    json request = json::object();
    if (state) {
        request["mode"] = modeOf(*state, dryRun);
    }
    if (steady) {
        request["steady_s"] = parseNumber("--steady", *steady, 1, kMaxSteady);
    }
    const AdminClient node(session);
    present(session, request.empty() ? node.get("/v1/shards/policy") : node.put("/v1/shards/policy", request),
            policyText);
    return kDone;
}

} // namespace ctl
