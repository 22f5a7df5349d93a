// Both routines hold g_ipSockIpLockMutex, so that no addition, deletion or monitor pass runs while the door moves. The
// door is the library's own switch: with it off, addresses are listed with an empty status, as waiting for every
// module, which is also what a closed service leaves behind, so that opening announces them all.

#include "power.h"

#include "modules/modules.h"

#include <atomic>
#include <mutex>
#include <nasctrl/ip_manager.h>
#include <nasctrl/power.h>

namespace host {
namespace {

class MutexHold {
public:
    explicit MutexHold(pthread_mutex_t &mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~MutexHold() { pthread_mutex_unlock(&m_mutex); }
    MutexHold(const MutexHold &) = delete;
    MutexHold &operator=(const MutexHold &) = delete;

private:
    pthread_mutex_t &m_mutex;
};

void setDoor(uint32_t open)
{
    std::atomic_ref(g_floatIpSupport).store(open);
}

void forgetAnnouncements()
{
    const MutexHold list(g_ipListMutex);
    for (void *link = g_iplistHead.next; link != &g_iplistHead; link = static_cast<list_link *>(link)->next) {
        static_cast<NasIpListNode *>(link)->status = 0; // a node begins with its link
    }
}

int32_t openDoor(void *, void *)
{
    const MutexHold pass(g_ipSockIpLockMutex);
    setDoor(1);
    NasRetryPendingAddNotification();
    return 0;
}

int32_t shutDoor(void *, void *)
{
    const MutexHold pass(g_ipSockIpLockMutex);
    setDoor(0);
    forgetAnnouncements();
    closeModules();
    return 0;
}

} // namespace

int32_t registerPower()
{
    setDoor(0);
    return nas_ctrl_power_reg(openDoor, shutDoor);
}

} // namespace host
