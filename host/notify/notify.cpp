// Owns the registry of modules and events. Its lock is held while an event is recorded, so that each module is told in
// the order of the calls; it is taken before the lock of the event stream. NotifyHold takes it for longer.

#include "notify/notify.h"

#include "platform/log.h"
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <nasctrl/host/notify.h>
#include <new>
#include <string>

namespace host {
namespace {

constexpr uint32_t kVnodeMoveIn = 1;
constexpr uint32_t kVnodeMoveOut = 2;

struct Module {
    uint32_t number;
    const char *name;
    std::array<std::string, kMaxNotifyEvents> events; // names by number; empty = not registered
};

std::recursive_mutex s_lock; // whoever holds notifications back may tell himself
// FMM's events are registered by the library. DLG is told of the same ones, but for the shard change, and nobody
// registers them.
std::array<Module, 2> s_modules = {{
    {kNotifyFmm, "FMM", {}},
    {kNotifyDlg, "DLG", {"", "VNODE_MOVEIN", "VNODE_MOVEOUT", "SCALE_OUT", "SCALE_IN", "NODE_FAULT", "NODE_RECOVER"}},
}};
std::atomic<uint64_t> s_refused;

Module *findModule(uint32_t number)
{
    for (Module &module : s_modules) {
        if (module.number == number) {
            return &module;
        }
    }
    return nullptr;
}

// The name of a registered event, with s_lock held.
const std::string *findEvent(const Module &module, uint32_t event)
{
    return event < kMaxNotifyEvents && !module.events[event].empty() ? &module.events[event] : nullptr;
}

// A node event carries the LS id; a vnode move an address, which is of no use once the call is over: its records are.
EventDetails detailsOf(const Module &module, uint32_t event, const notify_arg_t &arg)
{
    EventDetails details{.module = module.name, .name = module.events[event]};
    if (event == kVnodeMoveIn || event == kVnodeMoveOut) {
        readMoves(arg.data, details);
    } else {
        details.data = arg.data;
    }
    return details;
}

// The code of a module's answer: 0, or why it did not take the event.
int32_t deliver(Module &module, uint32_t event, const notify_arg_t &arg)
{
    const std::lock_guard hold(s_lock);
    if (findEvent(module, event) == nullptr) {
        return -ENOENT;
    }
    return recordEvent(detailsOf(module, event, arg)) == 0 ? -ENOMEM : 0;
}

int32_t tell(Module &module, uint32_t event, const notify_arg_t &arg)
{
    try {
        return deliver(module, event, arg);
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

int32_t refuse(uint32_t module, uint32_t event, int32_t code, const char *why)
{
    s_refused.fetch_add(1);
    HOST_LOG(NASCTRL_LOG_ERROR, "notify: event %u of module %u is refused with %d: %s", event, module, code, why);
    return code;
}

// A second registration of a number takes the place of the first.
int32_t registerEvent(Module &module, uint32_t event, const char (&name)[33])
{
    try {
        const std::lock_guard hold(s_lock);
        module.events[event].assign(name, strnlen(name, kMaxEventName));
        return 0;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

} // namespace

NotifyHold::NotifyHold()
{
    s_lock.lock();
}

NotifyHold::~NotifyHold()
{
    s_lock.unlock();
}

uint64_t refusedNotifications()
{
    return s_refused.load();
}

} // namespace host

int32_t notifyEventRegister(uint32_t module, uint32_t event, const notify_event_reg_t *record)
{
    host::Module *target = host::findModule(module);
    if (target == nullptr || event >= host::kMaxNotifyEvents || record == nullptr || record->event_name[0] == '\0') {
        HOST_LOG(NASCTRL_LOG_ERROR, "notify: event %u cannot be registered for module %u", event, module);
        return -EINVAL;
    }
    return host::registerEvent(*target, event, record->event_name);
}

int32_t notifyCall(uint32_t module, uint32_t event, void *arg)
{
    host::Module *target = host::findModule(module);
    if (target == nullptr) {
        return host::refuse(module, event, -ENODEV, "there is no such module");
    }
    if (arg == nullptr) {
        return host::refuse(module, event, -EINVAL, "it has no argument");
    }
    const int32_t result = host::tell(*target, event, *static_cast<const notify_arg_t *>(arg));
    if (result == 0) {
        return 0;
    }
    return host::refuse(module, event, result,
                        result == -ENOENT ? "the module has registered no such event" : "memory short");
}
