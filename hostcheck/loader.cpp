#include "loader.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <link.h>
#include <sstream>
#include <sys/auxv.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hostcheck {
namespace {

// The loader that runs this very program.
std::string loaderPath()
{
    std::string path;
    dl_iterate_phdr(
        [](dl_phdr_info *info, size_t, void *out) {
            if (info->dlpi_addr == getauxval(AT_BASE)) {
                *static_cast<std::string *>(out) = info->dlpi_name;
            }
            return 0;
        },
        &path);
    return path;
}

// In the child: everything that the loader says goes to output. The library is named relative to its folder, because
// the loader cuts the names of what is to be loaded at blanks and colons.
[[noreturn]] void execLoader(int output, const std::string &host, const std::filesystem::path &library)
{
    const std::string loader = loaderPath();
    const std::string name = "./" + library.filename().string();
    dup2(output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    setenv("LD_TRACE_LOADED_OBJECTS", "1", 1); // only look: the host's code does not run
    setenv("LD_WARN", "yes", 1);
    setenv("LD_BIND_NOW", "yes", 1);
    for (const char *disturbing : {"LD_PRELOAD", "LD_AUDIT", "LD_DEBUG"}) {
        unsetenv(disturbing);
    }
    if (chdir(library.parent_path().c_str()) == 0) {
        if (host.empty()) {
            execl(loader.c_str(), loader.c_str(), name.c_str(), nullptr);
        } else {
            execl(loader.c_str(), loader.c_str(), "--preload", name.c_str(), host.c_str(), nullptr);
        }
    }
    dprintf(STDERR_FILENO, "%s: %s\n", loader.c_str(), std::strerror(errno));
    _exit(127);
}

std::string readAll(int descriptor)
{
    std::string text;
    std::array<char, 4096> part;
    for (;;) {
        const ssize_t count = read(descriptor, part.data(), part.size());
        if (count > 0) {
            text.append(part.data(), static_cast<size_t>(count));
        } else if (count == 0 || errno != EINTR) {
            return text;
        }
    }
}

std::string runLoader(const std::string &host, const std::filesystem::path &library, int &status)
{
    int ends[2] = {};
    if (pipe(ends) != 0) {
        throw LoaderFailed(std::string("no pipe to the loader: ") + std::strerror(errno));
    }
    const pid_t child = fork();
    if (child < 0) {
        throw LoaderFailed(std::string("the loader cannot be started: ") + std::strerror(errno));
    }
    if (child == 0) {
        execLoader(ends[1], host, library);
    }
    close(ends[1]);
    std::string text = readAll(ends[0]);
    close(ends[0]);
    waitpid(child, &status, 0);
    return text;
}

// "undefined symbol: NAME<tab>(OBJECT)", and "<tab>NAME => not found".
void takeLine(const std::string &line, const std::string &libraryName, Loading &loading)
{
    constexpr std::string_view kUndefined = "undefined symbol: ";
    constexpr std::string_view kNotFound = " => not found";
    const size_t tab = line.find('\t', 1);
    if (line.starts_with(kUndefined) && tab != std::string::npos && line.ends_with("/" + libraryName + ")")) {
        // A name may carry its version: "NAME, version V".
        const std::string name = line.substr(kUndefined.size(), tab - kUndefined.size());
        loading.undefined.insert(name.substr(0, name.find(',')));
    } else if (line.starts_with("\t") && line.ends_with(kNotFound)) {
        loading.missing.push_back(line.substr(1, line.size() - 1 - kNotFound.size()));
    }
}

} // namespace

Loading tryLoading(const std::string &host, const std::string &library)
{
    int status = 0;
    const std::filesystem::path canonical = std::filesystem::canonical(library);
    const std::string text =
        runLoader(host.empty() ? host : std::filesystem::canonical(host).string(), canonical, status);
    Loading loading;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        takeLine(line, canonical.filename().string(), loading);
    }
    const bool failed = !WIFEXITED(status) || WEXITSTATUS(status) != 0;
    if (failed && loading.undefined.empty() && loading.missing.empty()) {
        throw LoaderFailed(text.substr(0, text.find('\n')));
    }
    return loading;
}

} // namespace hostcheck
