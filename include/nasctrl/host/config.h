/*
 * Host service: the two configuration readers.
 *
 * The syntax of the files is the host's; the reference host reads INI files with [sections] and key=value lines.
 * Loaded once at start, then read from any thread.
 */
#ifndef NASCTRL_HOST_CONFIG_H
#define NASCTRL_HOST_CONFIG_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* Loads the configuration that kvos_cfg_getItemValue reads from. Returns 0, or non-zero when path cannot be loaded. */
NASCTRL_API int32_t kvos_cfg_init(const char *path);

/*
 * Copies the value of key in section into buffer (size bytes, NUL included). Returns 0; non-zero, and buffer left as
 * it was, when the key is missing or the value does not fit.
 */
NASCTRL_API int32_t kvos_cfg_getItemValue(const char *section, const char *key, char *buffer, uint32_t size);

/* The same pair for files that are named at each read: file is the path that was loaded. */
NASCTRL_API int32_t ProtoCfgLoadFile(const char *path);
NASCTRL_API int32_t ProtoCfgGetStringValue(const char *file, const char *section, const char *key, char *buffer,
                                           uint32_t size);

NASCTRL_END_DECLS

#endif
