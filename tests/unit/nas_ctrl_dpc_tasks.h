// The DPC event tasks that wait in the library's list.
#pragma once

#include <nasctrl/dpc.h>
#include <vector>

namespace dpc {

// Oldest first.
inline std::vector<dpc_event_task> queuedTasks()
{
    std::vector<dpc_event_task> found;
    const auto *head = &g_nasDpcEventTaskList.head;
    for (const auto *link = static_cast<list_link *>(head->next); link != head;
         link = static_cast<list_link *>(link->next)) {
        found.push_back(*reinterpret_cast<const dpc_event_task *>(link));
    }
    return found;
}

} // namespace dpc
