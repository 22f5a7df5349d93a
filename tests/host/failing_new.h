/*
 * A new that fails on purpose, for the thread of the test alone.
 */
#pragma once

#include <cstddef>

namespace failing {

// The nth allocation from here on (1 is the next) throws std::bad_alloc, the others do not; 0 = none.
extern thread_local size_t countdown;

// Runs the work with its first allocation failing, then its second, and so on, until one run meets no failure. After
// each failed run `check` is called.
template <typename Work, typename Check>
void sweep(Work work, Check check)
{
    for (size_t nth = 1;; ++nth) {
        countdown = nth;
        work();
        const bool failed = countdown == 0;
        countdown = 0;
        if (!failed) {
            return;
        }
        check();
    }
}

} // namespace failing
