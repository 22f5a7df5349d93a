/* One log line that its level drops, beside a call of the same form that does nothing. */
#include "empty_call.h"
#include "platform/log.h"

#include <benchmark/benchmark.h>

namespace {

void emptyCall(benchmark::State &state)
{
    uint32_t value = 0;
    for (auto _ : state) {
        emptyLog(NASCTRL_LOG_MODULE, NASCTRL_LOG_INFO, __FILE__, __LINE__, __func__, 0, "PROTOCOL: %s %u", "text",
                 ++value);
    }
}
BENCHMARK(emptyCall);

void droppedLine(benchmark::State &state)
{
    host::LogSettings settings;
    settings.console = false;
    settings.threshold = NASCTRL_LOG_ERROR;
    host::openLog(settings);
    uint32_t value = 0;
    for (auto _ : state) {
        kvlog(NASCTRL_LOG_MODULE, NASCTRL_LOG_INFO, __FILE__, __LINE__, __func__, 0, "PROTOCOL: %s %u", "text",
              ++value);
    }
}
BENCHMARK(droppedLine);

} // namespace
