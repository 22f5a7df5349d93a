#include "answers.h"

#include "machine.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <set>
#include <string_view>
#include <utility>

namespace storage {

namespace {

template <class Record>
Record recordOf(Request request)
{
    Record record{};
    memcpy(&record, request.data(), sizeof record);
    return record;
}

template <class Record>
Payload payloadOf(const Record &record)
{
    const auto bytes = std::as_bytes(std::span(&record, 1));
    return {bytes.begin(), bytes.end()};
}

template <size_t Width>
std::string boundedText(const char (&field)[Width])
{
    return {field, strnlen(field, Width)};
}

// The data's texts are known to fit; the rest of the field is zero already.
template <size_t Width>
void put(char (&field)[Width], std::string_view text)
{
    text.copy(field, Width - 1);
}

// A list of as many entries as fit into one answer.
template <class Entry>
Payload listOf(int32_t result, const std::vector<Entry> &entries)
{
    constexpr size_t kMost = (host::kMaxPayload - sizeof(ListHeader)) / sizeof(Entry);
    const size_t count = std::min(entries.size(), kMost);
    const ListHeader header{result, static_cast<uint32_t>(count)};
    Payload payload(sizeof header + count * sizeof(Entry));
    memcpy(payload.data(), &header, sizeof header);
    std::ranges::copy(std::as_bytes(std::span(entries.data(), count)), payload.begin() + sizeof header);
    return payload;
}

AddressEntry entryOf(const ServiceAddress &address)
{
    AddressEntry entry{};
    entry.protocolType = address.protocolType;
    put(entry.address, address.address);
    entry.workStatus = address.working ? 1 : 0;
    return entry;
}

Payload addressList(const AddressList &addresses)
{
    std::vector<AddressEntry> entries;
    std::ranges::transform(addresses, std::back_inserter(entries), entryOf);
    return listOf(0, entries);
}

Payload noSuchList()
{
    return payloadOf(ListHeader{-ENOENT, 0});
}

// The list under the key, or one that says that there is none.
template <class Map>
Payload listUnder(const Map &lists, const typename Map::key_type &key)
{
    const auto found = lists.find(key);
    return found == lists.end() ? noSuchList() : addressList(found->second);
}

// The data's own addresses come first, so that what they say of an address counts.
Payload nodeAddresses(const Knowledge &knowledge, Request)
{
    AddressList addresses = knowledge.data.addresses;
    std::set<std::pair<std::string, uint32_t>> known;
    for (const ServiceAddress &address : addresses) {
        known.emplace(address.address, address.protocolType);
    }
    for (const AddressSource &source : knowledge.data.addressSources) {
        for (const Interface &interface : knowledge.machine) {
            if (!interface.address.empty() && matches(source.filter, interface) &&
                known.emplace(interface.address, source.protocolType).second) {
                addresses.push_back({interface.address, source.protocolType, source.working && interface.up});
            }
        }
    }
    return addressList(addresses);
}

InterfaceEntry entryOf(const Interface &interface)
{
    InterfaceEntry entry{};
    put(entry.name, interface.name);
    entry.index = interface.index;
    entry.flags = (interface.up ? kInterfaceUp : 0) | (interface.running ? kInterfaceRunning : 0) |
                  (interface.loopback ? kInterfaceLoopback : 0);
    entry.mtu = interface.mtu;
    entry.prefixLength = interface.prefixLength;
    put(entry.address, interface.address);
    return entry;
}

Payload nodeInterfaces(const Knowledge &knowledge, Request)
{
    std::vector<InterfaceEntry> entries;
    std::set<std::pair<std::string, std::string>> known;
    const auto add = [&](const Interface &interface) {
        if (known.emplace(interface.name, interface.address).second) {
            entries.push_back(entryOf(interface));
        }
    };
    std::ranges::for_each(knowledge.data.interfaces, add);
    for (const Filter &filter : knowledge.data.interfaceSources) {
        for (const Interface &interface : knowledge.machine) {
            if (matches(filter, interface)) {
                add(interface);
            }
        }
    }
    return listOf(0, entries);
}

// The value under the address of a request: its result word, and null unless that is 0.
template <class Value>
std::pair<int32_t, const Value *> valueUnder(const std::map<std::string, Value> &values, Request request)
{
    const auto address = parseAddress(boundedText(recordOf<AddressRequest>(request).address));
    if (!address) {
        return {-EINVAL, nullptr};
    }
    const auto found = values.find(address->text());
    if (found == values.end()) {
        return {-ENOENT, nullptr};
    }
    return {0, &found->second};
}

Payload hdfsConfiguration(const Knowledge &knowledge, Request request)
{
    const auto [result, configuration] = valueUnder(knowledge.data.hdfs, request);
    HdfsConfigurationAnswer answer{};
    answer.result = result;
    if (configuration != nullptr) {
        answer.fsId = configuration->fsId;
        put(answer.dtreePath, configuration->dtreePath);
        put(answer.subnet, configuration->subnet);
        answer.tenantId = configuration->tenantId;
    }
    return payloadOf(answer);
}

Payload tenant(const Knowledge &knowledge, Request request)
{
    const auto [result, tenantId] = valueUnder(knowledge.data.tenants, request);
    return payloadOf(TenantAnswer{result, tenantId != nullptr ? *tenantId : 0});
}

Payload neighbourAddresses(const Knowledge &knowledge, Request request)
{
    return listUnder(knowledge.data.neighbours, recordOf<NeighbourRequest>(request).edsLsId);
}

Payload zoneAddresses(const Knowledge &knowledge, Request)
{
    return addressList(knowledge.data.zone);
}

ZoneKey keyOf(Request request)
{
    const auto zone = recordOf<ZoneRequest>(request);
    return {zone.fsId, zone.tenantId, boundedText(zone.subnet)};
}

Payload globalZoneAddresses(const Knowledge &knowledge, Request request)
{
    return listUnder(knowledge.data.globalZones, keyOf(request));
}

Payload subnetAddresses(const Knowledge &knowledge, Request request)
{
    return listUnder(knowledge.data.subnets, keyOf(request));
}

struct NodeIdRow {
    char id[kNodeIdRow];
};

Payload globalZoneNodeIds(const Knowledge &knowledge, Request)
{
    std::vector<NodeIdRow> rows(knowledge.data.nodeIds.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        put(rows[i].id, knowledge.data.nodeIds[i]);
    }
    return listOf(0, rows);
}

Payload contactedZone(const Knowledge &knowledge, Request)
{
    const auto &zone = knowledge.data.contactedZone;
    return payloadOf(zone ? ContactedZoneAnswer{0, zone->zoneId, zone->fsId, zone->tenantId}
                          : ContactedZoneAnswer{-ENOENT, 0, 0, 0});
}

Payload zoneDomain(const Knowledge &knowledge, Request)
{
    ZoneDomainAnswer answer{};
    answer.result = knowledge.data.zoneDomain ? 0 : -ENOENT;
    put(answer.domain, knowledge.data.zoneDomain.value_or(""));
    return payloadOf(answer);
}

constexpr Question kQuestions[] = {
    {kNodeAddresses, "node addresses", sizeof(EmptyRequest), nodeAddresses},
    {kHdfsConfiguration, "HDFS configuration", sizeof(AddressRequest), hdfsConfiguration},
    {kNeighbourAddresses, "neighbour addresses", sizeof(NeighbourRequest), neighbourAddresses},
    {kZoneAddresses, "zone addresses", sizeof(EmptyRequest), zoneAddresses},
    {kNodeInterfaces, "node interfaces", sizeof(EmptyRequest), nodeInterfaces},
    {kGlobalZoneAddresses, "global zone addresses", sizeof(ZoneRequest), globalZoneAddresses},
    {kGlobalZoneNodeIds, "global zone node ids", sizeof(EmptyRequest), globalZoneNodeIds},
    {kTenant, "tenant", sizeof(AddressRequest), tenant},
    {kContactedZone, "contacted zone", sizeof(EmptyRequest), contactedZone},
    {kSubnetAddresses, "subnet addresses", sizeof(ZoneRequest), subnetAddresses},
    {kZoneDomain, "zone domain", sizeof(EmptyRequest), zoneDomain},
};

// The one request that has a length of its own announces it in its header.
size_t expectedSize(const Question &question, Request request)
{
    if (question.type != kNeighbourAddresses || request.size() < sizeof(NeighbourRequest)) {
        return question.requestSize;
    }
    return sizeof(NeighbourRequest) * (size_t{1} + recordOf<NeighbourRequest>(request).count);
}

} // namespace

std::span<const Question> questions()
{
    return kQuestions;
}

const Question *findQuestion(uint32_t type)
{
    const auto *question = std::ranges::find(kQuestions, type, &Question::type);
    return question == std::end(kQuestions) ? nullptr : question;
}

Answer answerQuestion(const Knowledge &knowledge, uint32_t type, Request request)
{
    const Question *question = findQuestion(type);
    if (question == nullptr) {
        return {-EOPNOTSUPP, {}};
    }
    if (request.size() != expectedSize(*question, request)) {
        return {-EINVAL, {}};
    }
    return {0, question->build(knowledge, request)};
}

} // namespace storage
