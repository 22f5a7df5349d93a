/*
 * The modules that the library notifies: FMM and DLG. Each is told of its events in the order of the calls, and what it
 * is told becomes an event of the node's stream under the module's name.
 */
#pragma once

#include "notify/events.h"
#include <cstdint>
#include <vector>

namespace host {

constexpr uint32_t kNotifyFmm = 1;
constexpr uint32_t kNotifyDlg = 2;
// Numbers of a module's events are below it.
constexpr uint32_t kMaxNotifyEvents = 32;

// The records that a vnode move carries: its data word is 0 or the address of the library's migration payload, valid
// during the call. Copies the first kMaxEventMoves of them and sets moveCount to their number.
void readMoves(uint64_t dataWord, EventDetails &details);

// While one lives, nobody but its thread can tell a module anything: who tries waits, a light-weight thread with its
// worker. For a call that queues several jobs which tell: none of them can be done before the last is queued.
class NotifyHold {
public:
    NotifyHold();
    ~NotifyHold();
    NotifyHold(const NotifyHold &) = delete;
    NotifyHold &operator=(const NotifyHold &) = delete;
};

// Notifications that were refused: their module or event is not known, or memory was short. From any thread.
uint64_t refusedNotifications();

} // namespace host
