#include "admin/fields.h"

#include "admin/answer.h"
#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <nlohmann/json.hpp>
#include <vector>

namespace host::admin {

using Json = nlohmann::ordered_json;

namespace {

constexpr size_t kShownNameSize = 64;

// A name out of a request as part of an error's one line.
std::string shown(std::string name)
{
    name.resize(std::min(name.size(), kShownNameSize));
    std::replace_if(
        name.begin(), name.end(), [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
    return name;
}

const Json &field(const Json &fields, const std::string &name)
{
    const auto found = fields.find(name);
    if (found == fields.end()) {
        refuse(name, "is missing");
    }
    return *found;
}

Json parseObject(const std::string &body)
{
    // The parser itself would let the last of two equal names win.
    std::vector<std::string> seen;
    const auto refuseTwice = [&seen](int depth, Json::parse_event_t event, const Json &parsed) {
        if (depth == 1 && event == Json::parse_event_t::key) {
            const auto name = parsed.get<std::string>();
            if (std::find(seen.begin(), seen.end(), name) != seen.end()) {
                refuse(name, "is given twice");
            }
            seen.push_back(name);
        }
        return true;
    };
    Json object = Json::parse(body, refuseTwice, false);
    if (!object.is_object()) {
        throw CallError(kBadRequest, "the body is not a JSON object");
    }
    return object;
}

} // namespace

std::optional<uint64_t> bigNumber(const std::string &text)
{
    uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

void refuse(const std::string &name, const std::string &why)
{
    throw CallError(kBadRequest, shown(name) + ": " + why);
}

Json parseFields(const std::string &body, std::initializer_list<std::string_view> allowed)
{
    Json object = parseObject(body);
    for (const auto &item : object.items()) {
        if (std::find(allowed.begin(), allowed.end(), item.key()) == allowed.end()) {
            refuse(item.key(), "is not a field of this call");
        }
    }
    return object;
}

static std::string textOf(const Json &value, const std::string &name)
{
    if (!value.is_string()) {
        refuse(name, "must be a text");
    }
    auto text = value.get<std::string>();
    if (text.find('\0') != std::string::npos) {
        refuse(name, "must not hold a NUL character");
    }
    return text;
}

std::string textField(const Json &fields, const std::string &name)
{
    return textOf(field(fields, name), name);
}

std::optional<std::string> optionalTextField(const Json &fields, const std::string &name)
{
    if (!fields.contains(name)) {
        return std::nullopt;
    }
    return textField(fields, name);
}

uint32_t numberField(const Json &fields, const std::string &name, uint32_t max)
{
    const Json &value = field(fields, name);
    if (!value.is_number_unsigned() || value.get<uint64_t>() > max) {
        refuse(name, "must be a whole number from 0 to " + std::to_string(max));
    }
    return value.get<uint32_t>();
}

std::optional<uint32_t> optionalNumberField(const Json &fields, const std::string &name, uint32_t max)
{
    return fields.contains(name) ? std::optional(numberField(fields, name, max)) : std::nullopt;
}

uint64_t bigNumberField(const Json &fields, const std::string &name)
{
    const auto number = bigNumber(textField(fields, name));
    if (!number) {
        refuse(name, "must be a decimal number of at most 64 bits, as a text");
    }
    return *number;
}

bool flagField(const Json &fields, const std::string &name)
{
    if (!fields.contains(name)) {
        return false;
    }
    const Json &value = field(fields, name);
    if (!value.is_boolean()) {
        refuse(name, "must be true or false");
    }
    return value.get<bool>();
}

std::vector<std::string> textsField(const Json &fields, const std::string &name, size_t max)
{
    std::vector<std::string> texts;
    if (!fields.contains(name)) {
        return texts;
    }
    const Json &value = field(fields, name);
    if (!value.is_array() || value.size() > max) {
        refuse(name, "must be an array of at most " + std::to_string(max) + " texts");
    }
    for (const Json &element : value) {
        texts.push_back(textOf(element, name));
    }
    return texts;
}

void checkAddress(const std::string &name, const std::string &text)
{
    in6_addr room{};
    if (inet_pton(AF_INET, text.c_str(), &room) != 1 && inet_pton(AF_INET6, text.c_str(), &room) != 1) {
        refuse(name, "must be an IPv4 or IPv6 address");
    }
}

uint64_t parseId(const std::string &text)
{
    const auto id = bigNumber(text);
    if (!id) {
        refuse("id", "must be a decimal number of at most 64 bits");
    }
    return *id;
}

} // namespace host::admin
