#include "parse.h"
#include "failure.h"
#include <arpa/inet.h>
#include <array>
#include <cctype>
#include <charconv>

namespace ctl {

uint64_t parseNumber(const std::string &what, const std::string &text, uint64_t min, uint64_t max)
{
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    const char *first = text.data() + (hex ? 2 : 0);
    const char *last = text.data() + text.size();
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(first, last, value, hex ? 16 : 10);
    if (error != std::errc() || end != last || value < min || value > max) {
        throw UsageFailure(what + ": \"" + text + "\" is not a number from " + std::to_string(min) + " to " +
                           std::to_string(max));
    }
    return value;
}

void checkAddress(const std::string &text)
{
    unsigned char bytes[sizeof(in6_addr)];
    if (inet_pton(AF_INET, text.c_str(), bytes) != 1 && inet_pton(AF_INET6, text.c_str(), bytes) != 1) {
        throw UsageFailure(nameable(text) + " is not an IPv4 or IPv6 address");
    }
}

void refuseMappedAddress(const std::string &text)
{
    in6_addr address{};
    if (inet_pton(AF_INET6, text.c_str(), &address) != 1 || !IN6_IS_ADDR_V4MAPPED(&address)) {
        return;
    }
    std::array<char, INET_ADDRSTRLEN> inner{};
    inet_ntop(AF_INET, &address.s6_addr[12], inner.data(), inner.size());
    throw UsageFailure(text + " is an IPv4-mapped address; give the IPv4 address, " + inner.data());
}

static bool isIpv4(const std::string &text)
{
    in_addr room{};
    return inet_pton(AF_INET, text.c_str(), &room) == 1;
}

void checkIpv4(const std::string &text)
{
    if (!isIpv4(text)) {
        throw UsageFailure(nameable(text) + " is not an IPv4 address");
    }
}

void checkNetwork(const std::string &text)
{
    constexpr unsigned kMaxLength = 32;
    const size_t slash = text.find('/');
    const char *end = text.data() + text.size();
    const char *begin = slash == std::string::npos ? end : text.data() + slash + 1;
    unsigned length = 0;
    const auto [stop, error] = std::from_chars(begin, end, length);
    if (error != std::errc() || stop != end || length > kMaxLength || !isIpv4(text.substr(0, slash))) {
        throw UsageFailure(nameable(text) + " is not a network, which is an IPv4 address and a length: 10.1.0.0/16");
    }
}

static bool isBlank(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

static unsigned digitAt(std::string_view text, size_t position)
{
    unsigned digit = 0;
    if (position == text.size() || isBlank(text[position])) {
        throw UsageFailure("HEX: the digit at character " + std::to_string(position) +
                           " stands alone; a byte takes two hex digits");
    }
    if (std::from_chars(&text[position], &text[position] + 1, digit, 16).ec != std::errc()) {
        throw UsageFailure("HEX: character " + std::to_string(position + 1) + " is \"" + text[position] +
                           "\", not a hex digit");
    }
    return digit;
}

std::string parseHex(std::string_view text)
{
    std::string bytes;
    for (size_t i = 0; i < text.size();) {
        if (isBlank(text[i])) {
            ++i;
            continue;
        }
        bytes += static_cast<char>(digitAt(text, i) << 4 | digitAt(text, i + 1));
        i += 2;
    }
    return bytes;
}

std::string toHex(std::string_view bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size() * 2);
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 0xf];
    }
    return text;
}

} // namespace ctl
