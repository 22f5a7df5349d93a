/*
 * The node's service addresses as the admin door shows them: a copy of the library's list, taken under its lock.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace host::admin {

struct ServiceAddress {
    std::string address;
    uint32_t protocolType;
    uint32_t status; // bit m: module m needs nothing more
};

// Nothing when the list's lock could not be had within a short time, because work holds it.
std::optional<std::vector<ServiceAddress>> readAddresses();

} // namespace host::admin
