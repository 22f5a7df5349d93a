/*
 * A row of a table of cases, shown by its name.
 */
#pragma once

#include <ostream>
#include <string>

struct NamedRow {
    const char *name;
};

inline std::ostream &operator<<(std::ostream &stream, const NamedRow &row)
{
    return stream << row.name;
}

// The name of a test over such rows.
inline constexpr auto rowName = [](const auto &row) { return std::string(row.param.name); };
