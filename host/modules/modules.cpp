/*
 * Owns the modules and, for each, its addresses. stateLock guards all of it and is held only to look and to note: a
 * socket is opened with the lock released, while its address is marked as being opened, and whoever wants the same
 * address meanwhile waits on opened. The greeter's lock is taken inside stateLock.
 *
 * A hook is told an address but not its protocol type. The library asks ModuleNeedInvokeAdapter right before each
 * hook, on the same thread, so that answer is remembered per thread: an address is held once for each type that added
 * it, and its socket lives until the last of them is deleted.
 */
#include "modules/modules.h"

#include "modules/greeter.h"
#include "platform/log.h"
#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <nasctrl/host/adapters.h>
#include <nasctrl/ip_manager.h>
#include <netinet/in.h>
#include <optional>
#include <set>
#include <stdexcept>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace host {

namespace {

// Of an address that came without the question for its type.
constexpr uint32_t kUnknownType = UINT32_MAX;

struct Address {
    bool opening = false;
    uint64_t listener = 0;      // the greeter's id; 0 = not listening
    std::set<uint32_t> holders; // the protocol types that want it
    std::string failure;        // why it is not listening
};

struct Module {
    ModuleConfig config;
    std::map<std::string, Address> addresses;
    ModuleCounts counts = {};
};

std::mutex stateLock;
std::condition_variable opened;
std::array<std::optional<Module>, kModuleSlots> modules;
std::unique_ptr<Greeter> greeter; // null = closed: no address is opened
thread_local uint32_t askedType = kUnknownType;

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t size = 0; // 0 = the text is no address of the family
};

SocketAddress socketAddress(const std::string &text, uint32_t family, uint16_t port)
{
    SocketAddress result;
    if (family == AF_INET) {
        auto *address = reinterpret_cast<sockaddr_in *>(&result.storage);
        address->sin_family = AF_INET;
        address->sin_port = htons(port);
        result.size = inet_pton(AF_INET, text.c_str(), &address->sin_addr) == 1 ? sizeof *address : 0;
    } else if (family == AF_INET6) {
        auto *address = reinterpret_cast<sockaddr_in6 *>(&result.storage);
        address->sin6_family = AF_INET6;
        address->sin6_port = htons(port);
        result.size = inet_pton(AF_INET6, text.c_str(), &address->sin6_addr) == 1 ? sizeof *address : 0;
    }
    return result;
}

// An IPv6 socket leaves the IPv4 addresses to sockets of their own.
bool setOptions(int fd, int family)
{
    const int on = 1;
    return setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           (family != AF_INET6 || setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on) == 0);
}

// A listening socket, or a negative errno.
int openSocket(const SocketAddress &address)
{
    if (address.size == 0) {
        return -EINVAL;
    }
    const int family = address.storage.ss_family;
    const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        return -errno;
    }
    if (!setOptions(fd, family) || bind(fd, reinterpret_cast<const sockaddr *>(&address.storage), address.size) != 0 ||
        listen(fd, SOMAXCONN) != 0) {
        const int error = errno;
        close(fd);
        return -error;
    }
    return fd;
}

std::string greetingOf(const ModuleConfig &config, const std::string &text, uint32_t family)
{
    const std::string shown = family == AF_INET6 ? "[" + text + "]" : text;
    return "nasctrld " + config.name + " " + shown + ":" + std::to_string(config.port) + "\n";
}

// Gives the socket to the greeter; the caller holds stateLock. Returns 0, or an errno value and the socket is closed.
int serve(Address &address, int fd, const std::string &greeting)
{
    if (!greeter) {
        close(fd);
        return ECANCELED;
    }
    address.listener = greeter->add(fd, greeting);
    return address.listener != 0 ? 0 : errno;
}

uint32_t refused(const std::string &name, const char *text, uint16_t port, int error)
{
    HOST_LOG(NASCTRL_LOG_ERROR, "module %s: cannot listen on %s port %u: %s", name.c_str(), text, port,
             strerror(error));
    return static_cast<uint32_t>(error);
}

// What stays of an addition's outcome; the caller holds stateLock.
void note(ModuleCounts &counts, Address &address, uint32_t type, int error)
{
    address.opening = false;
    address.failure = error != 0 ? strerror(error) : "";
    if (error == 0) {
        address.holders.insert(type);
    }
    ++(error == 0 ? counts.additions : counts.failures);
}

uint32_t addAddress(Module &module, const std::string &text, uint32_t family, uint32_t type)
{
    const ModuleConfig &config = module.config;
    std::unique_lock hold(stateLock);
    opened.wait(hold, [&] { return !module.addresses[text].opening; });
    Address &address = module.addresses[text];
    module.counts.retries += address.failure.empty() ? 0 : 1;
    if (address.listener != 0) {
        note(module.counts, address, type, 0);
        return 0;
    }
    address.opening = true;
    hold.unlock();
    const int fd = openSocket(socketAddress(text, family, config.port));
    hold.lock();
    const int error = fd >= 0 ? serve(address, fd, greetingOf(config, text, family)) : -fd;
    note(module.counts, address, type, error);
    hold.unlock();
    opened.notify_all();
    if (error != 0) {
        return refused(config.name, text.c_str(), config.port, error);
    }
    HOST_LOG(NASCTRL_LOG_PROGRESS, "module %s: listens on %s port %u", config.name.c_str(), text.c_str(), config.port);
    return 0;
}

