/*
 * Runs the nasctl that was built, as a process of its own.
 */
#pragma once

#include <string>
#include <vector>

struct Outcome {
    std::string out;
    std::string err;
    int code; // -1 when a signal ended it

    bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *stream);

struct RunOptions {
    std::string input = {};                    // standard input
    std::vector<std::string> environment = {}; // NAME=VALUE, nothing else is set
    std::string outputFile = {};               // standard output goes there instead
    bool terminal = false;                     // standard output is a terminal
};

Outcome runNasctl(const std::vector<std::string> &arguments, const RunOptions &options = {});

// A new empty directory, removed with all that is in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};
