/*
 * The node's event stream. A call that waits has a lane of its own; one that does not is a plain reading.
 */
#include "notify/events.h"

#include "admin/calls.h"
#include "admin/event_row.h"
#include "admin/query.h"
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

constexpr uint64_t kMaxPage = 1000;
constexpr uint64_t kMaxWaitMs = 30000;

} // namespace

Json eventRow(const Event &event)
{
    const EventDetails &details = event.details;
    const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(event.time.time_since_epoch());
    Json moves = Json::array();
    for (const Move &move : details.moves) {
        moves.push_back({{"fsp", move.fsp}, {"shard", move.shard}, {"from", move.fromLs}, {"to", move.toLs}});
    }
    return {{"number", event.number},
            {"time_ms", time.count()},
            {"module", details.module},
            {"event", details.name},
            {"data", std::to_string(details.data)},
            {"text", details.text},
            {"moves", std::move(moves)},
            {"move_count", details.moveCount}};
}

Json tellingRows(const TellingOutcome &outcome)
{
    Json told = Json::array();
    for (const Told &each : outcome.told) {
        Json row = eventRow(*each.event);
        row["after_us"] = each.after.count();
        told.push_back(std::move(row));
    }
    Json untold = Json::array();
    for (const Expected &each : outcome.untold) {
        untold.push_back({{"module", each.module}, {"event", each.name}, {"data", std::to_string(each.data)}});
    }
    return {{"told", std::move(told)}, {"untold", std::move(untold)}};
}

Json getEvents(const CallInput &input)
{
    auto query =
        parseQuery(input.query, {{"after", 0, UINT64_MAX}, {"limit", kMaxPage, kMaxPage}, {"wait", 0, kMaxWaitMs}});
    const EventPage page = readEvents(query["after"], query["limit"], std::chrono::milliseconds(query["wait"]));
    Json rows = Json::array();
    for (const auto &event : page.events) {
        rows.push_back(eventRow(*event));
    }
    return {{"events", std::move(rows)}, {"missed", page.missed}, {"newest", page.newest}};
}

} // namespace host::admin
