#include "cluster/cluster_agent.h"

#include "platform/log.h"

#include <nasctrl/host/log.h>
#include <nlohmann/json.hpp>
#include <utility>

namespace host {
namespace {

// Until the next try after the store did not answer.
constexpr std::chrono::milliseconds kRetryPause{200};

// Nothing when the text is no command.
std::optional<int32_t> commandType(const std::string &text)
{
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("type") || !json["type"].is_number_integer()) {
        return std::nullopt;
    }
    return json["type"].get<int32_t>();
}

} // namespace

ClusterAgent::ClusterAgent(Store &store, const NodeLeaseSettings &settings, const SteadyClock &clock,
                           AgentListener &listener)
    : store_(store), settings_(settings), clock_(clock), listener_(listener), lease_(store, settings, clock),
      lastContact_(clock())
{
}

void ClusterAgent::round()
{
    handleEvents();
    if (clock_() >= nextRenewal_) {
        keepContact();
    }
    if (lookAfterClients_ && lease_.isMaster()) {
        lookAfterClients();
    }
    noteLoss();
    noteMaster();
}

bool ClusterAgent::waitForWork()
{
    std::unique_lock hold(queueLock_);
    const auto pause = std::max(nextRenewal_ - clock_(), std::chrono::milliseconds(1));
    work_.wait_for(hold, pause, [this] { return stopped_ || !events_.empty(); });
    return !stopped_;
}

void ClusterAgent::stop()
{
    const std::scoped_lock hold(queueLock_);
    stopped_ = true;
    work_.notify_all();
}

void ClusterAgent::leave()
{
    {
        const std::scoped_lock hold(applyLock_);
        watch_.reset();
    }
    lease_.release();
}

// The whole of a key as a list, because a list tells where the watch goes on.
StoreResult ClusterAgent::fetchView()
{
    uint64_t fetch = 0;
    {
        const std::scoped_lock hold(applyLock_);
        following_ = false;
        fetched_.reset();
        fetch = ++fetches_;
    }
    const StoreList list = store_.list(kViewKey);
    if (list.result != StoreResult::done) {
        return StoreResult::unknown;
    }
    DpcView view;
    if (!list.items.empty()) {
        view = parseDpcView(list.items.front().value);
    }
    const std::scoped_lock hold(applyLock_);
    if (fetch == fetches_) {
        fetched_ = std::move(view);
        fetchedRevision_ = list.revision;
    }
    return list.items.empty() ? StoreResult::absent : StoreResult::done;
}

void ClusterAgent::followFetched()
{
    const std::scoped_lock hold(applyLock_);
    if (!fetched_) {
        return; // another thread fetched meanwhile
    }
    const auto was = known();
    if (was == nullptr) {
        listener_.firstView(*fetched_);
    } else if (was->version != fetched_->version) {
        listener_.missed(*was, *fetched_);
    }
    // A store that was put back to an earlier state counts its revisions from there.
    const bool wentBack = fetchedRevision_ < knownRevision_;
    setKnown(std::move(*fetched_), fetchedRevision_);
    fetched_.reset();
    if (watch_ == nullptr || wentBack) {
        skipped_.reset();
        watch_.reset();
        watch_ = store_.watch(kCmPrefix, fetchedRevision_, [this](const StoreEvent &event) {
            const std::scoped_lock queue(queueLock_);
            events_.push_back(event);
            work_.notify_all();
        });
    }
    following_ = true;
    if (const auto skipped = std::exchange(skipped_, std::nullopt)) {
        followView(*skipped);
    }
}

bool ClusterAgent::isConnected() const
{
    const std::scoped_lock hold(queueLock_);
    return connected_;
}

std::chrono::milliseconds ClusterAgent::sinceContact() const
{
    const auto now = clock_();
    const std::scoped_lock hold(queueLock_);
    return now - lastContact_;
}

std::shared_ptr<const DpcView> ClusterAgent::known() const
{
    const std::scoped_lock hold(queueLock_);
    return known_;
}

void ClusterAgent::handleEvents()
{
    while (true) {
        StoreEvent event;
        {
            const std::scoped_lock hold(queueLock_);
            if (events_.empty()) {
                return;
            }
            event = std::move(events_.front());
            events_.pop_front();
        }
        handle(event);
    }
}

void ClusterAgent::handle(const StoreEvent &event)
{
    const std::string &key = event.item.key;
    const bool removed = event.kind == StoreEvent::Kind::removed;
    if (event.kind == StoreEvent::Kind::lost) {
        stopFollowing();
        listener_.connected();
    } else if (key == kViewKey && !removed) {
        handleView(event.item);
    } else if (key == kCommandKey && !removed) {
        if (const auto type = commandType(event.item.value)) {
            listener_.command(*type);
        } else {
            HOST_LOG(NASCTRL_LOG_ERROR, "cluster: what is stored as a command is not one");
        }
    } else if (key == kMasterKey) {
        nextRenewal_ = clock_();
    } else if (key.starts_with(kClientPrefix) && removed) {
        lookAfterClients_ = true; // once for all that were removed together
    }
}

void ClusterAgent::handleView(const StoreItem &item)
{
    const std::scoped_lock hold(applyLock_);
    if (!following_) {
        skipped_ = item;
        return;
    }
    try {
        followView(item);
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: %s", error.what());
    }
}

// Every version is told of, one after the other; what the known view holds already is left out. Where versions are
// missing, nobody knows what was between.
void ClusterAgent::followView(const StoreItem &item)
{
    DpcView now = parseDpcView(item.value);
    const auto was = known();
    if (item.revision > knownRevision_) {
        if (now.version == was->version + 1) {
            listener_.changed(*was, now);
        } else {
            listener_.missed(*was, now);
        }
        setKnown(std::move(now), item.revision);
    }
}

void ClusterAgent::keepContact()
{
    const auto begin = clock_();
    const bool reached = lease_.renew() && lease_.elect();
    nextRenewal_ = begin + (reached ? std::chrono::milliseconds(settings_.ttl) / 3 : kRetryPause);
    if (!reached) {
        return;
    }
    bool came = false;
    {
        const std::scoped_lock hold(queueLock_);
        lastContact_ = begin;
        came = !connected_;
        connected_ = true;
    }
    if (came) {
        listener_.connected();
    }
    lookAfterClients_ = true;
}

void ClusterAgent::noteLoss()
{
    {
        const std::scoped_lock hold(queueLock_);
        if (!connected_ || clock_() - lastContact_ <= settings_.ttl) {
            return;
        }
        connected_ = false;
    }
    stopFollowing();
    listener_.disconnected();
}

void ClusterAgent::noteMaster()
{
    const auto master = lease_.master();
    if (master != toldMaster_) {
        toldMaster_ = master;
        listener_.masterChanged(master);
    }
}

void ClusterAgent::stopFollowing()
{
    const std::scoped_lock hold(applyLock_);
    following_ = false;
}

void ClusterAgent::lookAfterClients()
{
    lookAfterClients_ = false;
    try {
        breakHearts(store_);
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the clients' leases were not looked after: %s", error.what());
    }
}

void ClusterAgent::setKnown(DpcView view, uint64_t revision)
{
    auto next = std::make_shared<const DpcView>(std::move(view));
    knownRevision_ = revision;
    const std::scoped_lock hold(queueLock_);
    known_ = std::move(next);
}

} // namespace host
