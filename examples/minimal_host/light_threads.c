/*
 * Light-weight threads are plain threads here, and a work queue gives each job a thread of its own.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/lwt.h>
#include <pthread.h>
#include <stdlib.h>

typedef struct {
    void (*body)(void *);
    void *arg;
} light_thread;

static _Thread_local int32_t t_isLight;

static void *runLightThread(void *arg)
{
    const light_thread thread = *(light_thread *)arg;
    free(arg);
    t_isLight = 1;
    thread.body(thread.arg);
    return NULL;
}

int32_t lwt_create_default(void **handle, void (*body)(void *), void *arg, uint32_t one, uint32_t all_ones)
{
    light_thread *thread = malloc(sizeof *thread);
    (void)one;
    (void)all_ones;
    if (thread == NULL) {
        return ENOMEM;
    }
    *thread = (light_thread){body, arg};
    const int error = startThread(runLightThread, thread);
    if (error != 0) {
        free(thread);
        return error;
    }
    *handle = (void *)body; /* nobody asks for it */
    return 0;
}

void kvlwt_task_sleep(uint32_t ms, uint32_t module, const char *func, uint32_t line)
{
    (void)module;
    (void)func;
    (void)line;
    kvos_msleep(ms);
}

int32_t kvlwt_is_lwtcontext(uint32_t module, const char *func)
{
    (void)module;
    (void)func;
    return t_isLight;
}

/*
 * All semaphores wait in one place, so that nothing of a semaphore is touched once its last up has been counted and
 * the one who waited may destroy it. The first word holds the ups that are still missing.
 */
static pthread_mutex_t g_semMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_semRaised = PTHREAD_COND_INITIALIZER;

void kvlwt_task_sem_init(kvlwt_task_sem_t *sem, uint32_t count)
{
    sem->opaque[0] = count;
}

void kvlwt_task_sem_down(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    (void)module;
    (void)func;
    pthread_mutex_lock(&g_semMutex);
    while (sem->opaque[0] != 0) {
        pthread_cond_wait(&g_semRaised, &g_semMutex);
    }
    pthread_mutex_unlock(&g_semMutex);
}

void kvlwt_task_sem_up(kvlwt_task_sem_t *sem, uint32_t module, const char *func)
{
    (void)module;
    (void)func;
    pthread_mutex_lock(&g_semMutex);
    if (sem->opaque[0] != 0) {
        --sem->opaque[0];
    }
    pthread_cond_broadcast(&g_semRaised);
    pthread_mutex_unlock(&g_semMutex);
}

void kvlwt_task_sem_destroy(kvlwt_task_sem_t *sem)
{
    (void)sem;
}

void *lwt_workqueue_create(const char *name, uint32_t a, uint32_t b, uint32_t c)
{
    static char queue;
    (void)name;
    (void)a;
    (void)b;
    (void)c;
    return &queue;
}

int32_t lwt_work_enqueue(void *queue, lwt_work_t *item)
{
    void *handle = NULL;
    (void)queue;
    return lwt_create_default(&handle, item->func, item->owner, 1, UINT32_MAX);
}
