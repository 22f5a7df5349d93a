/*
 * nasctl: looks into a running node over its admin socket and its message socket.
 */
#include "command_line.h"
#include "failure.h"
#include "view.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <unistd.h>

namespace {

int run(int argc, char **argv, ctl::Invocation &invocation)
{
    ctl::parseCommandLine(argc, argv, invocation);
    if (!invocation.action) {
        ctl::print(invocation.text);
        return ctl::kDone;
    }
    invocation.session.colour = isatty(STDOUT_FILENO) == 1;
    return invocation.action(invocation.session);
}

int runGuarded(int argc, char **argv, ctl::Invocation &invocation)
{
    const std::string &command = invocation.session.command;
    try {
        return run(argc, argv, invocation);
    } catch (const ctl::Failure &failure) {
        ctl::reportError(command, failure.what());
        return failure.code();
    } catch (const nlohmann::json::exception &error) {
        ctl::reportError(command, std::string("the node's answer has another shape than expected (") + error.what() +
                                      "); node and nasctl are of different versions");
    } catch (const std::exception &error) {
        ctl::reportError(command, error.what());
    }
    return ctl::kFailed;
}

} // namespace

int main(int argc, char **argv)
{
    ctl::Invocation invocation;
    const int code = runGuarded(argc, argv, invocation);
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) {
        ctl::reportError(invocation.session.command,
                         std::string("cannot write to standard output (") + std::strerror(errno) + ")");
        return ctl::kFailed;
    }
    return code;
}
