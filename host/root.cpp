// A private mount namespace with ROOT/opt bound over /opt. A plain user gets the right to mount from a user namespace
// of its own, in which it keeps its user and group, so that files and sockets it creates are owned as ever.

#include "root.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace host {
namespace {

constexpr const char *kSharedDirectory = "/opt";

std::string reason(int error)
{
    return std::generic_category().message(error);
}

[[noreturn]] void refuse(const std::string &root, const std::string &what, int error)
{
    throw std::runtime_error("--root: " + root + " cannot be entered, " + what + ": " + reason(error) +
                             "; run as root, or allow it with sysctl kernel.unprivileged_userns_clone=1, or install "
                             "the files under /opt and leave --root out");
}

void writeText(const std::string &root, const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        refuse(root, path, errno);
    }
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = errno;
    close(fd);
    if (written != static_cast<ssize_t>(text.size())) {
        refuse(root, path, error);
    }
}

// Everything must be read before unshare: afterwards the ids are unknown until they are mapped.
void enterUserAndMountNamespace(const std::string &root)
{
    const std::string user = std::to_string(geteuid());
    const std::string group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) {
        refuse(root, "the system refuses a user namespace", errno);
    }
    writeText(root, "/proc/self/setgroups", "deny");
    writeText(root, "/proc/self/uid_map", user + " " + user + " 1");
    writeText(root, "/proc/self/gid_map", group + " " + group + " 1");
}

void enterMountNamespace(const std::string &root)
{
    if (geteuid() == 0 && unshare(CLONE_NEWNS) == 0) {
        return;
    }
    enterUserAndMountNamespace(root);
}

bool liesUnder(const std::filesystem::path &path, const std::filesystem::path &directory)
{
    const std::filesystem::path relative = path.lexically_relative(directory);
    return !relative.empty() && *relative.begin() != "..";
}

std::string optOf(const std::string &root)
{
    std::string opt = root + kSharedDirectory;
    struct stat status {};
    if (stat(opt.c_str(), &status) != 0) {
        throw std::runtime_error("--root: " + opt + " cannot be used: " + reason(errno));
    }
    if (!S_ISDIR(status.st_mode)) {
        throw std::runtime_error("--root: " + opt + " is not a directory");
    }
    if (liesUnder(std::filesystem::canonical(root), kSharedDirectory)) {
        throw std::runtime_error("--root: " + root + " lies under /opt, which it would hide; choose another directory");
    }
    return opt;
}

} // namespace

void enterRoot(const std::string &root)
{
    const std::string opt = optOf(root);
    if (access(kSharedDirectory, F_OK) != 0) {
        throw std::runtime_error("--root: this machine has no directory /opt to put " + opt + " over; create it empty");
    }
    enterMountNamespace(root);
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        refuse(root, "its mounts cannot be made private", errno);
    }
    if (mount(opt.c_str(), kSharedDirectory, nullptr, MS_BIND | MS_REC, nullptr) != 0) {
        refuse(root, "it cannot be bound over /opt", errno);
    }
}

} // namespace host
