/*
 * The LIF ports: the library's table, its additions and deletions, and the look-ups that it registered for statistics.
 *
 * The library waits for a bucket's lock without end, so a call that would have it wait for a hold which is not given
 * back is refused instead.
 */
#include "adapters/adapters.h"
#include "adapters/lif_table.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "notify/statistics.h"
#include <algorithm>
#include <nasctrl/host/platform.h>
#include <nasctrl/lif_port.h>
#include <nlohmann/json.hpp>
#include <optional>

namespace host::admin {

namespace {

constexpr size_t kMaxName = sizeof(NasLifPortEntry::name) - 1;

Json portRow(const LifPort &port, const std::vector<uint64_t> &perf)
{
    return {{"id", std::to_string(port.id)},
            {"index", port.index},
            {"name", port.name},
            {"address", port.ip},
            {"time", std::to_string(port.time)},
            {"performance", std::ranges::binary_search(perf, port.id)}};
}

void requireTable()
{
    if (!lifTableIsBuilt()) {
        throw CallError(kInternalError, "the LIF manager has not started");
    }
}

void requireFree(bool free, const std::string &what)
{
    if (!free) {
        throw CallError(kBusy, "the lock of " + what + " in the LIF table is held");
    }
}

uint64_t parsePortId(const std::string &text)
{
    const uint64_t id = parseId(text);
    if (id == 0) {
        throw CallError(kBadRequest, "id: must not be 0");
    }
    return id;
}

std::optional<uint64_t> optionalTime(const Json &fields)
{
    const auto text = optionalTextField(fields, "time");
    if (!text) {
        return std::nullopt;
    }
    try {
        return parseId(*text);
    } catch (const CallError &) {
        throw CallError(kBadRequest, "time: must be a decimal number of at most 64 bits");
    }
}

// The table's row of a port, null when there is none or its bucket is busy.
Json rowOf(uint64_t id)
{
    const std::vector<LifPort> ports = readLifTable().ports;
    const auto found = std::ranges::find(ports, id, &LifPort::id);
    return found == ports.end() ? Json() : portRow(*found, perfPorts());
}

std::vector<uint64_t> idsWith(const std::string &address)
{
    std::vector<uint64_t> ids;
    for (const LifPort &port : readLifTable().ports) {
        if (port.ip == address) {
            ids.push_back(port.id);
        }
    }
    return ids;
}

Json textsOf(const std::vector<uint64_t> &ids)
{
    Json texts = Json::array();
    for (const uint64_t id : ids) {
        texts.push_back(std::to_string(id));
    }
    return texts;
}

} // namespace

Json getLifPorts(const CallInput & /*input*/)
{
    const LifTable table = readLifTable();
    const std::vector<uint64_t> perf = perfPorts();
    Json rows = Json::array();
    for (const LifPort &port : table.ports) {
        rows.push_back(portRow(port, perf));
    }
    Json busy = Json::array();
    if (!table.busyBuckets.empty()) {
        busy.push_back("ports");
    }
    return {{"ports", std::move(rows)}, {"busy_buckets", table.busyBuckets}, {"busy", std::move(busy)}};
}

Json postLifPort(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"id", "name", "address", "time"});
    const uint64_t id = parsePortId(textField(fields, "id"));
    const std::string name = textField(fields, "name");
    const std::string address = textField(fields, "address");
    const uint64_t time = optionalTime(fields).value_or(kvos_time_getmillisec());
    if (name.size() > kMaxName) {
        throw CallError(kBadRequest, "name: must not be longer than " + std::to_string(kMaxName) + " bytes");
    }
    checkAddress("address", address);
    requireTable();
    requireFree(canWrite(id), "port " + std::to_string(id));
    const uint32_t index = nas_lifport_add_update(id, name.c_str(), address.c_str(), time);
    if (index == NAS_INVALID) {
        throw CallError(kInternalError, "the port was not added");
    }
    return {{"index", index}, {"port", rowOf(id)}};
}

Json deleteLifPort(const CallInput &input)
{
    checkAddress("address", input.argument);
    const Json fields = input.body.empty() ? Json::object() : parseFields(input.body, {"time"});
    const uint64_t time = optionalTime(fields).value_or(UINT64_MAX);
    requireTable();
    requireFree(canWriteAll(), "a port");
    std::vector<uint64_t> removed = idsWith(input.argument);
    if (removed.empty()) {
        throw CallError(kNotFound, "no LIF port has the address " + input.argument + "; nasctl lif ls lists them");
    }
    nas_lifportid_del_update(input.argument.c_str(), time);
    const std::vector<uint64_t> left = idsWith(input.argument);
    std::erase_if(removed, [&left](uint64_t id) { return std::ranges::find(left, id) != left.end(); });
    return {{"removed", textsOf(removed)}, {"left", textsOf(left)}};
}

Json getLifIndex(const CallInput &input)
{
    const uint64_t id = parsePortId(input.argument);
    const auto index = statisticsIndex(kLifPortKind, id);
    if (!index) {
        throw CallError(kInternalError, "the LIF manager has registered no look-up");
    }
    return {{"id", std::to_string(id)}, {"index", *index}, {"known", ownsSlot(id, *index)}};
}

Json getLifName(const CallInput &input)
{
    const uint64_t id = parsePortId(input.argument);
    requireTable();
    requireFree(canRead(id), "port " + std::to_string(id));
    const auto index = statisticsIndex(kLifPortKind, id);
    const auto name = statisticsName(kLifPortKind, id);
    if (!index || !name) {
        throw CallError(kInternalError, "the LIF manager has registered no look-up");
    }
    return {{"id", std::to_string(id)}, {"name", *name}, {"known", ownsSlot(id, *index)}};
}

} // namespace host::admin
