/*
 * What the service knows, out of one data file.
 */
#pragma once

#include "network.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

namespace storage {

struct ServiceAddress {
    std::string address; // as IpAddress::text writes it
    uint32_t protocolType = 3;
    bool working = true;

    bool operator==(const ServiceAddress &) const = default;
};

struct Interface {
    std::string name;
    uint32_t index = 0;
    bool up = true;
    bool running = true;
    bool loopback = false;
    uint32_t mtu = 1500;
    std::string address; // as above; empty when it has none
    uint32_t prefixLength = 0;

    bool operator==(const Interface &) const = default;
};

// Which of the machine's interfaces and addresses are taken.
struct Filter {
    std::string interface = "*";    // a shell pattern
    std::optional<Network> network; // nothing = every address
};

struct AddressSource {
    Filter filter;
    uint32_t protocolType = 3;
    bool working = true; // as long as the interface is up
};

struct HdfsConfiguration {
    uint32_t fsId = 0;
    uint32_t tenantId = 0;
    std::string subnet;
    std::string dtreePath;
};

struct ContactedZone {
    uint32_t zoneId = 0;
    uint32_t fsId = 0;
    uint32_t tenantId = 0;
};

struct ZoneKey {
    uint32_t fsId = 0;
    uint32_t tenantId = 0;
    std::string subnet;

    bool operator<(const ZoneKey &other) const
    {
        return std::tie(fsId, tenantId, subnet) < std::tie(other.fsId, other.tenantId, other.subnet);
    }
};

using AddressList = std::vector<ServiceAddress>;

struct Data {
    AddressList addresses;
    std::vector<AddressSource> addressSources;
    std::vector<Interface> interfaces;
    std::vector<Filter> interfaceSources;
    std::map<std::string, HdfsConfiguration> hdfs; // by address
    std::map<std::string, uint32_t> tenants;       // by address
    std::map<int32_t, AddressList> neighbours;     // by EDS LS id
    AddressList zone;
    std::map<ZoneKey, AddressList> globalZones;
    std::map<ZoneKey, AddressList> subnets;
    std::vector<std::string> nodeIds;
    std::optional<ContactedZone> contactedZone;
    std::optional<std::string> zoneDomain;
};

constexpr size_t kMaxDataFile = 64UL * 1024 * 1024;

// Throws DataError: the line, the field and what is wrong with it.
Data parseData(const std::string &text);
// Throws std::runtime_error with one line that begins with the path.
Data loadData(const std::string &path);

} // namespace storage
