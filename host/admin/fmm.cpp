/*
 * The FMM events: what the host has on record, and events by an operator's hand.
 */
#include "fmm/fmm.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/event_row.h"
#include "admin/fields.h"
#include "fmm/policy_runner.h"
#include "notify/commands.h"
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

using Expecting = std::vector<Expected>;

struct Event {
    const char *name;
    void (*announce)();
    const char *told; // the event that modules are told
    bool dlgToo;
};

struct LsEvent {
    const char *name;
    void (*announce)(uint32_t lsId);
    Expecting (*expected)(uint32_t lsId);
};

void shardChange()
{
    if (!announceShardChange()) {
        throw CallError(kInternalError, "the library has not subscribed to shard changes");
    }
}

constexpr std::array kEvents = {
    Event{"shard-change", shardChange, "SHARD_CHG", false},
    Event{"vnode-move-in", [] { announceMove(FmmMove::vnodeIn); }, "VNODE_MOVEIN", true},
    Event{"vnode-move-out", [] { announceMove(FmmMove::vnodeOut); }, "VNODE_MOVEOUT", true},
    Event{"shard-move-in", [] { announceMove(FmmMove::shardIn); }, "SCALE_IN", true},
    Event{"shard-move-out", [] { announceMove(FmmMove::shardOut); }, "SCALE_OUT", true},
};

// The storage node of an LS failed: its process is on record, FMM is told by the library's command, and the shard
// policy hears of it.
void nodeFault(uint32_t lsId)
{
    announceProcessFault(lsId);
    const auto answer = runCommand("nas_fmm", "node_fault", std::to_string(lsId));
    if (!answer || answer->result != 0) {
        throw CallError(kInternalError, "the library's command node_fault failed");
    }
    reportStorageLs(lsId, true);
}

// The command node_recover tells FMM of a fault, so the library's callback is what tells of the recovery.
void nodeRecover(uint32_t lsId)
{
    announceProcessRecovery(lsId);
    reportStorageLs(lsId, false);
}

Expecting recovery(uint32_t /*lsId*/)
{
    return {{"FMM", "NODE_RECOVER"}};
}

constexpr std::array kLsEvents = {
    LsEvent{"process-fault", announceProcessFault, [](uint32_t) { return Expecting(); }},
    LsEvent{"process-recover", announceProcessRecovery, recovery},
    LsEvent{"node-fault", nodeFault,
            [](uint32_t lsId) {
                return Expecting{{"FMM", "NODE_FAULT", lsId}};
            }},
    LsEvent{"node-recover", nodeRecover, recovery},
};

std::string allNames()
{
    std::string names;
    for (const Event &event : kEvents) {
        names += std::string(event.name) + ", ";
    }
    for (const LsEvent &event : kLsEvents) {
        names += std::string(event.name) + (&event == &kLsEvents.back() ? "" : ", ");
    }
    return names;
}

template <class Events>
auto find(const Events &events, const std::string &name)
{
    return std::find_if(events.begin(), events.end(), [&name](const auto &event) { return event.name == name; });
}

TellingOutcome announce(const LsEvent &event, uint32_t lsId)
{
    const TellingWatch watch;
    event.announce(lsId);
    return watch.wait(event.expected(lsId));
}

TellingOutcome announce(const Event &event)
{
    const TellingWatch watch;
    event.announce();
    Expecting expected = {{"FMM", event.told}};
    if (event.dlgToo) {
        expected.push_back({"DLG", event.told});
    }
    return watch.wait(expected);
}

TellingOutcome announce(const Json &fields)
{
    const std::string name = textField(fields, "event");
    if (const auto event = find(kLsEvents, name); event != kLsEvents.end()) {
        return announce(*event, numberField(fields, "ls", UINT32_MAX));
    }
    const auto event = find(kEvents, name);
    if (event == kEvents.end()) {
        throw CallError(kBadRequest, "event: must be one of " + allNames());
    }
    if (fields.contains("ls")) {
        throw CallError(kBadRequest, "ls: a " + name + " has none");
    }
    return announce(*event);
}

} // namespace

Json getFmm(const CallInput & /*input*/)
{
    const FmmState state = fmmState();
    Json faulty = Json::array();
    for (const FaultyProcess &process : state.faulty) {
        faulty.push_back({{"ls", process.lsId}, {"age_ms", process.age.count()}});
    }
    return {{"shard_changes", {{"subscribed", state.subscribed}, {"announced", state.shardChanges}}},
            {"faulty_processes", std::move(faulty)},
            {"recoveries", state.recoveries}};
}

Json postFmm(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"event", "ls"});
    const TellingOutcome outcome = announce(fields);
    Json answer = getFmm(input);
    answer.update(tellingRows(outcome));
    answer["serves_shard"] =
        fields.contains("ls") ? Json(shardOf(readShards(), fields.at("ls").get<uint32_t>()) != nullptr) : Json();
    return answer;
}

} // namespace host::admin
