#include "config/ini_file.h"

#include <algorithm>
#include <array>
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace host {
namespace {

namespace pt = boost::property_tree;

[[noreturn]] void failAtLine(const std::string &path, unsigned long line, const std::string &reason)
{
    throw std::runtime_error(path + ":" + std::to_string(line) + ": " + reason);
}

[[noreturn]] void failWithErrno(const std::string &path)
{
    throw std::runtime_error(path + ": " + std::generic_category().message(errno));
}

struct CloseFile {
    void operator()(FILE *file) const { std::fclose(file); }
};

// Whole, with C streams: C++ streams open a directory as an empty file and do not tell why an open failed.
std::string readWhole(const std::string &path)
{
    const std::unique_ptr<FILE, CloseFile> file(std::fopen(path.c_str(), "re"));
    if (file == nullptr) {
        failWithErrno(path);
    }
    std::string text;
    std::array<char, 16384> part{};
    while (const size_t length = std::fread(part.data(), 1, part.size(), file.get())) {
        text.append(part.data(), length);
    }
    if (std::ferror(file.get()) != 0) {
        failWithErrno(path);
    }
    return text;
}

// Values are handed out as C texts, which a NUL would cut unseen.
void refuseNul(const std::string &path, const std::string &text)
{
    const auto nul = std::ranges::find(text, '\0');
    if (nul != text.end()) {
        failAtLine(path, static_cast<unsigned long>(std::count(text.begin(), nul, '\n')) + 1, "NUL character");
    }
}

pt::ptree parse(const std::string &path, const std::string &text)
{
    std::istringstream stream(text);
    pt::ptree tree;
    try {
        pt::read_ini(stream, tree);
    } catch (const pt::ini_parser_error &error) {
        failAtLine(path, error.line(), error.message());
    }
    return tree;
}

} // namespace

// Walks the tree instead of asking it by path, because its paths split names at their dots.
IniFile::IniFile(const std::string &path)
{
    const std::string text = readWhole(path);
    refuseNul(path, text);
    for (const auto &[name, node] : parse(path, text)) {
        if (node.empty()) {
            sections_[""][name] = node.data(); // no children: a key before the first section
        }
        for (const auto &[key, value] : node) {
            sections_[name][key] = value.data();
        }
    }
}

const std::string *IniFile::find(std::string_view section, std::string_view key) const
{
    const auto keys = sections_.find(section);
    if (keys == sections_.end()) {
        return nullptr;
    }
    const auto value = keys->second.find(key);
    return value != keys->second.end() ? &value->second : nullptr;
}

} // namespace host
