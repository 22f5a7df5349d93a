/*
 * Host service: logging.
 *
 * The host supplies both functions; the library calls them from every thread, also while it holds its own locks, so
 * they must not block for long and must not call back into the library.
 */
#ifndef NASCTRL_HOST_LOG_H
#define NASCTRL_HOST_LOG_H

#include <nasctrl/base.h>

#define NASCTRL_LOG_MODULE 666U /* the module number of every line of the library */

/* Levels: the lower, the graver. */
#define NASCTRL_LOG_ERROR 3U
#define NASCTRL_LOG_PROGRESS 4U
#define NASCTRL_LOG_INFO 6U

NASCTRL_BEGIN_DECLS

/*
 * Writes one log record, or drops it when the host's threshold for the module says so.
 *   module  who logs: NASCTRL_LOG_MODULE for every line of the library
 *   level   one of the levels above, or what nas_log_map_get answered
 *   file    base name of the source file; line: its line; func: the function that logs. All three outlive the call.
 *   zero    always 0
 *   format  printf format; the record is one line even when the text ends with a newline
 */
NASCTRL_API void kvlog(uint32_t module, uint32_t level, const char *file, uint32_t line, const char *func,
                       uint32_t zero, const char *format, ...) __attribute__((format(printf, 7, 8)));

/* The level at which lines of a log class (0 to 3) are to be written. Asked anew for each line. */
NASCTRL_API uint32_t nas_log_map_get(uint32_t log_class);

NASCTRL_END_DECLS

#endif
