/*
 * The shard view: shards, the index of FSPs, and moves of FSPs by an operator's hand.
 *
 * The library waits for the index's lock without end, so a call that would have it wait for a hold which is not given
 * back is refused instead.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/event_row.h"
#include "admin/fields.h"
#include "fmm/policy_runner.h"
#include "fmm/shard_moves.h"
#include "fmm/shard_table.h"
#include <algorithm>
#include <map>
#include <nasctrl/config.h>
#include <nasctrl/shard_view.h>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

constexpr uint32_t kMaxFsp = NAS_INVALID - 1; // beyond, the mark of a free node
constexpr uint32_t kMaxRecordedLs = UINT16_MAX;

std::string lsText(uint32_t lsId)
{
    return "LS " + std::to_string(lsId);
}

// Null when the index is busy.
Json countOn(const std::optional<std::vector<IndexedFsp>> &fsps, uint32_t shard)
{
    return fsps ? Json(std::ranges::count(*fsps, shard, &IndexedFsp::shard)) : Json();
}

Json busyParts(bool busy)
{
    return busy ? Json::array({"fsps"}) : Json::array();
}

void requireIndex()
{
    if (!canWriteFspIndex()) {
        throw CallError(kBusy, IndexBusy().what());
    }
}

// The shard of an LS that the table has.
Shard requireLs(const std::vector<Shard> &shards, uint32_t lsId)
{
    const Shard *shard = shardOf(shards, lsId);
    if (shard == nullptr) {
        throw CallError(kNotFound, "no shard belongs to " + lsText(lsId) + "; nasctl shard ls lists them");
    }
    return *shard;
}

uint32_t fspField(const Json &fields)
{
    return numberField(fields, "fsp", kMaxFsp);
}

uint32_t fspOf(const std::string &argument)
{
    const auto fsp = bigNumber(argument);
    if (!fsp || *fsp > kMaxFsp) {
        refuse("fsp", "must be a whole number from 0 to " + std::to_string(kMaxFsp));
    }
    return static_cast<uint32_t>(*fsp);
}

// Room for an FSP in the index, or a place of its own there.
void requireRoom(uint32_t fsp)
{
    const auto fsps = readFspIndex();
    if (!fsps) {
        throw CallError(kBusy, IndexBusy().what());
    }
    if (fsps->size() >= NAS_SHARD_NODES && std::ranges::find(*fsps, fsp, &IndexedFsp::fsp) == fsps->end()) {
        throw CallError(kConflict, "the index is full with " + std::to_string(fsps->size()) + " FSPs");
    }
}

Json placementRow(uint32_t fsp, bool known, uint32_t shard, const std::vector<Shard> &shards)
{
    const bool there = shard < shards.size();
    return {{"fsp", fsp},
            {"known", known},
            {"shard", there ? Json(shard) : Json()},
            {"ls", there ? Json(shards[shard].lsId) : Json()},
            {"address", there ? Json(shards[shard].address) : Json()},
            {"version", nullptr},
            {"next_ls", there ? Json(shards[(shard + 1) % shards.size()].lsId) : Json()}};
}

// Only an FSP that is in the index is asked for by the look-ups, which would put any other there.
Json placement(uint32_t fsp)
{
    const std::vector<Shard> shards = readShards();
    shard_info info{};
    if (stubGetShardInfo(static_cast<int32_t>(fsp), &info) != NAS_OK) {
        return placementRow(fsp, false, hash_u64_id(fsp, static_cast<uint32_t>(shards.size())), shards);
    }
    Json row = placementRow(fsp, true, FspGetShardIdByFsp(fsp), shards);
    row["ls"] = info.lsId;
    row["version"] = info.version;
    row["next_ls"] = FspGetNextLsIdByFsp(fsp);
    return row;
}

Json movedRows(const std::optional<std::vector<MovedFsp>> &moved)
{
    if (!moved) {
        return {};
    }
    Json rows = Json::array();
    for (const MovedFsp &each : *moved) {
        rows.push_back(
            {{"fsp", each.fsp}, {"from_shard", each.fromShard}, {"to_shard", each.toShard}, {"version", each.version}});
    }
    return rows;
}

// The events name an LS by its low 16 bits.
Json shortened(uint32_t from, uint32_t to)
{
    Json rows = Json::array();
    for (const uint32_t lsId : {from, to}) {
        if (lsId > kMaxRecordedLs) {
            rows.push_back({{"ls", lsId}, {"in_events", lsId & kMaxRecordedLs}});
        }
    }
    return rows;
}

Json answerOf(uint32_t from, uint32_t to, const MoveReport &report)
{
    Json answer = {{"from", from},
                   {"to", to},
                   {"result", report.result},
                   {"empty_index", report.emptyIndex},
                   {"moved", movedRows(report.moved)},
                   {"took_us", report.took.count()}};
    answer.update(tellingRows(report.telling));
    answer["shortened"] = shortened(from, to);
    return answer;
}

template <class Move>
MoveReport doMove(Move move)
{
    try {
        return move();
    } catch (const IndexBusy &error) {
        throw CallError(kBusy, error.what());
    }
}

Json migrate(uint32_t reported, uint32_t from, uint32_t to, MoveReason reason)
{
    const MoveReport report = doMove([&] { return migrateLs(from, to, reason); });
    noteMoveByHand(reported);
    return answerOf(from, to, report);
}

} // namespace

Json getShards(const CallInput & /*input*/)
{
    const auto fsps = readFspIndex();
    Json rows = Json::array();
    for (const Shard &shard : readShards()) {
        rows.push_back({{"shard", shard.number},
                        {"ls", shard.lsId},
                        {"address", shard.address},
                        {"status", shard.faulty ? "FAULT" : "NORMAL"},
                        {"takeover_ls", shard.faulty ? Json(shard.takeoverLs) : Json()},
                        {"fsps", countOn(fsps, shard.number)}});
    }
    return {{"local_ls", getLocalLsID()},
            {"partitions", stub_GetPartionNumber()},
            {"shards", std::move(rows)},
            {"busy", busyParts(!fsps)}};
}

