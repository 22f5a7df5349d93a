#include "network.h"

#include <arpa/inet.h>
#include <charconv>

namespace storage {

namespace {

constexpr unsigned kByteBits = 8;

unsigned bitsOf(int family)
{
    return (family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr)) * kByteBits;
}

} // namespace

std::string IpAddress::text() const
{
    std::array<char, INET6_ADDRSTRLEN> room{};
    inet_ntop(family, bytes.data(), room.data(), room.size());
    return room.data();
}

bool Network::contains(const IpAddress &other) const
{
    if (other.family != address.family) {
        return false;
    }
    for (unsigned bit = 0; bit < prefixLength; ++bit) {
        const unsigned mask = 0x80U >> (bit % kByteBits);
        if (((address.bytes[bit / kByteBits] ^ other.bytes[bit / kByteBits]) & mask) != 0) {
            return false;
        }
    }
    return true;
}

std::optional<IpAddress> parseAddress(const std::string &text)
{
    for (const int family : {AF_INET, AF_INET6}) {
        IpAddress address{family, {}};
        if (inet_pton(family, text.c_str(), address.bytes.data()) == 1) {
            return address;
        }
    }
    return std::nullopt;
}

std::optional<Network> parseNetwork(const std::string &text)
{
    const size_t slash = text.find('/');
    const auto address = parseAddress(text.substr(0, slash));
    if (slash == std::string::npos || !address) {
        return std::nullopt;
    }
    Network network{*address, 0};
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + slash + 1, end, network.prefixLength);
    if (error != std::errc() || stop != end || network.prefixLength > bitsOf(address->family)) {
        return std::nullopt;
    }
    return network;
}

} // namespace storage
