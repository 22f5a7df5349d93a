// nasctrld: reads its options, enters its root, brings the node up and waits for the signal to stop.

#include "node.h"
#include "options.h"
#include "root.h"
#include "start.h"
#include "storage/embedded.h"

#include <common/ready.h>
#include <common/signals.h>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <unistd.h>

namespace {

constexpr int kCannotStart = 1;
constexpr int kUsage = 2;

// Before any thread exists, so that all of them inherit the mask and only waitForStop takes a signal.
void prepareSignals()
{
    const sigset_t signals = common::handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

// Takes the storage-side data anew on SIGHUP. From its return on a second signal has its default effect and ends the
// process at once.
void waitForStop()
{
    const sigset_t signals = common::handledSignals();
    int received = 0;
    while (sigwait(&signals, &received) == 0 && received == SIGHUP) {
        host::reloadEmbeddedStorage();
    }
    HOST_LOG(NASCTRL_LOG_PROGRESS, "stop: signal %d", received);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void tellReady(const host::NodeOptions &options)
{
    const std::string line = "nasctrld: node " + std::to_string(options.nodeId) + " is ready (admin " +
                             options.adminSocket + ", messages " + options.messages.socketPath + ")\n";
    for (const std::string &failure : common::tellReady(line, options.readyFd)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "start: %s", failure.c_str());
    }
}

// Runs the node and does not come back: the library's threads live as long as the process, so it ends without the
// destructors and exit handlers that would pull globals from under them.
[[noreturn]] void run(const host::NodeOptions &options)
{
    try {
        if (!options.root.empty()) {
            host::enterRoot(options.root);
        }
        host::setNodeIdentity({options.nodeId, options.root, NASCTRL_VERSION});
        host::openLog(options.log);
        host::startNode(options);
    } catch (const std::exception &error) {
        std::cerr << "nasctrld: " << error.what() << std::endl;
        host::stopNode();
        _exit(kCannotStart);
    }
    tellReady(options);
    waitForStop();
    host::stopNode();
    _exit(0);
}

} // namespace

int main(int argc, char **argv)
{
    prepareSignals();
    try {
        const auto options = host::parseOptions({argv + 1, argv + argc}, NASCTRL_VERSION, std::cout);
        if (options) {
            run(*options);
        }
    } catch (const host::UsageError &error) {
        std::cerr << "nasctrld: " << error.what() << std::endl;
        return kUsage;
    }
    return 0;
}
