#include "admin/record_shape.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>

namespace host::admin {

using Json = nlohmann::ordered_json;

namespace {

constexpr size_t kCountOffset = 4;

template <typename Word>
Word wordAt(std::span<const std::byte> bytes, size_t offset)
{
    Word word{};
    memcpy(&word, bytes.data() + offset, sizeof word);
    return word;
}

Json valueOf(const FieldShape &field, std::span<const std::byte> record)
{
    if (field.offset + field.width > record.size()) {
        return nullptr;
    }
    switch (field.kind) {
    case FieldKind::number:
        return wordAt<int32_t>(record, field.offset);
    case FieldKind::unsignedNumber:
        return wordAt<uint32_t>(record, field.offset);
    case FieldKind::text:
        break;
    }
    const auto *text = reinterpret_cast<const char *>(record.data()) + field.offset;
    return std::string(text, strnlen(text, field.width));
}

void putFields(Json &json, std::span<const FieldShape> fields, std::span<const std::byte> record)
{
    for (const FieldShape &field : fields) {
        json[std::string(field.name)] = valueOf(field, record);
    }
}

// Entries that are announced and there, which may be fewer than announced.
size_t entriesIn(const RecordShape &shape, std::span<const std::byte> bytes)
{
    if (shape.entrySize == 0 || bytes.size() < shape.headSize) {
        return 0;
    }
    const size_t announced = wordAt<uint32_t>(bytes, kCountOffset);
    return std::min(announced, (bytes.size() - shape.headSize) / shape.entrySize);
}

// Trailing zeros are left out: a short answer is filled up with them.
Json dumpOf(std::span<const std::byte> bytes)
{
    constexpr char kDigits[] = "0123456789abcdef";
    while (!bytes.empty() && bytes.back() == std::byte{0}) {
        bytes = bytes.first(bytes.size() - 1);
    }
    if (bytes.empty()) {
        return nullptr;
    }
    std::string hex;
    std::string text;
    for (const std::byte each : bytes) {
        const auto byte = std::to_integer<unsigned char>(each);
        hex += kDigits[byte >> 4];
        hex += kDigits[byte & 0xf];
        text += byte >= ' ' && byte < 0x7f ? static_cast<char>(byte) : '.';
    }
    return {{"hex", hex}, {"text", text}};
}

} // namespace

Json decodeRecord(const RecordShape &shape, std::span<const std::byte> bytes)
{
    Json json = Json::object();
    putFields(json, shape.head, bytes);
    const size_t count = entriesIn(shape, bytes);
    if (shape.entrySize != 0) {
        Json entries = Json::array();
        for (size_t i = 0; i < count; ++i) {
            Json entry = Json::object();
            putFields(entry, shape.entry, bytes.subspan(shape.headSize + i * shape.entrySize, shape.entrySize));
            entries.push_back(std::move(entry));
        }
        json["entries"] = std::move(entries);
    }
    const size_t known = std::min(bytes.size(), shape.headSize + count * shape.entrySize);
    json["rest"] = dumpOf(bytes.subspan(known));
    return json;
}

} // namespace host::admin
