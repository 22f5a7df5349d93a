#include "admin_client.h"
#include "failure.h"
#include <cerrno>
#include <curl/curl.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/un.h>

namespace ctl {

namespace {

// More than any answer of a node: its configuration values take 50 KB each, its tables a few hundred rows.
constexpr size_t kMaxAnswer = 64U << 20;

using Handle = std::unique_ptr<CURL, decltype(&curl_easy_cleanup)>;
using HeaderList = std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)>;

struct Refusal {
    long status;
    const char *what;
    const char *hint;
};

constexpr long kOk = 200;
constexpr long kBadRequest = 400;

constexpr Refusal kRefusals[] = {
    {kBadRequest, "refused by the node", ""},
    {403, "refused by the node", "; run nasctl as the node's own user or as root"},
    {404, "not known to the node", ""},
    {405, "not offered by the node", "; node and nasctl are of different versions"},
    {409, "refused by the node", ""},
    {500, "the node failed", "; its log tells more"},
    {503, "the node is busy", "; ask again"},
};

std::string encode(const nlohmann::json &body)
{
    try {
        return body.dump();
    } catch (const nlohmann::json::type_error &) {
        throw UsageFailure("an argument is not UTF-8 text");
    }
}

size_t takeBody(const char *data, size_t size, size_t count, void *answer)
{
    auto &text = *static_cast<std::string *>(answer);
    if (text.size() + size * count > kMaxAnswer) {
        return 0;
    }
    text.append(data, size * count);
    return size * count;
}

// The node's own words for a refusal; the HTTP status when it gave none.
std::string errorText(long status, const std::string &answer)
{
    const auto parsed = nlohmann::json::parse(answer, nullptr, false);
    if (parsed.is_object() && parsed.contains("error") && parsed["error"].is_string()) {
        return parsed["error"].get<std::string>();
    }
    return "HTTP status " + std::to_string(status);
}

std::string refusalText(long status, const std::string &answer)
{
    for (const Refusal &refusal : kRefusals) {
        if (refusal.status == status) {
            return std::string(refusal.what) + ": " + errorText(status, answer) + refusal.hint;
        }
    }
    return "the node answered in an unknown way: " + errorText(status, answer) +
           "; node and nasctl are of different versions";
}

Failure strange(const std::string &socketPath, const std::string &why)
{
    return Failure("the answer on " + socketPath + " is not one of a node (" + why +
                   "); is another program than nasctrld listening there?");
}

Failure transferFailure(CURL *handle, CURLcode code, const Session &session)
{
    long error = 0;
    switch (code) {
    case CURLE_COULDNT_CONNECT:
        curl_easy_getinfo(handle, CURLINFO_OS_ERRNO, &error);
        return unreachable(session.adminSocket, static_cast<int>(error));
    case CURLE_OPERATION_TIMEDOUT:
        return timedOut(session.adminSocket, session.timeout);
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_RECV_ERROR:
    case CURLE_SEND_ERROR:
        return closedEarly(session.adminSocket);
    default:
        return strange(session.adminSocket, curl_easy_strerror(code));
    }
}

void setTarget(CURL *handle, const Session &session, const std::string &path)
{
    // A Unix socket also keeps the environment's proxies away.
    curl_easy_setopt(handle, CURLOPT_UNIX_SOCKET_PATH, session.adminSocket.c_str());
    curl_easy_setopt(handle, CURLOPT_URL, ("http://localhost" + path).c_str());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http");
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(session.timeout.count()));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "nasctl/" NASCTL_VERSION);
}

HeaderList setRequest(CURL *handle, const char *method, const std::string &body)
{
    HeaderList headers(nullptr, curl_slist_free_all);
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method);
    if (!body.empty()) {
        headers.reset(curl_slist_append(nullptr, "Content-Type: application/json"));
        // The body goes out at once, without asking for permission first.
        curl_slist_append(headers.get(), "Expect:");
        curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers.get());
        curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.data());
    }
    return headers;
}

} // namespace

AdminClient::AdminClient(const Session &session) : session_(session)
{
    // Without it the first handle would load the parts of the library that speak TLS.
    curl_global_init(CURL_GLOBAL_NOTHING);
}

std::string AdminClient::call(const char *method, const std::string &path, const std::string &body) const
{
    if (session_.adminSocket.size() >= sizeof(sockaddr_un::sun_path)) {
        throw unreachable(session_.adminSocket, ENAMETOOLONG);
    }
    const Handle handle(curl_easy_init(), curl_easy_cleanup);
    if (handle == nullptr) {
        throw Failure("out of memory");
    }
    std::string answer;
    setTarget(handle.get(), session_, path);
    const HeaderList headers = setRequest(handle.get(), method, body);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEFUNCTION, takeBody);
    curl_easy_setopt(handle.get(), CURLOPT_WRITEDATA, &answer);
    const CURLcode code = curl_easy_perform(handle.get());
    if (code != CURLE_OK) {
        throw transferFailure(handle.get(), code, session_);
    }
    long status = 0;
    curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status == kBadRequest) {
        throw Refused(refusalText(status, answer));
    }
    if (status != kOk) {
        throw Failure(refusalText(status, answer));
    }
    if (!nlohmann::json::accept(answer)) {
        throw strange(session_.adminSocket, "no JSON");
    }
    return answer;
}

std::string AdminClient::get(const std::string &path) const
{
    return call("GET", path, "");
}

std::string AdminClient::post(const std::string &path, const nlohmann::json &body) const
{
    return call("POST", path, body.is_null() ? "" : encode(body));
}

std::string AdminClient::put(const std::string &path, const nlohmann::json &body) const
{
    return call("PUT", path, encode(body));
}

std::string AdminClient::remove(const std::string &path) const
{
    return call("DELETE", path, "");
}

std::string AdminClient::remove(const std::string &path, const nlohmann::json &body) const
{
    return call("DELETE", path, body.is_null() ? "" : encode(body));
}

} // namespace ctl
