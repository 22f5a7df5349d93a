// Faults below the host's functions: the bounded copies, the formatted print and the semaphore that the IP manager uses
// can be told to fail. Linking nas_ip_mgr_faults.cpp puts its definitions in front of the libraries' own.
#pragma once

#include <cstddef>
#include <functional>
#include <vector>

namespace faults {

void reset();

// The nth clearing or copy of memory from now on (1 = the next) fails with this code.
void failClear(int nth, int error);
void failCopy(int nth, int error);
// The next cut copy of a text fails with this code.
void failNextCutCopy(int error);
// The nth print with exactly this format fails (1 = the next).
void failPrint(const char *format, int nth);

// The next waits on a semaphore fail with these errno values, in order, and count nothing down.
void failWaits(const std::vector<int> &errors);
// Runs at the start of every wait.
void duringWait(std::function<void()> action);
// How many waits there were since reset.
size_t waits();

} // namespace faults
