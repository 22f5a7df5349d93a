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
    // From then on no light-weight thread that sleeps goes on.
    virtual void stop() = 0;

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
