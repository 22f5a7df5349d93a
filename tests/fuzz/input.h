/*
 * What fuzz targets share: the input taken apart bit by bit, and the way to say that something is wrong.
 */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace fuzz {

// Ends the process, naming the place, unless it holds. Never compiled out.
inline void require(bool holds, const char *file = __builtin_FILE(), int line = __builtin_LINE())
{
    if (!holds) {
        std::fprintf(stderr, "%s:%d: does not hold\n", file, line);
        std::abort();
    }
}

// Takes values from the front of the bytes; once they are used up, every value is 0 and every text empty.
class Input {
public:
    Input(const uint8_t *data, size_t size) : data_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    uint8_t byte()
    {
        const std::string taken = bytes(1);
        return taken.empty() ? uint8_t{0} : static_cast<uint8_t>(taken[0]);
    }
    uint32_t word()
    {
        uint32_t value = 0;
        const std::string taken = bytes(sizeof value);
        std::memcpy(&value, taken.data(), taken.size());
        return value;
    }
    // At most size of them.
    std::string bytes(size_t size)
    {
        const size_t taken = std::min(size, left_);
        const std::string text(data_, data_ + taken);
        data_ += taken;
        left_ -= taken;
        return text;
    }
    std::string rest() { return bytes(left_); }

private:
    const uint8_t *data_;
    size_t left_;
};

} // namespace fuzz
