/*
 * Texts in the fixed fields of records.
 */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>

namespace host {

// Cuts what is too long; ends with a NUL, and leaves what is behind it as it was.
template <size_t Size>
void copyText(char (&field)[Size], const std::string &text)
{
    const size_t length = std::min(text.size(), Size - 1);
    std::memcpy(field, text.data(), length);
    field[length] = '\0';
}

} // namespace host
