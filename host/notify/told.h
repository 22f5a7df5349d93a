/*
 * What modules are told because of a call: the events between its beginning and the last one that it leads to.
 */
#pragma once

#include "notify/events.h"
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace host {

// An event that a call is bound to lead to.
struct Expected {
    std::string module;
    std::string name;
    uint64_t data = 0;

    bool operator==(const Expected &) const = default;
};

struct Told {
    std::shared_ptr<const Event> event;
    std::chrono::microseconds after; // since the watch began
};

struct TellingOutcome {
    std::vector<Told> told;       // in the order of the stream
    std::vector<Expected> untold; // what did not come in time
};

constexpr std::chrono::milliseconds kTellingPatience{2000};

// Begun before the call. On a plain thread; wait sleeps until everything expected has come, or patience is used up.
class TellingWatch {
public:
    TellingWatch();
    TellingOutcome wait(const std::vector<Expected> &expected,
                        std::chrono::milliseconds patience = kTellingPatience) const;

private:
    uint64_t newest_;
    std::chrono::system_clock::time_point begin_;
};

} // namespace host
