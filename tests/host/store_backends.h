/*
 * The back ends of the cluster store as tests need them: in a folder of their own, with time that a test can pass, a
 * past that it can have forgotten, and an end that it can take away and give back.
 */
#pragma once

#include <atomic>
#include <cluster/store.h>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <sys/types.h>
#include <vector>

namespace store_test {

// Looks again until the condition holds; false after half a minute.
bool eventually(const std::function<bool()> &condition);

// For stores whose time-out a test does not look at: a busy machine or a slow disk fails no test.
constexpr std::chrono::seconds kPatient{30};

class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

class SqliteBackend {
public:
    static constexpr uint32_t kRemembered = 60; // changes

    host::StoreSettings settings() const;
    std::string file() const { return folder_.path() + "/cluster.db"; }
    void passTime(std::chrono::milliseconds time) { *now_ += time.count(); }
    // Makes the store forget its changes up to its present revision, at least.
    void forget(host::Store &store) const;
    void takeAway() const;
    void giveBack() const;

private:
    TemporaryFolder folder_;
    std::shared_ptr<std::atomic<int64_t>> now_ = std::make_shared<std::atomic<int64_t>>(1000000);
};

class EtcdBackend {
public:
    EtcdBackend();
    ~EtcdBackend();
    EtcdBackend(const EtcdBackend &) = delete;
    EtcdBackend &operator=(const EtcdBackend &) = delete;

    host::StoreSettings settings() const;
    const std::string &endpoint() const { return endpoint_; }
    // An end point where nobody listens.
    static std::string deadEndpoint();
    void passTime(std::chrono::milliseconds /*time*/) {} // it passes by itself: the tests wait for what it brings
    void forget(host::Store &store) const;
    void takeAway();
    void giveBack();
    // Stops the process in the middle of whatever it does, its sockets open; and lets it go on.
    void hang() const;
    void goOn() const;

private:
    void start();

    TemporaryFolder folder_;
    std::string endpoint_;
    std::string peer_;
    pid_t pid_ = -1;
};

// What a watch told, in order.
class Events {
public:
    host::StoreCallback callback();
    // All so far, once there are that many.
    std::vector<host::StoreEvent> wait(size_t count);
    // Once one fulfils the condition; false after half a minute.
    bool waitFor(const std::function<bool(const host::StoreEvent &)> &condition);
    size_t count();

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<host::StoreEvent> events_;
};

// "put KEY VALUE vVERSION", "removed KEY" or "lost".
std::string told(const host::StoreEvent &event);
std::vector<std::string> told(const std::vector<host::StoreEvent> &events);

// A store whose next change is lost on its way, or whose answer is: either way, nobody knows.
class LossyStore : public host::Store {
public:
    enum class Loss { none, request, answer };
    explicit LossyStore(host::Store &store) : store_(store) {}

    void lose(Loss loss) { loss_ = loss; }
    // Runs once, after the next change and before anything else is asked.
    void afterChange(std::function<void()> action) { action_ = std::move(action); }
    void loseReads(bool lost) { readsAreLost_ = lost; }
    int changes() const { return changes_; }

    host::StoreWrite create(const std::string &key, const std::string &value, host::StoreLease lease) override;
    host::StoreRead read(const std::string &key) override { return store_.read(key); }
    host::StoreRead readBack(const std::string &key, uint64_t version) override;
    host::StoreWrite write(const std::string &key, const std::string &value, uint64_t version,
                           host::StoreLease lease) override;
    host::StoreWrite remove(const std::string &key, uint64_t version) override { return store_.remove(key, version); }
    host::StoreList list(const std::string &prefix) override { return store_.list(prefix); }
    host::StoreGrant grant(std::chrono::seconds ttl) override { return store_.grant(ttl); }
    host::StoreGrant keepAlive(host::StoreLease lease) override { return store_.keepAlive(lease); }
    host::StoreResult revoke(host::StoreLease lease) override { return store_.revoke(lease); }
    std::unique_ptr<host::StoreWatch> watch(const std::string &prefix, uint64_t revision,
                                            host::StoreCallback callback) override
    {
        return store_.watch(prefix, revision, std::move(callback));
    }
    host::StoreStatus status() const override { return store_.status(); }

private:
    template <typename Change>
    host::StoreWrite change(Change made);

    host::Store &store_;
    Loss loss_ = Loss::none;
    std::function<void()> action_;
    bool readsAreLost_ = false;
    int changes_ = 0;
};

} // namespace store_test
