/*
 * nasctl ip: the service addresses of the node. The list is asked at the admin door; additions and deletions are
 * notices to the address module, whose answer says only that the notice was received.
 */
#include "admin_client.h"
#include "commands/commands.h"
#include "commands/module_cells.h"
#include "failure.h"
#include "message_client.h"
#include "parse.h"
#include "view.h"
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;
// For what is printed: members in the order in which they are put in.
using OrderedJson = nlohmann::ordered_json;

constexpr uint32_t kNoticeModule = 18;
constexpr uint32_t kNoticeOpcode = 1;

// A notice: tenant id, key, value. The tenant id stays 0, as nobody reads it.
constexpr size_t kKeyOffset = 4;
constexpr size_t kValueOffset = 260;
constexpr size_t kNoticeSize = 516;

static std::string noticeOf(const std::string &key, const std::string &value)
{
    std::string notice(kNoticeSize, '\0');
    notice.replace(kKeyOffset, key.size(), key);
    notice.replace(kValueOffset, value.size(), value);
    return notice;
}

static void checkAddresses(const Words &addresses)
{
    for (const std::string &address : addresses) {
        checkAddress(address);
    }
}

// Nothing when the notice came back as it went out, else what is wrong with the answer.
static std::string objection(const MessageAnswer &answer, const std::string &notice)
{
    if (answer.direction != kReply || answer.result != 0) {
        return "refused by the node with " + resultText(answer.result) + "; nasctl status tells how its start went";
    }
    if (answer.payload != notice) {
        return "the node's answer is not the notice that was sent; nasctl ip ls tells what became of it";
    }
    return "";
}

static std::string resultsText(const Session &session, const OrderedJson &results, const std::string &done)
{
    if (session.json) {
        return OrderedJson{{"results", results}}.dump() + "\n";
    }
    std::string text;
    for (const OrderedJson &result : results) {
        if (result.at("queued").get<bool>()) {
            text += result.at("address").get<std::string>() + ": " + done + "\n";
        }
    }
    return text;
}

static int announce(const Session &session, const char *key, const Words &addresses, const std::string &done)
{
    MessageClient client(session);
    OrderedJson results = OrderedJson::array();
    int code = kDone;
    const auto refuse = [&](const std::string &address, const std::string &why) {
        results.push_back({{"address", address}, {"queued", false}, {"error", why}});
        reportError(session.command, address + ": " + why);
        code = kFailed;
    };
    for (const std::string &address : addresses) {
        const std::string notice = noticeOf(key, address);
        try {
            const std::string why = objection(client.call(kNoticeModule, kNoticeOpcode, notice), notice);
            if (!why.empty()) {
                refuse(address, why);
                continue;
            }
        } catch (const Failure &failure) {
            refuse(address, failure.what());
            break;
        }
        results.push_back({{"address", address}, {"queued", true}});
    }
    print(resultsText(session, results, done));
    return code;
}

int addAddresses(const Session &session, const Words &addresses)
{
    checkAddresses(addresses);
    for (const std::string &address : addresses) {
        refuseMappedAddress(address);
    }
    return announce(session, "ip_add_event", addresses, "addition queued");
}

int deleteAddresses(const Session &session, const Words &addresses)
{
    checkAddresses(addresses);
    return announce(session, "ip_del_event", addresses, "deletion queued");
}

// The modules in that state, with the reason where there is one.
static std::string modulesIn(const json &modules, const char *state)
{
    std::string text;
    for (const json &module : modules) {
        if (module.at("state") != state) {
            continue;
        }
        const json told = module.value("reason", json());
        const std::string reason = told.is_string() ? told.get<std::string>() : "";
        text += (text.empty() ? "" : ", ") + shown(module.at("name")).text;
        text += reason.empty() ? "" : " (" + reason + ")";
    }
    return text.empty() ? "-" : text;
}

std::vector<Cell> moduleCells(const json &modules)
{
    std::vector<Cell> cells;
    for (const char *state : {"listening", "pending", "failing"}) {
        cells.push_back(modules.is_null() ? shown(modules) : Cell{modulesIn(modules, state)});
    }
    Cell &failing = cells.back();
    failing.tone = failing.text == "-" || modules.is_null() ? failing.tone : Tone::bad;
    return cells;
}

static std::string addressTable(const json &answer, bool colour)
{
    const json &addresses = answer.at("addresses");
    if (addresses.is_null()) {
        return "addresses: busy\n";
    }
    if (addresses.empty()) {
        return "no addresses\n";
    }
    Table table(
        {{"ADDRESS"}, {"TYPE", Align::right}, {"STATUS", Align::right}, {"ACCEPTED BY"}, {"PENDING"}, {"FAILING"}});
    for (const json &address : addresses) {
        std::vector<Cell> row = {shown(address.at("address")), shown(address.at("protocol_type")),
                                 shown(address.at("status"))};
        for (const Cell &cell : moduleCells(address.at("modules"))) {
            row.push_back(cell);
        }
        table.add(row);
    }
    return table.render(colour);
}

int listAddresses(const Session &session)
{
    present(session, AdminClient(session).get("/v1/ips"), addressTable);
    return kDone;
}

} // namespace ctl
