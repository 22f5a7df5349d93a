/*
 * etcd for a test: a cluster of its members as processes, on loopback or in a private network, in a folder of its own.
 * They are asked over their JSON gateway.
 */
#pragma once

#include "node.h"

namespace integration {

// One change of a key, as etcd's history tells it.
struct Change {
    std::string key;
    std::string value;
    uint64_t version = 0; // 0 = removed
    uint64_t revision = 0;
};

class EtcdCluster {
public:
    // All of them serve when it returns. Commands begin with the prefix, and the members listen at the address.
    EtcdCluster(size_t members, const std::string &address, std::vector<std::string> prefix = {});
    ~EtcdCluster();
    EtcdCluster(const EtcdCluster &) = delete;
    EtcdCluster &operator=(const EtcdCluster &) = delete;

    std::string storeOption() const; // for nasctrld --store
    void start(size_t member);
    void kill(size_t member);
    bool allUp() const;
    // The member that is down, if one is.
    std::optional<size_t> down() const;
    // Nothing while there is none, or none that is known.
    std::optional<size_t> leader() const;

    // All changes of the keys that begin with the prefix, from the first on.
    std::vector<Change> history(const std::string &prefix) const;

private:
    struct Member {
        std::string clientUrl;
        std::string peerUrl;
        pid_t pid = -1;
    };
    std::vector<std::string> command(size_t member) const;
    std::vector<std::string> curl(const std::string &url, const nlohmann::json &request) const;
    nlohmann::json ask(size_t member, const std::string &path, const nlohmann::json &request) const;

    TemporaryDirectory folder_;
    std::vector<std::string> prefix_;
    std::vector<Member> members_;
};

} // namespace integration
