/*
 * The signals that a service takes.
 */
#pragma once

#include <csignal>

namespace common {

// SIGTERM and SIGINT to stop, SIGHUP to take its data anew.
inline sigset_t handledSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        sigaddset(&signals, signal);
    }
    return signals;
}

} // namespace common
