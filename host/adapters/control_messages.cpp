// The answers to module 3's questions. docs/messages.md tells the layouts.

#include "adapters/adapters.h"
#include "adapters/lif_table.h"

#include "node.h"
#include "platform/copy_text.h"

#include <algorithm>
#include <cstring>
#include <nasctrl/host/adapters.h>
#include <new>

namespace {

using host::copyText;
using host::LifPort;

constexpr size_t kNameSize = 64;
constexpr size_t kArgumentOffset = 4; // behind the opcode
constexpr size_t kMaxReply = 1048576;

struct LifHeader {
    uint32_t total;
    uint32_t count;
    uint32_t next; // where to go on; 0 = this was the last
    uint32_t reserved;
};

struct LifRow {
    uint64_t id;
    uint64_t time;
    uint32_t index;
    char name[264];
    char ip[48];
    uint32_t reserved;
};

struct ControllerReply {
    uint32_t nodeId;
    uint32_t lsId;
    char name[kNameSize];
};

struct TenantReply {
    uint32_t result; // 0, or NAS_ERROR for an unknown tenant
    uint32_t tenantId;
    char name[kNameSize];
};

static_assert(sizeof(LifHeader) == 16 && sizeof(LifRow) == 336 && sizeof(ControllerReply) == 72 &&
              sizeof(TenantReply) == 72);

constexpr size_t kRowsPerReply = (kMaxReply - sizeof(LifHeader)) / sizeof(LifRow);

// The 32-bit word behind the opcode; false, and argument as it was, when the request ends before it.
bool readArgument(const svr_msg_t &record, uint32_t &argument)
{
    if (record.length < kArgumentOffset + sizeof(argument)) {
        return false;
    }
    memcpy(&argument, static_cast<const char *>(record.buffer) + kArgumentOffset, sizeof(argument));
    return true;
}

LifRow rowOf(const LifPort &port)
{
    LifRow row{};
    row.id = port.id;
    row.time = port.time;
    row.index = port.index;
    copyText(row.name, port.name);
    copyText(row.ip, port.ip);
    return row;
}

uint32_t sendLifPorts(svr_msg_t &record)
{
    uint32_t first = 0;
    readArgument(record, first);
    const host::LifTable table = host::readLifTable();
    if (!table.busyBuckets.empty()) {
        return NAS_ERROR; // the asker pages by index and would take ports that are left out for gone
    }
    const std::vector<LifPort> &ports = table.ports;
    const auto begin = std::ranges::lower_bound(ports, first, {}, &LifPort::index);
    const auto left = static_cast<size_t>(ports.end() - begin);
    const size_t count = std::min(left, kRowsPerReply);

    LifHeader header{};
    header.total = static_cast<uint32_t>(ports.size());
    header.count = static_cast<uint32_t>(count);
    header.next = count < left ? begin[static_cast<ptrdiff_t>(count)].index : 0;
    std::vector<char> reply(sizeof(header) + count * sizeof(LifRow));
    memcpy(reply.data(), &header, sizeof(header));
    for (size_t i = 0; i < count; ++i) {
        const LifRow row = rowOf(begin[static_cast<ptrdiff_t>(i)]);
        memcpy(reply.data() + sizeof(header) + i * sizeof(row), &row, sizeof(row));
    }
    return SvrSendResponse(&record, reply.data(), static_cast<uint32_t>(reply.size()));
}

} // namespace

uint32_t NasCtrlGetLifInfoAdapter(svr_msg_t *record)
{
    try {
        return sendLifPorts(*record);
    } catch (const std::bad_alloc &) {
        return NAS_ERROR;
    }
}

uint32_t NasCtrlGetControllerInfoAdapter(svr_msg_t *record)
{
    ControllerReply reply{};
    reply.nodeId = IpcGetLocalNid();
    reply.lsId = CgwGetInitLocalLsId();
    copyText(reply.name, host::adapterSettings().nodeName);
    return SvrSendResponse(record, &reply, sizeof(reply));
}

uint32_t NasCtrlGetTenantNameByTenantID(svr_msg_t *record)
{
    TenantReply reply{};
    if (!readArgument(*record, reply.tenantId)) {
        return NAS_INVALID;
    }
    const auto &tenants = host::adapterSettings().tenants;
    const auto tenant = tenants.find(reply.tenantId);
    reply.result = tenant == tenants.end() ? NAS_ERROR : NAS_OK;
    if (tenant != tenants.end()) {
        copyText(reply.name, tenant->second);
    }
    return SvrSendResponse(record, &reply, sizeof(reply));
}
