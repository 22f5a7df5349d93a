/*
 * Host service: what the host adds to the FMM events.
 */
#ifndef NASCTRL_HOST_FMM_H
#define NASCTRL_HOST_FMM_H

#include <nasctrl/base.h>
#include <nasctrl/host/notify.h>

NASCTRL_BEGIN_DECLS

/* Called at the start of the FMM events, once each: the host registers for shard changes, and its debug commands. */
NASCTRL_API void NasFmmRegShardChgNotifyOnetrack(void);
NASCTRL_API void NasFmmCmdInitOnetrack(void);

/*
 * Reverts the work of a process that has recovered. arg is what nas_fmm_process_recover_callback was given;
 * notify_arg is the argument FMM was told with, valid during the call. On a light-weight thread.
 */
NASCTRL_API void NasFmmProcessRevertOnetrack(void *arg, notify_arg_t *notify_arg);

NASCTRL_END_DECLS

#endif
