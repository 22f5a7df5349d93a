/*
 * Addresses and networks as people write them.
 */
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace storage {

struct IpAddress {
    int family = 0; // AF_INET or AF_INET6
    std::array<uint8_t, 16> bytes{};

    // The one way of writing that stands for all others of the same address.
    std::string text() const;
    bool operator==(const IpAddress &) const = default;
};

struct Network {
    IpAddress address;
    unsigned prefixLength = 0;

    bool contains(const IpAddress &other) const;
};

std::optional<IpAddress> parseAddress(const std::string &text);
// "10.0.0.0/8".
std::optional<Network> parseNetwork(const std::string &text);

} // namespace storage
