/*
 * A cluster of one node: its cluster manager reports nothing, and its name service is a table in memory.
 */
#include "minimal_host.h"

#include <errno.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/name_service.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* ---- cluster manager ---- */

/* The events of this host's cluster manager. */
typedef struct {
    uint32_t type;
    uint32_t clientId;
} cm_event;

typedef struct {
    cm_report_cb callback;
    void *context;
} report;

uint32_t NasCrtlOpenCmClientAdapter(const char *cm_list, const char *local_ip, uint32_t *client_id)
{
    printf("cluster manager: %s, from %s\n", cm_list, local_ip);
    *client_id = 1;
    return 0;
}

int32_t CM_getEventInfo(const void *event, uint32_t what, uint32_t *client_id)
{
    if (what != 1) {
        return EINVAL;
    }
    *client_id = ((const cm_event *)event)->clientId;
    return 0;
}

int32_t getGlbMasterLsId(uint32_t *ls_id)
{
    *ls_id = LOCAL_LS;
    return 0;
}

uint32_t getLocalCtrlLsId(void)
{
    return LOCAL_LS;
}

int32_t CM_getLsFaultReason(const void *ls_entry)
{
    (void)ls_entry;
    return 3; /* the only fault that can be seen from here: the heart beat broke */
}

/* The callback may report again, so it comes from a thread of its own. */
static void *endReport(void *arg)
{
    const report ended = *(report *)arg;
    free(arg);
    ended.callback(ended.context, 0);
    return NULL;
}

int32_t CM_reportDsBusinessStatusAsyn(uint32_t client_id, const void *records, uint32_t count, cm_report_cb callback,
                                      void *context)
{
    const cm_attr *attributes = records;
    report *pending = malloc(sizeof *pending);
    if (pending == NULL) {
        return ENOMEM;
    }
    for (uint32_t i = 0; i < count; ++i) {
        notice("cluster manager: client %u reports %s", client_id, attributes[i].name);
    }
    *pending = (report){callback, context};
    const int error = startThread(endReport, pending);
    if (error != 0) {
        free(pending);
    }
    return error;
}

/* ---- name service: it has room for one name, and the library uses one ---- */

typedef struct {
    char name[64];
    unsigned char value[64];
    uint32_t length;
    uint64_t version; /* counts the writes; 0 = there is no name yet */
} named_value;

typedef struct {
    named_value found; /* a copy */
    ns_get_cb callback;
    void *context;
} name_read;

static named_value g_name;
static pthread_mutex_t g_nameMutex = PTHREAD_MUTEX_INITIALIZER; /* guards g_name */

static int isKnown(const char *name)
{
    return g_name.version != 0 && strcmp(g_name.name, name) == 0;
}

/* The mutex is held. */
static int32_t store(const void *value, uint32_t length)
{
    if (length > sizeof g_name.value) {
        return ENOSPC;
    }
    memcpy(g_name.value, value, length);
    g_name.length = length;
    ++g_name.version;
    return 0;
}

int32_t ns_create(uint32_t handle, const char *name, uint32_t zero, const void *value, uint32_t length)
{
    int32_t result = ENOSPC;
    (void)handle;
    (void)zero;
    pthread_mutex_lock(&g_nameMutex);
    if (isKnown(name)) {
        result = 2;
    } else if (g_name.version == 0 && strlen(name) < sizeof g_name.name) {
        strcpy(g_name.name, name);
        result = store(value, length);
    }
    pthread_mutex_unlock(&g_nameMutex);
    return result;
}

static void *endRead(void *arg)
{
    name_read *ended = arg;
    const ns_info_t info = {(int64_t)ended->found.version, ended->found.value, ended->found.length, 0};
    ended->callback(0, &info, ended->context);
    free(ended);
    return NULL;
}

int32_t ns_getAsyn(uint32_t handle, const char *name, ns_get_cb callback, void *context)
{
    name_read *pending = NULL;
    int32_t result = ENOENT;
    (void)handle;
    pthread_mutex_lock(&g_nameMutex);
    if (isKnown(name) && (pending = malloc(sizeof *pending)) != NULL) {
        *pending = (name_read){g_name, callback, context};
    }
    pthread_mutex_unlock(&g_nameMutex);
    if (pending != NULL && (result = startThread(endRead, pending)) != 0) {
        free(pending);
    }
    return result;
}

int32_t ns_set(uint32_t handle, const char *name, const void *value, uint32_t length, uint64_t expected_version,
               ns_state_t *out_state)
{
    int32_t result = ESTALE;
    (void)handle;
    pthread_mutex_lock(&g_nameMutex);
    if (isKnown(name) && g_name.version == expected_version && (result = store(value, length)) == 0) {
        *out_state = (ns_state_t){0, 0, g_name.version};
    }
    pthread_mutex_unlock(&g_nameMutex);
    return result;
}
