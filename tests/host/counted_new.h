/*
 * Every new of a test program, seen: what did the code under test allocate?
 */
#pragma once

#include <atomic>
#include <cstddef>

namespace counted {

// The largest size that was asked for since the test set this to 0.
extern std::atomic<size_t> largest;

} // namespace counted
