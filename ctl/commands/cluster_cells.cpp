#include "commands/cluster_cells.h"

#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

Cell storeCell(const json &store)
{
    if (store.is_null()) {
        return {"none", Tone::bad};
    }
    const std::string place = shown(store.at("place")).text;
    if (store.at("reachable").get<bool>()) {
        return {place};
    }
    return {place + " (unreachable: " + shown(store.at("error")).text + ")", Tone::bad};
}

Cell masterCell(const json &master)
{
    return master.is_null() ? Cell{"not known", Tone::bad} : Cell{"LS " + shown(master).text};
}

} // namespace ctl
