#include "cluster/store.h"

#include "cluster/backends.h"
#include <mutex>
#include <stdexcept>

namespace host {

namespace {

// The tries of a settled change: when the first one is known to have done nothing, the second tells.
constexpr int kTries = 2;

constexpr std::string_view kSqlite = "sqlite:";
constexpr std::string_view kEtcd = "etcd:";

struct NodeStore {
    std::mutex mutex; // held for a copy of the pointer
    std::shared_ptr<Store> store;
};

NodeStore &nodeStore()
{
    static auto &kept = *new NodeStore; // threads of the library may ask until the process is gone
    return kept;
}

// Compares by version, so that a second try can do no harm: it is refused when the first was done.
template <typename Change>
StoreWrite settle(Store &store, const std::string &key, const std::string &value, uint64_t version, Change change)
{
    StoreWrite made = change();
    for (int tries = 1; made.result == StoreResult::unknown; ++tries) {
        const StoreRead found = store.readBack(key, version);
        if (found.result == StoreResult::done) {
            const bool mine = found.item.value == value;
            return mine ? StoreWrite{StoreResult::done, version, found.item.revision}
                        : StoreWrite{version == 1 ? StoreResult::exists : StoreResult::differs};
        }
        if (found.result == StoreResult::unknown || tries == kTries) {
            break;
        }
        made = change();
        if (isRefused(made.result)) {
            made.result = StoreResult::unknown; // refused perhaps because of the first try: read back once more
        }
    }
    return made;
}

void checkEndpoint(const std::string &url)
{
    const bool http = url.starts_with("http://") || url.starts_with("https://");
    if (!http || url.ends_with("//") || url.find_first_of(" \t?#") != std::string::npos) {
        throw std::invalid_argument(url + " is not an end point of the form http://HOST:PORT");
    }
}

std::vector<std::string> endpointsOf(const std::string &text)
{
    std::vector<std::string> endpoints;
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        std::string url = text.substr(begin, end - begin);
        checkEndpoint(url);
        url.erase(url.find_last_not_of('/') + 1);
        endpoints.push_back(std::move(url));
        begin = end + 1;
    }
    return endpoints;
}

} // namespace

const char *nameOf(StoreResult result)
{
    constexpr const char *kNames[] = {"done", "exists", "absent", "differs", "noLease", "unknown"};
    return kNames[static_cast<size_t>(result)];
}

StoreWrite createSettled(Store &store, const std::string &key, const std::string &value, StoreLease lease)
{
    return settle(store, key, value, 1, [&] { return store.create(key, value, lease); });
}

StoreWrite writeSettled(Store &store, const std::string &key, const std::string &value, uint64_t version,
                        StoreLease lease)
{
    return settle(store, key, value, version + 1, [&] { return store.write(key, value, version, lease); });
}

StoreSettings parseStore(const std::string &text)
{
    StoreSettings settings;
    if (text.starts_with(kSqlite) && text.size() > kSqlite.size()) {
        settings.file = text.substr(kSqlite.size());
    } else if (text.starts_with(kEtcd)) {
        settings.endpoints = endpointsOf(text.substr(kEtcd.size()));
    } else {
        throw std::invalid_argument(text + " is not a cluster store, write sqlite:PATH or etcd:URL[,URL...]");
    }
    return settings;
}

std::unique_ptr<Store> openStore(const StoreSettings &settings)
{
    return settings.endpoints.empty() ? openSqliteStore(settings) : openEtcdStore(settings);
}

std::shared_ptr<Store> clusterStore()
{
    const std::scoped_lock lock(nodeStore().mutex);
    return nodeStore().store;
}

void startClusterStore(const StoreSettings &settings)
{
    std::shared_ptr<Store> store = openStore(settings);
    const std::scoped_lock lock(nodeStore().mutex);
    nodeStore().store = std::move(store);
}

void stopClusterStore()
{
    std::shared_ptr<Store> store; // outlives the lock: closing a file takes its time
    const std::scoped_lock lock(nodeStore().mutex);
    store.swap(nodeStore().store);
}

} // namespace host
