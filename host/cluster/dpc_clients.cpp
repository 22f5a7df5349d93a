#include "cluster/dpc_clients.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <nlohmann/json.hpp>
#include <set>
#include <unistd.h>

namespace host {
namespace {

using Json = nlohmann::json;

// Somebody else's write comes in between again and again only when something is wrong.
constexpr int kMostTries = 100;

std::string clientKey(uint32_t lsId)
{
    return kClientPrefix + std::to_string(lsId);
}

std::string nameOfClient(uint32_t lsId)
{
    return "LS " + std::to_string(lsId);
}

// Different for every change, whoever makes it.
std::string newWriter()
{
    static std::atomic<uint64_t> changes{0};
    const auto now = std::chrono::system_clock::now().time_since_epoch().count();
    return std::to_string(getpid()) + "." + std::to_string(now) + "." + std::to_string(++changes);
}

struct StoredView {
    DpcView view;
    uint64_t keyVersion = 0; // 0 = the key is not there
};

StoredView readStored(Store &store)
{
    const StoreRead read = store.read(kViewKey);
    if (read.result == StoreResult::unknown) {
        throw StoreUnreachable();
    }
    if (read.result == StoreResult::absent) {
        return {};
    }
    return {parseDpcView(read.item.value), read.item.version};
}

StoreResult writeStored(Store &store, const StoredView &next)
{
    const std::string text = toText(next.view);
    return next.keyVersion == 0 ? createSettled(store, kViewKey, text).result
                                : writeSettled(store, kViewKey, text, next.keyVersion).result;
}

// Makes a change of the view, on whatever the view is by then. change says whether there is anything to write; what it
// throws ends the try.
void changeView(Store &store, const std::function<bool(DpcView &)> &change)
{
    for (int attempt = 0; attempt < kMostTries; ++attempt) {
        StoredView next = readStored(store);
        if (!change(next.view)) {
            return;
        }
        ++next.view.version;
        next.view.writer = newWriter();
        const StoreResult result = writeStored(store, next);
        if (result == StoreResult::done) {
            return;
        }
        if (result == StoreResult::unknown) {
            throw StoreUnreachable();
        }
    }
    throw CmRefused("the view changes all the time; try again");
}

DpcClient &require(DpcView &view, uint32_t lsId)
{
    DpcClient *client = view.find(lsId);
    if (client == nullptr) {
        throw CmRefused(nameOfClient(lsId) + " is not in the view; nasctl dpc ls lists its clients");
    }
    return *client;
}

void markFaulty(DpcClient &client, int32_t reason)
{
    client.runState = kFaulty;
    client.faultReason = reason;
    ++client.faults;
}

// A session is newer than any before it, also of a client that was forgotten meanwhile.
uint64_t newSession(const DpcClient *before)
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto milliseconds = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(now).count());
    return before == nullptr ? milliseconds : std::max(milliseconds, before->session + 1);
}

// Ends the lease that keeps the client's key; false when there is none.
bool endLease(Store &store, uint32_t lsId)
{
    const StoreRead key = store.read(clientKey(lsId));
    const bool lives = key.result == StoreResult::done && key.item.lease != 0;
    if (lives) {
        store.revoke(key.item.lease);
    }
    return lives;
}

StoreLease grantLease(Store &store, Membership &membership, std::chrono::seconds ttl)
{
    const StoreGrant grant = store.grant(ttl);
    if (grant.result != StoreResult::done) {
        throw StoreUnreachable();
    }
    membership.lease = grant.lease;
    membership.ttl = grant.ttl;
    return grant.lease;
}

// A client that is back before the master saw that its lease had ended was lost all the same: every node is to know of
// the fault before it knows of the return.
void breakHeartOfEarlierLife(Store &store, uint32_t lsId, uint64_t session)
{
    changeView(store, [=](DpcView &view) {
        DpcClient *client = view.find(lsId);
        const bool lost = client != nullptr && client->runState == kRunning && client->session != session;
        if (lost) {
            markFaulty(*client, kHeartBreak);
        }
        return lost;
    });
}

