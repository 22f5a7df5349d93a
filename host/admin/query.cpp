#include "admin/query.h"

#include "admin/answer.h"
#include "admin/fields.h"
#include <algorithm>
#include <set>
#include <vector>

namespace host::admin {

static std::vector<std::string> partsOf(const std::string &query)
{
    std::vector<std::string> parts;
    for (size_t begin = 0; begin < query.size();) {
        const size_t end = std::min(query.find('&', begin), query.size());
        parts.push_back(query.substr(begin, end - begin));
        begin = end + 1;
    }
    return parts;
}

static uint64_t valueOf(const QueryField &field, const std::string &text)
{
    const auto value = bigNumber(text);
    if (!value || *value > field.max) {
        refuse(std::string(field.name), "must be a whole number from 0 to " + std::to_string(field.max));
    }
    return *value;
}

std::map<std::string_view, uint64_t> parseQuery(const std::string &query, std::initializer_list<QueryField> fields)
{
    std::map<std::string_view, uint64_t> values;
    for (const QueryField &field : fields) {
        values[field.name] = field.byDefault;
    }
    std::set<std::string> seen;
    for (const std::string &part : partsOf(query)) {
        const std::string name = part.substr(0, part.find('='));
        const auto *field =
            std::ranges::find_if(fields, [&name](const QueryField &candidate) { return candidate.name == name; });
        if (field == fields.end()) {
            refuse(name, "is not part of this call's query");
        }
        if (!seen.insert(name).second) {
            refuse(name, "is given twice");
        }
        values[field->name] = valueOf(*field, part.size() > name.size() ? part.substr(name.size() + 1) : "");
    }
    return values;
}

} // namespace host::admin
