/*
 * The command line of nasstored.
 */
#pragma once

#include "service.h"

#include <iosfwd>
#include <optional>
#include <platform/log.h>
#include <stdexcept>
#include <string>
#include <vector>

namespace storage {

struct Options {
    ServiceSettings service;
    host::LogSettings log;
    std::optional<int> readyFd; // told, and closed, when the service listens
};

// A wrong command line; what() is one line without the program's name.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Reads the command line without the program's name. Nothing when help or version was asked for and written to out.
// Throws UsageError.
std::optional<Options> parseOptions(std::vector<std::string> arguments, const std::string &version, std::ostream &out);

} // namespace storage
