#include "ready.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace common {

constexpr char kReady[] = "READY=1";

static bool sendReady(const std::string &path)
{
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        return false;
    }
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, path.size());
    if (path.front() == '@') {
        address.sun_path[0] = '\0'; // an abstract name
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    const ssize_t sent =
        sendto(fd, kReady, strlen(kReady), MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&address), length);
    close(fd);
    return sent == static_cast<ssize_t>(strlen(kReady));
}

std::vector<std::string> tellReady(const std::string &line, std::optional<int> descriptor)
{
    std::vector<std::string> failures;
    std::cout << line << std::flush;
    if (descriptor) {
        if (write(*descriptor, line.data(), line.size()) < 0) {
            failures.push_back("--ready-fd " + std::to_string(*descriptor) + " cannot be written");
        }
        close(*descriptor);
    }
    const char *manager = getenv("NOTIFY_SOCKET");
    if (manager != nullptr && *manager != '\0' && !sendReady(manager)) {
        failures.push_back("the service manager cannot be told at " + std::string(manager));
    }
    return failures;
}

} // namespace common
