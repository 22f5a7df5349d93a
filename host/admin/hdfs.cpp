/*
 * Questions to the storage-side service, asked by the library as any front end would have it ask. Each waits for the
 * service, so they run beside the calls that only read.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "admin/record_shape.h"
#include "platform/memory.h"
#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <nasctrl/ipc.h>
#include <nlohmann/json.hpp>
#include <system_error>

namespace host::admin {

namespace {

// ---- answers

constexpr FieldShape kResult{"result", FieldKind::number, 0, 4};
constexpr FieldShape kCount{"count", FieldKind::unsignedNumber, 4, 4};

constexpr std::array kListHead = {kResult, kCount};
constexpr std::array kAddressEntry = {
    FieldShape{"address", FieldKind::text, offsetof(node_ip_entry, addr), sizeof(node_ip_entry::addr)},
    FieldShape{"protocol_type", FieldKind::unsignedNumber, offsetof(node_ip_entry, proto_type), 4},
    FieldShape{"work_status", FieldKind::unsignedNumber, offsetof(node_ip_entry, work_status), 4},
};
constexpr std::array kInterfaceEntry = {
    FieldShape{"name", FieldKind::text, 0, 16},
    FieldShape{"index", FieldKind::unsignedNumber, 16, 4},
    FieldShape{"flags", FieldKind::unsignedNumber, 20, 4},
    FieldShape{"mtu", FieldKind::unsignedNumber, 24, 4},
    FieldShape{"prefix_length", FieldKind::unsignedNumber, 28, 4},
    FieldShape{"address", FieldKind::text, 32, 64},
};
constexpr std::array kConfigurationHead = {
    kResult,
    FieldShape{"fs_id", FieldKind::unsignedNumber, 4, 4},
    FieldShape{"dtree_path", FieldKind::text, 8, 4096},
    FieldShape{"subnet", FieldKind::text, 4104, 64},
    FieldShape{"tenant_id", FieldKind::unsignedNumber, 4168, 4},
};
constexpr std::array kTenantHead = {kResult, FieldShape{"tenant_id", FieldKind::unsignedNumber, 4, 4}};
constexpr std::array kContactedHead = {
    kResult,
    FieldShape{"zone_id", FieldKind::unsignedNumber, 4, 4},
    FieldShape{"fs_id", FieldKind::unsignedNumber, 8, 4},
    FieldShape{"tenant_id", FieldKind::unsignedNumber, 12, 4},
};
constexpr std::array kDomainHead = {kResult, FieldShape{"domain", FieldKind::text, 4, 254}};

constexpr RecordShape kAddressList{kListHead, 8, kAddressEntry, sizeof(node_ip_entry)};
constexpr RecordShape kInterfaceList{kListHead, 8, kInterfaceEntry, 96};
constexpr RecordShape kConfiguration{kConfigurationHead, 4172};
constexpr RecordShape kTenant{kTenantHead, 8};
constexpr RecordShape kContacted{kContactedHead, 16};
constexpr RecordShape kDomain{kDomainHead, 258};

// ---- requests, from the fields of a body

constexpr size_t kAddressSize = 64;
constexpr size_t kNeighbourHeader = 72;

std::string paddedText(const std::string &name, const std::string &text, size_t size)
{
    if (text.size() >= size) {
        throw CallError(kBadRequest, name + ": must not be longer than " + std::to_string(size - 1) + " bytes");
    }
    std::string padded = text;
    padded.resize(size);
    return padded;
}

template <typename Record>
std::string bytesOf(const Record &record)
{
    return {reinterpret_cast<const char *>(&record), sizeof record};
}

std::string noRequest(const std::string &body)
{
    if (!body.empty()) {
        parseFields(body, {});
    }
    return {};
}

std::string addressRequest(const std::string &body)
{
    const std::string address = textField(parseFields(body, {"address"}), "address");
    checkAddress("address", address);
    return paddedText("address", address, kAddressSize);
}

std::string zoneRequest(const std::string &body)
{
    const Json fields = parseFields(body, {"fs_id", "tenant_id", "subnet"});
    zone_request request{};
    request.fsId = numberField(fields, "fs_id", UINT32_MAX);
    request.tenantId = numberField(fields, "tenant_id", UINT32_MAX);
    const std::string subnet = paddedText("subnet", textField(fields, "subnet"), sizeof request.subnet);
    subnet.copy(request.subnet, sizeof request.subnet);
    return bytesOf(request);
}

// Without entries: the service reads the header only.
std::string neighbourRequest(const std::string &body)
{
    const auto lsId = static_cast<int32_t>(numberField(parseFields(body, {"eds_ls_id"}), "eds_ls_id", INT32_MAX));
    return paddedText("", bytesOf(lsId), kNeighbourHeader);
}

// ---- the library's functions, in the few forms that they have

int32_t call(int32_t (*ask)(const char *, void **), const std::string &request, void **response)
{
    return ask(request.data(), response);
}

int32_t call(int32_t (*ask)(const void *, void **), const std::string &request, void **response)
{
    return ask(request.data(), response);
}

int32_t call(int32_t (*ask)(const zone_request *, void **), const std::string &request, void **response)
{
    zone_request record{};
    memcpy(&record, request.data(), sizeof record);
    return ask(&record, response);
}

int32_t call(int32_t (*ask)(void **), const std::string & /*request*/, void **response)
{
    return ask(response);
}

