/*
 * The light-weight thread functions of the contract, passed on to the back end that startLwt chose. Callable from
 * every thread, but for startLwt and stopLwt, which belong to the thread that runs the host; nothing is locked.
 */
#include "lwt/lwt.h"

#include "lwt/light_threads.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <nasctrl/host/platform.h>
#include <stdexcept>
#include <unistd.h>
#include <vector>

namespace {

constinit std::atomic<host::LightThreads *> g_running{nullptr};
constinit std::atomic<uintptr_t> g_lastHandle{0};
thread_local host::LightThreads *t_current = nullptr;

// Stopped back ends, to which their parked threads still refer.
std::vector<host::LightThreads *> &stoppedBackends()
{
    static auto &kept = *new std::vector<host::LightThreads *>;
    return kept;
}

// A handle is a number that nobody looks behind: a light-weight thread's record may be gone before its handle is.
void *nextHandle()
{
    return reinterpret_cast<void *>(++g_lastHandle); // NOLINT(performance-no-int-to-ptr)
}

} // namespace

host::LightThreads *host::LightThreads::current()
{
    return t_current;
}

host::LightThreads *host::LightThreads::running()
{
    return g_running.load();
}

void host::LightThreads::adoptThread()
{
    t_current = this;
}

void host::LightThreads::park()
{
    for (;;) {
        pause(); // returns after each signal
    }
}

void host::startLwt(LwtBackend backend, unsigned workers)
{
    if (g_running.load() != nullptr) {
        throw std::logic_error("light-weight threads: started twice");
    }
    g_running = backend == LwtBackend::fibers ? makeFiberThreads(std::max(workers, 1U)) : makePlainThreads();
}

void host::stopLwt()
{
    if (LightThreads *running = g_running.exchange(nullptr)) {
        running->stop();
        stoppedBackends().push_back(running);
    }
}

int32_t lwt_create_default(void **handle, void (*body)(void *), void *arg, uint32_t /*one*/, uint32_t /*all_ones*/)
{
    if (handle == nullptr || body == nullptr) {
        return EINVAL;
    }
    host::LightThreads *running = g_running.load();
    if (running == nullptr) {
        return ESRCH;
    }
    // The body may end before start returns, and its creator may read the handle from there.
    void *const fresh = nextHandle();
    void *const previous = *handle;
    *handle = fresh;
    const int32_t result = running->start({body, arg});
    if (result != 0) {
        *handle = previous;
    }
    return result;
}

void kvlwt_task_sleep(uint32_t ms, uint32_t /*module*/, const char * /*func*/, uint32_t /*line*/)
{
    if (host::LightThreads *mine = host::LightThreads::current()) {
        mine->sleep(ms);
    } else {
        kvos_msleep(ms);
    }
}

int32_t kvlwt_is_lwtcontext(uint32_t /*module*/, const char * /*func*/)
{
    return host::LightThreads::current() != nullptr ? 1 : 0;
}
