/*
 * What the admin door answers about the version record in the name service and about version texts. The cluster store
 * is a real file; of the library, the calls are scripted.
 */
#include "admin/routes.h"
#include "cluster/name_service.h"
#include "platform/log.h"
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <nasctrl/version_ns.h>
#include <thread>

namespace {

constexpr char kName[] = "CLUSTER_VERCTRL_NAMESPACE";

struct Versions {
    std::string parsed;
    std::string line; // that the parser logs
    uint32_t result = 0;
    std::vector<uint32_t> found;
    int32_t createResult = 0;
    int32_t readResult = 0;
    int32_t publishResult = 0;
    int creations = 0;
    std::vector<ns_value> published;
};

Versions g_versions;

} // namespace

struct cluster_verinfo s_clusterVerinfo;
uint32_t s_nasctrlDpcNsHdl = 0;
ns_state_t s_nasctrlDpcNsStat;
kvos_spinlock_t s_dpcNsLock;
uint64_t g_nsPubSeq;

namespace host {

OwnLogLines::OwnLogLines() = default;
OwnLogLines::~OwnLogLines() = default;
std::string OwnLogLines::last() const
{
    return g_versions.line;
}

} // namespace host

extern "C" {

const char *GetNasCtrlClusterNsName(void)
{
    return kName;
}

uint32_t ParseCompaVersListFromStr(const char *text, version_array *array)
{
    g_versions.parsed = text;
    for (const uint32_t version : g_versions.found) {
        array->vers[array->count++] = version;
    }
    return g_versions.result;
}

int32_t NasCtrlDpcCreateNs(void)
{
    ++g_versions.creations;
    return g_versions.createResult;
}

int32_t NasCtrlDpcNsGetAsycAdapter(ns_request * /*request*/)
{
    s_nasctrlDpcNsStat.version = 7;
    s_clusterVerinfo.version = 7;
    s_clusterVerinfo.FL = 70;
    s_clusterVerinfo.seq = 700;
    return g_versions.readResult;
}

void MarkNsPubSeq(ns_value *value)
{
    value->seq = ++g_nsPubSeq;
}

int32_t SetNasCtrlDpcNsWithRetry(ns_request *request)
{
    g_versions.published.push_back(*request->value);
    s_nasctrlDpcNsStat.version = 8;
    return g_versions.publishResult;
}

} // extern "C"

namespace {

class AdminNames : public testing::Test {
protected:
    void SetUp() override
    {
        g_versions = Versions();
        s_nasctrlDpcNsStat = {0, 0, 3};
        s_clusterVerinfo.FL = 20;
        s_clusterVerinfo.version = 2;
        s_clusterVerinfo.seq = 200;
        g_nsPubSeq = 4;
        char pattern[] = "/tmp/nasctrl-names-XXXXXX";
        directory_ = mkdtemp(pattern);
    }
    void TearDown() override
    {
        host::stopClusterStore();
        std::filesystem::remove_all(directory_);
    }
    std::string file() const { return directory_ + "/cluster.db"; }
    void startStore()
    {
        host::StoreSettings settings;
        settings.file = file();
        settings.timeout = std::chrono::seconds(30); // a slow disk fails no test
        host::startClusterStore(settings);
    }
    void createName() { host::clusterStore()->create(host::keyOfName(0, kName), std::string(32, '\0')); }
    void takeStoreAway() { std::filesystem::rename(file(), file() + ".away"); }
    std::string gone() const { return R"({"error":"cluster store )" + file() + R"(: the file was taken away"})"; }

    static host::admin::Answer call(const std::string &method, const std::string &target, const std::string &body = "")
    {
        return host::admin::answerRequest({method, target, body});
    }

private:
    std::string directory_;
};

TEST_F(AdminNames, ShowsTheNodesCopyWithoutAskingTheStore)
{
    startStore();
    takeStoreAway();
    const auto answer = call("GET", "/v1/name");
    EXPECT_EQ(answer.status, 200U);
    EXPECT_EQ(answer.body, R"({"name":"CLUSTER_VERCTRL_NAMESPACE","store":{"place":")" + file() +
                               R"(","reachable":true,"error":null},"version":3,)"
                               R"("local":{"version":2,"fl":20,"seq":200},"published":4})");
    EXPECT_EQ(host::admin::laneOf({"GET", "/v1/name", ""}), host::admin::Lane::read);
}

TEST_F(AdminNames, ShowsThatThereIsNoStore)
{
    EXPECT_THAT(call("GET", "/v1/name").body, testing::HasSubstr(R"("store":null)"));
    for (const char *path : {"/v1/name", "/v1/name/read"}) {
        EXPECT_EQ(call("POST", path).status, 503U);
        EXPECT_EQ(call("POST", path).body, R"({"error":"the node has no cluster store"})");
    }
}

