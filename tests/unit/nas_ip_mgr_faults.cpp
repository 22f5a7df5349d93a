#include "nas_ip_mgr_faults.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <memory>
#include <mutex>
#include <semaphore.h>
#include <string>
#include <utility>

namespace {

// A failure that comes due.
struct Fault {
    int nth = 0; // 0 = none
    int error = 0;
};

struct Faults {
    std::mutex mutex;
    Fault clear;
    Fault copy;
    Fault cutCopy;
    std::string printFormat;
    int printCountdown = 0;
    std::deque<int> waitErrors;
    std::shared_ptr<std::function<void()>> waitAction; // shared, so that its own state lives on from wait to wait
    size_t waits = 0;
};

Faults g_faults;

template <typename Function>
Function next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

void set(Fault &fault, int nth, int error)
{
    const std::lock_guard guard(g_faults.mutex);
    fault = {nth, error};
}

// The error of this call, or 0.
int take(Fault &fault)
{
    const std::lock_guard guard(g_faults.mutex);
    return fault.nth > 0 && --fault.nth == 0 ? fault.error : 0;
}

bool printFails(const char *format)
{
    const std::lock_guard guard(g_faults.mutex);
    return g_faults.printCountdown > 0 && g_faults.printFormat == format && --g_faults.printCountdown == 0;
}

} // namespace

namespace faults {

void reset()
{
    const std::lock_guard guard(g_faults.mutex);
    g_faults.clear = {};
    g_faults.copy = {};
    g_faults.cutCopy = {};
    g_faults.printCountdown = 0;
    g_faults.waitErrors.clear();
    g_faults.waitAction = nullptr;
    g_faults.waits = 0;
}

void failClear(int nth, int error)
{
    set(g_faults.clear, nth, error);
}

void failCopy(int nth, int error)
{
    set(g_faults.copy, nth, error);
}

void failNextCutCopy(int error)
{
    set(g_faults.cutCopy, 1, error);
}

void failPrint(const char *format, int nth)
{
    const std::lock_guard guard(g_faults.mutex);
    g_faults.printFormat = format;
    g_faults.printCountdown = nth;
}

void failWaits(const std::vector<int> &errors)
{
    const std::lock_guard guard(g_faults.mutex);
    g_faults.waitErrors.assign(errors.begin(), errors.end());
}

void duringWait(std::function<void()> action)
{
    const std::lock_guard guard(g_faults.mutex);
    g_faults.waitAction = std::make_shared<std::function<void()>>(std::move(action));
}

size_t waits()
{
    const std::lock_guard guard(g_faults.mutex);
    return g_faults.waits;
}

} // namespace faults

#define IN_FRONT __attribute__((visibility("default")))

extern "C" {

IN_FRONT int _memset_s_chk(void *dest, size_t size, int value, size_t n, size_t bos)
{
    static const auto real = next<int (*)(void *, size_t, int, size_t, size_t)>("_memset_s_chk");
    const int error = take(g_faults.clear);
    return error != 0 ? error : real(dest, size, value, n, bos);
}

IN_FRONT int _memcpy_s_chk(void *dest, size_t size, const void *src, size_t n, size_t destBos, size_t srcBos)
{
    static const auto real = next<int (*)(void *, size_t, const void *, size_t, size_t, size_t)>("_memcpy_s_chk");
    const int error = take(g_faults.copy);
    return error != 0 ? error : real(dest, size, src, n, destBos, srcBos);
}

IN_FRONT int _strncpy_s_chk(char *dest, size_t size, const char *src, size_t n, size_t destBos, size_t srcBos)
{
    static const auto real = next<int (*)(char *, size_t, const char *, size_t, size_t, size_t)>("_strncpy_s_chk");
    const int error = take(g_faults.cutCopy);
    return error != 0 ? error : real(dest, size, src, n, destBos, srcBos);
}

IN_FRONT int vsnprintf(char *dest, size_t size, const char *format, va_list arguments)
{
    static const auto real = next<int (*)(char *, size_t, const char *, va_list)>("vsnprintf");
    return printFails(format) ? -1 : real(dest, size, format, arguments);
}

// What vsnprintf is called when the library is built with fortified headers.
IN_FRONT int __vsnprintf_chk(char *dest, size_t size, int flag, size_t destSize, const char *format, va_list arguments)
{
    static const auto real = next<int (*)(char *, size_t, int, size_t, const char *, va_list)>("__vsnprintf_chk");
    return printFails(format) ? -1 : real(dest, size, flag, destSize, format, arguments);
}

IN_FRONT int sem_wait(sem_t *semaphore)
{
    static const auto real = next<int (*)(sem_t *)>("sem_wait");
    std::shared_ptr<std::function<void()>> action;
    int error = 0;
    {
        const std::lock_guard guard(g_faults.mutex);
        ++g_faults.waits;
        action = g_faults.waitAction;
        if (!g_faults.waitErrors.empty()) {
            error = g_faults.waitErrors.front();
            g_faults.waitErrors.pop_front();
        }
    }
    if (action) {
        (*action)();
    }
    if (error != 0) {
        errno = error;
        return -1;
    }
    return real(semaphore);
}

} // extern "C"
