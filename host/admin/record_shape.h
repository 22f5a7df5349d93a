/*
 * The records of a storage-side answer as data, and their way into JSON. docs/storage.md tells the layouts.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string_view>

namespace host::admin {

enum class FieldKind : uint8_t { number, unsignedNumber, text };

struct FieldShape {
    std::string_view name;
    FieldKind kind;
    size_t offset;
    size_t width; // 4 for numbers
};

struct RecordShape {
    std::span<const FieldShape> head;
    size_t headSize;
    std::span<const FieldShape> entry = {}; // of a list, whose number of entries is the word at offset 4
    size_t entrySize = 0;                   // 0 = no list
};

// Whatever the bytes are: fields that are not there whole are null, entries are those that are there whole, and what
// the shape does not know is in "rest" as hex and as text.
nlohmann::ordered_json decodeRecord(const RecordShape &shape, std::span<const std::byte> bytes);

} // namespace host::admin
