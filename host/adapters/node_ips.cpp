// The node's service addresses, as the library's monitor asks for them.

#include "adapters/adapters.h"

#include "adapters/monitor_pass.h"
#include "platform/log.h"
#include "platform/memory.h"
#include "platform/timed_hold.h"

#include <cerrno>
#include <cstring>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/ipc.h>
#include <new>

namespace {

// The monitor can do without one answer, but must not stop.
constexpr std::chrono::milliseconds kListPatience{100};
constexpr uint32_t kWorking = 1;

// NasIpListNode begins with its link.
const NasIpListNode *nextNode(const void *link)
{
    const void *next = static_cast<const list_link *>(link)->next;
    return next == &g_iplistHead ? nullptr : static_cast<const NasIpListNode *>(next);
}

uint32_t countNodes()
{
    uint32_t count = 0;
    for (const NasIpListNode *node = nextNode(&g_iplistHead); node != nullptr; node = nextNode(node)) {
        ++count;
    }
    return count;
}

void fill(node_ip_list &list)
{
    node_ip_entry *entry = list.entries;
    for (const NasIpListNode *node = nextNode(&g_iplistHead); node != nullptr; node = nextNode(node), ++entry) {
        entry->proto_type = node->protoType;
        memcpy(entry->addr, node->addr, strnlen(node->addr, sizeof(node->addr) - 1));
        SetDefaultIpWorkstatus(entry);
    }
}

// With the list's lock held.
int32_t copyList(node_ip_list **list)
{
    const uint32_t count = countNodes();
    const size_t size = sizeof(node_ip_list) + count * sizeof(node_ip_entry);
    auto *answer = static_cast<node_ip_list *>(nas_mem_comm_zalloc(size, __func__, __LINE__));
    if (answer == nullptr) {
        return -ENOMEM;
    }
    answer->count = count;
    fill(*answer);
    *list = answer;
    return 0;
}

int32_t listStaysLocked()
{
    HOST_LOG(NASCTRL_LOG_ERROR, "adapters: the address list stayed locked for %lld ms",
             static_cast<long long>(kListPatience.count()));
    return -EBUSY;
}

// Without storage-side data the node's addresses are those it was sent notices of: the library's own list, so
// that a pass keeps them and tries the modules again that refused one. An addition or a deletion that is under way
// has to end first: it changes the list last, and the pass would undo what the list does not show yet.
int32_t listOwnAddresses(node_ip_list **list)
{
    const host::TimedHold change(g_ipSockIpLockMutex, kListPatience);
    if (!change.held()) {
        return listStaysLocked();
    }
    const host::TimedHold hold(g_ipListMutex, kListPatience);
    return hold.held() ? copyList(list) : listStaysLocked();
}

// The library takes the number of entries on trust, and a service may answer with fewer than it says.
bool isWhole(const node_ip_list &list)
{
    return host::blockSize(&list) >= sizeof list + size_t{list.count} * sizeof(node_ip_entry);
}

// The pass fails with what cannot be recorded, so that the record holds what the pass goes by.
int32_t noteAnswer(int32_t code, const node_ip_list *list)
{
    try {
        // A list that reports a failure of its own is as little of use to the monitor as none.
        host::noteMonitorQuery(code == 0 && list != nullptr ? list->result : code, list);
        return code;
    } catch (const std::bad_alloc &) {
        host::noteMonitorQuery(-ENOMEM, nullptr);
        return -ENOMEM;
    }
}

} // namespace

int32_t GetCurNodeIpListAdapter(node_ip_list **list)
{
    if (list == nullptr) {
        return -EINVAL;
    }
    host::beginMonitorPass();
    int32_t code = host::adapterSettings().hasStorage ? GetCurNodeIpList(list) : listOwnAddresses(list);
    if (code == 0 && *list != nullptr && !isWhole(**list)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "adapters: the list of addresses is cut short: it is to hold %u", (*list)->count);
        code = -EPROTO; // the monitor frees the list
    }
    return noteAnswer(code, *list);
}

uint32_t IsIpWork(const node_ip_entry *entry)
{
    return entry != nullptr && entry->work_status == kWorking ? 1 : 0;
}

void SetDefaultIpWorkstatus(node_ip_entry *entry)
{
    if (entry != nullptr) {
        entry->work_status = kWorking;
    }
}
