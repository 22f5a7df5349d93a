#include "commands/told.h"
#include "table.h"
#include "view.h"
#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

std::string durationText(const json &microseconds)
{
    constexpr double kUsPerMs = 1000;
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "%.3f ms", microseconds.get<double>() / kUsPerMs);
    return text.data();
}

static std::string moveText(const json &move)
{
    return "; FSP " + shown(move.at("fsp")).text + " to shard " + shown(move.at("shard")).text + ", LS " +
           shown(move.at("from")).text + " to " + shown(move.at("to")).text;
}

std::string movesText(const json &event)
{
    const auto count = event.at("move_count").get<uint64_t>();
    if (count == 0) {
        return "";
    }
    std::string text = std::to_string(count) + " moved";
    for (const json &move : event.at("moves")) {
        text += moveText(move);
    }
    return text + (event.at("moves").size() < count ? "; ..." : "");
}

// What an event is about: an LS, or moves.
static std::string aboutText(const json &event)
{
    const json &data = event.at("data");
    return data == json("0") ? movesText(event) : "LS " + shown(data).text;
}

std::string toldText(const json &answer, bool colour)
{
    std::string text;
    if (!answer.at("told").empty()) {
        Table table({{"EVENT", Align::right}, {"TOLD"}, {"OF"}, {"AFTER", Align::right}, {"ABOUT"}});
        for (const json &event : answer.at("told")) {
            table.add({shown(event.at("number")),
                       shown(event.at("module")),
                       shown(event.at("event")),
                       {durationText(event.at("after_us"))},
                       {printable(aboutText(event))}});
        }
        text = table.render(colour);
    }
    for (const json &event : answer.at("untold")) {
        text += shown(event.at("module")).text + " was not told of " + shown(event.at("event")).text +
                " in time; the node's log tells why\n";
    }
    return text;
}

} // namespace ctl
