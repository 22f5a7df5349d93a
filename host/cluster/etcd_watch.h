/*
 * A watch of etcd: one streaming answer of the gateway, taken up again at another end point when it ends.
 */
#pragma once

#include "cluster/etcd_client.h"
#include <thread>

namespace host {

// The key and value of an answer.
StoreItem etcdItem(const nlohmann::json &kv);
// The fields "key" and "range_end" for all keys that begin with the prefix.
nlohmann::json etcdRange(const std::string &prefix);

class EtcdWatch : public StoreWatch {
public:
    EtcdWatch(EtcdClient &client, std::chrono::milliseconds quiet, const std::string &prefix, uint64_t revision,
              StoreCallback callback);
    ~EtcdWatch() override;

private:
    struct MultiEnd {
        void operator()(CURLM *multi) const { curl_multi_cleanup(multi); }
    };
    void run();
    void follow(const std::string &endpoint);
    void receive(const std::string &endpoint);
    bool takeLines();
    bool takeResult(const nlohmann::json &result);
    void takeEvents(const nlohmann::json &events);
    void goOnAfterLoss(uint64_t compacted);
    std::string request() const;
    static size_t append(const char *data, size_t size, size_t count, void *watch);

    EtcdClient &client_;
    const std::chrono::milliseconds quiet_; // how long nothing may come before the end point is asked whether it lives
    const nlohmann::json range_;
    const StoreCallback callback_;
    bool fromTheBeginning_; // what was compacted before the first look is not missed
    uint64_t next_;         // the first revision that was not delivered
    std::string received_;  // not yet taken
    std::chrono::steady_clock::time_point heard_;
    std::unique_ptr<CURLM, MultiEnd> multi_; // one for the whole life, because it is what wakes the thread
    std::atomic<bool> stopping_ = false;
    std::thread thread_; // the last member, because it uses the others
};

} // namespace host
