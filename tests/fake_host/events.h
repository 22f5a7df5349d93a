/*
 * The fake host's notifications, commands, work queues and semaphores.
 */
#pragma once

#include <functional>
#include <map>
#include <nasctrl/host/lwt.h>
#include <nasctrl/host/notify.h>
#include <string>
#include <vector>

namespace fake {

// ---- notifications: recorded as "notifyCall(module, event, data)", data being the argument's first 64 bits

struct Notice {
    uint32_t module;
    uint32_t event;
    std::string argument; // all 72 bytes
};
std::vector<Notice> notices();
// As calls() shows them, in order: "notifyEventRegister(module, event, \"module name\", \"event name\")".
std::vector<notify_event_reg_t> registeredEvents();
std::vector<pum_cmd_t> registeredCommands();

// ---- work queues: recorded as "lwt_workqueue_create(\"name\", a, b, c)" and "lwt_work_enqueue()"

// The jobs that wait, oldest first; a test runs them by hand.
size_t queuedJobs();
lwt_work_t *queuedJob(size_t index);
// Takes the oldest job off and runs it; says whether there was one. Jobs that it queues run by later calls.
bool runJob();
// Until none waits.
void runAllJobs();

// ---- semaphores: recorded as "kvlwt_task_sem_up(module, \"func\")"

// A down that finds too few ups runs waiting jobs until there are enough; without any it throws Stop.
// Ups that a semaphore has got and no down has used.
uint32_t upsOf(const kvlwt_task_sem_t *sem);
// Semaphores that were initialised and not destroyed.
size_t liveSemaphores();

// What kvlwt_is_lwtcontext answers: answerAlways("kvlwt_is_lwtcontext", 1); default 0.
// What hash_u64_id answers: value modulo modulus, 0 for modulus 0, unless a test puts another in its place.
void setHash(std::function<uint32_t(uint64_t value, uint32_t modulus)> hash);

} // namespace fake