uint32_t deleteAddress(Module &module, const std::string &text, uint32_t type)
{
    std::unique_lock hold(stateLock);
    const auto isOpening = [&] {
        const auto found = module.addresses.find(text);
        return found != module.addresses.end() && found->second.opening;
    };
    opened.wait(hold, [&] { return !isOpening(); });
    ++module.counts.deletions;
    const auto found = module.addresses.find(text);
    if (found == module.addresses.end()) {
        return 0;
    }
    found->second.holders.erase(type);
    if (!found->second.holders.empty()) {
        return 0;
    }
    const uint64_t listener = found->second.listener;
    if (listener != 0 && greeter) {
        greeter->remove(listener);
    }
    module.addresses.erase(found);
    hold.unlock();
    if (listener != 0) {
        HOST_LOG(NASCTRL_LOG_PROGRESS, "module %s: closed %s port %u", module.config.name.c_str(), text.c_str(),
                 module.config.port);
    }
    return 0;
}

uint32_t onEvent(unsigned slot, uint32_t event, const char *text, uint32_t family)
{
    const uint32_t type = std::exchange(askedType, kUnknownType);
    if (!modules[slot]) {
        return 0;
    }
    Module &module = *modules[slot];
    if (text == nullptr) {
        return refused(module.config.name, "(null)", module.config.port, EINVAL);
    }
    switch (event) {
    case NAS_IP_EVENT_ADD:
        return addAddress(module, text, family, type);
    case NAS_IP_EVENT_DELETE:
        return deleteAddress(module, text, type);
    default:
        return EINVAL;
    }
}

// A hook is not told its slot: one function for each.
template <unsigned Slot>
uint32_t hookOf(uint32_t event, const char *addr, uint32_t family)
{
    return onEvent(Slot, event, addr, family);
}

template <unsigned... Slots>
constexpr std::array<ip_event_hook, sizeof...(Slots)> hookTable(std::integer_sequence<unsigned, Slots...>)
{
    return {hookOf<Slots>...};
}

constexpr auto kHooks = hookTable(std::make_integer_sequence<unsigned, kModuleSlots>());
static_assert(kModuleSlots == NAS_IP_MODULES);

ModuleState stateOf(const Module &module)
{
    ModuleState state{.config = module.config, .listening = {}, .failures = {}, .counts = module.counts};
    for (const auto &[text, address] : module.addresses) {
        if (address.listener != 0) {
            state.listening.push_back(text);
        } else if (!address.failure.empty()) {
            state.failures.push_back({text, address.failure});
        }
    }
    return state;
}

} // namespace

void configureModules(const std::vector<ModuleConfig> &configs)
{
    std::array<std::optional<Module>, kModuleSlots> taken;
    for (const ModuleConfig &config : configs) {
        if (config.slot >= kModuleSlots) {
            throw std::invalid_argument("module " + config.name + ": slot " + std::to_string(config.slot) +
                                        " is not 0 to 5");
        }
        auto &place = taken[config.slot];
        if (place) {
            throw std::invalid_argument("modules " + place->config.name + " and " + config.name +
                                        ": both are in slot " + std::to_string(config.slot));
        }
        place = Module{config, {}, {}};
    }
    auto fresh = std::make_unique<Greeter>();
    const std::scoped_lock hold(stateLock);
    modules = std::move(taken);
    greeter = std::move(fresh);
}

void registerModuleHooks()
{
    for (unsigned slot = 0; slot < kModuleSlots; ++slot) {
        if (slot != kLifSlot && modules[slot]) {
            NasIpMgrRegisterIpEvent(slot, kHooks[slot]);
        }
    }
}

void closeModules()
{
    std::unique_ptr<Greeter> last;
    const std::scoped_lock hold(stateLock);
    last = std::move(greeter);
    for (auto &module : modules) {
        if (module) {
            std::erase_if(module->addresses, [](const auto &entry) { return !entry.second.opening; });
        }
    }
}

std::vector<ModuleState> moduleStates()
{
    const std::scoped_lock hold(stateLock);
    std::vector<ModuleState> states;
    for (const auto &module : modules) {
        if (module) {
            states.push_back(stateOf(*module));
        }
    }
    return states;
}

} // namespace host

using namespace host;

uint32_t ModuleNeedInvokeAdapter(uint32_t module, uint32_t proto_type)
{
    if (module >= kModuleSlots || !modules[module]) {
        return 0;
    }
    askedType = proto_type;
    const auto &types = modules[module]->config.protoTypes;
    return std::find(types.begin(), types.end(), proto_type) != types.end() ? 1 : 0;
}

uint32_t LifIpEventAdpter(uint32_t event, const char *addr, uint32_t family)
{
    return onEvent(kLifSlot, event, addr, family);
}
