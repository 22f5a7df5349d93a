/*
 * Who takes part in a cluster under test: clients as processes, and nodes whose event streams and locks are kept track
 * of, life by life.
 */
#pragma once

#include "cluster_record.h"

#include <chrono>
#include <stop_token>

namespace integration {

// A process of nasctl dpc join.
class Client {
public:
    explicit Client(uint32_t lsId) : lsId_(lsId) {}
    ~Client();
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    // A process that ended by itself does not.
    bool lives();
    void join(const Node &node, std::chrono::seconds ttl);
    void kill();
    // Its own while it lives, once it has joined; empty before.
    std::string session();

private:
    void end();

    uint32_t lsId_;
    pid_t pid_ = -1;
    int output_ = -1;
    std::string said_;
};

class Member {
public:
    // Its node id is the number and its store's option the text; start() starts it.
    Member(uint32_t number, const std::string &store);

    Node &node() { return node_; }
    const Node &node() const { return node_; }
    bool up() const { return up_; }
    void start();
    // What the stream of its life held until then.
    NodeLife kill();

    // Takes one more lock for a client, whether that has joined or not.
    void lock(uint32_t lsId);
    // Publishes one more value; whether it succeeded. Values and locks of a member are for one thread each.
    bool publish();
    // Publishes all the time.
    void publishUntil(const std::stop_token &stop);
    const std::vector<Publication> &published() const { return published_; }

    nlohmann::json view() const { return node_.json({"view"}); }
    // Of a life that goes on, once it has released the locks that it must by the record.
    NodeLife readWhole(const ClusterRecord &record) const;
    std::vector<nlohmann::json> events() const;

private:
    NodeLife read() const;
    NodeLife readWithLocks() const;

    uint32_t number_;
    Node node_;
    bool up_ = false;
    int lives_ = 0;
    uint64_t locks_ = 0;
    std::map<uint32_t, uint64_t> taken_; // in this life
    uint32_t values_ = 0;
    std::vector<Publication> published_;
};

} // namespace integration
