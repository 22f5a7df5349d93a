/*
 * The two configuration readers: one that has a single file, one that names the file at each read.
 *
 * A loaded file is never changed. A reload puts a new one in its place under g_mutex, and readers who still hold the
 * old one keep it alive; g_mutex is held for a look-up and the copy of a pointer. Callable from every thread.
 */
#include "config/ini_file.h"
#include "platform/log.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <nasctrl/host/config.h>
#include <new>

namespace {

using host::IniFile;
using FilePtr = std::shared_ptr<const IniFile>;

struct Files {
    std::mutex mutex;
    FilePtr single;                                     // of kvos_cfg_init
    std::map<std::string, FilePtr, std::less<>> byPath; // of ProtoCfgLoadFile
};

// Never destroyed: detached threads may read until the process is gone.
Files &files()
{
    static auto &kept = *new Files;
    return kept;
}

// Hands the file to put, under the lock; what was loaded before stays when the file cannot be read.
template <class Put>
int32_t load(const char *path, Put put)
{
    if (path == nullptr) {
        return -EINVAL;
    }
    try {
        auto file = std::make_shared<const IniFile>(path);
        Files &all = files();
        const std::scoped_lock lock(all.mutex);
        put(all, std::move(file));
        return 0;
    } catch (const std::bad_alloc &) {
        HOST_LOG(NASCTRL_LOG_ERROR, "%s: out of memory", path);
        return -ENOMEM;
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "%s", error.what());
        return -EIO;
    }
}

FilePtr singleFile()
{
    Files &all = files();
    const std::scoped_lock lock(all.mutex);
    return all.single;
}

FilePtr fileByPath(const char *path)
{
    Files &all = files();
    const std::scoped_lock lock(all.mutex);
    const auto found = all.byPath.find(path);
    return found != all.byPath.end() ? found->second : nullptr;
}

int32_t read(const FilePtr &file, const char *section, const char *key, char *buffer, uint32_t size)
{
    const std::string *value = file != nullptr ? file->find(section, key) : nullptr;
    if (value == nullptr) {
        return -ENOENT;
    }
    if (value->size() >= size) {
        return -ERANGE;
    }
    std::memcpy(buffer, value->c_str(), value->size() + 1);
    return 0;
}

} // namespace

int32_t kvos_cfg_init(const char *path)
{
    return load(path, [](Files &all, FilePtr file) { all.single = std::move(file); });
}

int32_t kvos_cfg_getItemValue(const char *section, const char *key, char *buffer, uint32_t size)
{
    if (section == nullptr || key == nullptr || buffer == nullptr) {
        return -EINVAL;
    }
    return read(singleFile(), section, key, buffer, size);
}

int32_t ProtoCfgLoadFile(const char *path)
{
    return load(path, [path](Files &all, FilePtr file) { all.byPath.insert_or_assign(path, std::move(file)); });
}

int32_t ProtoCfgGetStringValue(const char *file, const char *section, const char *key, char *buffer, uint32_t size)
{
    if (file == nullptr || section == nullptr || key == nullptr || buffer == nullptr) {
        return -EINVAL;
    }
    return read(fileByPath(file), section, key, buffer, size);
}
