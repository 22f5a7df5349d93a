// The library's debug commands in the command registry. The header and tail words of a record tell nothing that the
// registry needs: every command gets the same buffer, and its usage says whether it takes a text.

#include "notify/commands.h"
#include "platform/log.h"

#include <cerrno>
#include <cstring>
#include <nasctrl/host/notify.h>
#include <new>

namespace {

// A field that may lack its NUL.
template <size_t Width>
std::string textOf(const char (&field)[Width])
{
    return {field, strnlen(field, Width)};
}

int32_t registerRecord(const pum_cmd_t &record)
{
    try {
        const host::Command command = {textOf(record.module), textOf(record.command), textOf(record.usage),
                                       record.handler};
        if (command.module.empty() || command.name.empty()) {
            return -EINVAL;
        }
        return host::registerCommand(command) ? 0 : -EEXIST;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

} // namespace

int32_t pum_register_cmd(const pum_cmd_t *record)
{
    if (record == nullptr || record->handler == nullptr) {
        HOST_LOG(NASCTRL_LOG_ERROR, "notify: a command without a record or a handler cannot be registered");
        return -EINVAL;
    }
    const int32_t result = registerRecord(*record);
    if (result != 0) {
        HOST_LOG(NASCTRL_LOG_ERROR, "notify: command %.32s %.64s cannot be registered: error %d", record->module,
                 record->command, result);
    }
    return result;
}
