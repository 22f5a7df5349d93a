/*
 * The node's event stream: what the modules were told, and what the host's own components saw, in one order. The last
 * kMaxEvents events are kept, whoever reads them or not.
 */
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace host {

constexpr size_t kMaxEvents = 10000;
// Of one event; what is longer is cut.
constexpr size_t kMaxEventName = 32;
constexpr size_t kMaxEventText = 512;
constexpr size_t kMaxEventMoves = 64;
// Kinds (module and name) that are counted one by one; those that come later are counted as "other".
constexpr size_t kMaxEventKinds = 128;

// A file system part that moves to another shard or LS.
struct Move {
    uint32_t fsp = 0;
    uint32_t shard = 0;
    uint32_t fromLs = 0;
    uint32_t toLs = 0;
    bool operator==(const Move &) const = default;
};

// What a component tells of an event. Module and name are of a fixed set of words, because they become labels of a
// metric; whatever varies goes into data and text.
struct EventDetails {
    std::string module;           // who was told or who saw it: "FMM", "DLG", "NLM"
    std::string name;             // what: "NODE_FAULT"
    uint64_t data = 0;            // an LS id, or another number of this event
    std::string text = {};        // one line for people; may be empty
    std::vector<Move> moves = {}; // the first of them
    uint64_t moveCount = 0;       // all of them
};

struct Event {
    uint64_t number = 0; // from 1, without gaps
    std::chrono::system_clock::time_point time;
    EventDetails details;
};

// Adds an event to the stream and wakes its readers. From any thread, light-weight threads included: nothing here waits
// for a reader. Returns the event's number, 0 when memory was short and the event is lost.
uint64_t recordEvent(EventDetails details) noexcept;

struct EventPage {
    std::vector<std::shared_ptr<const Event>> events; // in order
    uint64_t missed = 0; // events after the asked number that are kept no more: the reader was too slow for them
    uint64_t newest = 0; // number of the newest event there is; 0 = none yet
};

// The events after the given number, at most limit of them. With a wait, waits until there is one, for so long at the
// most; a number beyond the newest event, from an earlier life of the node, is answered at once. A reader goes on with
// the number of the last event it got. From any thread; with a wait, never from a light-weight thread.
EventPage readEvents(uint64_t after, size_t limit, std::chrono::milliseconds wait = {});

// Whether readers may wait. When it ends, those who do are answered at once. It begins as allowed.
void allowEventWaits(bool allowed);

struct EventCount {
    std::string module;
    std::string name;
    uint64_t count = 0;
};

// Events since the start of the process by kind, in the order of module and name; from any thread.
std::vector<EventCount> eventCounts();

} // namespace host
