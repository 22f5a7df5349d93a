/*
 * The cluster store in etcd 3.4. Every change is one transaction that compares the key's version, so that whatever was
 * sent can be settled by reading it back. Owns no lock: etcd orders the calls.
 */
#include "cluster/backends.h"
#include "cluster/etcd_watch.h"

namespace host {

namespace {

using nlohmann::json;

// An answer that is not what etcd says leaves a call's fate as open as no answer.
template <typename Work>
auto answered(StoreHealth &health, Work work) -> decltype(work())
{
    try {
        return work();
    } catch (const EtcdError &) {
        return {}; // the client told the health
    } catch (const std::exception &error) {
        health.failed(std::string("cluster store: an answer of etcd is not understood: ") + error.what());
        return {};
    }
}

json compareVersion(const std::string &key, const char *how, uint64_t version)
{
    return {{"key", toEtcdBytes(key)}, {"target", "VERSION"}, {"result", how}, {"version", std::to_string(version)}};
}

json putOf(const std::string &key, const std::string &value, StoreLease lease)
{
    return {
        {"request_put", {{"key", toEtcdBytes(key)}, {"value", toEtcdBytes(value)}, {"lease", std::to_string(lease)}}}};
}

// Whether the key is there at all, for a change that is refused.
json lookOf(const std::string &key)
{
    return {{"request_range", {{"key", toEtcdBytes(key)}, {"keys_only", true}}}};
}

bool foundKey(const json &transaction)
{
    return transaction.at("responses").at(0).at("response_range").contains("kvs");
}

uint64_t revisionOf(const json &body)
{
    return etcdNumber(body.at("header"), "revision");
}

class EtcdStore : public Store {
public:
    explicit EtcdStore(const StoreSettings &settings)
        : timeout_(settings.timeout), health_(settings.endpoints.front()), client_(settings, health_)
    {
    }

    StoreWrite create(const std::string &key, const std::string &value, StoreLease lease) override;
    StoreRead read(const std::string &key) override;
    StoreRead readBack(const std::string &key, uint64_t version) override;
    StoreWrite write(const std::string &key, const std::string &value, uint64_t version, StoreLease lease) override;
    StoreWrite remove(const std::string &key, uint64_t version) override;
    StoreList list(const std::string &prefix) override;
    StoreGrant grant(std::chrono::seconds ttl) override;
    StoreGrant keepAlive(StoreLease lease) override;
    StoreResult revoke(StoreLease lease) override;
    std::unique_ptr<StoreWatch> watch(const std::string &prefix, uint64_t revision, StoreCallback callback) override;
    StoreStatus status() const override { return health_.status(); }

private:
    // The key as it was at a revision of the store, 0 = as it is.
    StoreRead readAt(const std::string &key, uint64_t revision, EtcdClient::Deadline until);
    // Runs a transaction: done with this version, or what the look says.
    StoreWrite transact(const json &compare, const json &change, const std::string &key, uint64_t version);

