/*
 * What the command lines of the programs share.
 */
#pragma once

#include <iosfwd>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace common {

// A wrong command line or option file; what() is one line without the program's name.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The parser's words for an option without its value ("--root: 1 required DIR missing") or given twice, and for a flag
// with a value ("json was given a disallowed flag override"), in ours; any other text as it is.
std::string misuse(const std::string &text);

// Cuts the arguments (without the program's name) into the options of the app, which allows extras so that this can
// name the option that was most likely meant. False when help or version was asked for and written to out. Throws
// UsageError.
bool cutCommandLine(CLI::App &app, std::vector<std::string> arguments, std::ostream &out);

} // namespace common
