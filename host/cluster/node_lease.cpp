#include "cluster/node_lease.h"

#include "cluster/dpc_clients.h"
#include "platform/log.h"

#include <algorithm>
#include <nasctrl/host/log.h>
#include <nlohmann/json.hpp>

namespace host {
namespace {

using Json = nlohmann::json;

// What stands under the node's key and the master's. A name may be any bytes.
std::string ownText(const NodeLeaseSettings &settings, StoreLease lease)
{
    const Json json{{"ls", settings.node}, {"name", settings.name}, {"lease", std::to_string(lease)}};
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// Of the text under the master's key; nothing when it is none.
std::optional<uint32_t> masterOf(const std::string &text)
{
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("ls") || !json["ls"].is_number_unsigned()) {
        return std::nullopt;
    }
    return json["ls"].get<uint32_t>();
}

} // namespace

NodeLease::NodeLease(Store &store, NodeLeaseSettings settings, SteadyClock clock)
    : store_(store), settings_(std::move(settings)), clock_(std::move(clock))
{
}

bool NodeLease::renew()
{
    if (lease_ == 0) {
        return take();
    }
    const auto begin = clock_();
    const StoreGrant kept = store_.keepAlive(lease_);
    if (kept.result == StoreResult::noLease) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the lease of node %u ended; it takes a new one", settings_.node);
        lease_ = 0;
        announced_ = false;
        return take();
    }
    if (kept.result != StoreResult::done) {
        return false;
    }
    leaseEnd_ = begin + kept.ttl;
    return announce();
}

bool NodeLease::take()
{
    const auto begin = clock_();
    const StoreGrant grant = store_.grant(settings_.ttl);
    if (grant.result != StoreResult::done) {
        return false;
    }
    lease_ = grant.lease;
    leaseEnd_ = begin + grant.ttl;
    return announce();
}

// The key of a node that was killed stays until its lease ends.
bool NodeLease::announce()
{
    if (announced_) {
        return true;
    }
    const std::string key = kNodePrefix + std::to_string(settings_.node);
    const StoreWrite made = createSettled(store_, key, ownText(settings_, lease_), lease_);
    if (made.result == StoreResult::exists && !strangerLogged_) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: a node %u is there already; waiting for its lease to end",
                 settings_.node);
        strangerLogged_ = true;
    }
    announced_ = made.result == StoreResult::done;
    strangerLogged_ = strangerLogged_ && !announced_;
    return announced_;
}

bool NodeLease::elect()
{
    const auto begin = clock_();
    const StoreRead read = store_.read(kMasterKey);
    if (read.result == StoreResult::unknown) {
        return false;
    }
    if (read.result == StoreResult::done) {
        const auto end = begin + settings_.ttl;
        const bool own = read.item.lease == lease_;
        const std::optional<uint32_t> master = masterOf(read.item.value);
        // What an earlier life of this node left behind is no mastership.
        believe(own || master != settings_.node ? master : std::nullopt, own ? std::min(end, leaseEnd_) : end);
        return true;
    }
    const StoreWrite made = createSettled(store_, kMasterKey, ownText(settings_, lease_), lease_);
    if (made.result == StoreResult::done) {
        believe(settings_.node, leaseEnd_);
    }
    return made.result != StoreResult::unknown; // somebody else was first: the next round reads who
}

void NodeLease::release()
{
    if (lease_ != 0) {
        store_.revoke(lease_);
    }
    lease_ = 0;
    announced_ = false;
    believe(std::nullopt, {});
}

std::optional<uint32_t> NodeLease::master() const
{
    const auto now = clock_();
    const std::scoped_lock hold(lock_);
    return now < believedUntil_ ? master_ : std::nullopt;
}

void NodeLease::believe(std::optional<uint32_t> master, std::chrono::milliseconds until)
{
    const std::scoped_lock hold(lock_);
    master_ = master;
    believedUntil_ = until;
}

} // namespace host
