#include "notify/told.h"

#include <algorithm>

namespace host {

namespace {

using WallClock = std::chrono::system_clock; // that of the events
using Clock = std::chrono::steady_clock;

bool is(const Expected &expected, const EventDetails &details)
{
    return details.module == expected.module && details.name == expected.name && details.data == expected.data;
}

// Takes what an event was expected as off the list; false when it was not.
bool takeExpected(std::vector<Expected> &expected, const EventDetails &details)
{
    const auto found = std::ranges::find_if(expected, [&details](const Expected &each) { return is(each, details); });
    if (found == expected.end()) {
        return false;
    }
    expected.erase(found);
    return true;
}

std::chrono::milliseconds leftUntil(Clock::time_point until)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

} // namespace

TellingWatch::TellingWatch() : newest_(readEvents(UINT64_MAX, 0).newest), begin_(WallClock::now()) {}

TellingOutcome TellingWatch::wait(const std::vector<Expected> &expected, std::chrono::milliseconds patience) const
{
    TellingOutcome outcome{{}, expected};
    const auto until = Clock::now() + patience;
    uint64_t after = newest_;
    while (!outcome.untold.empty()) {
        const auto left = leftUntil(until);
        const EventPage page = readEvents(after, SIZE_MAX, left);
        for (const auto &event : page.events) {
            if (takeExpected(outcome.untold, event->details)) {
                outcome.told.push_back(
                    {event, std::chrono::duration_cast<std::chrono::microseconds>(event->time - begin_)});
            }
            after = event->number;
        }
        if (page.events.empty()) {
            break; // time is up, or the node ends
        }
    }
    return outcome;
}

} // namespace host
