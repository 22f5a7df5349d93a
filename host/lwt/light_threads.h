/*
 * What a back end of the light-weight threads supplies. A back end is made by startLwt and never destroyed, because its
 * threads outlive stopLwt.
 */
#pragma once

#include <cstdint>

namespace host {

class LightThreads {
public:
    struct Start {
        void (*body)(void *);
        void *arg;
    };

    LightThreads() = default;
    LightThreads(const LightThreads &) = delete;
    LightThreads &operator=(const LightThreads &) = delete;

    // From any thread. 0, or an errno value when the light-weight thread cannot be had.
    virtual int32_t start(const Start &start) = 0;
    // Sleeps the calling light-weight thread, one of this back end's own.
    virtual void sleep(uint32_t ms) = 0;
    // What wake has to be given for the calling light-weight thread, one of this back end's own; null when it sleeps as
    // any OS thread does.
    virtual void *fiber() = 0;
    // Suspends the calling light-weight thread, which has a fiber, until wake: once for each suspend, before or after
    // it, from any thread.
    virtual void suspend() = 0;
    virtual void wake(void *fiber) = 0;
    // For a light-weight thread without a fiber that has slept: returns unless the back end was stopped.
    virtual void goOn() = 0;
    // From then on no light-weight thread that sleeps goes on.
    virtual void stop() = 0;

    // The back end that startLwt chose; null before and after.
    static LightThreads *running();
    // The back end whose light-weight thread calls; null on every other thread. Light-weight threads never change
    // their OS thread, so the mark is the OS thread's.
    static LightThreads *current();

protected:
    ~LightThreads() = default;
    // The calling OS thread runs this back end's light-weight threads from now on.
    void adoptThread();
    // Keeps the calling OS thread from ever running anything again.
    [[noreturn]] static void park();
};

LightThreads *makeFiberThreads(unsigned workers);
LightThreads *makePlainThreads();

} // namespace host
