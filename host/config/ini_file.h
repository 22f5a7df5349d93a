/*
 * One INI file: [sections] of key = value lines. Lines that begin with '#' or ';' are comments; blanks around names and
 * values do not count; keys before the first section belong to section "".
 */
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>

namespace host {

class IniFile {
public:
    // Throws std::runtime_error: "path: reason", or "path:line: reason" when a line is malformed.
    explicit IniFile(const std::string &path);

    // Null when there is no such key. Valid as long as the file object.
    const std::string *find(std::string_view section, std::string_view key) const;

private:
    using Keys = std::map<std::string, std::string, std::less<>>;
    std::map<std::string, Keys, std::less<>> sections_;
};

} // namespace host
