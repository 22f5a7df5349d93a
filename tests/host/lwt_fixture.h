// What the tests of the light-weight threads share: they run on each back end that the build can run.
#pragma once

#include "lwt/lwt.h"

#include <functional>
#include <gtest/gtest.h>
#include <string>

namespace lwt {

// Sanitizers do not follow a fiber's change of stack.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
inline const auto kBackends = testing::Values(host::LwtBackend::threads);
#else
constexpr bool kSanitized = false;
inline const auto kBackends = testing::Values(host::LwtBackend::fibers, host::LwtBackend::threads);
#endif

constexpr unsigned kWorkers = 2;

inline void call(void *function)
{
    (*static_cast<std::function<void()> *>(function))();
}

// The function has to outlive the light-weight thread.
inline int32_t start(std::function<void()> &function)
{
    void *handle = nullptr;
    return lwt_create_default(&handle, call, &function, 1, 0xFFFFFFFF);
}

inline void sleep(uint32_t ms)
{
    kvlwt_task_sleep(ms, 666, "lwt_test", 1);
}

class Lwt : public testing::TestWithParam<host::LwtBackend> {
protected:
    void SetUp() override { host::startLwt(GetParam(), kWorkers); }
    void TearDown() override { host::stopLwt(); }
};

inline std::string backendName(const testing::TestParamInfo<host::LwtBackend> &row)
{
    return row.param == host::LwtBackend::fibers ? "Fibers" : "Threads";
}

} // namespace lwt
