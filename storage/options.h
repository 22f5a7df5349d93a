/*
 * The command line of nasstored.
 */
#pragma once

#include "service.h"

#include <common/command_line.h>
#include <iosfwd>
#include <optional>
#include <platform/log.h>
#include <string>
#include <vector>

namespace storage {

struct Options {
    ServiceSettings service;
    host::LogSettings log;
    std::optional<int> readyFd; // told, and closed, when the service listens
};

using common::UsageError;

// Reads the command line without the program's name. Nothing when help or version was asked for and written to out.
// Throws UsageError.
std::optional<Options> parseOptions(std::vector<std::string> arguments, const std::string &version, std::ostream &out);

} // namespace storage
