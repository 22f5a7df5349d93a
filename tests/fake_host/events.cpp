#include "events.h"

#include "fake_host.h"
#include "recorder.h"

#include <cstring>
#include <deque>
#include <mutex>
#include <nasctrl/host/fmm.h>
#include <nasctrl/host/platform.h>

namespace {

struct Semaphore {
    uint32_t count = 0;
    uint32_t ups = 0;
};

struct Events {
    std::mutex mutex;
    std::vector<fake::Notice> notices;
    std::vector<notify_event_reg_t> registered;
    std::vector<pum_cmd_t> commands;
    std::deque<lwt_work_t *> jobs;
    std::map<const kvlwt_task_sem_t *, Semaphore> semaphores;
    std::function<uint32_t(uint64_t, uint32_t)> hash;
};

Events *g_events = new Events;
int g_queue; // its address is the handle of every queue

void clear()
{
    delete g_events;
    g_events = new Events;
}

const fake::AtReset g_atReset(clear);

bool takeUps(const kvlwt_task_sem_t *sem)
{
    const std::lock_guard guard(g_events->mutex);
    Semaphore &semaphore = g_events->semaphores[sem];
    if (semaphore.ups < semaphore.count) {
        return false;
    }
    semaphore.ups -= semaphore.count;
    return true;
}

} // namespace

namespace fake {

std::vector<Notice> notices()
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->notices;
}

std::vector<notify_event_reg_t> registeredEvents()
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->registered;
}

std::vector<pum_cmd_t> registeredCommands()
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->commands;
}

size_t queuedJobs()
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->jobs.size();
}

lwt_work_t *queuedJob(size_t index)
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->jobs.at(index);
}

bool runJob()
{
    lwt_work_t *job = nullptr;
    {
        const std::lock_guard guard(g_events->mutex);
        if (g_events->jobs.empty()) {
            return false;
        }
        job = g_events->jobs.front();
        g_events->jobs.pop_front();
    }
    job->func(job->owner);
    return true;
}

void runAllJobs()
{
    while (runJob()) {
    }
}

uint32_t upsOf(const kvlwt_task_sem_t *sem)
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->semaphores[sem].ups;
}

size_t liveSemaphores()
{
    const std::lock_guard guard(g_events->mutex);
    return g_events->semaphores.size();
}

void setHash(std::function<uint32_t(uint64_t value, uint32_t modulus)> hash)
{
    const std::lock_guard guard(g_events->mutex);
    g_events->hash = std::move(hash);
}

} // namespace fake

extern "C" {

int32_t notifyEventRegister(uint32_t module, uint32_t event, const notify_event_reg_t *record)
{
    {
        const std::lock_guard guard(g_events->mutex);
        g_events->registered.push_back(*record);
    }
    return static_cast<int32_t>(fake::calledFailable("notifyEventRegister", {fake::number(module), fake::number(event),
                                                                             fake::quoted(record->module_name),
                                                                             fake::quoted(record->event_name)}));
}

int32_t notifyCall(uint32_t module, uint32_t event, void *arg)
{
    const std::string bytes(static_cast<const char *>(arg), sizeof(notify_arg_t));
    uint64_t data = 0;
    std::memcpy(&data, bytes.data(), sizeof data);
    {
        const std::lock_guard guard(g_events->mutex);
        g_events->notices.push_back({module, event, bytes});
    }
    return static_cast<int32_t>(
        fake::calledFailable("notifyCall", {fake::number(module), fake::number(event), fake::number(data)}));
}

int32_t pum_register_cmd(const pum_cmd_t *record)
{
    {
        const std::lock_guard guard(g_events->mutex);
        g_events->commands.push_back(*record);
    }
    return static_cast<int32_t>(
        fake::calledFailable("pum_register_cmd", {fake::quoted(record->module), fake::quoted(record->command)}));
}

void *lwt_workqueue_create(const char *name, uint32_t a, uint32_t b, uint32_t c)
{
    const int64_t answer = fake::calledFailable(
        "lwt_workqueue_create", {fake::quoted(name), fake::number(a), fake::number(b), fake::number(c)});
    return answer != 0 ? nullptr : &g_queue;
}

int32_t lwt_work_enqueue(void *, lwt_work_t *item)
{
    const int64_t answer = fake::calledFailable("lwt_work_enqueue", {});
    if (answer == 0) {
        const std::lock_guard guard(g_events->mutex);
        g_events->jobs.push_back(item);
    }
    return static_cast<int32_t>(answer);
}

void kvlwt_task_sem_init(kvlwt_task_sem_t *sem, uint32_t count)
{
    fake::called("kvlwt_task_sem_init", {fake::number(count)});
    const std::lock_guard guard(g_events->mutex);
    g_events->semaphores[sem] = {count, 0};
}

void kvlwt_task_sem_down(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    fake::called("kvlwt_task_sem_down", {fake::number(module), fake::quoted(func)});
    while (!takeUps(sem)) {
        if (!fake::runJob()) {
            throw fake::Stop{};
        }
    }
}

void kvlwt_task_sem_up(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    fake::called("kvlwt_task_sem_up", {fake::number(module), fake::quoted(func)});
    const std::lock_guard guard(g_events->mutex);
    ++g_events->semaphores[sem].ups;
}

void kvlwt_task_sem_destroy(kvlwt_task_sem_t *sem)
{
    fake::called("kvlwt_task_sem_destroy", {});
    const std::lock_guard guard(g_events->mutex);
    g_events->semaphores.erase(sem);
}

int32_t kvlwt_is_lwtcontext(uint32_t module, const char *func)
{
    return static_cast<int32_t>(fake::called("kvlwt_is_lwtcontext", {fake::number(module), fake::quoted(func)}));
}

uint32_t hash_u64_id(uint64_t value, uint32_t modulus)
{
    const std::lock_guard guard(g_events->mutex);
    if (g_events->hash) {
        return g_events->hash(value, modulus);
    }
    return modulus == 0 ? 0 : static_cast<uint32_t>(value % modulus);
}

void NasFmmRegShardChgNotifyOnetrack(void)
{
    fake::called("NasFmmRegShardChgNotifyOnetrack", {});
}

void NasFmmCmdInitOnetrack(void)
{
    fake::called("NasFmmCmdInitOnetrack", {});
}

void NasFmmProcessRevertOnetrack(void *arg, notify_arg_t *notify_arg)
{
    fake::called("NasFmmProcessRevertOnetrack",
                 {fake::number(reinterpret_cast<uintptr_t>(arg)), fake::number(notify_arg->data)});
}

} // extern "C"
