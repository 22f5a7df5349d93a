/*
 * Strict reading of the query of a path: known names only, each at most once, whole numbers.
 */
#pragma once

#include <cstdint>
#include <initializer_list>
#include <map>
#include <string>
#include <string_view>

namespace host::admin {

struct QueryField {
    std::string_view name;
    uint64_t byDefault;
    uint64_t max;
};

// The value of each field, from "NAME=NUMBER&NAME=NUMBER" or nothing. Throws CallError 400 that names the field.
std::map<std::string_view, uint64_t> parseQuery(const std::string &query, std::initializer_list<QueryField> fields);

} // namespace host::admin
