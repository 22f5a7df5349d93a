/*
 * The node's own surroundings, as the adapters tell the library of them.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace host {

constexpr size_t kMaxNodeName = 63;

struct AdapterSettings {
    std::string nodeName;                                    // empty = the machine's host name
    std::vector<uint32_t> lsIds;                             // the configured LS ids, the node's own among them
    std::map<uint32_t, std::string> tenants;                 // name by id
    std::map<std::string, uint32_t, std::less<>> controlIps; // LS id by control address
    bool hasStorage = false; // the storage-side service has data and answers for the node's addresses
};

// Once, before the library starts; read without a lock from then on.
void configureAdapters(const AdapterSettings &settings);
const AdapterSettings &adapterSettings();

// The ids of the LIF ports whose performance path is on, in ascending order. From any thread.
std::vector<uint64_t> perfPorts();

} // namespace host
