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

/* Names an event of a module that notifyCall may be given. */
typedef struct {
    char module_name[33]; /* NUL-terminated */
    char event_name[33];  /* NUL-terminated */
    uint8_t zero[22];
} notify_event_reg_t;

/* What a notified module is handed; the library clears the whole record before use. */
typedef struct {
    uint64_t data; /* an LS id or the event's data word */
    uint8_t zero[64];
} notify_arg_t;

/* Registers an event of a module (1 FMM, 2 DLG); the record is copied. Returns 0, or an error code. */
NASCTRL_API int32_t notifyEventRegister(uint32_t module, uint32_t event, const notify_event_reg_t *record);

/*
 * Tells a module of an event. arg is a notify_arg_t, valid during the call. Called from any thread, light-weight
 * threads included. Returns 0, or the code with which the module refused it.
 */
NASCTRL_API int32_t notifyCall(uint32_t module, uint32_t event, void *arg);

/* A debug command. */
typedef struct {
    uint32_t header0, header1; /* not used */
    char module[32];           /* NUL-terminated */
    char command[64];          /* NUL-terminated */
    char usage[4504];          /* ends in "-v " where the command takes a text */
    /*
     * buf holds the operator's text (NUL-terminated) on entry and the answer on return; null tells a command that takes
     * a text that there is none. Returns the answer's length, 0 for no answer, or the code of a failure.
     */
    int32_t (*handler)(char *buf, uint32_t size);
    uint32_t tail0, tail1; /* not used */
} pum_cmd_t;

/* Registers a command; the record is copied. Returns 0, or an error code. */
NASCTRL_API int32_t pum_register_cmd(const pum_cmd_t *record);

NASCTRL_END_DECLS

#endif
