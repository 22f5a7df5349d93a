/*
 * nasctl mem: who holds the node's pool memory.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

static std::string accountTable(const json &answer, bool all, bool colour)
{
    const json &accounts = answer.at("accounts");
    if (accounts.is_null()) {
        return "accounts: busy\n";
    }
    Table table(
        {{"FUNCTION"}, {"LIVE BLOCKS", Align::right}, {"LIVE BYTES", Align::right}, {"TOTAL BLOCKS", Align::right}});
    uint64_t everAllocated = 0;
    for (const json &account : accounts) {
        everAllocated += account.at("total_blocks").get<uint64_t>();
        if (all || account.at("live_blocks") != 0) {
            table.add({shown(account.at("function")), shown(account.at("live_blocks")), shown(account.at("live_bytes")),
                       shown(account.at("total_blocks"))});
        }
    }
    // Of all accounts, also those that are not shown.
    table.add({{"total"}, shown(answer.at("blocks")), shown(answer.at("bytes")), {std::to_string(everAllocated)}});
    return table.render(colour);
}

int showMemory(const Session &session, bool all)
{
    present(session, AdminClient(session).get("/v1/memory"),
            [all](const json &answer, bool colour) { return accountTable(answer, all, colour); });
    return kDone;
}

} // namespace ctl
