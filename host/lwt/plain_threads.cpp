/*
 * The back end that gives each light-weight thread a detached OS thread of its own.
 */
#include "lwt/light_threads.h"

#include <atomic>
#include <nasctrl/host/platform.h>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace host {
namespace {

class PlainThreads final : public LightThreads {
public:
    int32_t start(const Start &start) override
    {
        try {
            std::thread([this, start] {
                pthread_setname_np(pthread_self(), "nas-lwt");
                adoptThread();
                start.body(start.arg);
            }).detach();
            return 0;
        } catch (const std::system_error &error) {
            return error.code().value();
        } catch (const std::bad_alloc &) {
            return ENOMEM;
        }
    }

    void sleep(uint32_t ms) override
    {
        kvos_msleep(ms);
        goOn();
    }

    void *fiber() override { return nullptr; }
    void suspend() override {}
    void wake(void * /*fiber*/) override {}

    void goOn() override
    {
        if (stopped_) {
            park();
        }
    }

    void stop() override { stopped_ = true; }

private:
    std::atomic<bool> stopped_{false};
};

} // namespace

LightThreads *makePlainThreads()
{
    return new PlainThreads;
}

} // namespace host
