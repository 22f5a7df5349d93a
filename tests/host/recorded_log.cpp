#include "recorded_log.h"

#include <cstdarg>
#include <cstdio>
#include <nasctrl/host/log.h>
#include <new>

void kvlog(uint32_t, uint32_t level, const char *, uint32_t, const char *, uint32_t, const char *format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const std::scoped_lock hold(recorded::lock);
    try {
        recorded::kept.push_back(std::to_string(level) + " " + text);
    } catch (const std::bad_alloc &) {
        return; // as the node's own log, it loses the line and nothing else
    }
    recorded::changed.notify_all();
}