Json getShardIndex(const CallInput & /*input*/)
{
    const auto fsps = readFspIndex();
    Json rows = fsps ? Json::array() : Json();
    for (const IndexedFsp &each : fsps.value_or(std::vector<IndexedFsp>())) {
        rows.push_back({{"fsp", each.fsp}, {"shard", each.shard}, {"ls", each.lsId}, {"version", each.version}});
    }
    return {{"fsps", std::move(rows)}, {"room", NAS_SHARD_NODES}, {"busy", busyParts(!fsps)}};
}

Json getFspPlacement(const CallInput &input)
{
    const uint32_t fsp = fspOf(input.argument);
    requireIndex();
    return placement(fsp);
}

Json postFsp(const CallInput &input)
{
    const uint32_t fsp = fspField(parseFields(input.body, {"fsp"}));
    requireIndex();
    requireRoom(fsp);
    FspGetShardIdByFsp(fsp);
    return placement(fsp);
}

Json postMigration(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"ls", "to"});
    const uint32_t from = numberField(fields, "ls", UINT32_MAX);
    const std::vector<Shard> shards = readShards();
    requireLs(shards, from);
    const uint32_t to = optionalNumberField(fields, "to", UINT32_MAX).value_or(FspGetNextLsIdByLs(from));
    requireLs(shards, to);
    if (from == to) {
        refuse("to", "must be another LS than " + lsText(from));
    }
    return migrate(from, from, to, MoveReason::fault);
}

Json postFailback(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"ls"});
    const uint32_t to = numberField(fields, "ls", UINT32_MAX);
    if (!requireLs(readShards(), to).faulty) {
        throw CallError(kConflict, "the shard of " + lsText(to) + " is not FAULT, so no LS took over from it");
    }
    return migrate(to, FspGetSrcLsByLsId(to), to, MoveReason::failback);
}

Json postFspMove(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"fsp", "to"});
    const uint32_t fsp = fspField(fields);
    const uint32_t to = numberField(fields, "to", UINT32_MAX);
    requireLs(readShards(), to);
    requireIndex();
    requireRoom(fsp);
    const Json before = placement(fsp);
    const MoveReport report = doMove([&] { return moveFsp(fsp, to); });
    Json answer = answerOf(before.at("ls").get<uint32_t>(), to, report);
    answer["placement"] = placement(fsp);
    return answer;
}

} // namespace host::admin