int32_t call(int32_t (*ask)(node_ip_list **), const std::string & /*request*/, void **response)
{
    node_ip_list *list = nullptr;
    const int32_t code = ask(&list);
    *response = list;
    return code;
}

void release(void (*free)(void *), void *response)
{
    free(response);
}

void release(void (*free)(void **), void *response)
{
    free(&response);
}

void freeBlock(void *block)
{
    nas_mem_comm_free(block, "postQuestion", __LINE__);
}

// The answer decoded; null without one.
template <auto Ask, auto Release, const RecordShape &Shape>
Json recordOf(const std::string &request, int32_t &code)
{
    void *response = nullptr;
    code = call(Ask, request, &response);
    if (code != 0) {
        return nullptr;
    }
    const auto free = [](void *block) { release(Release, block); };
    const std::unique_ptr<void, decltype(free)> guard(response, free);
    return decodeRecord(Shape, {static_cast<const std::byte *>(response), blockSize(response)});
}

Json nodeIds(const std::string & /*request*/, int32_t &code)
{
    char **texts = nullptr;
    uint32_t count = 0;
    code = GetHdfsGlobalZoneNodeId(&texts, &count);
    if (code != 0) {
        return nullptr;
    }
    Json entries = Json::array();
    for (uint32_t i = 0; i < count; ++i) {
        entries.push_back({{"node_id", texts[i]}});
    }
    if (texts != nullptr) {
        ReleaseHdfsGlobalZoneNodeId(texts, static_cast<int32_t>(count));
    }
    return {{"result", 0}, {"count", count}, {"entries", std::move(entries)}, {"rest", nullptr}};
}

struct Question {
    std::string_view name;
    std::string (*request)(const std::string &body);
    Json (*ask)(const std::string &request, int32_t &code);
};

constexpr std::array kQuestions = {
    Question{"node-ips", noRequest, recordOf<GetCurNodeIpList, FreeCurNodeIpList, kAddressList>},
    Question{"ifaces", noRequest, recordOf<GetCurNodeIfaceList, FreeCurNodeIfaceList, kInterfaceList>},
    Question{"conf", addressRequest, recordOf<GetHdfsConf, FreeHdfsConf, kConfiguration>},
    Question{"tenant", addressRequest, recordOf<GetTenantIdByIp, freeBlock, kTenant>},
    Question{"zone", noRequest, recordOf<GetHdfsZoneIpList, FreeHdfsZoneIpList, kAddressList>},
    Question{"neighbors", neighbourRequest, recordOf<GetHdfsNeighborIpList, FreeHdfsNeighborIpList, kAddressList>},
    Question{"global-zone", zoneRequest, recordOf<GetHdfsGlobalZoneIpList, freeBlock, kAddressList>},
    Question{"subnet", zoneRequest, recordOf<GetSubnetAllIpList, ReleaseSubnetAllIpList, kAddressList>},
    Question{"node-ids", noRequest, nodeIds},
    Question{"domain", noRequest, recordOf<GetZoneFullDomain, ReleaseGetZoneFullDomain, kDomain>},
    Question{"contacted", noRequest,
             recordOf<GetContactedZoneHdfsConfigure, ReleaseContactedZoneHdfsConfigure, kContacted>},
};

// Codes below 0 are errno values; one above is the service's own result, which type 10 hands on.
Json reasonOf(int32_t code)
{
    if (code == 0) {
        return nullptr;
    }
    return code < 0 ? std::generic_category().message(-code) : "the service's own result";
}

constexpr size_t kMaxControlIps = 1024;

using ControlIps = std::unique_ptr<ctrl_ip_list, decltype(&free)>;

ControlIps controlIpsOf(const std::vector<std::string> &addresses)
{
    const size_t size = sizeof(ctrl_ip_list) + addresses.size() * sizeof(ctrl_ip_entry);
    ControlIps list(static_cast<ctrl_ip_list *>(calloc(1, size)), free);
    if (!list) {
        throw std::bad_alloc();
    }
    for (const std::string &address : addresses) {
        ctrl_ip_entry &entry = list->entries[list->count++];
        entry.pending = 1;
        address.copy(entry.ip, sizeof entry.ip - 1);
    }
    return list;
}

} // namespace

Json postQuestion(const CallInput &input)
{
    const auto *question = std::ranges::find(kQuestions, input.argument, &Question::name);
    if (question == kQuestions.end()) {
        throw CallError(kNotFound, "there is no such question");
    }
    int32_t code = 0;
    Json answer = question->ask(question->request(input.body), code);
    return {{"question", question->name}, {"code", code}, {"reason", reasonOf(code)}, {"answer", std::move(answer)}};
}

Json postControlIps(const CallInput &input)
{
    const auto addresses = textsField(parseFields(input.body, {"addresses"}), "addresses", kMaxControlIps);
    for (const std::string &address : addresses) {
        checkAddress("addresses", address);
    }
    const ControlIps list = controlIpsOf(addresses);
    CTRL_GetIpsLsidByCtrlIp(list.get());
    Json rows = Json::array();
    for (uint32_t i = 0; i < list->count; ++i) {
        const ctrl_ip_entry &entry = list->entries[i];
        rows.push_back({{"address", entry.ip}, {"ls_id", entry.pending != 0 ? Json() : Json(entry.lsId)}});
    }
    return {{"addresses", std::move(rows)}};
}

} // namespace host::admin
