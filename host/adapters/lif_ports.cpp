// LIF ports: which of them have their performance path on, and which has an address.
//
// The set of performance ports has a lock of its own, a leaf: regLifportAdpter runs under the table's bucket locks.

#include "adapters/adapters.h"
#include "adapters/lif_table.h"

#include <algorithm>
#include <mutex>
#include <nasctrl/lif_port.h>
#include <new>
#include <set>
#include <string_view>

namespace host {
namespace {

std::mutex s_perfLock;
std::set<uint64_t> s_perfPorts;

} // namespace

std::vector<uint64_t> perfPorts()
{
    const std::lock_guard hold(s_perfLock);
    return {s_perfPorts.begin(), s_perfPorts.end()};
}

} // namespace host

// Every port supports it: the path of the reference host is a mark on the port.
uint32_t CheckLifPortSupportPerf(uint64_t)
{
    return 0;
}

uint32_t regLifportAdpter(uint64_t id, uint32_t on)
{
    const std::lock_guard hold(host::s_perfLock);
    if (on == 0) {
        return host::s_perfPorts.erase(id) == 1 ? NAS_OK : NAS_ERROR;
    }
    try {
        host::s_perfPorts.insert(id);
        return NAS_OK;
    } catch (const std::bad_alloc &) {
        return NAS_ERROR;
    }
}

// The reference host's arguments: the address's text, and where to store the 64-bit id of its port; four are unused.
uint32_t getNasLifPortIdByIpAdpter(uintptr_t ip, uintptr_t id, uintptr_t, uintptr_t, uintptr_t, uintptr_t)
{
    const auto *address = reinterpret_cast<const char *>(ip); // NOLINT(performance-no-int-to-ptr): the contract's form
    auto *out = reinterpret_cast<uint64_t *>(id);             // NOLINT(performance-no-int-to-ptr): the contract's form
    if (address == nullptr || out == nullptr) {
        return NAS_INVALID;
    }
    try {
        const std::vector<host::LifPort> ports = host::readLifTable().ports;
        const auto found = std::ranges::find(ports, std::string_view(address), &host::LifPort::ip);
        if (found == ports.end()) {
            return NAS_INVALID;
        }
        *out = found->id;
        return NAS_OK;
    } catch (const std::bad_alloc &) {
        return NAS_ERROR;
    }
}
