/*
 * Reading what people type: numbers and bytes in hex.
 */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace ctl {

// A decimal number or, after 0x, a hexadecimal one, from min to max. Throws UsageFailure that names `what`.
uint64_t parseNumber(const std::string &what, const std::string &text, uint64_t min, uint64_t max);

// Throws UsageFailure unless the text is an IPv4 or IPv6 address.
void checkAddress(const std::string &text);
// Throws UsageFailure for an IPv4 address that is spelt as an IPv6 one, ::ffff:1.2.3.4, on which nobody can listen.
void refuseMappedAddress(const std::string &text);
// The same as checkAddress of an IPv4 address alone, and of one with a length from 0 to 32, ADDRESS/LENGTH.
void checkIpv4(const std::string &text);
void checkNetwork(const std::string &text);

// Pairs of hex digits, blanks between pairs allowed. Throws UsageFailure.
std::string parseHex(std::string_view text);
std::string toHex(std::string_view bytes);

} // namespace ctl
