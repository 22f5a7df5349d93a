/*
 * The service's own lines in the host's log.
 */
#pragma once

#include <platform/log.h>

#define STORAGE_LOG(level, ...)                                                                                        \
    kvlog(host::kStorageLogModule, (level), __FILE_NAME__, __LINE__, __func__, 0, __VA_ARGS__)
