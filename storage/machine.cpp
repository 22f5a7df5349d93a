#include "machine.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <fnmatch.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <netinet/in.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace storage {

namespace {

constexpr size_t kTakenAtOnce = 8192;

[[noreturn]] void failErrno(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

struct FreeInterfaces {
    void operator()(ifaddrs *list) const { freeifaddrs(list); }
};
using InterfaceList = std::unique_ptr<ifaddrs, FreeInterfaces>;

InterfaceList listInterfaces()
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        failErrno("getifaddrs");
    }
    return InterfaceList(list);
}

IpAddress addressOf(const sockaddr &address)
{
    IpAddress result{address.sa_family, {}};
    if (address.sa_family == AF_INET) {
        memcpy(result.bytes.data(), &reinterpret_cast<const sockaddr_in &>(address).sin_addr, sizeof(in_addr));
    } else {
        memcpy(result.bytes.data(), &reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr, sizeof(in6_addr));
    }
    return result;
}

bool isLinkLocal(const sockaddr &address)
{
    return address.sa_family == AF_INET6 &&
           IN6_IS_ADDR_LINKLOCAL(&reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr);
}

uint32_t prefixOf(const sockaddr *mask, int family)
{
    uint32_t bits = 0;
    if (mask != nullptr) {
        sockaddr_storage whole{};
        memcpy(&whole, mask, family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6));
        whole.ss_family = static_cast<sa_family_t>(family);
        for (const uint8_t byte : addressOf(reinterpret_cast<const sockaddr &>(whole)).bytes) {
            bits += static_cast<uint32_t>(std::popcount(byte));
        }
    }
    return bits;
}

// 0 when the interface has just gone.
uint32_t mtuOf(const std::string &name)
{
    ifreq request{};
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool known = fd >= 0 && ioctl(fd, SIOCGIFMTU, &request) == 0;
    if (fd >= 0) {
        close(fd);
    }
    return known ? static_cast<uint32_t>(request.ifr_mtu) : 0;
}

// An address may carry a label, "eth0:1", in the place of its interface's name.
std::string nameOf(const ifaddrs &entry)
{
    const std::string name = entry.ifa_name;
    return name.substr(0, name.find(':'));
}

Interface bareInterface(const ifaddrs &entry)
{
    Interface interface;
    interface.name = nameOf(entry);
    interface.index = if_nametoindex(interface.name.c_str());
    interface.up = (entry.ifa_flags & IFF_UP) != 0;
    interface.running = (entry.ifa_flags & IFF_RUNNING) != 0;
    interface.loopback = (entry.ifa_flags & IFF_LOOPBACK) != 0;
    interface.mtu = mtuOf(interface.name);
    return interface;
}

} // namespace

std::vector<Interface> readMachineInterfaces()
{
    const InterfaceList list = listInterfaces();
    std::map<std::string, Interface> bare;
    std::vector<Interface> found;
    for (const ifaddrs *entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
        auto known = bare.find(nameOf(*entry));
        if (known == bare.end()) { // asking the system for each address anew would take long where there are many
            known = bare.emplace(nameOf(*entry), bareInterface(*entry)).first;
        }
        const int family = entry->ifa_addr != nullptr ? entry->ifa_addr->sa_family : AF_UNSPEC;
        if ((family != AF_INET && family != AF_INET6) || isLinkLocal(*entry->ifa_addr)) {
            continue;
        }
        Interface interface = known->second;
        interface.address = addressOf(*entry->ifa_addr).text();
        interface.prefixLength = prefixOf(entry->ifa_netmask, family);
        found.push_back(std::move(interface));
    }
    for (const auto &[name, interface] : bare) {
        if (std::ranges::find(found, name, &Interface::name) == found.end()) {
            found.push_back(interface);
        }
    }
    std::ranges::stable_sort(found, {}, &Interface::index);
    return found;
}

bool matches(const Filter &filter, const Interface &interface)
{
    if (fnmatch(filter.interface.c_str(), interface.name.c_str(), 0) != 0) {
        return false;
    }
    if (!filter.network) {
        return true;
    }
    const auto address = parseAddress(interface.address);
    return address && filter.network->contains(*address);
}

MachineWatch::MachineWatch() : socket_(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE))
{
    sockaddr_nl groups{};
    groups.nl_family = AF_NETLINK;
    groups.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (socket_ < 0 || bind(socket_, reinterpret_cast<const sockaddr *>(&groups), sizeof groups) != 0) {
        const int error = errno;
        if (socket_ >= 0) {
            close(socket_);
        }
        throw std::system_error(error, std::generic_category(), "netlink");
    }
}

MachineWatch::~MachineWatch()
{
    close(socket_);
}

bool MachineWatch::takeChanges() const
{
    std::array<char, kTakenAtOnce> room{};
    bool told = false;
    for (;;) {
        const ssize_t count = recv(socket_, room.data(), room.size(), 0);
        if (count < 0 && errno != ENOBUFS && errno != EINTR) {
            return told;
        }
        told = true; // a queue that ran over (ENOBUFS) has lost news, and is news itself
    }
}

} // namespace storage
