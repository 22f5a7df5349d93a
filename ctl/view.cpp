#include "view.h"
#include <cstdio>
#include <nlohmann/json.hpp>

namespace ctl {

void print(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void present(const Session &session, const std::string &answer, const Render &render)
{
    if (session.json) {
        print(answer.ends_with('\n') ? answer : answer + "\n");
        return;
    }
    print(render(nlohmann::json::parse(answer), session.colour));
}

Cell shown(const nlohmann::json &value)
{
    if (value.is_null()) {
        return {"busy", Tone::busy};
    }
    if (value.is_string()) {
        return {value.get<std::string>()};
    }
    if (!value.is_array()) {
        return {value.dump()};
    }
    std::string list;
    for (const auto &element : value) {
        list += (list.empty() ? "" : ",") + shown(element).text;
    }
    return {list};
}

const nlohmann::json &at(const nlohmann::json &part, const char *key)
{
    return part.is_null() ? part : part.at(key);
}

} // namespace ctl
