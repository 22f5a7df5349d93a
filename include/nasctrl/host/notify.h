/*
 * Host service: commands and statistics that the library hands to the host.
 */
#ifndef NASCTRL_HOST_NOTIFY_H
#define NASCTRL_HOST_NOTIFY_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* Called once, when the IP manager starts: the host registers its debug commands for the library's subsystems. */
NASCTRL_API void RegisterSysCtrlCmd(void);

/*
 * Take the look-ups of a statistics kind (0: LIF ports): the index of an id, and the name of an id (written into buf
 * of len bytes; 0 = done). The host may call them from any thread. Return 0, or an error code.
 */
NASCTRL_API int32_t statis_int_handle_register(uint32_t kind, uint32_t (*find)(uint64_t id));
NASCTRL_API int32_t statis_string_handle_register(uint32_t kind,
                                                  uint32_t (*name)(uint64_t id, char *buf, uint32_t len));

NASCTRL_END_DECLS

#endif
