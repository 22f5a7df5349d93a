/*
 * Host service: the memory pool.
 *
 * All memory that the library keeps or hands to its callers comes from here, so that the host can account for it by
 * function and line. Callable from every thread. Both strings outlive the process (they are literals).
 */
#ifndef NASCTRL_HOST_MEMORY_H
#define NASCTRL_HOST_MEMORY_H

#include <nasctrl/base.h>

NASCTRL_BEGIN_DECLS

/* A block of size bytes, aligned for any type, or null when memory is short; zalloc clears it. Size 0 may give null. */
NASCTRL_API void *nas_mem_comm_alloc(size_t size, const char *func, uint32_t line);
NASCTRL_API void *nas_mem_comm_zalloc(size_t size, const char *func, uint32_t line);

/* Gives a block back; func and line tell who does. Null is ignored. */
NASCTRL_API void nas_mem_comm_free(void *ptr, const char *func, uint32_t line);

NASCTRL_END_DECLS

#endif