TEST_F(AdminNames, CreatesTheNameThroughTheLibrary)
{
    startStore();
    EXPECT_EQ(call("POST", "/v1/name").body, R"({"name":"CLUSTER_VERCTRL_NAMESPACE","created":true})");
    g_versions.createResult = 2;
    EXPECT_EQ(call("POST", "/v1/name").body, R"({"name":"CLUSTER_VERCTRL_NAMESPACE","created":false})");
    g_versions.createResult = -110;
    EXPECT_EQ(call("POST", "/v1/name").body, R"~({"error":"the creation failed with -110 (Connection timed out)"})~");
    EXPECT_EQ(g_versions.creations, 3);
}

TEST_F(AdminNames, ReadsTheNameThroughTheLibrary)
{
    startStore();
    EXPECT_EQ(call("POST", "/v1/name/read").status, 404U);
    createName();
    EXPECT_THAT(call("POST", "/v1/name/read").body,
                testing::HasSubstr(R"("version":7,"local":{"version":7,"fl":70,"seq":700},"published":4})"));
    g_versions.readResult = -107;
    EXPECT_EQ(call("POST", "/v1/name/read").body, R"({"error":"the read failed with -107"})");
}

TEST_F(AdminNames, PublishesAMarkedValueThroughTheLibrary)
{
    startStore();
    EXPECT_EQ(call("POST", "/v1/name/publish", R"({"fl":5})").body,
              R"({"error":"the name CLUSTER_VERCTRL_NAMESPACE is not created"})");
    createName();
    const auto answer = call("POST", "/v1/name/publish", R"({"fl":5})");
    EXPECT_EQ(answer.status, 200U);
    EXPECT_THAT(answer.body, testing::HasSubstr(R"("version":8,)"));
    EXPECT_THAT(answer.body, testing::EndsWith(R"("published":5,"sent":{"fl":5,"seq":5}})"));
    ASSERT_EQ(g_versions.published.size(), 1U);
    EXPECT_EQ(g_versions.published[0].FL, 5U);
    EXPECT_EQ(g_versions.published[0].reserved, 0U);
    EXPECT_EQ(g_versions.published[0].seq, 5U);
}

TEST_F(AdminNames, TellsOfAPublicationThatFailed)
{
    startStore();
    createName();
    g_versions.publishResult = -1;
    const auto answer = call("POST", "/v1/name/publish", R"({"fl":4294967295})");
    EXPECT_EQ(answer.status, 500U);
    EXPECT_EQ(answer.body, R"({"error":"the publication failed in all its rounds (-1), the node's log tells why"})");
}

TEST_F(AdminNames, RefusesAPublicationWithoutANumber)
{
    startStore();
    createName();
    for (const char *body : {"", "{}", R"({"fl":-1})", R"({"fl":4294967296})", R"({"fl":1,"seq":2})"}) {
        EXPECT_EQ(call("POST", "/v1/name/publish", body).status, 400U) << body;
    }
    EXPECT_EQ(g_nsPubSeq, 4U);
}

TEST_F(AdminNames, AStoreThatIsGoneIsToldBeforeTheLibraryIsAsked)
{
    startStore();
    createName();
    takeStoreAway();
    EXPECT_EQ(call("POST", "/v1/name").body, gone());
    EXPECT_EQ(call("POST", "/v1/name/read").body, gone());
    EXPECT_EQ(call("POST", "/v1/name/publish", R"({"fl":5})").body, gone());
    EXPECT_EQ(call("POST", "/v1/name").status, 503U);
    EXPECT_EQ(g_versions.creations, 0);
    EXPECT_EQ(g_versions.published.size(), 0U);
    EXPECT_EQ(g_nsPubSeq, 4U);
    EXPECT_THAT(call("GET", "/v1/name").body, testing::HasSubstr(R"("reachable":false,"error":"cluster store )"));
}

TEST_F(AdminNames, ParsesAVersionTextThroughTheLibrary)
{
    g_versions.found = {1, 3, 4, 5};
    EXPECT_EQ(call("POST", "/v1/versions", R"({"text":"[1],[3-5]"})").body,
              R"({"result":0,"versions":[1,3,4,5],"explanation":null})");
    EXPECT_EQ(g_versions.parsed, "[1],[3-5]");
    g_versions = {.parsed = {}, .line = "PROTOCOL: wrong", .result = 0xFFFFFFFF, .found = {1}, .published = {}};
    EXPECT_EQ(call("POST", "/v1/versions", R"({"text":"[1]["})").body,
              R"({"result":-1,"versions":[1],"explanation":"PROTOCOL: wrong"})");
    EXPECT_EQ(call("POST", "/v1/versions", R"({"txt":"[1]"})").status, 400U);
    EXPECT_EQ(call("POST", "/v1/versions", R"({"text":"[1]\u0000"})").status, 400U);
}

} // namespace
