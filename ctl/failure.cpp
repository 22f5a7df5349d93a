#include "failure.h"
#include "table.h"
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ctl {

void reportError(const std::string &command, const std::string &text)
{
    // Texts of the node may hold anything; the error stays one line.
    const std::string line = "nasctl: " + (command.empty() ? "" : command + ": ") + printable(text) + "\n";
    std::fputs(line.c_str(), stderr);
}

std::string nameable(const std::string &word)
{
    return word.empty() ? "\"\"" : word;
}

static const char *hintFor(int error)
{
    switch (error) {
    case EACCES:
    case EPERM:
        return "run nasctl as the node's own user or as root";
    case ENAMETOOLONG:
        return "a socket's path has at most 107 characters: choose a shorter --root";
    default:
        return "start nasctrld or name its directory with --root";
    }
}

Failure unreachable(const std::string &socketPath, int error)
{
    return Failure("no node answers on " + socketPath + " (" + std::strerror(error) + "); " + hintFor(error));
}

Failure timedOut(const std::string &socketPath, std::chrono::milliseconds timeout)
{
    return Failure("no answer on " + socketPath + " within " + std::to_string(timeout.count()) +
                   " ms; the node may be busy: try a longer --timeout-ms");
}

Failure closedEarly(const std::string &socketPath)
{
    return Failure("the node closed the connection on " + socketPath +
                   " before its answer was whole; it serves its own user and root only, and its log tells more");
}

} // namespace ctl
