/* What a log call costs before it does anything: a function of kvlog's form that does nothing. */
#pragma once

#include <cstdint>

__attribute__((visibility("default"), format(printf, 7, 8))) void emptyLog(uint32_t module, uint32_t level,
                                                                           const char *file, uint32_t line,
                                                                           const char *func, uint32_t zero,
                                                                           const char *format, ...);
