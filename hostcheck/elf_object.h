/*
 * What an executable or shared library says of itself: its kind and its symbols.
 */
#pragma once

#include <set>
#include <stdexcept>
#include <string>

namespace hostcheck {

struct UnreadableFile : std::runtime_error {
    using std::runtime_error::runtime_error;
};

using Names = std::set<std::string>;

struct ElfObject {
    int elfClass = 0;
    int machine = 0;
    bool isStatic = false;     // an executable into which nothing can be loaded
    Names exportedFunctions;   // defined, in the dynamic symbol table
    Names unexportedFunctions; // defined and global in their source, but not in the dynamic symbol table
};

// Throws UnreadableFile, whose text begins with the file's name, for anything else than an executable or shared
// library.
ElfObject readElfObject(const std::string &path);

} // namespace hostcheck
