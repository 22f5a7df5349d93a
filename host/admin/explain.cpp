/*
 * All that the node knows of one address.
 */
#include "adapters/lif_table.h"
#include "admin/address_row.h"
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/monitor_view.h"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <atomic>
#include <nasctrl/ip_manager.h>
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

// An address apart from its spelling. The library's list compares texts, an operator means the address.
struct Binary {
    int family = 0;
    std::array<unsigned char, sizeof(in6_addr)> bytes{};

    bool operator==(const Binary &) const = default;
};

Binary binaryOf(const std::string &text)
{
    for (const int family : {AF_INET, AF_INET6}) {
        Binary binary;
        if (inet_pton(family, text.c_str(), binary.bytes.data()) == 1) {
            binary.family = family;
            return binary;
        }
    }
    return {};
}

bool isOpen()
{
    return std::atomic_ref(g_floatIpSupport).load() != 0;
}

bool hasWork(const ServiceAddress &address)
{
    return (address.status & NAS_IP_ALL_NOTIFIED) != NAS_IP_ALL_NOTIFIED;
}

std::string whyUnknown(const Binary &wanted)
{
    const auto monitor = readMonitor();
    if (!monitor) {
        return "the node's addresses have not been read yet";
    }
    const int32_t result = monitor->pass.queryResult.value_or(0);
    if (result != 0) {
        return "the node's addresses could not be read (" + std::to_string(result) + ")";
    }
    std::string why = "it is not among the node's addresses";
    for (const NodeAddress &address : nodeAddresses()) {
        if (binaryOf(address.address) == wanted) {
            why = address.working ? "it is among the node's addresses and is added with the next pass"
                                  : "it is among the node's addresses, but not working";
        }
    }
    return why;
}

bool has(const Json &rows, const char *state)
{
    return std::ranges::any_of(rows, [state](const Json &row) { return row.at("state") == state; });
}

// One line for an entry of the list.
std::string verdict(const ServiceAddress &address, const Json &modules)
{
    if (hasWork(address) && !isOpen()) {
        return "the protocol service is off; modules are told when it is switched on";
    }
    if (modules.empty()) {
        return "no module serves protocol type " + std::to_string(address.protocolType);
    }
    if (has(modules, "failing")) {
        return "refused by at least one module; tried again at each pass";
    }
    return has(modules, "pending") ? "not every module has been told yet" : "every module that serves it listens";
}

Json entryRow(const ServiceAddress &address, const AddressRows &modules)
{
    Json row = modules.rowOf(address);
    row["verdict"] = verdict(address, row.at("modules"));
    return row;
}

struct Report {
    Json entries = Json::array();
    Json ports = Json::array();
    Json busy = Json::array();
    bool waiting = false;
};

void addEntries(Report &report, const Binary &wanted)
{
    const auto addresses = readAddresses();
    if (!addresses) {
        report.entries = nullptr;
        report.busy.push_back("entries");
        return;
    }
    const AddressRows modules(moduleStates());
    for (const ServiceAddress &address : *addresses) {
        if (binaryOf(address.address) == wanted) {
            report.entries.push_back(entryRow(address, modules));
            report.waiting = report.waiting || (hasWork(address) && isOpen());
        }
    }
}

void addPorts(Report &report, const Binary &wanted)
{
    const LifTable table = readLifTable();
    for (const LifPort &port : table.ports) {
        if (binaryOf(port.ip) == wanted) {
            report.ports.push_back({{"id", std::to_string(port.id)}, {"name", port.name}});
        }
    }
    if (!table.busyBuckets.empty()) {
        report.busy.push_back("lif_ports");
    }
}

} // namespace

Json explainIp(const CallInput &input)
{
    checkAddress("address", input.argument);
    const Binary wanted = binaryOf(input.argument);
    Report report;
    addEntries(report, wanted);
    addPorts(report, wanted);
    const auto monitor = readMonitor();
    const bool unknown = report.entries.is_array() && report.entries.empty();
    return {{"address", input.argument},
            {"family", wanted.family == AF_INET ? "IPv4" : "IPv6"},
            {"entries", std::move(report.entries)},
            {"why_unknown", unknown ? Json(whyUnknown(wanted)) : Json()},
            {"next_try_ms", report.waiting && monitor ? Json(monitor->nextMs) : Json()},
            {"lif_ports", std::move(report.ports)},
            {"busy", std::move(report.busy)}};
}

} // namespace host::admin
