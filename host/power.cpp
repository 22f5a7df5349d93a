// Both routines hold g_ipSockIpLockMutex, so that no addition, deletion or monitor pass runs while the door moves. The
// door is the library's own switch: with it off, addresses are listed with an empty status, as waiting for every
// module. A closed service leaves the same behind, so that opening announces them all.

#include "power.h"

#include <atomic>
#include <mutex>
#include <nasctrl/ip_manager.h>
#include <nasctrl/power.h>

namespace host {
namespace {

class MutexHold {
public:
    explicit MutexHold(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~MutexHold() { pthread_mutex_unlock(&mutex_); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

private:
    pthread_mutex_t &mutex_;
};

void setDoor(uint32_t open)
{
    std::atomic_ref(g_floatIpSupport).store(open);
}

// Has the modules close every listed address, and leaves the address as one that waits for all of them.
void withdrawAddresses()
{
    const MutexHold list(g_ipListMutex);
    for (void *link = g_iplistHead.next; link != &g_iplistHead; link = static_cast<list_link *>(link)->next) {
        auto *node = static_cast<NasIpListNode *>(link); // a node begins with its link
        uint32_t told = 0;
        NasIpMgrInvokeEvent(NAS_IP_EVENT_DELETE, node->addr, node->protoType, &told, 0);
        node->status = 0;
    }
}

// The service is up when this returns, so it reports that itself, whoever switched it on.
int32_t openDoor(void *, void *)
{
    const MutexHold pass(g_ipSockIpLockMutex);
    setDoor(1);
    NasRetryPendingAddNotification();
    nas_ctrl_power_on_success();
    return 0;
}

int32_t shutDoor(void *, void *)
{
    const MutexHold pass(g_ipSockIpLockMutex);
    withdrawAddresses(); // through the door, so before it is shut
    setDoor(0);
    return 0;
}

} // namespace

void shutServiceDoor()
{
    setDoor(0);
}

int32_t registerPower()
{
    return nas_ctrl_power_reg(openDoor, shutDoor);
}

} // namespace host
