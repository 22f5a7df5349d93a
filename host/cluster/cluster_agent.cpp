#include "cluster/cluster_agent.h"

#include "platform/log.h"

#include <nasctrl/host/log.h>
#include <nlohmann/json.hpp>

namespace host {
namespace {

// Until the next try after the store did not answer.
constexpr std::chrono::milliseconds kRetryPause{200};

int32_t commandType(const std::string &text)
{
    const auto json = nlohmann::json::parse(text, nullptr, false);
    return json.is_object() ? json.value("type", int32_t{0}) : 0;
}

} // namespace

ClusterAgent::ClusterAgent(Store &store, const NodeLeaseSettings &settings, const SteadyClock &clock,
                           AgentListener &listener)
    : store_(store), settings_(settings), clock_(clock), listener_(listener), lease_(store, settings, clock)
{
}

void ClusterAgent::round()
{
    handleEvents();
    if (clock_() >= nextRenewal_) {
        keepContact();
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
    const StoreList list = store_.list(kViewKey);
    if (list.result != StoreResult::done) {
        return StoreResult::unknown;
    }
    DpcView view;
    if (!list.items.empty()) {
        view = parseDpcView(list.items.front().value);
    }
    const std::scoped_lock hold(applyLock_);
    fetched_ = std::move(view);
    fetchedRevision_ = list.revision;
    return list.items.empty() ? StoreResult::absent : StoreResult::done;
}

void ClusterAgent::followFetched()
{
    const std::scoped_lock hold(applyLock_);
    const auto was = known();
    if (!fetched_ || (following_ && fetched_->version < was->version)) {
        fetched_.reset();
        return; // another thread connected meanwhile
    }
    watch_.reset();
    {
        const std::scoped_lock queue(queueLock_);
        events_.clear();
    }
    if (was == nullptr) {
        listener_.firstView(*fetched_);
    } else if (was->version != fetched_->version) {
        listener_.missed(*was, *fetched_);
    }
    setKnown(std::move(*fetched_));
    fetched_.reset();
    following_ = true;
    watch_ = store_.watch(kCmPrefix, fetchedRevision_, [this](const StoreEvent &event) {
        const std::scoped_lock queue(queueLock_);
        events_.push_back(event);
        work_.notify_all();
    });
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
        listener_.connected();
    } else if (key == kViewKey && !removed) {
        handleView(event.item);
    } else if (key == kCommandKey && !removed) {
        listener_.command(commandType(event.item.value));
    } else if (key == kMasterKey) {
        nextRenewal_ = clock_();
    } else if (key.starts_with(kClientPrefix) && removed && lease_.isMaster()) {
        lookAfterClients();
    }
}

// Every version is told of, one after the other; what the known view holds already is left out. Versions that the store
// did not remember for the watch were missed.
void ClusterAgent::handleView(const StoreItem &item)
{
    try {
        DpcView now = parseDpcView(item.value);
        const std::scoped_lock hold(applyLock_);
        const auto was = known();
        if (following_ && was != nullptr && now.version > was->version) {
            const bool next = now.version == was->version + 1;
            next ? listener_.changed(*was, now) : listener_.missed(*was, now);
            setKnown(std::move(now));
        }
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: %s", error.what());
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
    if (lease_.isMaster()) {
        lookAfterClients();
    }
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
    {
        const std::scoped_lock hold(applyLock_);
        following_ = false;
    }
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

void ClusterAgent::lookAfterClients()
{
    try {
        breakHearts(store_);
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the clients' leases were not looked after: %s", error.what());
    }
}

void ClusterAgent::setKnown(DpcView view)
{
    auto next = std::make_shared<const DpcView>(std::move(view));
    const std::scoped_lock hold(queueLock_);
    known_ = std::move(next);
}

} // namespace host
