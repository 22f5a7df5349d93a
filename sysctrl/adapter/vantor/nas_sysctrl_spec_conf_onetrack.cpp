/*
 * The getter of any unsigned number of dpc.conf. Keeps nothing; any thread, once the file is loaded.
 */
#include <nasctrl/config.h>
#include <nasctrl/host/config.h>
#include <nasctrl/host/platform.h>

#include "internal/log.h"

/* A missing key is silent: callers ask for values that may well not be set. */
uint32_t NasSysCtrlGetSpecificationConfigValue(const char *section, const char *key, uint64_t *out)
{
    char value[21] = {}; /* 20 digits and the NUL */
    if (section == nullptr || key == nullptr || out == nullptr) {
        LOG_NULL(section == nullptr ? "section" : key == nullptr ? "key" : "out", "NAS_ERROR", NAS_ERROR);
        return NAS_ERROR;
    }
    const int32_t ret = kvos_cfg_getItemValue(section, key, value, sizeof(value));
    if (ret != 0) {
        return static_cast<uint32_t>(ret);
    }
    value[sizeof(value) - 1] = '\0'; /* whatever the host's reader has left there */
    *out = kvos_str_tou64(value);
    LOG_CLASS(1, "Get spec section:%s config:%s value:%llu success.", section, key, nas::llu(*out));
    return NAS_OK;
}
