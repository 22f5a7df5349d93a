/*
 * The grammar of nasctl's command line.
 */
#pragma once

#include "session.h"
#include <functional>
#include <string>

namespace ctl {

struct Invocation {
    Session session;
    std::function<int(const Session &)> action; // empty when `text` is all that was asked for
    std::string text;                           // help or version
};

// Reads the command line into the invocation. Throws UsageFailure; session.command then names the command that was
// recognised so far.
void parseCommandLine(int argc, char **argv, Invocation &invocation);

} // namespace ctl
