/*
 * Numbers of things, as people read them.
 */
#pragma once

#include <cstdint>
#include <string>

namespace common {

// "1 client", "2 clients": of a noun that takes an s, or has a plural of its own.
inline std::string counted(uint64_t count, const std::string &noun, const std::string &plural)
{
    return std::to_string(count) + " " + (count == 1 ? noun : plural);
}
inline std::string counted(uint64_t count, const std::string &noun)
{
    return counted(count, noun, noun + "s");
}

} // namespace common
