/*
 * The VPC table: the library's records, look-ups and file. Stricter than the library in what it takes, because the
 * library takes any text for an address and a record that its file cannot give back.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/vpc_file.h"
#include "admin/vpc_table.h"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <chrono>
#include <cstring>
#include <nasctrl/vpc.h>
#include <nlohmann/json.hpp>
#include <optional>
#include <vector>

namespace host::admin {

namespace {

constexpr std::chrono::milliseconds kPatience{50};
constexpr size_t kMaxId = 127;
constexpr int16_t kMaxLength = 32;

pthread_mutex_t s_table = PTHREAD_MUTEX_INITIALIZER;

struct Row {
    size_t slot;
    std::string id;
    std::string address;
    int16_t length;
};

// The table is held.
std::vector<Row> rows()
{
    std::vector<Row> used;
    for (const vpc_record &record : g_vpc) {
        if (record.in_use != 0) {
            used.push_back({static_cast<size_t>(&record - g_vpc),
                            {record.id, strnlen(record.id, sizeof record.id)},
                            {record.ip, strnlen(record.ip, sizeof record.ip)},
                            record.mask});
        }
    }
    return used;
}

Json shown(const Row &row)
{
    return {{"slot", row.slot}, {"id", row.id}, {"address", row.address}, {"length", row.length}};
}

// What the library's file holds for the records.
std::string fileText(const std::vector<Row> &records)
{
    std::string text;
    for (const Row &row : records) {
        text += row.id + ";" + row.address + "/" + std::to_string(row.length) + "\n\n";
    }
    return text;
}

// A byte that would part the id from the rest of its line in the file, or end the line.
bool breaksTheFile(char c)
{
    return c == ';' || static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

std::string idField(const Json &fields)
{
    std::string id = textField(fields, "id");
    if (id.empty() || id.size() > kMaxId) {
        throw CallError(kBadRequest, "id: must have 1 to " + std::to_string(kMaxId) + " bytes");
    }
    if (std::ranges::any_of(id, breaksTheFile)) {
        throw CallError(kBadRequest, "id: must hold neither ';' nor control characters");
    }
    return id;
}

struct Network {
    std::string address;
    int16_t length;
};

std::optional<Network> parseNetwork(const std::string &text)
{
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    const char *end = text.data() + text.size();
    const char *begin = slash == std::string::npos ? end : text.data() + slash + 1;
    in_addr room{};
    int16_t length = -1;
    const auto [stop, error] = std::from_chars(begin, end, length);
    const bool good = error == std::errc() && stop == end && length >= 0 && length <= kMaxLength;
    return good && inet_pton(AF_INET, address.c_str(), &room) == 1 ? std::optional(Network{address, length})
                                                                   : std::nullopt;
}

Network networkField(const Json &fields)
{
    const std::optional<Network> network = parseNetwork(textField(fields, "network"));
    if (!network) {
        throw CallError(kBadRequest,
                        "network: must be an IPv4 address, '/' and a length from 0 to " + std::to_string(kMaxLength));
    }
    return *network;
}

void refuseFields(const std::string &body)
{
    if (!body.empty()) {
        parseFields(body, {});
    }
}

// Null when there is no such record.
Json rowOf(const std::string &id, const Network &network)
{
    const std::vector<Row> records = rows();
    const auto found = std::ranges::find_if(records, [&](const Row &row) {
        return row.id == id && row.address == network.address && row.length == network.length;
    });
    return found == records.end() ? Json() : shown(*found);
}

} // namespace

VpcHold::VpcHold() : hold_(s_table, kPatience)
{
    if (!hold_.held()) {
        throw CallError(kBusy, "the VPC table is in use");
    }
}

Json getVpcs(const CallInput & /*input*/)
{
    const VpcHold hold;
    Json records = Json::array();
    for (const Row &row : rows()) {
        records.push_back(shown(row));
    }
    return {{"records", std::move(records)}};
}

Json postVpc(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"id", "network"});
    const std::string id = idField(fields);
    const Network network = networkField(fields);
    std::string text = network.address + "/" + std::to_string(network.length);
    const VpcHold hold;
    const uint32_t result = NasSetVpcInfo(id.c_str(), text.data());
    if (result == NAS_INVALID) {
        throw CallError(kBadRequest, "the table is full with " + std::to_string(NAS_VPC_RECORDS) + " records");
    }
    return {{"added", result == NAS_OK}, {"record", rowOf(id, network)}};
}

Json deleteVpcs(const CallInput &input)
{
    refuseFields(input.body);
    const VpcHold hold;
    const size_t count = rows().size();
    if (NasClearVpcInfo() != 0) {
        throw CallError(kInternalError, "the table was not cleared");
    }
    return {{"removed", count}};
}

Json getVpcOf(const CallInput &input)
{
    std::array<char, NAS_VPC_ID_SIZE> id{};
    sockaddr_in address{};
    address.sin_family = AF_INET;
    if (inet_pton(AF_INET, input.argument.c_str(), &address.sin_addr) != 1) {
        throw CallError(kBadRequest, "address: must be an IPv4 address");
    }
    const VpcHold hold;
    if (NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&address), id.data()) != NAS_OK) {
        throw CallError(kInternalError, "the look-up failed, the log tells why");
    }
    return {{"address", input.argument}, {"id", id.data()}, {"default", strcmp(id.data(), g_VpcDefault) == 0}};
}

Json postVpcCheck(const CallInput &input)
{
    const std::string id = idField(parseFields(input.body, {"id"}));
    const VpcHold hold;
    return {{"id", id}, {"known", NasCheckVpcID(id.c_str()) == 0}};
}

Json postVpcSave(const CallInput &input)
{
    refuseFields(input.body);
    const VpcHold hold;
    checkVpcFileWritable();
    NasVpcSave();
    const std::vector<Row> records = rows();
    const std::string text = fileText(records);
    const std::string found = readVpcFile();
    if (!found.starts_with(text)) {
        throw CallError(kInternalError, vpcFileName() + " does not hold all records; the log may tell why");
    }
    return {{"file", vpcFileName()}, {"records", records.size()}, {"left_bytes", found.size() - text.size()}};
}

Json postVpcReload(const CallInput &input)
{
    refuseFields(input.body);
    const VpcHold hold;
    readVpcFile(); // for its refusals: the library says nothing of a file that it cannot read
    const size_t before = rows().size();
    NasVpcLoad();
    const size_t records = rows().size();
    return {{"file", vpcFileName()}, {"added", records - before}, {"records", records}};
}

} // namespace host::admin