    const std::chrono::milliseconds timeout_;
    StoreHealth health_;
    EtcdClient client_;
};

StoreRead EtcdStore::readAt(const std::string &key, uint64_t revision, EtcdClient::Deadline until)
{
    json request = {{"key", toEtcdBytes(key)}};
    if (revision != 0) {
        request["revision"] = std::to_string(revision);
    }
    const EtcdReply reply = client_.ask("/v3/kv/range", request, until);
    if (reply.refused || !reply.body.contains("kvs")) {
        return {StoreResult::absent, {}};
    }
    return {StoreResult::done, etcdItem(reply.body.at("kvs").at(0))};
}

StoreRead EtcdStore::read(const std::string &key)
{
    return answered(health_, [&] { return readAt(key, 0, client_.deadline()); });
}

// etcd finds a key by the store's revision: from its newest version back, write by write.
StoreRead EtcdStore::readBack(const std::string &key, uint64_t version)
{
    return answered(health_, [&]() -> StoreRead {
        const auto until = client_.deadline();
        StoreRead found = readAt(key, 0, until);
        while (found.result == StoreResult::done && found.item.version > version && found.item.version > 1) {
            found = readAt(key, found.item.revision - 1, until);
        }
        const bool there = found.result == StoreResult::done && found.item.version == version;
        return there ? found : StoreRead{StoreResult::absent, {}};
    });
}

StoreWrite EtcdStore::transact(const json &compare, const json &change, const std::string &key, uint64_t version)
{
    const json request = {
        {"compare", compare}, {"success", json::array({change})}, {"failure", json::array({lookOf(key)})}};
    const EtcdReply reply = client_.change("/v3/kv/txn", request);
    if (reply.refused) {
        return {reply.code == kEtcdNotFound ? StoreResult::noLease : StoreResult::unknown};
    }
    if (!reply.body.value("succeeded", false)) {
        return {foundKey(reply.body) ? StoreResult::differs : StoreResult::absent};
    }
    return {StoreResult::done, version, revisionOf(reply.body)};
}

StoreWrite EtcdStore::create(const std::string &key, const std::string &value, StoreLease lease)
{
    return answered(health_, [&] {
        const json compare = json::array({compareVersion(key, "EQUAL", 0)});
        StoreWrite made = transact(compare, putOf(key, value, lease), key, 1);
        made.result = made.result == StoreResult::differs ? StoreResult::exists : made.result;
        return made;
    });
}

StoreWrite EtcdStore::write(const std::string &key, const std::string &value, uint64_t version, StoreLease lease)
{
    return answered(health_, [&] {
        const json compare = json::array({compareVersion(key, "EQUAL", version), compareVersion(key, "GREATER", 0)});
        return transact(compare, putOf(key, value, lease), key, version + 1);
    });
}

StoreWrite EtcdStore::remove(const std::string &key, uint64_t version)
{
    return answered(health_, [&] {
        json compare = json::array({compareVersion(key, "GREATER", 0)});
        if (version != 0) {
            compare.push_back(compareVersion(key, "EQUAL", version));
        }
        return transact(compare, {{"request_delete_range", {{"key", toEtcdBytes(key)}}}}, key, 0);
    });
}

StoreList EtcdStore::list(const std::string &prefix)
{
    return answered(health_, [&]() -> StoreList {
        const EtcdReply reply = client_.ask("/v3/kv/range", etcdRange(prefix), client_.deadline());
        if (reply.refused) {
            return {};
        }
        StoreList list{StoreResult::done, {}, revisionOf(reply.body)};
        if (reply.body.contains("kvs")) {
            for (const json &kv : reply.body.at("kvs")) {
                list.items.push_back(etcdItem(kv));
            }
        }
        return list;
    });
}

StoreGrant EtcdStore::grant(std::chrono::seconds ttl)
{
    return answered(health_, [&]() -> StoreGrant {
        const EtcdReply reply = client_.change("/v3/lease/grant", {{"TTL", std::to_string(ttl.count())}});
        if (reply.refused) {
            return {};
        }
        return {StoreResult::done, etcdNumber(reply.body, "ID"), std::chrono::seconds(etcdNumber(reply.body, "TTL"))};
    });
}

// The answer for a lease that has ended is an answer like any other, but without a time.
StoreGrant EtcdStore::keepAlive(StoreLease lease)
{
    return answered(health_, [&]() -> StoreGrant {
        const json request = {{"ID", std::to_string(lease)}};
        const EtcdReply reply = client_.ask("/v3/lease/keepalive", request, client_.deadline());
        const uint64_t ttl = reply.refused ? 0 : etcdNumber(reply.body.at("result"), "TTL");
        if (ttl == 0) {
            return {StoreResult::noLease};
        }
        return {StoreResult::done, lease, std::chrono::seconds(ttl)};
    });
}

StoreResult EtcdStore::revoke(StoreLease lease)
{
    return answered(health_,
                    [&] {
                        const EtcdReply reply = client_.change("/v3/lease/revoke", {{"ID", std::to_string(lease)}});
                        return StoreWrite{reply.refused ? StoreResult::noLease : StoreResult::done};
                    })
        .result;
}

std::unique_ptr<StoreWatch> EtcdStore::watch(const std::string &prefix, uint64_t revision, StoreCallback callback)
{
    return std::make_unique<EtcdWatch>(client_, timeout_, prefix, revision, std::move(callback));
}

} // namespace

std::unique_ptr<Store> openEtcdStore(const StoreSettings &settings)
{
    return std::make_unique<EtcdStore>(settings);
}

} // namespace host
