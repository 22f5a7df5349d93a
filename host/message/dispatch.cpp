/*
 * Owns the table of modules and the calls that are under way.
 *
 * The table only grows: registeredModules tells how many entries are readable without a lock, registerLock is held
 * while one is added. Each connected client has one call record, guarded by its own lock because a handler may let
 * another thread send its reply. No lock is taken while another is held, and none while a handler runs.
 */
#include "message/dispatch.h"

#include "message/counters.h"
#include "platform/log.h"
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <nasctrl/host/message.h>
#include <poll.h>
#include <vector>

namespace host {

namespace {

constexpr unsigned kMaxModules = 64;

using Handler = uint32_t (*)(svr_msg_t *);

struct Module {
    uint32_t id;
    Handler handler;
};

std::array<Module, kMaxModules> modules;
std::atomic<unsigned> registeredModules;
std::mutex registerLock;

struct Call {
    std::mutex lock;
    uint64_t serial = 0; // of the request being handled; 0 = none
    int client = -1;
    bool replied = false;
    std::vector<std::byte> reply;
};

std::array<Call, kMaxMessageClients> calls;
std::atomic<uint64_t> lastSerial;

const Module *findModule(uint32_t id)
{
    const unsigned count = registeredModules.load(std::memory_order_acquire);
    for (unsigned i = 0; i < count; ++i) {
        if (modules[i].id == id) {
            return &modules[i];
        }
    }
    return nullptr;
}

// Why a module cannot be registered, or null. The caller holds registerLock.
const char *refusal(uint32_t id, Handler handler)
{
    if (id == 0) {
        return "id 0 is no module";
    }
    if (handler == nullptr) {
        return "it has no handler";
    }
    if (findModule(id) != nullptr) {
        return "it is registered already";
    }
    return registeredModules.load() == kMaxModules ? "the table is full" : nullptr;
}

// The host's words of a record: which call of which client it belongs to.
struct CallTag {
    uint32_t slot;
    uint32_t serialLow;
    uint32_t serialHigh;
};
static_assert(sizeof(CallTag) == sizeof(svr_msg_t::reserved));

void beginCall(Call &call, const Sender &sender, svr_msg_t &record)
{
    const uint64_t serial = ++lastSerial;
    const CallTag tag{sender.slot, static_cast<uint32_t>(serial), static_cast<uint32_t>(serial >> 32)};
    memcpy(record.reserved, &tag, sizeof tag);
    const std::scoped_lock hold(call.lock);
    call.serial = serial;
    call.client = sender.socket;
    call.replied = false;
}

bool clientIsGone(int client)
{
    pollfd state{client, 0, 0};
    return poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLERR)) != 0;
}

// Keeps the reply for the call of that serial. Returns why it cannot, or null.
const char *keepReply(Call &call, uint64_t serial, const void *reply, uint32_t length)
{
    const std::scoped_lock hold(call.lock);
    if (call.serial != serial) {
        return "its handler has returned";
    }
    if (call.replied) {
        return "it is answered already";
    }
    if (clientIsGone(call.client)) {
        return "the client is gone";
    }
    const auto *bytes = static_cast<const std::byte *>(reply);
    call.reply.assign(bytes, bytes + length);
    call.replied = true;
    return nullptr;
}

const char *sendReply(const svr_msg_t &record, const void *reply, uint32_t length)
{
    if (reply == nullptr && length > 0) {
        return "there is no reply";
    }
    if (length > kMaxPayload) {
        return "the reply is too long";
    }
    CallTag tag{};
    memcpy(&tag, record.reserved, sizeof tag);
    const uint64_t serial = (static_cast<uint64_t>(tag.serialHigh) << 32) | tag.serialLow;
    if (tag.slot >= calls.size() || serial == 0) {
        return "it is no message of this service";
    }
    return keepReply(calls[tag.slot], serial, reply, length);
}

} // namespace

Answer dispatch(const FrameHeader &request, std::span<std::byte> payload, const Sender &sender)
{
    const Module *module = findModule(request.module);
    if (module == nullptr) {
        ++counters.undelivered;
        HOST_LOG(NASCTRL_LOG_ERROR, "message: opcode %u: no module %u", request.opcode, request.module);
        return {kNoReply, -ENOENT, {}};
    }
    ++counters.messages;
    Call &call = calls[sender.slot];
    svr_msg_t record{
        payload.data(),   static_cast<uint32_t>(payload.size()), request.module, request.opcode, {}, request.sequence,
        request.direction};
    beginCall(call, sender, record);
    const auto result = static_cast<int32_t>(module->handler(&record));
    // From here on no reply is taken, so what there is may be read without the lock.
    const std::scoped_lock hold(call.lock);
    call.serial = 0;
    if (!call.replied) {
        return {kNoReply, result, {}};
    }
    return {kReply, result, call.reply};
}

} // namespace host

using namespace host;

int32_t svr_regist_module(const svr_module_reg_t *record)
{
    if (record == nullptr) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: no module is registered: there is no record");
        return -EINVAL;
    }
    const std::scoped_lock hold(registerLock);
    if (const char *reason = refusal(record->module, record->handler)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: module %u is not registered: %s", record->module, reason);
        return -EINVAL;
    }
    const unsigned count = registeredModules.load();
    modules[count] = {record->module, record->handler};
    registeredModules.store(count + 1, std::memory_order_release);
    HOST_LOG(NASCTRL_LOG_PROGRESS, "message: module %u is registered", record->module);
    return 0;
}

uint32_t SvrSendResponse(svr_msg_t *record, const void *reply, uint32_t length)
{
    if (record == nullptr) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: no reply is sent: there is no record");
        return NAS_ERROR;
    }
    if (const char *reason = sendReply(*record, reply, length)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "message: no reply is sent to opcode %u of module %u: %s", record->opcode,
                 record->module, reason);
        return NAS_ERROR;
    }
    ++counters.replies;
    return NAS_OK;
}
