/*
 * Log, memory, threads, time, locks and numbers.
 */
#include "minimal_host.h"

#include <nasctrl/host/log.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/host/platform.h>
#include <pthread.h>
#include <sched.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

/* ---- log: failures only ---- */

void kvlog(uint32_t module, uint32_t level, const char *file, uint32_t line, const char *func, uint32_t zero,
           const char *format, ...)
{
    char text[1024];
    va_list arguments;
    (void)module;
    (void)zero;
    if (level > NASCTRL_LOG_ERROR) {
        return;
    }
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    fprintf(stderr, "%s:%u %s: %s\n", file, line, func, text);
}

uint32_t nas_log_map_get(uint32_t log_class)
{
    return log_class == 3 ? NASCTRL_LOG_ERROR : NASCTRL_LOG_INFO;
}

/* ---- memory ---- */

void *nas_mem_comm_alloc(size_t size, const char *func, uint32_t line)
{
    (void)func;
    (void)line;
    return malloc(size);
}

void *nas_mem_comm_zalloc(size_t size, const char *func, uint32_t line)
{
    (void)func;
    (void)line;
    return calloc(1, size);
}

void nas_mem_comm_free(void *ptr, const char *func, uint32_t line)
{
    (void)func;
    (void)line;
    free(ptr);
}

/* ---- threads and time ---- */

int32_t kvos_thrd_create(void *(*body)(void *), void *arg, unsigned long *thread_id)
{
    pthread_t thread;
    const int error = pthread_create(&thread, NULL, body, arg);
    if (error == 0) {
        pthread_detach(thread);
        *thread_id = (unsigned long)thread;
    }
    return error;
}

int startThread(void *(*body)(void *), void *arg)
{
    unsigned long thread = 0;
    return kvos_thrd_create(body, arg, &thread);
}

void kvos_msleep(uint32_t ms)
{
    const struct timespec pause = {ms / 1000, (long)(ms % 1000) * 1000000};
    nanosleep(&pause, NULL);
}

void kvos_10msleep(uint32_t units_of_10_ms)
{
    kvos_msleep(units_of_10_ms * 10);
}

static uint64_t monotonicMicroseconds(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (uint64_t)now.tv_sec * 1000000 + (uint64_t)now.tv_nsec / 1000;
}

uint64_t kvos_time_getmillisec(void)
{
    return monotonicMicroseconds() / 1000;
}

uint64_t kvos_time_gettime(void)
{
    return monotonicMicroseconds();
}

/* ---- locks ---- */

void do_kvos_spinlock_lock(kvos_spinlock_t *lock)
{
    while (__atomic_exchange_n(&lock->lock, 1, __ATOMIC_ACQUIRE) != 0) {
        sched_yield();
    }
}

void do_kvos_spinlock_unlock(kvos_spinlock_t *lock)
{
    __atomic_store_n(&lock->lock, 0, __ATOMIC_RELEASE);
}

/* All reader-writer locks wait in one place. A word counts the readers, or holds WRITER. */
#define WRITER UINT64_MAX
static pthread_mutex_t g_lockMutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_lockFreed = PTHREAD_COND_INITIALIZER;

void kvos_rwlock_read_lock(kvos_rwlock_t *lock)
{
    pthread_mutex_lock(&g_lockMutex);
    while (lock->word == WRITER) {
        pthread_cond_wait(&g_lockFreed, &g_lockMutex);
    }
    ++lock->word;
    pthread_mutex_unlock(&g_lockMutex);
}

void kvos_rwlock_write_lock(kvos_rwlock_t *lock)
{
    pthread_mutex_lock(&g_lockMutex);
    while (lock->word != 0) {
        pthread_cond_wait(&g_lockFreed, &g_lockMutex);
    }
    lock->word = WRITER;
    pthread_mutex_unlock(&g_lockMutex);
}

void kvos_rwlock_read_unlock(kvos_rwlock_t *lock)
{
    pthread_mutex_lock(&g_lockMutex);
    --lock->word;
    pthread_cond_broadcast(&g_lockFreed);
    pthread_mutex_unlock(&g_lockMutex);
}

void kvos_rwlock_write_unlock(kvos_rwlock_t *lock)
{
    pthread_mutex_lock(&g_lockMutex);
    lock->word = 0;
    pthread_cond_broadcast(&g_lockFreed);
    pthread_mutex_unlock(&g_lockMutex);
}

/* ---- numbers ---- */

uint64_t kvos_str_tou64(const char *text)
{
    uint64_t number = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        number = number * 10 + (uint64_t)(*text - '0');
    }
    return number;
}

uint32_t hash_u64_id(uint64_t value, uint32_t modulus)
{
    return modulus == 0 ? 0 : (uint32_t)(value % modulus);
}
