/*
 * Number helpers. Callable from every thread; no state.
 */
#include <charconv>
#include <cstring>
#include <limits>
#include <nasctrl/host/platform.h>
#include <system_error>

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
