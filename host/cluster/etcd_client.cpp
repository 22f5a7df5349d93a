#include "cluster/etcd_client.h"

#include <boost/beast/core/detail/base64.hpp>
#include <charconv>
#include <new>

namespace host {

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr long kHttpOk = 200;
constexpr size_t kMaxAnswer = 64U << 20; // no list or history of a cluster's records comes near it
constexpr const char *kAnyKey = "AA==";  // the smallest key there is

void startCurl()
{
    static const CURLcode started = curl_global_init(CURL_GLOBAL_DEFAULT);
    if (started != CURLE_OK) {
        throw std::runtime_error(std::string("cluster store: libcurl cannot start: ") + curl_easy_strerror(started));
    }
}

size_t appendTo(const char *data, size_t size, size_t count, void *text)
{
    return takeEtcdBytes(*static_cast<std::string *>(text), data, size * count);
}

milliseconds until(steady_clock::time_point time)
{
    return std::max(std::chrono::duration_cast<milliseconds>(time - steady_clock::now()), milliseconds(0));
}

struct Headers {
    curl_slist *list = curl_slist_append(nullptr, "Content-Type: application/json");
    ~Headers() { curl_slist_free_all(list); }
};

int64_t codeOf(const json &refusal)
{
    const auto code = refusal.find("code");
    return code != refusal.end() && code->is_number_integer() ? code->get<int64_t>() : 0;
}

std::string errorOf(const json &refusal, long status)
{
    const auto error = refusal.find("error");
    return error != refusal.end() && error->is_string() ? error->get<std::string>()
                                                        : "HTTP status " + std::to_string(status);
}

// Only an answer of the store itself is taken for one: whatever else came leaves the call's fate open.
std::string readReply(long status, const std::string &text, EtcdReply &reply)
{
    reply.body = json::parse(text, nullptr, false);
    if (!reply.body.is_object()) {
        return "HTTP status " + std::to_string(status) + " without an answer of etcd";
    }
    if (status == kHttpOk) {
        return {};
    }
    reply.refused = true;
    reply.code = codeOf(reply.body);
    const bool known = reply.code == kEtcdNotFound || reply.code == kEtcdOutOfRange;
    return known ? "" : errorOf(reply.body, status);
}

const char *failureOf(CURLcode result)
{
    return result == CURLE_WRITE_ERROR ? "the answer is too large" : curl_easy_strerror(result);
}

} // namespace

uint64_t etcdNumber(const json &object, const char *name)
{
    const auto &fields = object.get_ref<const json::object_t &>();
    const auto field = fields.find(name);
    if (field == fields.end()) {
        return 0;
    }
    const auto &text = field->second.get_ref<const std::string &>();
    int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::runtime_error(std::string("the field ") + name + " is not a number");
    }
    return static_cast<uint64_t>(number);
}

std::string etcdBytes(const json &object, const char *name)
{
    namespace base64 = boost::beast::detail::base64;
    const auto &fields = object.get_ref<const json::object_t &>();
    const auto field = fields.find(name);
    if (field == fields.end()) {
        return {};
    }
    const auto &text = field->second.get_ref<const std::string &>();
    std::string bytes(base64::decoded_size(text.size()), '\0');
    bytes.resize(base64::decode(bytes.data(), text.data(), text.size()).first);
    return bytes;
}

std::string toEtcdBytes(const std::string &bytes)
{
    namespace base64 = boost::beast::detail::base64;
    std::string text(base64::encoded_size(bytes.size()), '\0');
    text.resize(base64::encode(text.data(), bytes.data(), bytes.size()));
    return text;
}

size_t takeEtcdBytes(std::string &answer, const char *data, size_t size) noexcept
{
    if (size > kMaxAnswer - answer.size()) {
        return 0;
    }
    try {
        answer.append(data, size);
    } catch (const std::bad_alloc &) {
        return 0;
    }
    return size;
}

void setUpEtcdRequest(CURL *handle, const std::string &url, const std::string &body, curl_slist *headers)
{
    curl_easy_setopt(handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_NOPROXY, "*"); // the cluster's own network, whatever the environment says
}

EtcdClient::EtcdClient(const StoreSettings &settings, StoreHealth &health)
    : endpoints_(settings.endpoints), timeout_(settings.timeout), health_(health)
{
    startCurl();
}

EtcdClient::~EtcdClient()
{
    for (CURL *handle : handles_) {
        curl_easy_cleanup(handle);
    }
}

EtcdReply EtcdClient::ask(const char *path, const json &request, Deadline until)
{
    return call(path, request, until, Again::untilAnswered);
}

EtcdReply EtcdClient::change(const char *path, const json &request)
{
    return call(path, request, deadline(), Again::untilSent);
}

EtcdReply EtcdClient::call(const char *path, const json &request, Deadline deadline, Again again)
{
    const std::string body = request.dump();
    std::string error = "no time is left";
    for (size_t left = endpoints_.size(); left > 0 && until(deadline) > milliseconds(0); --left) {
        const std::string place = endpoint();
        const milliseconds share = until(deadline) / left + milliseconds(1); // of the end points not yet tried
        const milliseconds patience = again == Again::untilSent ? until(deadline) : share;
        Attempt made = attempt(place + path, body, patience, share, again == Again::untilSent);
        if (made.error.empty()) {
            health_.answered(place);
            return std::move(made.reply);
        }
        passOver(place);
        error = place + ": " + made.error;
        if (made.sent && again == Again::untilSent) {
            break;
        }
    }
    error = "cluster store " + error;
    health_.failed(error);
    throw EtcdError(error);
}

// A connection that is used again may turn out to be dead, and libcurl then sends the request once more by itself.
// A change must not be sent twice, so it has a fresh one.
EtcdClient::Attempt EtcdClient::attempt(const std::string &url, const std::string &body, milliseconds patience,
                                        milliseconds connectPatience, bool fresh)
{
    Attempt made;
    CURL *handle = takeHandle();
    if (handle == nullptr) {
        made.error = "no memory for a call";
        return made;
    }
    const Headers headers;
    std::string text;
    setUpEtcdRequest(handle, url, body, headers.list);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, appendTo);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, &text);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(patience.count()) + 1); // 0 would be for ever
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connectPatience.count()) + 1);
    curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, fresh ? 1L : 0L);
    const CURLcode result = curl_easy_perform(handle);
    long status = 0;
    long sent = 0;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_getinfo(handle, CURLINFO_REQUEST_SIZE, &sent);
    giveHandle(handle);
    made.sent = sent > 0;
    made.error = result == CURLE_OK ? readReply(status, text, made.reply) : failureOf(result);
    return made;
}

void EtcdClient::passOver(const std::string &endpoint)
{
    size_t first = first_;
    if (endpoints_[first % endpoints_.size()] == endpoint) {
        first_.compare_exchange_strong(first, first + 1);
    }
}

bool EtcdClient::answers(const std::string &endpoint)
{
    const json request = {{"key", kAnyKey}, {"serializable", true}, {"keys_only", true}};
    return attempt(endpoint + "/v3/kv/range", request.dump(), timeout_, timeout_, false).error.empty();
}

CURL *EtcdClient::takeHandle()
{
    const std::scoped_lock lock(handlesMutex_);
    if (handles_.empty()) {
        return curl_easy_init();
    }
    CURL *handle = handles_.back();
    handles_.pop_back();
    return handle;
}

void EtcdClient::giveHandle(CURL *handle)
{
    curl_easy_reset(handle); // its connections stay
    const std::scoped_lock lock(handlesMutex_);
    handles_.push_back(handle);
}

} // namespace host
