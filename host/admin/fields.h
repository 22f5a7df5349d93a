/*
 * Strict reading of a call's JSON body: one flat object, known fields only, exact types. Whatever is wrong is a
 * CallError 400 that names the field.
 */
#pragma once

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace host::admin {

// Decimal digits that fit 64 bits; nothing for any other text.
std::optional<uint64_t> bigNumber(const std::string &text);

// Throws CallError 400 that says what is wrong with the field of that name.
[[noreturn]] void refuse(const std::string &name, const std::string &why);

// The body as an object that holds no field but the allowed ones, each at most once.
nlohmann::ordered_json parseFields(const std::string &body, std::initializer_list<std::string_view> allowed);

// Text without NUL characters, because it is handed on as a C string.
std::string textField(const nlohmann::ordered_json &fields, const std::string &name);
std::optional<std::string> optionalTextField(const nlohmann::ordered_json &fields, const std::string &name);
// A whole number from 0 to max.
uint32_t numberField(const nlohmann::ordered_json &fields, const std::string &name, uint32_t max);
std::optional<uint32_t> optionalNumberField(const nlohmann::ordered_json &fields, const std::string &name,
                                            uint32_t max);
// Decimal digits that fit 64 bits, as a text.
uint64_t bigNumberField(const nlohmann::ordered_json &fields, const std::string &name);
// False when the field is left out.
bool flagField(const nlohmann::ordered_json &fields, const std::string &name);
// An array of texts, as textField takes them, at most max; empty when the field is left out.
std::vector<std::string> textsField(const nlohmann::ordered_json &fields, const std::string &name, size_t max);
// The text as an IPv4 or IPv6 address.
void checkAddress(const std::string &name, const std::string &text);
// Decimal digits that fit 64 bits, as text because JSON numbers lose the low bits of large ids in many readers.
uint64_t parseId(const std::string &text);

} // namespace host::admin
