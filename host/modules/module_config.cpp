/*
 * A protocol module's description as text.
 */
#include "modules/modules.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace host {

namespace {

constexpr size_t kMaxName = 32;
constexpr size_t kFields = 4;

std::vector<std::string_view> split(std::string_view text, char separator)
{
    std::vector<std::string_view> parts;
    for (;;) {
        const size_t end = text.find(separator);
        parts.push_back(text.substr(0, end));
        if (end == std::string_view::npos) {
            return parts;
        }
        text.remove_prefix(end + 1);
    }
}

template <class Number>
std::optional<Number> parseNumber(std::string_view text)
{
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

bool isName(std::string_view text)
{
    constexpr const char *kAllowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    return !text.empty() && text.size() <= kMaxName && text.find_first_not_of(kAllowed) == std::string_view::npos;
}

// One description being read; every complaint names it.
class ModuleText {
public:
    explicit ModuleText(const std::string &text) : text_(text) {}

    ModuleConfig parse() const
    {
        const auto fields = split(text_, ':');
        if (fields.size() != kFields) {
            fail("it is not SLOT:NAME:TYPE[,TYPE...]:PORT");
        }
        return {slot(fields[0]), name(fields[1]), types(fields[2]), port(fields[3])};
    }

private:
    [[noreturn]] void fail(const std::string &reason) const
    {
        throw std::invalid_argument("module \"" + text_ + "\": " + reason);
    }

    unsigned slot(std::string_view field) const
    {
        const auto value = parseNumber<unsigned>(field);
        if (!value || *value >= kModuleSlots) {
            fail("slot \"" + std::string(field) + "\" is not 0 to 5");
        }
        return *value;
    }

    std::string name(std::string_view field) const
    {
        if (!isName(field)) {
            fail("name \"" + std::string(field) + "\" is not 1 to 32 letters, digits, - or _");
        }
        return std::string(field);
    }

    std::vector<uint32_t> types(std::string_view field) const
    {
        std::vector<uint32_t> types;
        for (const std::string_view part : split(field, ',')) {
            const auto value = parseNumber<uint32_t>(part);
            if (!value) {
                fail("protocol type \"" + std::string(part) + "\" is not 0 to 4294967295");
            }
            if (std::find(types.begin(), types.end(), *value) != types.end()) {
                fail("protocol type " + std::to_string(*value) + " is there twice");
            }
            types.push_back(*value);
        }
        return types;
    }

    uint16_t port(std::string_view field) const
    {
        const auto value = parseNumber<uint16_t>(field);
        if (!value || *value == 0) {
            fail("port \"" + std::string(field) + "\" is not 1 to 65535");
        }
        return *value;
    }

    const std::string &text_;
};

} // namespace

ModuleConfig parseModule(const std::string &text)
{
    return ModuleText(text).parse();
}

} // namespace host
