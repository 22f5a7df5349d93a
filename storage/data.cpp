/*
 * The data file's form, as a table of fields per kind of object. What is not in the tables is refused.
 */
#include "data.h"

#include "json_tree.h"
#include "records.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>
#include <net/if.h>
#include <set>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace storage {

namespace {

constexpr size_t kShownText = 80;
constexpr size_t kMaxPattern = 64;
constexpr unsigned kIpv4Bits = 32;
constexpr unsigned kIpv6Bits = 128;

static_assert(sizeof(InterfaceEntry::name) == IF_NAMESIZE);

[[noreturn]] void refuse(unsigned line, const std::string &place, const std::string &why)
{
    throw DataError(line, place.empty() ? why : place + ": " + why);
}

[[noreturn]] void refuse(const JsonNode &node, const std::string &place, const std::string &why)
{
    refuse(node.line, place, why);
}

// As far as the first NUL.
std::string quoted(const std::string &whole)
{
    const std::string text = whole.substr(0, whole.find('\0'));
    return "\"" + (text.size() > kShownText ? text.substr(0, kShownText) + "..." : text) + "\"";
}

/* ---- values ---- */

bool truth(const JsonNode &node, const std::string &place)
{
    if (node.kind != JsonKind::boolean) {
        refuse(node, place, "must be true or false");
    }
    return node.truth;
}

uint32_t number(const JsonNode &node, const std::string &place, uint32_t most = UINT32_MAX)
{
    if (node.kind != JsonKind::whole || (node.negative && node.value != 0) || node.value > most) {
        refuse(node, place, "must be a whole number from 0 to " + std::to_string(most));
    }
    return static_cast<uint32_t>(node.value);
}

int32_t signedNumber(const JsonNode &node, const std::string &place)
{
    const uint64_t most = static_cast<uint64_t>(INT32_MAX) + (node.negative ? 1 : 0);
    if (node.kind != JsonKind::whole || node.value > most) {
        refuse(node, place,
               "must be a whole number from " + std::to_string(INT32_MIN) + " to " + std::to_string(INT32_MAX));
    }
    const auto distance = static_cast<int64_t>(node.value);
    return static_cast<int32_t>(node.negative ? -distance : distance);
}

// A text that fits into a field of that width with its NUL.
std::string text(const JsonNode &node, const std::string &place, size_t width)
{
    const bool fits = !node.text.empty() && node.text.size() < width;
    if (node.kind != JsonKind::text || !fits || node.text.find('\0') != std::string::npos) {
        refuse(node, place, "must be a text of 1 to " + std::to_string(width - 1) + " bytes without NUL");
    }
    return node.text;
}

std::string address(const JsonNode &node, const std::string &place)
{
    if (node.kind != JsonKind::text) {
        refuse(node, place, "must be an address in quotes");
    }
    // A NUL would end the text for the system's own check.
    const auto parsed = node.text.find('\0') == std::string::npos ? parseAddress(node.text) : std::nullopt;
    if (!parsed) {
        refuse(node, place, quoted(node.text) + " is not an IPv4 or IPv6 address");
    }
    return parsed->text();
}

Network network(const JsonNode &node, const std::string &place)
{
    if (node.kind != JsonKind::text) {
        refuse(node, place, "must be a network in quotes");
    }
    const auto parsed = node.text.find('\0') == std::string::npos ? parseNetwork(node.text) : std::nullopt;
    if (!parsed) {
        refuse(node, place, quoted(node.text) + " is not a network like 10.0.0.0/8 or fd00::/8");
    }
    return *parsed;
}

/* ---- lists and objects ---- */

template <class Take>
void eachElement(const JsonNode &node, const std::string &place, size_t most, Take take)
{
    if (node.kind != JsonKind::array) {
        refuse(node, place, "must be a list in [ ]");
    }
    if (node.children.size() > most) {
        refuse(node, place,
               "holds " + std::to_string(node.children.size()) + " entries, " + std::to_string(most) +
                   " fit into one answer");
    }
    for (size_t i = 0; i < node.children.size(); ++i) {
        take(node.children[i], place + "[" + std::to_string(i) + "]");
    }
}

template <class Record>
struct Field {
    const char *name;
    bool required;
    void (*read)(Record &record, const JsonNode &node, const std::string &place);
};

template <class Record, size_t Count>
void readMembers(Record &record, const JsonNode &node, const std::string &place, const Field<Record> (&fields)[Count])
{
    bool seen[Count] = {};
    for (const JsonNode &member : node.children) {
        const std::string at = place.empty() ? member.name : place + "." + member.name;
        const auto *field = std::ranges::find(fields, std::string_view(member.name), &Field<Record>::name);
        if (field == std::end(fields)) {
            refuse(member.nameLine, place, quoted(member.name) + " is not a field here");
        }
        if (std::exchange(seen[field - fields], true)) {
            refuse(member.nameLine, at, "is given twice");
        }
        field->read(record, member, at);
    }
    for (size_t i = 0; i < Count; ++i) {
        if (fields[i].required && !seen[i]) {
            refuse(node, place, std::string(fields[i].name) + " is missing");
        }
    }
}

template <class Record, size_t Count>
Record readObject(const JsonNode &node, const std::string &place, const Field<Record> (&fields)[Count])
{
    if (node.kind != JsonKind::object) {
        refuse(node, place, "must be an object in { }");
    }
    Record record;
    readMembers(record, node, place, fields);
    return record;
}

/* ---- addresses and interfaces ---- */

using Place = const std::string &;

constexpr Field<ServiceAddress> kAddressFields[] = {
    {"address", true, [](ServiceAddress &a, const JsonNode &n, Place at) { a.address = address(n, at); }},
    {"protocol_type", false, [](ServiceAddress &a, const JsonNode &n, Place at) { a.protocolType = number(n, at); }},
    {"working", false, [](ServiceAddress &a, const JsonNode &n, Place at) { a.working = truth(n, at); }},
};

void readAddresses(AddressList &list, const JsonNode &node, Place place)
{
    std::set<std::pair<std::string, uint32_t>> seen;
    eachElement(node, place, kMaxAddresses, [&](const JsonNode &element, Place at) {
        list.push_back(readObject(element, at, kAddressFields));
        const ServiceAddress &added = list.back();
        if (!seen.emplace(added.address, added.protocolType).second) {
            refuse(element, at,
                   added.address + " of protocol type " + std::to_string(added.protocolType) + " is given twice");
        }
    });
}

std::string pattern(const JsonNode &node, Place at)
{
    return text(node, at, kMaxPattern);
}

constexpr Field<AddressSource> kAddressSourceFields[] = {
    {"interface", false, [](AddressSource &s, const JsonNode &n, Place at) { s.filter.interface = pattern(n, at); }},
    {"network", false, [](AddressSource &s, const JsonNode &n, Place at) { s.filter.network = network(n, at); }},
    {"protocol_type", false, [](AddressSource &s, const JsonNode &n, Place at) { s.protocolType = number(n, at); }},
    {"working", false, [](AddressSource &s, const JsonNode &n, Place at) { s.working = truth(n, at); }},
};

constexpr Field<Filter> kFilterFields[] = {
    {"interface", false, [](Filter &f, const JsonNode &n, Place at) { f.interface = pattern(n, at); }},
    {"network", false, [](Filter &f, const JsonNode &n, Place at) { f.network = network(n, at); }},
};

constexpr Field<Interface> kInterfaceFields[] = {
    {"name", true, [](Interface &i, const JsonNode &n, Place at) { i.name = text(n, at, IF_NAMESIZE); }},
    {"index", true, [](Interface &i, const JsonNode &n, Place at) { i.index = number(n, at); }},
    {"up", false, [](Interface &i, const JsonNode &n, Place at) { i.up = truth(n, at); }},
    {"running", false, [](Interface &i, const JsonNode &n, Place at) { i.running = truth(n, at); }},
    {"loopback", false, [](Interface &i, const JsonNode &n, Place at) { i.loopback = truth(n, at); }},
    {"mtu", false, [](Interface &i, const JsonNode &n, Place at) { i.mtu = number(n, at); }},
    {"address", false, [](Interface &i, const JsonNode &n, Place at) { i.address = address(n, at); }},
    {"prefix_length", false,
     [](Interface &i, const JsonNode &n, Place at) { i.prefixLength = number(n, at, kIpv6Bits); }},
};

void readInterfaces(std::vector<Interface> &list, const JsonNode &node, Place place)
{
    std::set<std::pair<std::string, std::string>> seen;
    eachElement(node, place, kMaxInterfaces, [&](const JsonNode &element, Place at) {
        list.push_back(readObject(element, at, kInterfaceFields));
        const Interface &added = list.back();
        const bool ipv6 = added.address.find(':') != std::string::npos;
        const unsigned most = added.address.empty() ? 0 : ipv6 ? kIpv6Bits : kIpv4Bits;
        if (added.prefixLength > most) {
            refuse(element, at, "prefix_length is more than the " + std::to_string(most) + " bits of its address");
        }
        if (!seen.emplace(added.name, added.address).second) {
            refuse(element, at, quoted(added.name) + " is given twice with the same address");
        }
    });
}

/* ---- HDFS ---- */

struct HdfsEntry {
    std::string address;
    HdfsConfiguration configuration;
};

constexpr Field<HdfsEntry> kHdfsFields[] = {
    {"address", true, [](HdfsEntry &e, const JsonNode &n, Place at) { e.address = address(n, at); }},
    {"fs_id", true, [](HdfsEntry &e, const JsonNode &n, Place at) { e.configuration.fsId = number(n, at); }},
    {"dtree_path", true,
     [](HdfsEntry &e, const JsonNode &n, Place at) {
         e.configuration.dtreePath = text(n, at, sizeof(HdfsConfigurationAnswer::dtreePath));
     }},
    {"subnet", false,
     [](HdfsEntry &e, const JsonNode &n, Place at) {
         e.configuration.subnet = text(n, at, sizeof(HdfsConfigurationAnswer::subnet));
     }},
    {"tenant_id", false, [](HdfsEntry &e, const JsonNode &n, Place at) { e.configuration.tenantId = number(n, at); }},
};

struct TenantEntry {
    std::string address;
    uint32_t tenantId = 0;
};

constexpr Field<TenantEntry> kTenantFields[] = {
    {"address", true, [](TenantEntry &e, const JsonNode &n, Place at) { e.address = address(n, at); }},
    {"tenant_id", true, [](TenantEntry &e, const JsonNode &n, Place at) { e.tenantId = number(n, at); }},
};

struct NeighbourEntry {
    int32_t edsLsId = 0;
    AddressList addresses;
};

constexpr Field<NeighbourEntry> kNeighbourFields[] = {
    {"eds_ls_id", true, [](NeighbourEntry &e, const JsonNode &n, Place at) { e.edsLsId = signedNumber(n, at); }},
    {"addresses", true, [](NeighbourEntry &e, const JsonNode &n, Place at) { readAddresses(e.addresses, n, at); }},
};

struct ZoneEntry {
    ZoneKey key;
    AddressList addresses;
};

constexpr Field<ZoneEntry> kZoneFields[] = {
    {"fs_id", true, [](ZoneEntry &e, const JsonNode &n, Place at) { e.key.fsId = number(n, at); }},
    {"tenant_id", true, [](ZoneEntry &e, const JsonNode &n, Place at) { e.key.tenantId = number(n, at); }},
    {"subnet", true,
     [](ZoneEntry &e, const JsonNode &n, Place at) { e.key.subnet = text(n, at, sizeof(ZoneRequest::subnet)); }},
    {"addresses", true, [](ZoneEntry &e, const JsonNode &n, Place at) { readAddresses(e.addresses, n, at); }},
};

constexpr Field<ContactedZone> kContactedZoneFields[] = {
    {"zone_id", true, [](ContactedZone &z, const JsonNode &n, Place at) { z.zoneId = number(n, at); }},
    {"fs_id", true, [](ContactedZone &z, const JsonNode &n, Place at) { z.fsId = number(n, at); }},
    {"tenant_id", true, [](ContactedZone &z, const JsonNode &n, Place at) { z.tenantId = number(n, at); }},
};

// A list of objects that become the entries of a map: what `split` makes of each, its key and its value.
template <class Map, class Entry, size_t Count, class Split>
void readMap(Map &map, const JsonNode &node, Place place, const Field<Entry> (&fields)[Count], const char *keyNames,
             Split split)
{
    eachElement(node, place, SIZE_MAX, [&](const JsonNode &element, Place at) {
        if (!map.insert(split(readObject(element, at, fields))).second) {
            refuse(element, at, std::string("another entry has the same ") + keyNames);
        }
    });
}

void readZones(std::map<ZoneKey, AddressList> &zones, const JsonNode &node, Place place)
{
    readMap(zones, node, place, kZoneFields, "fs_id, tenant_id and subnet",
            [](ZoneEntry &&e) { return std::pair(std::move(e.key), std::move(e.addresses)); });
}

void readNodeIds(std::vector<std::string> &ids, const JsonNode &node, Place place)
{
    std::set<std::string> seen;
    eachElement(node, place, kMaxNodeIds, [&](const JsonNode &element, Place at) {
        ids.push_back(text(element, at, kNodeIdRow));
        if (!seen.insert(ids.back()).second) {
            refuse(element, at, quoted(ids.back()) + " is given twice");
        }
    });
}

constexpr Field<Data> kDataFields[] = {
    {"addresses", false, [](Data &d, const JsonNode &n, Place at) { readAddresses(d.addresses, n, at); }},
    {"address_sources", false,
     [](Data &d, const JsonNode &n, Place place) {
         eachElement(n, place, SIZE_MAX, [&](const JsonNode &element, Place at) {
             d.addressSources.push_back(readObject(element, at, kAddressSourceFields));
         });
     }},
    {"interfaces", false, [](Data &d, const JsonNode &n, Place at) { readInterfaces(d.interfaces, n, at); }},
    {"interface_sources", false,
     [](Data &d, const JsonNode &n, Place place) {
         eachElement(n, place, SIZE_MAX, [&](const JsonNode &element, Place at) {
             d.interfaceSources.push_back(readObject(element, at, kFilterFields));
         });
     }},
    {"hdfs", false,
     [](Data &d, const JsonNode &n, Place at) {
         readMap(d.hdfs, n, at, kHdfsFields, "address",
                 [](HdfsEntry &&e) { return std::pair(std::move(e.address), std::move(e.configuration)); });
     }},
    {"tenants", false,
     [](Data &d, const JsonNode &n, Place at) {
         readMap(d.tenants, n, at, kTenantFields, "address",
                 [](TenantEntry &&e) { return std::pair(std::move(e.address), e.tenantId); });
     }},
    {"neighbors", false,
     [](Data &d, const JsonNode &n, Place at) {
         readMap(d.neighbours, n, at, kNeighbourFields, "eds_ls_id",
                 [](NeighbourEntry &&e) { return std::pair(e.edsLsId, std::move(e.addresses)); });
     }},
    {"zone_addresses", false, [](Data &d, const JsonNode &n, Place at) { readAddresses(d.zone, n, at); }},
    {"global_zones", false, [](Data &d, const JsonNode &n, Place at) { readZones(d.globalZones, n, at); }},
    {"subnets", false, [](Data &d, const JsonNode &n, Place at) { readZones(d.subnets, n, at); }},
    {"global_zone_node_ids", false, [](Data &d, const JsonNode &n, Place at) { readNodeIds(d.nodeIds, n, at); }},
    {"contacted_zone", false,
     [](Data &d, const JsonNode &n, Place at) { d.contactedZone = readObject(n, at, kContactedZoneFields); }},
    {"zone_domain", false,
     [](Data &d, const JsonNode &n, Place at) { d.zoneDomain = text(n, at, sizeof(ZoneDomainAnswer::domain)); }},
};

std::string readWhole(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    std::string bytes;
    if (file) {
        char piece[4096];
        while (bytes.size() <= kMaxDataFile && (file.read(piece, sizeof piece) || file.gcount() > 0)) {
            bytes.append(piece, static_cast<size_t>(file.gcount()));
        }
    }
    if (!file.eof()) {
        throw std::runtime_error(path + ": " +
                                 (bytes.size() > kMaxDataFile ? "is larger than 64 MiB"
                                                              : std::string("cannot be read: ") + strerror(errno)));
    }
    return bytes;
}

} // namespace

Data parseData(const std::string &text)
{
    return readObject(parseJson(text), "", kDataFields);
}

Data loadData(const std::string &path)
{
    const std::string bytes = readWhole(path);
    try {
        return parseData(bytes);
    } catch (const DataError &error) {
        throw std::runtime_error(path + " " + error.what());
    }
}

} // namespace storage
