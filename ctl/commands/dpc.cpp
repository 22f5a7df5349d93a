/*
 * nasctl dpc, view and master: the parallel clients of the cluster. dpc join is a client's process itself: it lives as
 * long as it renews its lease.
 */
#include "admin_client.h"
#include "commands/cluster_cells.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include "view.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

namespace ctl {

using nlohmann::json;

namespace {

constexpr uint32_t kProcessFault = 2;

std::string path(const char *action, const std::string &lsId)
{
    return std::string("/v1/dpc/") + action + std::to_string(parseNumber("LS", lsId, 0, UINT32_MAX));
}

Cell stateCell(const json &client)
{
    const std::string state = shown(client.at("state")).text;
    return {state, state == "faulty" ? Tone::bad : Tone::plain};
}

Cell faultCell(const json &client)
{
    return {client.at("last_fault").is_null() ? "-" : shown(client.at("last_fault")).text};
}

std::string clientTable(const json &clients, bool colour)
{
    if (clients.empty()) {
        return "no clients\n";
    }
    Table table({{"LS", Align::right}, {"STATE"}, {"LAST FAULT"}, {"FAULTS", Align::right}, {"SESSION"}, {"NODE"}});
    for (const json &client : clients) {
        table.add({shown(client.at("ls")), stateCell(client), faultCell(client), shown(client.at("faults")),
                   shown(client.at("session")), shown(client.at("node"))});
    }
    return table.render(colour);
}

std::string viewText(const json &view, bool colour)
{
    const std::string version = view.at("version").is_null() ? "none read yet" : shown(view.at("version")).text;
    return "view " + version + ", master " + masterCell(view.at("master")).text +
           (view.at("connected").get<bool>() ? "\n" : ", no contact with the cluster\n") +
           clientTable(view.at("clients"), colour);
}

std::string clientText(const json &client, bool colour)
{
    Table fields({{}, {}});
    fields.add({{"LS"}, shown(client.at("ls"))});
    fields.add({{"state"}, stateCell(client)});
    fields.add({{"last fault"}, faultCell(client)});
    fields.add({{"faults"}, shown(client.at("faults"))});
    fields.add({{"session"}, shown(client.at("session"))});
    fields.add({{"joined by node"}, shown(client.at("node"))});
    for (const auto &[name, value] : client.at("attributes").items()) {
        fields.add({{name}, shown(value)});
    }
    return fields.render(colour);
}

std::string masterText(const json &answer, bool)
{
    const json &master = answer.at("master");
    if (master.is_null()) {
        return "the master is not known: no contact with the cluster for " +
               std::to_string(answer.at("since_contact_ms").get<int64_t>() / 1000) + " s\n";
    }
    return "LS " + shown(master).text + (answer.at("is_master").get<bool>() ? ", this node\n" : "\n");
}

// Blocks the signals that end a program for as long as it lives, and waits for one.
class EndSignals {
public:
    EndSignals()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        sigprocmask(SIG_BLOCK, &set_, nullptr);
    }
    // Whether one came within the time.
    bool within(std::chrono::milliseconds time) const
    {
        const timespec limit{time.count() / 1000, time.count() % 1000 * 1'000'000};
        return sigtimedwait(&set_, nullptr, &limit) > 0;
    }

private:
    sigset_t set_{};
};

// Until a signal asks to leave. A refusal ends the process at once; a node or store that does not answer is asked again
// as long as the lease may live, then its last Failure does.
void stay(const Session &session, const std::string &lsId, const json &membership, const EndSignals &signals)
{
    using Clock = std::chrono::steady_clock;
    const AdminClient node(session);
    const std::chrono::milliseconds ttl(membership.at("ttl_ms").get<int64_t>());
    auto renewed = Clock::now();
    while (!signals.within(ttl / 3)) {
        const auto begin = Clock::now();
        try {
            node.post(path("keep/", lsId), {{"lease", membership.at("lease")}});
            renewed = begin;
        } catch (const Refused &) {
            throw;
        } catch (const Failure &) {
            if (Clock::now() - renewed > ttl) {
                throw;
            }
        }
    }
}

} // namespace

int showView(const Session &session)
{
    present(session, AdminClient(session).get("/v1/view"), viewText);
    return kDone;
}

int listClients(const Session &session)
{
    present(session, AdminClient(session).get("/v1/view"),
            [](const json &view, bool colour) { return clientTable(view.at("clients"), colour); });
    return kDone;
}

int showClient(const Session &session, const std::string &lsId)
{
    present(session, AdminClient(session).get(path("", lsId)), clientText);
    return kDone;
}

int showMaster(const Session &session)
{
    present(session, AdminClient(session).get("/v1/master"), masterText);
    return kDone;
}

int joinCluster(const Session &session, const std::string &lsId, const std::optional<std::string> &ttl,
                const Words &attributes)
{
    json request = {{"attributes", attributes}};
    if (ttl) {
        request["ttl_s"] = parseNumber("--ttl", *ttl, 1, 3600);
    }
    const EndSignals signals;
    const std::string answer = AdminClient(session).post(path("join/", lsId), request);
    const json membership = json::parse(answer);
    present(session, answer, [](const json &joined, bool) {
        return "LS " + shown(joined.at("ls")).text + " joined, session " + shown(joined.at("session")).text +
               "; it lives as long as this process\n";
    });
    std::fflush(stdout);
    stay(session, lsId, membership, signals);
    AdminClient(session).post(path("leave/", lsId), nullptr);
    print(session.json ? "" : "LS " + shown(membership.at("ls")).text + " left\n");
    return kDone;
}

int leaveCluster(const Session &session, const std::string &lsId)
{
    present(session, AdminClient(session).post(path("leave/", lsId), nullptr),
            [](const json &left, bool) { return "LS " + shown(left.at("ls")).text + " left\n"; });
    return kDone;
}

int killClient(const Session &session, const std::string &lsId)
{
    present(
        session, AdminClient(session).post(path("fault/", lsId), {{"reason", kProcessFault}, {"ends_process", 1}}),
        [](const json &dead, bool) { return "LS " + shown(dead.at("ls")).text + ": its process is reported dead\n"; });
    return kDone;
}

int faultClient(const Session &session, const std::string &lsId, const std::optional<std::string> &reason)
{
    const uint64_t number = parseNumber("--reason", reason.value_or("2"), 0, INT32_MAX);
    present(session, AdminClient(session).post(path("fault/", lsId), {{"reason", number}}),
            [](const json &faulty, bool) {
                return "LS " + shown(faulty.at("ls")).text + ": reported faulty, reason " +
                       shown(faulty.at("reason")).text + "\n";
            });
    return kDone;
}

} // namespace ctl
