/*
 * Host service: light-weight threads (fibers, or plain threads where the host prefers).
 */
#ifndef NASCTRL_HOST_LWT_H
#define NASCTRL_HOST_LWT_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/*
 * Starts a light-weight thread that runs body(arg). On success returns 0 and stores the host's handle through handle;
 * otherwise returns a non-zero code and body never runs. one is always 1, all_ones always 0xFFFFFFFF.
 */
NASCTRL_API int32_t lwt_create_default(void **handle, void (*body)(void *), void *arg, uint32_t one, uint32_t all_ones);

/* Sleeps the calling light-weight thread (or plain thread) for ms milliseconds; module, func and line tell who does. */
NASCTRL_API void kvlwt_task_sleep(uint32_t ms, uint32_t module, const char *func, uint32_t line);

/* Non-zero when the caller runs on a light-weight thread; module and func tell who asks. */
NASCTRL_API int32_t kvlwt_is_lwtcontext(uint32_t module, const char *func);

/* A semaphore of the host's making. */
typedef struct {
    uint64_t opaque[4];
} kvlwt_task_sem_t;

/*
 * init starts a semaphore with no ups given; one down returns after count ups, each of which may come before or after
 * it, from any thread. destroy ends it: no down waits then, and the last up may still be on its way out. module and
 * func tell who calls. A down blocks the calling light-weight or plain thread only.
 */
NASCTRL_API void kvlwt_task_sem_init(kvlwt_task_sem_t *sem, uint32_t count);
NASCTRL_API void kvlwt_task_sem_down(kvlwt_task_sem_t *sem, uint32_t module, const char *func);
NASCTRL_API void kvlwt_task_sem_up(kvlwt_task_sem_t *sem, uint32_t module, const char *func);
NASCTRL_API void kvlwt_task_sem_destroy(kvlwt_task_sem_t *sem);

/* A job for a work queue. The caller owns it; from a successful enqueue until func is called it is the queue's. */
typedef struct {
    list_link link; /* points at itself while not queued */
    void *owner;    /* handed to func */
    uint64_t zero0;
    void (*func)(void *owner); /* the job itself */
    uint64_t zero1;
    int32_t minus_one; /* -1 */
    uint32_t pad;
    uint64_t host_private; /* the queue's, while queued */
} lwt_work_t;

/*
 * Makes a queue whose jobs run on light-weight threads. The library passes the name "Fmm LWT", 8, 8 and 1000, which a
 * host reads as workers at least, workers at most and jobs that may wait. Returns null when it cannot be had. A queue
 * lives as long as the process. The library's jobs wait, with a down, for jobs that they put into the same queue: a
 * host should run another job in the place of one that waits, or eight that wait at once never go on.
 */
NASCTRL_API void *lwt_workqueue_create(const char *name, uint32_t a, uint32_t b, uint32_t c);

/*
 * Queues a job. Returns 0, after which item->func(item->owner) runs once on a light-weight thread (it may free the
 * job); or an error code, such as when the queue is full, and the job stays the caller's.
 */
NASCTRL_API int32_t lwt_work_enqueue(void *queue, lwt_work_t *item);

NASCTRL_END_DECLS

#endif
