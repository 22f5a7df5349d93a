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

NASCTRL_END_DECLS

#endif
