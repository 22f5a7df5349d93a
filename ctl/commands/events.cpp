/*
 * nasctl events: the node's event stream, one line per event, page by page.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "commands/told.h"
#include "failure.h"
#include "parse.h"
#include "view.h"
#include <algorithm>
#include <array>
#include <common/counted.h>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>
#include <pthread.h>
#include <unistd.h>

namespace ctl {

using nlohmann::json;
// For what is printed: members in the node's order.
using OrderedJson = nlohmann::ordered_json;

namespace {

constexpr std::chrono::milliseconds kMaxWait{20000}; // of one call that waits for events

extern "C" void leaveAtOnce(int)
{
    _exit(kDone);
}

// A signal to stop ends a program that follows, but only while it waits: what it prints is whole lines.
class StopSignals {
public:
    StopSignals()
    {
        sigemptyset(&signals_);
        for (const int number : {SIGINT, SIGTERM}) {
            sigaddset(&signals_, number);
            signal(number, leaveAtOnce);
        }
        block();
    }
    void block() const { pthread_sigmask(SIG_BLOCK, &signals_, nullptr); }
    void unblock() const { pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr); }

private:
    sigset_t signals_{};
};

// "2026-11-21 17:13:10.123Z"
std::string timeText(int64_t timeMs)
{
    constexpr int64_t kMsPerSecond = 1000;
    const auto seconds = static_cast<time_t>(timeMs / kMsPerSecond);
    tm parts{};
    gmtime_r(&seconds, &parts);
    std::array<char, 64> text{};
    strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S", &parts);
    std::array<char, 8> fraction{};
    snprintf(fraction.data(), fraction.size(), ".%03dZ", static_cast<int>(timeMs % kMsPerSecond));
    return std::string(text.data()) + fraction.data();
}

std::string lineOf(const json &event)
{
    const auto text = event.at("text").get<std::string>();
    const std::string moves = movesText(event);
    return printable(shown(event.at("number")).text + "  " + timeText(event.at("time_ms").get<int64_t>()) + "  " +
                     event.at("module").get<std::string>() + " " + event.at("event").get<std::string>() + " " +
                     event.at("data").get<std::string>() + (text.empty() ? "" : "  " + text) +
                     (moves.empty() ? "" : "  " + moves)) +
           "\n";
}

// Where a reader stands in the stream.
class Reader {
public:
    Reader(const Session &session, const std::optional<std::string> &after)
        : session_(session), next_(after ? parseNumber("--after", *after, 0, UINT64_MAX) : 0),
          counts_(after.has_value())
    {
    }

    // One page: prints it, and tells whether there is more to read at once.
    bool read(std::chrono::milliseconds wait, const std::optional<StopSignals> &signals)
    {
        std::string path = "/v1/events?after=" + std::to_string(next_);
        if (wait.count() > 0) {
            path += "&wait=" + std::to_string(wait.count());
        }
        if (signals) {
            signals->unblock();
        }
        const std::string answer = AdminClient(session_).get(path);
        if (signals) {
            signals->block();
        }
        return show(OrderedJson::parse(answer));
    }

private:
    bool show(const OrderedJson &page)
    {
        const auto newest = page.at("newest").get<uint64_t>();
        if (newest < next_) {
            reportError(session_.command, "the node has started anew, its newest event is " + std::to_string(newest));
            next_ = 0;
            return newest > 0;
        }
        // Who asks for all that is kept misses nothing.
        const auto missed = page.at("missed").get<uint64_t>();
        if (missed > 0 && counts_) {
            reportError(session_.command, common::counted(missed, "event was", "events were") +
                                              " missed, the node does not keep them any more");
        }
        counts_ = true;
        std::string lines;
        for (const OrderedJson &event : page.at("events")) {
            lines += session_.json ? event.dump() + "\n" : lineOf(json(event));
            next_ = event.at("number").get<uint64_t>();
        }
        print(lines);
        return next_ < newest;
    }

    const Session &session_;
    uint64_t next_; // events after this number are read next
    bool counts_;   // whether events that are kept no more were missed
};

} // namespace

int showEvents(const Session &session, const std::optional<std::string> &after, bool follow)
{
    Reader reader(session, after);
    std::optional<StopSignals> signals;
    if (follow) {
        signals.emplace();
    }
    // Half of what the call may take, but never nothing: the node would answer at once, again and again.
    const auto patience = std::clamp(session.timeout / 2, std::chrono::milliseconds(1), kMaxWait);
    const auto wait = follow ? patience : std::chrono::milliseconds(0);
    // Whoever reads the output is gone when it cannot be written; the program's end tells so.
    while ((reader.read(wait, signals) || follow) && std::fflush(stdout) == 0) {
    }
    return kDone;
}

} // namespace ctl
