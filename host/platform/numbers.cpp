/*
 * Number helpers. Callable from every thread; no state.
 */
#include <charconv>
#include <cstring>
#include <limits>
#include <nasctrl/host/platform.h>
#include <system_error>

namespace {

// The finaliser of the generator splitmix64: one changed bit of value changes half of the result's bits.
uint64_t mixed(uint64_t value)
{
    value += 0x9E3779B97F4A7C15U; // so that 0 does not stay 0
    value = (value ^ (value >> 30U)) * 0xBF58476D1CE4E5B9U;
    value = (value ^ (value >> 27U)) * 0x94D049BB133111EBU;
    return value ^ (value >> 31U);
}

} // namespace

// A number beyond 64 bits counts as the largest one.
uint64_t kvos_str_tou64(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    uint64_t number = 0;
    const auto parsed = std::from_chars(text, text + std::strlen(text), number);
    return parsed.ec == std::errc::result_out_of_range ? std::numeric_limits<uint64_t>::max() : number;
}

uint32_t hash_u64_id(uint64_t value, uint32_t modulus)
{
    return modulus == 0 ? 0 : static_cast<uint32_t>(mixed(value) % modulus);
}
