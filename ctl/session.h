/*
 * What every command of nasctl is told: where the node is and how to answer.
 */
#pragma once

#include <chrono>
#include <string>

namespace ctl {

enum ExitCode { kDone = 0, kFailed = 1, kUsage = 2 };

struct Session {
    std::string command; // as typed, "ip add": the place that error lines name
    std::string adminSocket = "/run/nasctrl/admin.sock";
    std::string messageSocket = "/run/nasctrl/message.sock";
    std::chrono::milliseconds timeout{10000}; // for one call, its connection included
    bool json = false;
    bool colour = false;
};

} // namespace ctl
