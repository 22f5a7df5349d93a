#include "process.h"

#include <array>
#include <chrono>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace support {

Pipe::Pipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe");
    }
    read = ends[0];
    write = ends[1];
}

std::string readAll(int descriptor)
{
    std::string text;
    std::array<char, 4096> buffer{};
    for (ssize_t length = 0; (length = read(descriptor, buffer.data(), buffer.size())) > 0;) {
        text.append(buffer.data(), static_cast<size_t>(length));
    }
    close(descriptor);
    return text;
}

static void place(int descriptor, int number)
{
    if (descriptor >= 0) {
        dup2(descriptor, number);
    }
}

pid_t spawn(std::vector<std::string> command, const Streams &streams)
{
    std::vector<char *> arguments;
    for (std::string &word : command) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        place(streams.in, STDIN_FILENO);
        place(streams.out, STDOUT_FILENO);
        place(streams.err, STDERR_FILENO);
        if (streams.kept >= 0) {
            fcntl(streams.kept, F_SETFD, 0);
        }
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return child;
}

int exitCodeOf(pid_t child)
{
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
}

} // namespace support
