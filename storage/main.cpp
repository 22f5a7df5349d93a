// nasstored: reads its options, answers on its socket until it is told to stop, and takes its data anew on SIGHUP.

#include "log.h"
#include "options.h"
#include "service.h"

#include <common/ready.h>
#include <common/signals.h>
#include <csignal>
#include <filesystem>
#include <iostream>

namespace {

constexpr int kFailed = 1;
constexpr int kUsage = 2;

void tellReady(const storage::Options &options)
{
    const std::string line = "nasstored: listens on " + options.service.socketPath + " (data " +
                             (options.service.dataFile.empty() ? std::string("none") : options.service.dataFile) +
                             ")\n";
    for (const std::string &failure : common::tellReady(line, options.readyFd)) {
        STORAGE_LOG(NASCTRL_LOG_ERROR, "%s", failure.c_str());
    }
}

// Until a signal to stop; a second one has its default effect and ends the process at once.
void serveSignals(storage::Service &service)
{
    const sigset_t signals = common::handledSignals();
    int received = 0;
    while (sigwait(&signals, &received) == 0 && received == SIGHUP) {
        service.reload();
    }
    STORAGE_LOG(NASCTRL_LOG_PROGRESS, "stop: signal %d", received);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

void run(const storage::Options &options)
{
    host::openLog(options.log);
    const auto directory = std::filesystem::absolute(options.service.socketPath).parent_path();
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw std::runtime_error("directory " + directory.string() + " cannot be made: " + error.message());
    }
    storage::Service service(options.service);
    tellReady(options);
    serveSignals(service);
}

} // namespace

int main(int argc, char **argv)
{
    // Before any thread exists, so that all of them inherit the mask.
    const sigset_t signals = common::handledSignals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    signal(SIGPIPE, SIG_IGN);
    try {
        const auto options = storage::parseOptions({argv + 1, argv + argc}, NASCTRL_VERSION, std::cout);
        if (options) {
            run(*options);
        }
    } catch (const storage::UsageError &error) {
        std::cerr << "nasstored: " << error.what() << std::endl;
        return kUsage;
    } catch (const std::exception &error) {
        std::cerr << "nasstored: " << error.what() << std::endl;
        return kFailed;
    }
    host::flushLog();
    return 0;
}
