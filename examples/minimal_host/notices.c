/*
 * What the library tells: modules of events, and the host of debug commands and statistics.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/fmm.h>
#include <nasctrl/host/notify.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define EVENTS_MAX 16U
#define NOTICES_MAX 16U

typedef struct {
    char text[64];
} notice_line;

static char g_eventNames[EVENTS_MAX][33];  /* filled at start, then only read */
static notice_line g_notices[NOTICES_MAX]; /* what came since the last print */
static unsigned g_noticeCount;
static pthread_mutex_t g_noticeMutex = PTHREAD_MUTEX_INITIALIZER; /* guards the notices */
static pthread_cond_t g_noticeCame = PTHREAD_COND_INITIALIZER;

int32_t notifyEventRegister(uint32_t module, uint32_t event, const notify_event_reg_t *record)
{
    if (module != NOTIFY_MODULE_FMM || event >= EVENTS_MAX) {
        return EINVAL;
    }
    memcpy(g_eventNames[event], record->event_name, sizeof record->event_name);
    return 0;
}

void notice(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    pthread_mutex_lock(&g_noticeMutex);
    if (g_noticeCount < NOTICES_MAX) {
        vsnprintf(g_notices[g_noticeCount++].text, sizeof g_notices[0].text, format, arguments);
    }
    pthread_cond_signal(&g_noticeCame);
    pthread_mutex_unlock(&g_noticeMutex);
    va_end(arguments);
}

int32_t notifyCall(uint32_t module, uint32_t event, void *arg)
{
    (void)arg;
    if (event >= EVENTS_MAX) {
        return EINVAL;
    }
    notice("%s is told: %s", module == NOTIFY_MODULE_FMM ? "FMM" : "DLG", g_eventNames[event]);
    return 0;
}

static int compareLines(const void *left, const void *right)
{
    return strcmp(((const notice_line *)left)->text, ((const notice_line *)right)->text);
}

/* Threads tell side by side, so the order of their coming says nothing. */
void printNotices(unsigned count)
{
    pthread_mutex_lock(&g_noticeMutex);
    while (g_noticeCount < count) {
        pthread_cond_wait(&g_noticeCame, &g_noticeMutex);
    }
    qsort(g_notices, g_noticeCount, sizeof g_notices[0], compareLines);
    for (unsigned i = 0; i < g_noticeCount; ++i) {
        puts(g_notices[i].text);
    }
    g_noticeCount = 0;
    pthread_mutex_unlock(&g_noticeMutex);
}

/* A host with an operator's door keeps the handlers and calls them when asked. */
int32_t pum_register_cmd(const pum_cmd_t *record)
{
    printf("command: %s %s\n", record->module, record->command);
    return 0;
}

int32_t statis_int_handle_register(uint32_t kind, uint32_t (*find)(uint64_t id))
{
    (void)find;
    printf("statistics: kind %u finds indices\n", kind);
    return 0;
}

int32_t statis_string_handle_register(uint32_t kind, uint32_t (*name)(uint64_t id, char *buf, uint32_t len))
{
    (void)name;
    printf("statistics: kind %u finds names\n", kind);
    return 0;
}

/* ---- this host has no commands of its own, and nothing to revert ---- */

void RegisterSysCtrlCmd(void) {}

void NasFmmRegShardChgNotifyOnetrack(void) {}

void NasFmmCmdInitOnetrack(void) {}

void NasFmmProcessRevertOnetrack(void *arg, notify_arg_t *notify_arg)
{
    (void)arg;
    (void)notify_arg;
}