// The client's key first, then its row in the view: a row without a key is one whose heart broke.
void enter(Store &store, const JoinRequest &request, Membership &membership)
{
    const auto stored = readStored(store).view;
    membership.session = newSession(stored.find(request.lsId));
    const Json key{{"session", membership.session}, {"node", request.node}};
    const StoreWrite made = createSettled(store, clientKey(request.lsId), key.dump(), membership.lease);
    if (made.result == StoreResult::exists) {
        throw CmRefused("a process of " + nameOfClient(request.lsId) + " lives already");
    }
    if (made.result != StoreResult::done) {
        throw StoreUnreachable();
    }
    breakHeartOfEarlierLife(store, request.lsId, membership.session);
    changeView(store, [&](DpcView &view) {
        const DpcClient *before = view.find(request.lsId);
        if (before == nullptr && view.clients.size() == kMaxDpcClients) {
            throw CmRefused("the view holds " + std::to_string(kMaxDpcClients) + " clients, which is the most");
        }
        DpcClient client = before != nullptr ? *before : DpcClient{};
        client.lsId = request.lsId;
        client.session = membership.session;
        client.runState = kRunning;
        client.node = request.node;
        client.attributes = request.attributes;
        view.put(std::move(client));
        return true;
    });
}

// Of a client's key; 0, which is no client's, when the key is something else.
uint32_t lsIdOf(const std::string &key)
{
    uint32_t lsId = 0;
    const char *end = key.data() + key.size();
    const auto [stop, error] = std::from_chars(key.data() + kClientPrefix.size(), end, lsId);
    return error == std::errc() && stop == end ? lsId : 0;
}

// The sessions of the processes that live, by LS id.
std::set<std::pair<uint32_t, uint64_t>> livingProcesses(Store &store)
{
    const StoreList keys = store.list(kClientPrefix);
    if (keys.result != StoreResult::done) {
        throw StoreUnreachable();
    }
    std::set<std::pair<uint32_t, uint64_t>> living;
    for (const StoreItem &item : keys.items) {
        const Json key = Json::parse(item.value, nullptr, false);
        if (key.is_object() && key.contains("session") && key["session"].is_number_unsigned()) {
            living.emplace(lsIdOf(item.key), key["session"].get<uint64_t>());
        }
    }
    return living;
}

} // namespace

StoreUnreachable::StoreUnreachable() : std::runtime_error("the cluster store does not answer") {}

Membership joinClient(Store &store, const JoinRequest &request)
{
    Membership membership;
    grantLease(store, membership, request.ttl);
    try {
        enter(store, request, membership);
    } catch (...) {
        store.revoke(membership.lease);
        throw;
    }
    return membership;
}

void keepClientAlive(Store &store, StoreLease lease)
{
    const StoreGrant kept = store.keepAlive(lease);
    if (kept.result == StoreResult::noLease) {
        throw CmRefused("its lease has ended");
    }
    if (kept.result != StoreResult::done) {
        throw StoreUnreachable();
    }
}

void removeClient(Store &store, uint32_t lsId)
{
    changeView(store, [lsId](DpcView &view) {
        require(view, lsId);
        view.erase(lsId);
        return true;
    });
    endLease(store, lsId);
}

void failClient(Store &store, uint32_t lsId, int32_t reason, bool endsProcess)
{
    bool marked = false;
    changeView(store, [&](DpcView &view) {
        DpcClient &client = require(view, lsId);
        marked = client.runState != kFaulty;
        if (marked) {
            markFaulty(client, reason);
        }
        return marked;
    });
    const bool ended = endsProcess && endLease(store, lsId);
    if (!marked && !ended) {
        throw CmRefused(nameOfClient(lsId) + " is faulty already");
    }
}

// The view is read before the keys: a client whose row is there had its key before.
size_t breakHearts(Store &store)
{
    size_t broken = 0;
    changeView(store, [&](DpcView &view) {
        const auto living = livingProcesses(store);
        broken = 0;
        for (DpcClient &client : view.clients) {
            if (client.runState == kRunning && !living.contains({client.lsId, client.session})) {
                markFaulty(client, kHeartBreak);
                ++broken;
            }
        }
        return broken > 0;
    });
    return broken;
}

std::optional<DpcView> readView(Store &store)
{
    StoredView stored = readStored(store);
    if (stored.keyVersion == 0) {
        return std::nullopt;
    }
    return std::move(stored.view);
}

} // namespace host
