/*
 * Programs that a test starts, and waiting for what they do.
 */
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace support {

// Both ends stay with the test alone; whoever makes it closes them.
struct Pipe {
    int read = -1;
    int write = -1;
    Pipe();
};

// All up to the end; closes the descriptor.
std::string readAll(int descriptor);

// The descriptors that a program gets; -1 leaves it the test's own.
struct Streams {
    int in = -1;
    int out = -1;
    int err = -1;
    int kept = -1; // under its own number
};

// Starts a program, looked up in PATH when its name is no path. 127 is the exit code of one that there is not.
pid_t spawn(std::vector<std::string> command, const Streams &streams);

// Waits for the end; 128 and the signal's number when a signal ended it.
int exitCodeOf(pid_t child);

// Looks again until the condition holds; false after half a minute.
bool eventually(const std::function<bool()> &condition);

} // namespace support
