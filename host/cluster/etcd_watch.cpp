#include "cluster/etcd_watch.h"

#include "cluster/backends.h"
#include <new>

namespace host {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kPause{100}; // between two tries
constexpr long kConnectMs = 2000;

struct Stream {
    CURLM *multi;
    CURL *handle = curl_easy_init();
    curl_slist *headers = curl_slist_append(nullptr, "Content-Type: application/json");

    ~Stream()
    {
        curl_multi_remove_handle(multi, handle);
        curl_easy_cleanup(handle);
        curl_slist_free_all(headers);
    }
};

} // namespace

StoreItem etcdItem(const json &kv)
{
    return {etcdBytes(kv, "key"), etcdBytes(kv, "value"), etcdNumber(kv, "version"), etcdNumber(kv, "mod_revision"),
            etcdNumber(kv, "lease")};
}

// The end is the prefix with its last byte raised; one zero byte stands for all keys from the begin on.
json etcdRange(const std::string &prefix)
{
    std::string end = prefix;
    while (!end.empty() && end.back() == '\xFF') {
        end.pop_back();
    }
    if (!end.empty()) {
        ++end.back();
    }
    const std::string zero(1, '\0');
    return {{"key", toEtcdBytes(prefix.empty() ? zero : prefix)}, {"range_end", toEtcdBytes(end.empty() ? zero : end)}};
}

EtcdWatch::EtcdWatch(EtcdClient &client, milliseconds quiet, const std::string &prefix, uint64_t revision,
                     StoreCallback callback)
    : client_(client), quiet_(quiet), range_(etcdRange(prefix)), callback_(std::move(callback)),
      fromTheBeginning_(revision == 0), next_(revision + 1), multi_(curl_multi_init())
{
    if (multi_ == nullptr) {
        throw std::bad_alloc();
    }
    thread_ = std::thread([this] { run(); });
}

EtcdWatch::~EtcdWatch()
{
    stopping_ = true;
    curl_multi_wakeup(multi_.get());
    thread_.join();
}

void EtcdWatch::run()
{
    while (!stopping_) {
        try {
            const std::string endpoint = client_.endpoint();
            follow(endpoint);
            client_.passOver(endpoint);
        } catch (const std::exception &) {
            // No memory: ask anew from where the delivered changes end.
        }
        if (!stopping_) {
            curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(kPause.count()), nullptr);
        }
    }
}

std::string EtcdWatch::request() const
{
    json request;
    json &create = request["create_request"] = range_;
    create["start_revision"] = std::to_string(next_);
    create["progress_notify"] = true;
    return request.dump();
}

// The header makes a member end the stream when it has lost the cluster's leader, instead of going on in silence.
void EtcdWatch::follow(const std::string &endpoint)
{
    const std::string url = endpoint + "/v3/watch";
    const std::string body = request();
    Stream stream{multi_.get()}; // after the body, which libcurl does not copy
    if (stream.handle == nullptr) {
        return;
    }
    stream.headers = curl_slist_append(stream.headers, "Grpc-Metadata-hasleader: true");
    setUpEtcdRequest(stream.handle, url, body, stream.headers);
    curl_easy_setopt(stream.handle, CURLOPT_CONNECTTIMEOUT_MS, kConnectMs);
    curl_easy_setopt(stream.handle, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(stream.handle, CURLOPT_WRITEDATA, this);
    received_.clear();
    curl_multi_add_handle(multi_.get(), stream.handle);
    receive(endpoint);
}

// A member that hangs keeps its connections open, so silence alone tells nothing: it is asked.
void EtcdWatch::receive(const std::string &endpoint)
{
    heard_ = steady_clock::now();
    int running = 1;
    while (!stopping_) {
        curl_multi_perform(multi_.get(), &running);
        if (!takeLines() || running == 0) {
            return;
        }
        curl_multi_poll(multi_.get(), nullptr, 0, static_cast<int>(quiet_.count()), nullptr);
        if (!stopping_ && steady_clock::now() - heard_ >= quiet_) {
            if (!client_.answers(endpoint)) {
                return;
            }
            heard_ = steady_clock::now();
        }
    }
}

size_t EtcdWatch::append(const char *data, size_t size, size_t count, void *watch)
{
    auto &self = *static_cast<EtcdWatch *>(watch);
    self.heard_ = steady_clock::now();
    return takeEtcdBytes(self.received_, data, size * count);
}

// Each line is an answer. False when the stream is at its end.
bool EtcdWatch::takeLines()
{
    for (size_t end = received_.find('\n'); end != std::string::npos; end = received_.find('\n')) {
        const json line = json::parse(received_.substr(0, end), nullptr, false);
        received_.erase(0, end + 1);
        const auto result = line.is_object() ? line.find("result") : line.end();
        try {
            if (result == line.end() || !takeResult(*result)) {
                return false;
            }
        } catch (const std::exception &) {
            return false; // not what etcd says: ask anew from where the delivered changes end
        }
    }
    return true;
}

bool EtcdWatch::takeResult(const json &result)
{
    if (result.value("canceled", false)) {
        const uint64_t compacted = etcdNumber(result, "compact_revision");
        if (compacted != 0) {
            goOnAfterLoss(compacted);
        }
        return false;
    }
    if (result.value("created", false)) {
        return true;
    }
    const auto events = result.find("events");
    if (events != result.end()) {
        takeEvents(*events);
    } else { // a sign of progress: everything up to this revision was delivered
        next_ = std::max(next_, etcdNumber(result.at("header"), "revision") + 1);
        fromTheBeginning_ = false;
    }
    return true;
}

// All changes of a revision come in one answer.
void EtcdWatch::takeEvents(const json &events)
{
    uint64_t newest = 0;
    for (const json &each : events) {
        const bool removed = each.value("type", "PUT") == "DELETE";
        StoreEvent event{removed ? StoreEvent::Kind::removed : StoreEvent::Kind::put, etcdItem(each.at("kv"))};
        newest = event.item.revision;
        if (stopping_) {
            return;
        }
        event.item.version = removed ? 0 : event.item.version;
        callback_(event);
    }
    next_ = newest + 1;
    fromTheBeginning_ = false;
}

void EtcdWatch::goOnAfterLoss(uint64_t compacted)
{
    next_ = compacted;
    if (!fromTheBeginning_ && !stopping_) {
        callback_(lostBefore(compacted));
    }
    fromTheBeginning_ = false;
}

} // namespace host
