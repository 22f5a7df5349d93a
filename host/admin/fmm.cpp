/*
 * The FMM events: what the host has on record, and events by an operator's hand.
 */
#include "fmm/fmm.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

struct Event {
    const char *name;
    void (*announce)();
};

struct ProcessEvent {
    const char *name;
    void (*announce)(uint32_t lsId);
};

void shardChange()
{
    if (!announceShardChange()) {
        throw CallError(kInternalError, "the library has not subscribed to shard changes");
    }
}

constexpr std::array kEvents = {
    Event{"shard-change", shardChange},
    Event{"vnode-move-in", [] { announceMove(FmmMove::vnodeIn); }},
    Event{"vnode-move-out", [] { announceMove(FmmMove::vnodeOut); }},
    Event{"shard-move-in", [] { announceMove(FmmMove::shardIn); }},
    Event{"shard-move-out", [] { announceMove(FmmMove::shardOut); }},
};

constexpr std::array kProcessEvents = {
    ProcessEvent{"process-fault", announceProcessFault},
    ProcessEvent{"process-recover", announceProcessRecovery},
};

std::string allNames()
{
    std::string names;
    for (const Event &event : kEvents) {
        names += std::string(event.name) + ", ";
    }
    return names + kProcessEvents[0].name + " or " + kProcessEvents[1].name;
}

template <class Events>
auto find(const Events &events, const std::string &name)
{
    return std::find_if(events.begin(), events.end(), [&name](const auto &event) { return event.name == name; });
}

void announce(const Json &fields)
{
    const std::string name = textField(fields, "event");
    if (const auto event = find(kProcessEvents, name); event != kProcessEvents.end()) {
        event->announce(numberField(fields, "ls", UINT32_MAX));
        return;
    }
    const auto event = find(kEvents, name);
    if (event == kEvents.end()) {
        throw CallError(kBadRequest, "event: must be " + allNames());
    }
    if (fields.contains("ls")) {
        throw CallError(kBadRequest, "ls: a " + name + " has none");
    }
    event->announce();
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
    announce(parseFields(input.body, {"event", "ls"}));
    return getFmm(input);
}

} // namespace host::admin
