/*
 * Host service: the cluster's name service, small named values with a version that counts their writes.
 *
 * All functions may be called from any thread. handle is the one that the host put into s_nasctrlDpcNsHdl.
 */
#ifndef NASCTRL_HOST_NAME_SERVICE_H
#define NASCTRL_HOST_NAME_SERVICE_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* What a read found. */
typedef struct {
    int64_t version;   /* counts the writes */
    const void *value; /* length bytes, valid during the callback; null = the name holds no value */
    uint32_t length;   /* of the value; 0 = not told, the value is a whole record */
    uint32_t pad;
} ns_info_t;

/* What a write left behind; the library keeps the first two words as they are. */
typedef struct {
    uint64_t word0, word1; /* the host's */
    uint64_t version;      /* of the value that was written */
} ns_state_t;

/* Ends a read: ret 0 with info, or an error code with info null. */
typedef void (*ns_get_cb)(int32_t ret, const ns_info_t *info, void *context);

/*
 * Creates a name with a value of length bytes, copied during the call. Returns 0, 2 when the name exists (its value
 * stays), or an error code. zero is always 0.
 */
NASCTRL_API int32_t ns_create(uint32_t handle, const char *name, uint32_t zero, const void *value, uint32_t length);

/*
 * Starts a read. Returns 0 when callback will be called, exactly once and on a thread of the host; otherwise an error
 * code, and callback is not called.
 */
NASCTRL_API int32_t ns_getAsyn(uint32_t handle, const char *name, ns_get_cb callback, void *context);

/*
 * Writes the value (length bytes, copied during the call) only if the name still has expected_version. Returns 0 and
 * fills out_state, or an error code.
 */
NASCTRL_API int32_t ns_set(uint32_t handle, const char *name, const void *value, uint32_t length,
                           uint64_t expected_version, ns_state_t *out_state);

NASCTRL_END_DECLS

#endif
