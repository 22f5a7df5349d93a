/*
 * HTTP to etcd's JSON gateway, over several end points of one cluster.
 */
#pragma once

#include "cluster/store_health.h"
#include <atomic>
#include <curl/curl.h>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace host {

// No answer that tells how the call went. what() is one line.
struct EtcdError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The gateway's own answer, or its refusal.
struct EtcdReply {
    bool refused = false;
    int64_t code = 0; // of the refusal, as gRPC numbers it
    nlohmann::json body = nlohmann::json::object();
};

constexpr int kEtcdNotFound = 5;    // a lease that has ended
constexpr int kEtcdOutOfRange = 11; // a revision that is compacted

// Fields of an answer: 64-bit numbers come as text, bytes as base64, and what is zero or empty is left out. Throw
// std::exception for what etcd does not say.
uint64_t etcdNumber(const nlohmann::json &object, const char *name);
std::string etcdBytes(const nlohmann::json &object, const char *name);
std::string toEtcdBytes(const std::string &bytes);

class EtcdClient {
public:
    using Deadline = std::chrono::steady_clock::time_point;

    EtcdClient(const StoreSettings &settings, StoreHealth &health);
    ~EtcdClient();
    EtcdClient(const EtcdClient &) = delete;
    EtcdClient &operator=(const EtcdClient &) = delete;

    Deadline deadline() const { return std::chrono::steady_clock::now() + timeout_; }
    // A call that may be made more than once: every end point is asked in turn, until one answers. Throws EtcdError.
    EtcdReply ask(const char *path, const nlohmann::json &request, Deadline until);
    // A call that must not be made twice: the next end point is tried only while nothing was sent. Throws EtcdError.
    EtcdReply change(const char *path, const nlohmann::json &request);

    // Where the next call goes first; and away from it, unless another call has moved on already.
    std::string endpoint() const { return endpoints_[first_ % endpoints_.size()]; }
    void passOver(const std::string &endpoint);
    // Whether this very end point answers in time.
    bool answers(const std::string &endpoint);

private:
    struct Attempt {
        bool sent = false; // some of the request
        std::string error; // empty: answered
        EtcdReply reply;
    };
    enum class Again { untilSent, untilAnswered };

    EtcdReply call(const char *path, const nlohmann::json &request, Deadline until, Again again);
    Attempt attempt(const std::string &url, const std::string &body, std::chrono::milliseconds patience,
                    std::chrono::milliseconds connectPatience, bool fresh);
    CURL *takeHandle();
    void giveHandle(CURL *handle);

    const std::vector<std::string> endpoints_;
    const std::chrono::milliseconds timeout_;
    StoreHealth &health_;
    std::atomic<size_t> first_ = 0;
    std::mutex handlesMutex_;
    std::vector<CURL *> handles_; // idle ones, with their connections
};

// Adds what came of an answer: the size, or 0 when the answer is too large to be one, which makes libcurl end it.
// Throws nothing, because libcurl's frames are C.
size_t takeEtcdBytes(std::string &answer, const char *data, size_t size) noexcept;

// What every request to the gateway has in common.
void setUpEtcdRequest(CURL *handle, const std::string &url, const std::string &body, curl_slist *headers);

} // namespace host
