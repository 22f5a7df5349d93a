/*
 * nasctl power: the power state of the protocol service.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string powerText(const json &power, bool)
{
    return printable(shown(at(power, "name")).text) + "\n";
}

int showPower(const Session &session)
{
    present(session, AdminClient(session).get("/v1/power"), powerText);
    return kDone;
}

int switchPower(const Session &session, const std::string &action)
{
    present(session, AdminClient(session).post("/v1/power", {{"action", action}}), powerText);
    return kDone;
}

} // namespace ctl
