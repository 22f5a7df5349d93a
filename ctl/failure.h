/*
 * How nasctl gives up: an exception that ends the command with one line on standard error.
 */
#pragma once

#include "session.h"
#include <cstdint>
#include <stdexcept>
#include <string>

namespace ctl {

// The text says what, why and, where there is something to try, what to try.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string &text, ExitCode code = kFailed) : std::runtime_error(text), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// What was typed is wrong; nothing has been sent.
class UsageFailure : public Failure {
public:
    explicit UsageFailure(const std::string &text) : Failure(text, kUsage) {}
};

// The node answered that it will not, so that asking again would change nothing.
class Refused : public Failure {
public:
    explicit Refused(const std::string &text) : Failure(text) {}
};

// Prints the line "nasctl: COMMAND: TEXT".
void reportError(const std::string &command, const std::string &text);

// The word, or "" for an empty one, which would not be seen in an error.
std::string nameable(const std::string &word);

// The reason why a socket could not be connected to, as an error that tells what to try.
Failure unreachable(const std::string &socketPath, int error);
Failure timedOut(const std::string &socketPath, std::chrono::milliseconds timeout);
Failure closedEarly(const std::string &socketPath);

} // namespace ctl
