#include "etcd_cluster.h"

#include <algorithm>
#include <boost/beast/core/detail/base64.hpp>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <set>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace integration {
namespace {

namespace base64 = boost::beast::detail::base64;
using nlohmann::json;

std::string encoded(const std::string &bytes)
{
    std::string text(base64::encoded_size(bytes.size()), '\0');
    text.resize(base64::encode(text.data(), bytes.data(), bytes.size()));
    return text;
}

std::string decoded(const std::string &text)
{
    std::string bytes(base64::decoded_size(text.size()), '\0');
    bytes.resize(base64::decode(bytes.data(), text.data(), text.size()).first);
    return bytes;
}

uint64_t number(const json &object, const char *name)
{
    return std::stoull(object.value(name, "0"));
}

Change changeOf(const json &event)
{
    const json &kv = event.at("kv");
    const bool removed = event.value("type", "PUT") == "DELETE";
    return {decoded(kv.at("key")), decoded(kv.value("value", "")), removed ? 0 : number(kv, "version"),
            number(kv, "mod_revision")};
}

// The answers of a watch, a line each, up to a revision; closes the descriptor.
std::vector<Change> changesUpTo(uint64_t end, int descriptor)
{
    std::vector<Change> changes;
    FILE *lines = fdopen(descriptor, "r");
    char *line = nullptr;
    size_t size = 0;
    while ((changes.empty() || changes.back().revision < end) && getline(&line, &size, lines) > 0) {
        for (const json &event : json::parse(line)["result"].value("events", json::array())) {
            changes.push_back(changeOf(event));
        }
    }
    std::free(line);
    std::fclose(lines);
    if (changes.empty() || changes.back().revision < end) {
        throw std::runtime_error("etcd's history ends too early");
    }
    return changes;
}

std::string urlOf(const std::string &address, std::set<uint16_t> &taken)
{
    uint16_t port = Node::freePort();
    while (!taken.insert(port).second) {
        port = Node::freePort();
    }
    return "http://" + address + ":" + std::to_string(port);
}

} // namespace

EtcdCluster::EtcdCluster(size_t members, const std::string &address, std::vector<std::string> prefix)
    : prefix_(std::move(prefix))
{
    std::set<uint16_t> ports;
    for (size_t i = 0; i < members; ++i) {
        members_.push_back({urlOf(address, ports), urlOf(address, ports)});
    }
    for (size_t i = 0; i < members; ++i) {
        start(i);
    }
    if (!support::eventually([this] { return leader().has_value(); })) {
        throw std::runtime_error("etcd does not start (Debian package etcd-server)");
    }
}

EtcdCluster::~EtcdCluster()
{
    for (size_t i = 0; i < members_.size(); ++i) {
        kill(i);
    }
}

std::string EtcdCluster::storeOption() const
{
    std::string text = "etcd:";
    for (const Member &member : members_) {
        text += (text.ends_with(':') ? "" : ",") + member.clientUrl;
    }
    return text;
}

// It dies with the test, however that ends.
std::vector<std::string> EtcdCluster::command(size_t member) const
{
    const Member &own = members_[member];
    const std::string name = "m" + std::to_string(member);
    std::string cluster;
    for (size_t i = 0; i < members_.size(); ++i) {
        cluster += (i == 0 ? "m" : ",m") + std::to_string(i) + "=" + members_[i].peerUrl;
    }
    std::vector<std::string> command = prefix_;
    command.insert(command.end(), {"setpriv", "--pdeathsig", "KILL", "etcd", "--name=" + name,
                                   "--data-dir=" + folder_.path() + "/" + name, "--listen-client-urls=" + own.clientUrl,
                                   "--advertise-client-urls=" + own.clientUrl, "--listen-peer-urls=" + own.peerUrl,
                                   "--initial-advertise-peer-urls=" + own.peerUrl, "--initial-cluster=" + cluster,
                                   "--heartbeat-interval=50", "--election-timeout=500"});
    return command;
}

void EtcdCluster::start(size_t member)
{
    const std::string log = folder_.path() + "/m" + std::to_string(member) + ".log";
    const int output = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    members_[member].pid = support::spawn(command(member), {.out = output, .err = output});
    close(output);
}

void EtcdCluster::kill(size_t member)
{
    if (members_[member].pid > 0) {
        ::kill(members_[member].pid, SIGKILL);
        waitpid(std::exchange(members_[member].pid, -1), nullptr, 0);
    }
}

bool EtcdCluster::allUp() const
{
    return !down().has_value();
}

std::optional<size_t> EtcdCluster::down() const
{
    const auto found = std::ranges::find_if(members_, [](const Member &member) { return member.pid <= 0; });
    return found == members_.end() ? std::nullopt : std::optional(static_cast<size_t>(found - members_.begin()));
}

std::optional<size_t> EtcdCluster::leader() const
{
    for (size_t i = 0; i < members_.size(); ++i) {
        const json status = ask(i, "/v3/maintenance/status", json::object());
        if (status.contains("leader") && status["leader"] == status["header"]["member_id"]) {
            return i;
        }
    }
    return std::nullopt;
}

std::vector<std::string> EtcdCluster::curl(const std::string &url, const json &request) const
{
    std::vector<std::string> command = prefix_;
    command.insert(command.end(),
                   {"curl", "--noproxy", "*", "-sN", "--connect-timeout", "1", "-d", request.dump(), url});
    return command;
}

// An empty object when it does not answer.
json EtcdCluster::ask(size_t member, const std::string &path, const json &request) const
{
    std::vector<std::string> command = curl(members_[member].clientUrl + path, request);
    command.insert(command.end(), {"-m", "2"});
    const json answer = json::parse(integration::run(command).out, nullptr, false);
    return answer.is_object() ? answer : json::object();
}

// The watch never ends by itself, so a last change marks where to stop.
std::vector<Change> EtcdCluster::history(const std::string &prefix) const
{
    const std::string mark = prefix + "~";
    const json put = ask(0, "/v3/kv/put", {{"key", encoded(mark)}, {"value", ""}});
    if (!put.contains("header")) {
        throw std::runtime_error("etcd does not answer");
    }
    const uint64_t end = number(put["header"], "revision");
    const json watch = {{"key", encoded(prefix)}, {"range_end", encoded(prefix + "\x7f")}, {"start_revision", "1"}};
    const support::Pipe out;
    const pid_t child =
        support::spawn(curl(members_[0].clientUrl + "/v3/watch", {{"create_request", watch}}), {.out = out.write});
    close(out.write);
    std::vector<Change> changes = changesUpTo(end, out.read);
    ::kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    std::erase_if(changes, [&](const Change &change) { return change.key == mark; });
    return changes;
}

} // namespace integration
