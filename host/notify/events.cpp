// Owns the event stream and its lock, which is the last of all locks to be taken: nothing is called under it. An event
// is built before the lock is taken and never changed after it, so readers share it instead of copying it.

#include "notify/events.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <utility>

namespace host {
namespace {

using Kind = std::pair<std::string, std::string>; // module, name

std::mutex s_lock;
std::condition_variable s_changed;
std::deque<std::shared_ptr<const Event>> s_events;
std::map<Kind, uint64_t> s_counts;
uint64_t s_newest = 0;
bool s_waitsAllowed = true;

void bound(EventDetails &details)
{
    details.moveCount = std::max<uint64_t>(details.moveCount, details.moves.size());
    details.module.resize(std::min(details.module.size(), kMaxEventName));
    details.name.resize(std::min(details.name.size(), kMaxEventName));
    details.text.resize(std::min(details.text.size(), kMaxEventText));
    details.moves.resize(std::min(details.moves.size(), kMaxEventMoves));
}

// With s_lock held.
uint64_t &counterOf(const Kind &kind)
{
    const auto known = s_counts.find(kind);
    if (known != s_counts.end()) {
        return known->second;
    }
    return s_counts[s_counts.size() < kMaxEventKinds ? kind : Kind("other", "other")];
}

uint64_t append(EventDetails details)
{
    bound(details);
    const Kind kind(details.module, details.name);
    const auto event = std::make_shared<Event>();
    event->details = std::move(details);
    const std::lock_guard hold(s_lock);
    uint64_t &counter = counterOf(kind); // here, where memory may still be short
    // Under the lock, so that times do not run against numbers.
    event->time = std::chrono::system_clock::now();
    event->number = s_newest + 1;
    s_events.push_back(event);
    s_newest = event->number;
    if (s_events.size() > kMaxEvents) {
        s_events.pop_front();
    }
    ++counter;
    return event->number;
}

} // namespace

uint64_t recordEvent(EventDetails details) noexcept
{
    uint64_t number = 0;
    try {
        number = append(std::move(details));
    } catch (const std::bad_alloc &) {
        return 0;
    }
    s_changed.notify_all();
    return number;
}

EventPage readEvents(uint64_t after, size_t limit, std::chrono::milliseconds wait)
{
    std::unique_lock hold(s_lock);
    s_changed.wait_for(hold, wait, [after] { return s_newest != after || !s_waitsAllowed; });
    EventPage page;
    page.newest = s_newest;
    const uint64_t forgotten = s_newest - s_events.size(); // the number of the last one
    page.missed = forgotten > after ? forgotten - after : 0;
    const uint64_t first = std::min(std::max(forgotten, after), s_newest) - forgotten;
    const uint64_t count = std::min<uint64_t>(s_events.size() - first, limit);
    const auto begin = s_events.begin() + static_cast<ptrdiff_t>(first);
    page.events.assign(begin, begin + static_cast<ptrdiff_t>(count));
    return page;
}

void allowEventWaits(bool allowed)
{
    {
        const std::lock_guard hold(s_lock);
        s_waitsAllowed = allowed;
    }
    s_changed.notify_all();
}

std::vector<EventCount> eventCounts()
{
    const std::lock_guard hold(s_lock);
    std::vector<EventCount> counts;
    counts.reserve(s_counts.size());
    for (const auto &[kind, number] : s_counts) {
        counts.push_back({kind.first, kind.second, number});
    }
    return counts;
}

} // namespace host
