#include "run_nasctl.h"
#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdexcept>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

struct Pipe {
    int reader = -1;
    int writer = -1;
};

Pipe makePipe()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe2");
    }
    return {ends[0], ends[1]};
}

// A raw terminal, so that lines end as they were written.
Pipe makeTerminal()
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        throw std::runtime_error("posix_openpt");
    }
    const int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios mode = {};
    tcgetattr(slave, &mode);
    cfmakeraw(&mode);
    tcsetattr(slave, TCSANOW, &mode);
    return {master, slave};
}

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> list;
    for (std::string &text : texts) {
        list.push_back(text.data());
    }
    list.push_back(nullptr);
    return list;
}

// Feeds the input and collects both outputs until they end; whichever waits first.
void exchange(const std::string &input, int in, int out, int err, Outcome &outcome)
{
    size_t written = 0;
    pollfd ends[] = {{in, POLLOUT, 0}, {out, POLLIN, 0}, {err, POLLIN, 0}};
    std::string *texts[] = {nullptr, &outcome.out, &outcome.err};
    while (std::any_of(std::begin(ends), std::end(ends), [](const pollfd &end) { return end.fd >= 0; })) {
        poll(ends, 3, -1);
        if (ends[0].fd >= 0 && ends[0].revents != 0) {
            const ssize_t count = write(in, input.data() + written, input.size() - written);
            written += count > 0 ? static_cast<size_t>(count) : 0;
            if (count < 0 || written == input.size()) {
                close(in);
                ends[0].fd = -1;
            }
        }
        for (int i = 1; i < 3; ++i) {
            char part[4096];
            if (ends[i].fd >= 0 && ends[i].revents != 0) {
                const ssize_t count = read(ends[i].fd, part, sizeof(part));
                if (count > 0) {
                    texts[i]->append(part, static_cast<size_t>(count));
                } else {
                    ends[i].fd = -1;
                }
            }
        }
    }
}

} // namespace

void PrintTo(const Outcome &outcome, std::ostream *stream)
{
    *stream << "exit code " << outcome.code << "\nstdout:\n" << outcome.out << "\nstderr:\n" << outcome.err;
}

Outcome runNasctl(const std::vector<std::string> &arguments, const RunOptions &options)
{
    std::vector<std::string> words = {"nasctl"};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> environment = options.environment;
    const std::vector<char *> argv = pointers(words);
    const std::vector<char *> envp = pointers(environment);
    const Pipe in = makePipe();
    const Pipe out = options.terminal ? makeTerminal() : makePipe();
    const Pipe err = makePipe();
    const int file = options.outputFile.empty() ? out.writer : open(options.outputFile.c_str(), O_WRONLY | O_CLOEXEC);
    signal(SIGPIPE, SIG_IGN);

    const pid_t child = fork();
    if (child == 0) {
        signal(SIGPIPE, SIG_DFL);
        dup2(in.reader, STDIN_FILENO);
        dup2(file, STDOUT_FILENO);
        dup2(err.writer, STDERR_FILENO);
        execve(NASCTL_PROGRAM, argv.data(), envp.data());
        _exit(127);
    }
    close(in.reader);
    close(out.writer);
    close(err.writer);
    if (file != out.writer) {
        close(file);
    }
    Outcome outcome = {};
    exchange(options.input, in.writer, out.reader, err.reader, outcome);
    close(out.reader);
    close(err.reader);
    int status = 0;
    waitpid(child, &status, 0);
    outcome.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

TempDir::TempDir()
{
    std::string name = (std::filesystem::temp_directory_path() / "nasctl-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("mkdtemp");
    }
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}
