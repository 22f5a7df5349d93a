/*
 * The admin door over a real Unix socket, in front of a node whose every answer the test scripts: this program defines
 * the functions of the library and of the host's services that the calls use.
 */
#include "admin_node.h"

#include "admin/admin_server.h"
#include "admin/server.h"
#include "notify/events.h"
#include "storage/control.h"
#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <gmock/gmock.h>
#include <nasctrl/cluster_list.h>
#include <nasctrl/config.h>
#include <nasctrl/power.h>
#include <random>
#include <semaphore>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

// ---- the scripted node

Node g_node;

void addAddress(const std::string &text, uint32_t protoType, uint32_t status)
{
    NasIpListNode &node = g_node.addresses.emplace_back();
    text.copy(node.addr, sizeof(node.addr) - 1);
    node.protoType = protoType;
    node.status = status;
    node.link = {&g_iplistHead, g_iplistHead.prev};
    static_cast<list_link *>(g_iplistHead.prev)->next = &node.link;
    g_iplistHead.prev = &node.link;
}

void resetNode()
{
    g_node = Node();
    g_iplistHead = {&g_iplistHead, &g_iplistHead};
}

namespace {

uint32_t configText(const char *getter, char *out, size_t size)
{
    const auto found = g_node.config.find(getter);
    if (found == g_node.config.end()) {
        return NAS_ERROR;
    }
    if (found->second.value.size() >= size) {
        return NAS_INVALID;
    }
    memcpy(out, found->second.value.c_str(), found->second.value.size() + 1);
    return found->second.result;
}

uint32_t configNumber(const char *getter, uint32_t *out)
{
    std::array<char, 32> text{};
    const uint32_t result = configText(getter, text.data(), text.size());
    *out = static_cast<uint32_t>(strtoul(text.data(), nullptr, 10));
    return result;
}

uint32_t configNumber(const char *getter)
{
    uint32_t value = 0;
    configNumber(getter, &value);
    return value;
}

} // namespace

list_link g_iplistHead = {&g_iplistHead, &g_iplistHead};
pthread_mutex_t g_ipListMutex = PTHREAD_MUTEX_INITIALIZER;

extern "C" {

int32_t nas_ctrl_power_on(void * /*a*/, void * /*b*/)
{
    g_node.power = g_node.powerResult == 0 ? NAS_POWER_GOING_ON : NAS_POWER_OFF;
    return g_node.powerResult;
}
int32_t nas_ctrl_power_off(void * /*a*/, void * /*b*/)
{
    g_node.power = g_node.powerResult == 0 ? NAS_POWER_OFF : NAS_POWER_GOING_OFF;
    return g_node.powerResult;
}
uint32_t GetNasPowerOnStatus(void)
{
    return g_node.power;
}

uint32_t nas_ctrl_add_to_cluster_list(uint64_t id)
{
    if (g_node.clusters.size() == NAS_CLUSTER_LIST_MAX) {
        return 1;
    }
    g_node.clusters.push_back(id);
    return 0;
}
uint32_t nas_ctrl_remove_from_cluster_list(uint64_t id)
{
    std::erase(g_node.clusters, id);
    return 0;
}
uint32_t nas_ctrl_get_cluster_list(uint64_t *out, uint16_t *n)
{
    std::copy(g_node.clusters.begin(), g_node.clusters.end(), out);
    *n = static_cast<uint16_t>(g_node.clusters.size());
    return 0;
}

uint32_t getLocalIPAddr(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t GetDioCtrlIp(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t getEbsCtrlIPAddr(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t EbsGetDpcDataAddr(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t DpcGetClusterType(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t DpcGetClusterId(uint32_t *out, int len)
{
    return len < 11 ? NAS_ERROR : configNumber(__func__, out);
}
uint32_t DpcGetMDomainName(char *out, uint32_t size)
{
    return configText(__func__, out, size);
}
uint32_t getEbsCmIpList(char *out, uint32_t size)
{
    return configText(__func__, out, size);
}
uint32_t getEbsIpPortList(char *out)
{
    return configText(__func__, out, 896);
}
uint32_t getDpcCtrlIPAddr(char *out, int len)
{
    return configText(__func__, out, static_cast<size_t>(len));
}
uint32_t getShimInodeCacheMaxNumber(uint32_t *out)
{
    return configNumber(__func__, out);
}
uint32_t DpcGetZusStartThread(uint32_t *start, uint32_t *num)
{
    const uint32_t result = configNumber(__func__, start);
    *num = *start * 2;
    return result;
}
uint32_t getDpcBusinessClusterId(void)
{
    return configNumber(__func__);
}
uint32_t getDpcLsID(void)
{
    return configNumber(__func__);
}
uint32_t getLocalLsID(void)
{
    return configNumber(__func__);
}
uint32_t GetMasterNodeId(void)
{
    return configNumber(__func__);
}
uint32_t CTRL_GetCfgLsList(uint32_t *pairs, uint32_t max, uint32_t *count)
{
    *count = std::min(configNumber(__func__), max);
    for (uint32_t i = 0; i < *count; i++) {
        pairs[2 * i] = i + 1;
        pairs[2 * i + 1] = 7;
    }
    return g_node.config.contains(__func__) ? NAS_OK : NAS_ERROR;
}
uint32_t GetDpcSwitch(void)
{
    return configNumber(__func__);
}

} // extern "C"

namespace host {

const NodeIdentity &nodeIdentity()
{
    return g_node.identity;
}
std::chrono::milliseconds uptime()
{
    return g_node.uptime;
}
std::vector<StartStep> startSteps()
{
    return g_node.steps;
}
std::vector<ModuleState> moduleStates()
{
    return g_node.modules;
}
MessageCounters messageCounters()
{
    return g_node.counters;
}
std::string askStorageControl(uint32_t opcode, const std::string &request)
{
    if (!g_node.storageFailure.empty()) {
        throw std::runtime_error(g_node.storageFailure);
    }
    g_node.storageAsked = {opcode, request};
    return g_node.storageAnswer;
}

std::vector<MemoryAccount> memoryAccounts()
{
    if (!g_node.memoryError.empty()) {
        throw std::runtime_error(g_node.memoryError);
    }
    return g_node.accounts;
}
std::vector<Command> commands()
{
    return g_node.commands;
}
std::optional<CommandAnswer> runCommand(const std::string &module, const std::string &name,
                                        const std::optional<std::string> &value)
{
    const auto named = [&](const Command &each) { return each.module == module && each.name == name; };
    if (std::none_of(g_node.commands.begin(), g_node.commands.end(), named)) {
        return std::nullopt;
    }
    return g_node.run(value);
}
CmStatus cmStatus()
{
    return g_node.cm;
}
std::shared_ptr<const DpcView> knownView()
{
    return g_node.view;
}
uint32_t logThreshold()
{
    return g_node.threshold;
}
void setLogThreshold(uint32_t level)
{
    g_node.threshold = level;
}
uint32_t logClassLevel(uint32_t logClass)
{
    return g_node.classes.at(logClass);
}
void setLogClassLevel(uint32_t logClass, uint32_t level)
{
    g_node.classes.at(logClass) = level;
}

} // namespace host

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// ---- a client of plain sockets

struct Response {
    int status = 0; // 0 = the connection ended without one
    std::string head;
    std::string body;
};

sockaddr_un socketAddress(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

class Client {
public:
    explicit Client(const std::string &path) : fd_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        const sockaddr_un address = socketAddress(path);
        connected_ = connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
    }
    ~Client() { close(fd_); }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;

    bool connected() const { return connected_; }

    // False when the peer does not take all of it.
    bool send(const std::string &bytes) const
    {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        return true;
    }

    // The next response; withBody false for the answer to a HEAD.
    Response receive(bool withBody = true)
    {
        Response response;
        size_t end = 0;
        while ((end = pending_.find("\r\n\r\n")) == std::string::npos) {
            if (!more()) {
                return response;
            }
        }
        response.head = pending_.substr(0, end + 2);
        pending_.erase(0, end + 4);
        response.status = atoi(response.head.c_str() + strlen("HTTP/1.1 "));
        const size_t length = response.head.find("Content-Length: ");
        const size_t size =
            withBody ? strtoul(response.head.c_str() + length + strlen("Content-Length: "), nullptr, 10) : 0;
        while (pending_.size() < size && more()) {
        }
        response.body = pending_.substr(0, size);
        pending_.erase(0, size);
        return response;
    }

    // True when the server has closed its side and nothing more was sent.
    bool atEnd() { return pending_.empty() && !more(); }

    void finishSending() const { shutdown(fd_, SHUT_WR); }

private:
    bool more()
    {
        std::array<char, 65536> bytes{};
        const ssize_t n = recv(fd_, bytes.data(), bytes.size(), 0);
        if (n <= 0) {
            return false;
        }
        pending_.append(bytes.data(), static_cast<size_t>(n));
        return true;
    }

    int fd_;
    bool connected_ = false;
    std::string pending_;
};

std::string httpRequest(const std::string &method, const std::string &target, const std::string &body)
{
    return method + " " + target + " HTTP/1.1\r\nHost: node\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\n\r\n" + body;
}

class AdminDoor : public testing::Test {
protected:
    void SetUp() override
    {
        resetNode();
        std::string pattern = std::filesystem::temp_directory_path() / "admin-XXXXXX";
        directory_ = mkdtemp(pattern.data());
        path_ = directory_ + "/admin.sock";
        host::startAdminServer(path_);
    }

    void TearDown() override
    {
        host::stopAdminServer();
        std::filesystem::remove_all(directory_);
    }

    Response call(const std::string &method, const std::string &target, const std::string &body = "") const
    {
        Client client(path_);
        client.send(httpRequest(method, target, body));
        return client.receive();
    }

    std::string bodyOf(const std::string &method, const std::string &target, const std::string &body = "") const
    {
        return call(method, target, body).body;
    }

    std::string directory_;
    std::string path_;
};

host::ModuleState module(unsigned slot, const std::string &name, std::vector<uint32_t> types)
{
    return {{slot, name, std::move(types), static_cast<uint16_t>(2000 + slot)}, {}, {}};
}

// ---- what the reading calls answer

TEST_F(AdminDoor, StatusShowsTheNodeAtAGlance)
{
    g_node.steps = {{"nas_ctrl_init", 0}, {"NasIpMgrInitModule", -22}};
    g_node.power = NAS_POWER_ON;
    g_node.counters = {1, 2, 3, 4, 5, 6};
    g_node.accounts = {{"a", 2, 100, 9}, {"b", 1, 50, 1}};
    g_node.modules = {module(0, "nfs", {1, 3}), module(4, "smb", {2})};
    g_node.modules[0].listening = {"10.0.0.1", "10.0.0.2"};
    g_node.modules[1].failures = {{"10.0.0.3", "Address already in use"}};
    addAddress("10.0.0.1", 1, 63);
    addAddress("10.0.0.3", 2, 47);
    addAddress("10.0.0.4", 2, 0xFFFFFFFF);

    EXPECT_EQ(bodyOf("GET", "/v1/status"),
              R"({"node":{"id":7,"root":"/srv/n7","pid":)" + std::to_string(getpid()) +
                  R"(,"version":"1.2.3","uptime_ms":1500},"power":{"state":1,"name":"on"},)"
                  R"("start":[{"step":"nas_ctrl_init","result":0},{"step":"NasIpMgrInitModule","result":-22}],)"
                  R"("addresses":{"total":3,"pending":1},)"
                  R"("modules":[{"slot":0,"name":"nfs","protocol_types":[1,3],"port":2000,"listening":2,"failing":0},)"
                  R"({"slot":4,"name":"smb","protocol_types":[2],"port":2004,"listening":0,"failing":1}],)"
                  R"("messages":{"connections":1,"accepted":2,"messages":3,"replies":4,"malformed":5,"undelivered":6},)"
                  R"("memory":{"blocks":3,"bytes":150},)"
                  R"("cluster":{"store":null,"connected":false,"master":null,"view_version":null,"clients":0},)"
                  R"("busy":[]})");
}

TEST_F(AdminDoor, AnAddressShowsHowItStandsWithEveryModuleThatServesItsType)
{
    g_node.modules = {module(0, "nfs", {1, 3}), module(1, "http", {3}), module(2, "ftp", {3}), module(4, "smb", {2})};
    g_node.modules[0].listening = {"10.0.0.1"};
    g_node.modules[1].failures = {{"10.0.0.1", "Address already in use"}, {"10.0.0.2", "Permission denied"}};
    addAddress("10.0.0.1", 3, 57);
    addAddress("fd00::1", 9, 63);

    EXPECT_EQ(bodyOf("GET", "/v1/ips"),
              R"({"addresses":[{"address":"10.0.0.1","protocol_type":3,"status":57,"modules":[)"
              R"({"slot":0,"name":"nfs","state":"listening"},)"
              R"({"slot":1,"name":"http","state":"failing","reason":"Address already in use"},)"
              R"({"slot":2,"name":"ftp","state":"pending"}]},)"
              R"({"address":"fd00::1","protocol_type":9,"status":63,"modules":[]}],"busy":[]})");
}

TEST_F(AdminDoor, AnAddressThatFillsItsFieldIsReadToTheEndOfTheField)
{
    addAddress("x", 1, 0);
    memset(g_node.addresses.back().addr, 'y', NAS_IP_TEXT_SIZE);

    EXPECT_EQ(bodyOf("GET", "/v1/ips"), R"({"addresses":[{"address":")" + std::string(NAS_IP_TEXT_SIZE, 'y') +
                                            R"(","protocol_type":1,"status":0,"modules":[]}],"busy":[]})");
}

TEST_F(AdminDoor, AddressesWhoseLockIsHeldAreNullAndNamedBusy)
{
    addAddress("10.0.0.1", 1, 0);
    pthread_mutex_lock(&g_ipListMutex);
    const std::string ips = bodyOf("GET", "/v1/ips");
    const std::string status = bodyOf("GET", "/v1/status");
    pthread_mutex_unlock(&g_ipListMutex);

    EXPECT_EQ(ips, R"({"addresses":null,"busy":["addresses"]})");
    EXPECT_THAT(status, HasSubstr(R"("addresses":null,"modules":[])"));
    EXPECT_THAT(status, HasSubstr(R"("busy":["addresses"]})"));
    EXPECT_THAT(bodyOf("GET", "/v1/ips"), HasSubstr(R"("address":"10.0.0.1")"));
}

TEST_F(AdminDoor, EveryPowerStateHasAName)
{
    const std::array<const char *, 5> answers = {R"({"state":0,"name":"off"})", R"({"state":1,"name":"on"})",
                                                 R"({"state":2,"name":"going off"})",
                                                 R"({"state":3,"name":"going on"})", R"({"state":4,"name":"unknown"})"};
    for (uint32_t state = 0; state < answers.size(); state++) {
        g_node.power = state;
        EXPECT_EQ(bodyOf("GET", "/v1/power"), answers.at(state));
    }
}

TEST_F(AdminDoor, ClusterIdsAreTextsSoThatAllSixtyFourBitsSurvive)
{
    g_node.clusters = {5, 18446744073709551615ULL};

    EXPECT_EQ(bodyOf("GET", "/v1/clusters"), R"({"clusters":["5","18446744073709551615"],"busy":[]})");
}

TEST_F(AdminDoor, ConfigShowsWhatEveryGetterAnswers)
{
    g_node.config = {
        {"getLocalIPAddr", {0, "10.0.0.1"}},
        {"GetDioCtrlIp", {NAS_INVALID, "10.0.0.2"}},
        {"getEbsCtrlIPAddr", {0, ""}},
        {"DpcGetClusterId", {0, "4294967295"}},
        {"getShimInodeCacheMaxNumber", {0, "1000"}},
        {"getDpcBusinessClusterId", {0, "1"}},
        {"DpcGetZusStartThread", {0, "4"}},
        {"CTRL_GetCfgLsList", {0, "2"}},
        {"GetMasterNodeId", {0, "3"}},
    };
    g_node.power = NAS_POWER_ON;

    EXPECT_EQ(bodyOf("GET", "/v1/config"), R"({"getters":[{"name":"getLocalIPAddr","result":0,"value":"10.0.0.1"},)"
                                           R"({"name":"GetDioCtrlIp","result":4294967295,"value":null},)"
                                           R"({"name":"getEbsCtrlIPAddr","result":0,"value":""},)"
                                           R"({"name":"EbsGetDpcDataAddr","result":1,"value":null},)"
                                           R"({"name":"DpcGetClusterType","result":1,"value":null},)"
                                           R"({"name":"DpcGetClusterId","result":0,"value":"4294967295"},)"
                                           R"({"name":"DpcGetMDomainName","result":1,"value":null},)"
                                           R"({"name":"getEbsCmIpList","result":1,"value":null},)"
                                           R"({"name":"getEbsIpPortList","result":1,"value":null},)"
                                           R"({"name":"getDpcCtrlIPAddr","result":1,"value":null},)"
                                           R"({"name":"getShimInodeCacheMaxNumber","result":0,"value":"1000"},)"
                                           R"({"name":"getDpcBusinessClusterId","result":0,"value":"1"},)"
                                           R"({"name":"DpcGetZusStartThread","result":0,"value":"4,8"},)"
                                           R"({"name":"getDpcLsID","result":0,"value":"0"},)"
                                           R"({"name":"getLocalLsID","result":0,"value":"0"},)"
                                           R"({"name":"GetMasterNodeId","result":0,"value":"3"},)"
                                           R"({"name":"CTRL_GetCfgLsList","result":0,"value":"1:7,2:7"},)"
                                           R"({"name":"GetDpcSwitch","result":0,"value":"0"},)"
                                           R"({"name":"GetNasPowerOnStatus","result":0,"value":"1"}]})");
}

TEST_F(AdminDoor, ConfigValuesAreShownWholeUpToFiftyKilobytes)
{
    const std::string longList(50 * 1024, '9');
    const std::string portList(895, '8');
    g_node.config = {
        {"getEbsCmIpList", {0, longList}}, {"DpcGetMDomainName", {0, longList}}, {"getEbsIpPortList", {0, portList}}};

    const std::string body = bodyOf("GET", "/v1/config");

    EXPECT_THAT(body, HasSubstr(R"({"name":"getEbsCmIpList","result":0,"value":")" + longList + "\"}"));
    EXPECT_THAT(body, HasSubstr(R"({"name":"DpcGetMDomainName","result":0,"value":")" + longList + "\"}"));
    EXPECT_THAT(body, HasSubstr(R"({"name":"getEbsIpPortList","result":0,"value":")" + portList + "\"}"));
}

TEST_F(AdminDoor, BytesThatAreNotUtf8AreReplacedInAnswers)
{
    g_node.config = {{"getLocalIPAddr", {0, "a\xff\xc3"}}};

    EXPECT_THAT(bodyOf("GET", "/v1/config"), HasSubstr("\"value\":\"a\xef\xbf\xbd\xef\xbf\xbd\"}"));
}

TEST_F(AdminDoor, CommandsAreListedWithTheirUsage)
{
    g_node.commands = {{"cloud_adapt", "show_vpc", "show_vpc", nullptr}, {"nas", "ip", "ip [ADDR]", nullptr}};

    EXPECT_EQ(bodyOf("GET", "/v1/commands"),
              R"({"commands":[{"module":"cloud_adapt","command":"show_vpc","usage":"show_vpc"},)"
              R"({"module":"nas","command":"ip","usage":"ip [ADDR]"}]})");
}

TEST_F(AdminDoor, LogShowsThresholdAndClasses)
{
    EXPECT_EQ(bodyOf("GET", "/v1/log"), R"({"threshold":6,"classes":[6,4,4,3]})");
}

TEST_F(AdminDoor, MemoryShowsEveryAccountAndTheSums)
{
    g_node.accounts = {{"f", 1, 10, 4}, {"g", 2, 4294967296, 2}};

    EXPECT_EQ(bodyOf("GET", "/v1/memory"),
              R"({"accounts":[{"function":"f","live_blocks":1,"live_bytes":10,"total_blocks":4},)"
              R"({"function":"g","live_blocks":2,"live_bytes":4294967296,"total_blocks":2}],)"
              R"("blocks":3,"bytes":4294967306})");
}

TEST_F(AdminDoor, StorageFaultsAreWhatTheServiceTellsOfItself)
{
    g_node.storageAnswer = R"({"pid":1,"data":"","error":"bad line","questions":[]})";

    EXPECT_EQ(bodyOf("GET", "/v1/storage/faults"), g_node.storageAnswer);
    EXPECT_EQ(g_node.storageAsked, (std::pair(1U, std::string())));
}

// ---- what the changing calls do

TEST_F(AdminDoor, AStorageFaultIsHandedToTheServiceAsItCame)
{
    g_node.storageAnswer = R"({"pid":1,"data":"","error":"","questions":[]})";

    EXPECT_EQ(bodyOf("POST", "/v1/storage/faults", R"({"type": 3, "fault": "none"})"), g_node.storageAnswer);
    EXPECT_EQ(g_node.storageAsked, (std::pair(2U, std::string(R"({"type": 3, "fault": "none"})"))));
}

TEST_F(AdminDoor, AStorageFaultThatTheServiceRefusesIsABadRequest)
{
    g_node.storageAnswer = R"({"error":"fault: is none"})";

    const Response response = call("POST", "/v1/storage/faults", "{}");

    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, g_node.storageAnswer);
}

TEST_F(AdminDoor, AStorageServiceThatSaysNothingUsefulIsAnInternalError)
{
    g_node.storageAnswer = "garbage";
    const Response garbage = call("GET", "/v1/storage/faults");
    EXPECT_EQ(garbage.status, 500);
    EXPECT_EQ(garbage.body, R"({"error":"the storage service's answer is no JSON object"})");

    g_node.storageFailure = "the storage service does not answer: Connection refused";
    const Response silence = call("GET", "/v1/storage/faults");
    EXPECT_EQ(silence.status, 500);
    EXPECT_EQ(silence.body, R"({"error":"the storage service does not answer: Connection refused"})");
}

TEST_F(AdminDoor, PowerIsSwitchedOnAndOff)
{
    EXPECT_EQ(bodyOf("POST", "/v1/power", R"({"action":"on"})"), R"({"state":3,"name":"going on"})");
    EXPECT_EQ(bodyOf("POST", "/v1/power", R"({"action":"off"})"), R"({"state":0,"name":"off"})");
}

TEST_F(AdminDoor, APowerSwitchThatFailsTellsItsResultAndTheStateItLeft)
{
    g_node.powerResult = 1;

    const Response response = call("POST", "/v1/power", R"({"action":"off"})");

    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(response.body, R"({"error":"power off failed with 1; the state is going off"})");
}

TEST_F(AdminDoor, ClustersAreAddedAndRemoved)
{
    EXPECT_EQ(bodyOf("POST", "/v1/clusters", R"({"id":"18446744073709551615"})"),
              R"({"clusters":["18446744073709551615"],"busy":[]})");
    EXPECT_EQ(bodyOf("POST", "/v1/clusters", R"({"id":"5"})"),
              R"({"clusters":["18446744073709551615","5"],"busy":[]})");
    EXPECT_EQ(bodyOf("DELETE", "/v1/clusters/18446744073709551615"), R"({"clusters":["5"],"busy":[]})");
    EXPECT_EQ(bodyOf("DELETE", "/v1/clusters/6"), R"({"clusters":["5"],"busy":[]})");
}

TEST_F(AdminDoor, AFullClusterListTakesNoMore)
{
    g_node.clusters = {1, 2, 3, 4, 5, 6, 7, 8};

    const Response response = call("POST", "/v1/clusters", R"({"id":"9"})");

    EXPECT_EQ(response.status, 400);
    EXPECT_EQ(response.body, R"({"error":"id: the list is full with 8 clusters; nasctl cluster rm makes room"})");
}

TEST_F(AdminDoor, ACommandGetsItsValueAndAnswersResultAndText)
{
    g_node.commands = {{"nas", "echo", "", nullptr}};
    g_node.run = [](const std::optional<std::string> &value) {
        return value ? host::CommandAnswer{-3, "<" + *value + ">\n"} : host::CommandAnswer{0, "nothing"};
    };

    EXPECT_EQ(bodyOf("POST", "/v1/commands", R"({"module":"nas","command":"echo","value":"a \"b\""})"),
              R"({"result":-3,"text":"<a \"b\">\n"})");
    EXPECT_EQ(bodyOf("POST", "/v1/commands", R"({"module":"nas","command":"echo","value":""})"),
              R"({"result":-3,"text":"<>\n"})");
    EXPECT_EQ(bodyOf("POST", "/v1/commands", R"({"module":"nas","command":"echo"})"),
              R"({"result":0,"text":"nothing"})");
}

TEST_F(AdminDoor, LogSettingsChangeOneAtATime)
{
    EXPECT_EQ(bodyOf("PUT", "/v1/log", R"({"threshold":7})"), R"({"threshold":7,"classes":[6,4,4,3]})");
    EXPECT_EQ(bodyOf("PUT", "/v1/log", R"({"class":3,"level":0})"), R"({"threshold":7,"classes":[6,4,4,0]})");
}

// ---- what is refused

struct Refusal {
    const char *name;
    const char *method;
    const char *target;
    std::string body;
    int status;
    const char *error;
};

const std::vector<Refusal> kRefusals = {
    {"an unknown path", "GET", "/v1/nothing", "", 404, "there is no such call in this version"},
    {"the root", "GET", "/", "", 404, "there is no such call in this version"},
    {"a path with a query", "GET", "/v1/status?x", "", 404, "there is no such call in this version"},
    {"a cluster without id", "DELETE", "/v1/clusters/", "", 404, "there is no such call in this version"},
    {"a path below an id", "DELETE", "/v1/clusters/5/6", "", 404, "there is no such call in this version"},
    {"an unknown command", "POST", "/v1/commands", R"({"module":"m","command":"c"})", 404,
     "module m has no command c; nasctl cmd lists them"},
    {"another method", "DELETE", "/v1/status", "", 405, "this path answers to GET only"},
    {"an invented method", "BREW", "/v1/power", "", 405, "this path answers to GET, POST only"},
    {"reading one cluster", "GET", "/v1/clusters/5", "", 405, "this path answers to DELETE only"},
    {"no body", "POST", "/v1/power", "", 400, "the body is not a JSON object"},
    {"broken JSON", "POST", "/v1/power", R"({"action":)", 400, "the body is not a JSON object"},
    {"text after the object", "POST", "/v1/power", R"({"action":"on"} x)", 400, "the body is not a JSON object"},
    {"an array", "POST", "/v1/power", R"(["on"])", 400, "the body is not a JSON object"},
    {"deep nesting", "POST", "/v1/power", std::string(500'000, '['), 400, "the body is not a JSON object"},
    {"text that is not UTF-8", "POST", "/v1/power", "{\"action\":\"\xff\"}", 400, "the body is not a JSON object"},
    {"a number no machine holds", "PUT", "/v1/log", R"({"threshold":1e999})", 400, "the body is not a JSON object"},
    {"a missing field", "POST", "/v1/power", "{}", 400, "action: is missing"},
    {"an unknown field", "POST", "/v1/power", R"({"action":"on","now":1})", 400, "now: is not a field of this call"},
    {"an unknown field with a line break", "POST", "/v1/power", R"({"a\nb":1})", 400,
     "a?b: is not a field of this call"},
    {"a field given twice", "POST", "/v1/power", R"({"action":"on","action":"off"})", 400, "action: is given twice"},
    {"a number for a text", "POST", "/v1/power", R"({"action":1})", 400, "action: must be a text"},
    {"null for a text", "POST", "/v1/power", R"({"action":null})", 400, "action: must be a text"},
    {"an unknown action", "POST", "/v1/power", R"({"action":"ON"})", 400, R"(action: must be \"on\" or \"off\")"},
    {"an id that is a number", "POST", "/v1/clusters", R"({"id":5})", 400, "id: must be a text"},
    {"an empty id", "POST", "/v1/clusters", R"({"id":""})", 400, "id: must be a decimal number of at most 64 bits"},
    {"a signed id", "POST", "/v1/clusters", R"({"id":"-1"})", 400, "id: must be a decimal number of at most 64 bits"},
    {"an id with a plus", "POST", "/v1/clusters", R"({"id":"+1"})", 400,
     "id: must be a decimal number of at most 64 bits"},
    {"an id with a blank", "POST", "/v1/clusters", R"({"id":" 1"})", 400,
     "id: must be a decimal number of at most 64 bits"},
    {"a hexadecimal id", "POST", "/v1/clusters", R"({"id":"0x1"})", 400,
     "id: must be a decimal number of at most 64 bits"},
    {"an id of 65 bits", "POST", "/v1/clusters", R"({"id":"18446744073709551616"})", 400,
     "id: must be a decimal number of at most 64 bits"},
    {"an id in the path that is none", "DELETE", "/v1/clusters/five", "", 400,
     "id: must be a decimal number of at most 64 bits"},
    {"a command without module", "POST", "/v1/commands", R"({"command":"c"})", 400, "module: is missing"},
    {"a command without name", "POST", "/v1/commands", R"({"module":"m"})", 400, "command: is missing"},
    {"a value that is a number", "POST", "/v1/commands", R"({"module":"m","command":"c","value":1})", 400,
     "value: must be a text"},
    {"a value with a NUL", "POST", "/v1/commands", R"({"module":"m","command":"c","value":"a\u0000b"})", 400,
     "value: must not hold a NUL character"},
    {"no log setting", "PUT", "/v1/log", "{}", 400, "class: is missing"},
    {"a class without level", "PUT", "/v1/log", R"({"class":1})", 400, "level: is missing"},
    {"both log settings", "PUT", "/v1/log", R"({"threshold":1,"class":1,"level":1})", 400,
     "class: is not a field of this call"},
    {"a threshold above the highest", "PUT", "/v1/log", R"({"threshold":8})", 400,
     "threshold: must be a whole number from 0 to 7"},
    {"a negative threshold", "PUT", "/v1/log", R"({"threshold":-1})", 400,
     "threshold: must be a whole number from 0 to 7"},
    {"a threshold that wraps", "PUT", "/v1/log", R"({"threshold":4294967296})", 400,
     "threshold: must be a whole number from 0 to 7"},
    {"a threshold with a fraction", "PUT", "/v1/log", R"({"threshold":6.0})", 400,
     "threshold: must be a whole number from 0 to 7"},
    {"a threshold that is a text", "PUT", "/v1/log", R"({"threshold":"6"})", 400,
     "threshold: must be a whole number from 0 to 7"},
    {"a class that does not exist", "PUT", "/v1/log", R"({"class":4,"level":1})", 400,
     "class: must be a whole number from 0 to 3"},
    {"a level above the highest", "PUT", "/v1/log", R"({"class":0,"level":8})", 400,
     "level: must be a whole number from 0 to 7"},
};

TEST_F(AdminDoor, WhatCannotBeDoneIsRefusedInOneLineAndChangesNothing)
{
    for (const Refusal &row : kRefusals) {
        SCOPED_TRACE(row.name);
        const Response response = call(row.method, row.target, row.body);
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.body, std::string(R"({"error":")") + row.error + "\"}");
    }
    EXPECT_EQ(g_node.power, NAS_POWER_OFF);
    EXPECT_TRUE(g_node.clusters.empty());
    EXPECT_EQ(bodyOf("GET", "/v1/log"), R"({"threshold":6,"classes":[6,4,4,3]})");
}

TEST_F(AdminDoor, AWrongMethodIsToldTheRightOnes)
{
    EXPECT_THAT(call("PUT", "/v1/clusters").head, HasSubstr("Allow: GET, POST\r\n"));
}

TEST_F(AdminDoor, AnUnknownFieldsNameIsShownCut)
{
    const Response response = call("POST", "/v1/power", R"({")" + std::string(1000, 'n') + R"(":1})");

    EXPECT_EQ(response.body, R"({"error":")" + std::string(64, 'n') + R"(: is not a field of this call"})");
}

TEST_F(AdminDoor, ACallThatBreaksIsAnInternalErrorAndTheServerGoesOn)
{
    g_node.memoryError = "no accounts";

    const Response response = call("GET", "/v1/memory");

    EXPECT_EQ(response.status, 500);
    EXPECT_EQ(response.body, R"({"error":"no accounts"})");
    EXPECT_EQ(call("GET", "/v1/log").status, 200);
}

TEST_F(AdminDoor, AForeignUserIsForbidden)
{
    if (geteuid() != 0) {
        GTEST_SKIP() << "only root can become another user";
    }
    std::filesystem::permissions(directory_, std::filesystem::perms::all);
    std::filesystem::permissions(path_, std::filesystem::perms::all);
    Response response;
    bool ended = false;
    // The system call itself changes the user of this thread alone.
    std::thread([&] {
        syscall(SYS_setresuid, -1, 65534, -1);
        Client client(path_);
        client.send(httpRequest("POST", "/v1/power", R"({"action":"on"})"));
        response = client.receive();
        ended = client.atEnd();
    }).join();

    EXPECT_EQ(response.status, 403);
    EXPECT_EQ(response.body, R"({"error":"only the node's own user and root may call"})");
    EXPECT_TRUE(ended);
    EXPECT_EQ(g_node.power, NAS_POWER_OFF);
}

// ---- HTTP

TEST_F(AdminDoor, AnswersAreJsonAndTheConnectionStaysOpen)
{
    Client client(path_);

    for (int i = 0; i < 3; i++) {
        client.send(httpRequest("GET", "/v1/log", ""));
        const Response response = client.receive();
        EXPECT_THAT(response.head, StartsWith("HTTP/1.1 200 OK\r\n"));
        EXPECT_THAT(response.head, HasSubstr("Content-Type: application/json\r\n"));
        EXPECT_EQ(response.body, R"({"threshold":6,"classes":[6,4,4,3]})");
    }
}

TEST_F(AdminDoor, RequestsSentAtOnceAreAnsweredInOrder)
{
    Client client(path_);

    client.send(httpRequest("PUT", "/v1/log", R"({"threshold":1})") + httpRequest("GET", "/v1/log", "") +
                httpRequest("GET", "/v1/power", ""));

    EXPECT_EQ(client.receive().body, R"({"threshold":1,"classes":[6,4,4,3]})");
    EXPECT_EQ(client.receive().body, R"({"threshold":1,"classes":[6,4,4,3]})");
    EXPECT_EQ(client.receive().body, R"({"state":0,"name":"off"})");
}

TEST_F(AdminDoor, ABodyInChunksIsRead)
{
    Client client(path_);

    client.send("PUT /v1/log HTTP/1.1\r\nHost: node\r\nTransfer-Encoding: chunked\r\n\r\n"
                "a\r\n{\"threshol\r\n5\r\nd\":2}\r\n0\r\n\r\n");

    EXPECT_EQ(client.receive().body, R"({"threshold":2,"classes":[6,4,4,3]})");
}

TEST_F(AdminDoor, ARequestThatAsksForTheEndGetsItsAnswerAndTheEnd)
{
    for (const std::string request :
         {"GET /v1/log HTTP/1.0\r\n\r\n", "GET /v1/log HTTP/1.1\r\nHost: node\r\nConnection: close\r\n\r\n"}) {
        SCOPED_TRACE(request);
        Client client(path_);
        client.send(request);
        EXPECT_EQ(client.receive().status, 200);
        EXPECT_TRUE(client.atEnd());
    }
}

TEST_F(AdminDoor, AHeadRequestIsAnsweredWithoutABody)
{
    Client client(path_);

    client.send(httpRequest("HEAD", "/v1/log", "") + httpRequest("GET", "/v1/power", ""));

    EXPECT_EQ(client.receive(false).status, 405);
    EXPECT_EQ(client.receive().body, R"({"state":0,"name":"off"})");
}

struct Malformed {
    const char *name;
    std::string bytes;
    const char *error;
};

const std::vector<Malformed> kMalformed = {
    {"an empty line", "\r\n\r\n", "malformed HTTP: bad method"},
    {"another protocol", "SSH-2.0-client\r\n", "malformed HTTP: bad method"},
    {"no version", "GET /v1/log\r\n\r\n", "malformed HTTP: bad target"},
    {"a version to come", "GET /v1/log HTTP/9.9\r\n\r\n", "malformed HTTP: bad version"},
    {"a control character in the target", "GET /v1/\x01log HTTP/1.1\r\n\r\n", "malformed HTTP: bad target"},
    {"a field without a colon", "GET /v1/log HTTP/1.1\r\nHost\r\n\r\n", "malformed HTTP: bad field"},
    {"a length that is no number", "POST /v1/power HTTP/1.1\r\nContent-Length: ten\r\n\r\n",
     "malformed HTTP: bad Content-Length"},
    {"a negative length", "POST /v1/power HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
     "malformed HTTP: bad Content-Length"},
    {"a chunk without length", "POST /v1/power HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nxyz\r\n",
     "malformed HTTP: bad chunk"},
    {"a body above the limit", "POST /v1/power HTTP/1.1\r\nContent-Length: 1048577\r\n\r\n",
     "the body is larger than 1048576 bytes"},
    {"a length beyond 64 bits", "POST /v1/power HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n",
     "malformed HTTP: bad Content-Length"},
    {"a header above the limit", "GET /v1/log HTTP/1.1\r\nX: " + std::string(host::admin::kMaxHeader, 'x'),
     "the header is larger than 8192 bytes"},
};

TEST_F(AdminDoor, MalformedHttpIsAnsweredWithA400AndTheEnd)
{
    for (const Malformed &row : kMalformed) {
        SCOPED_TRACE(row.name);
        Client client(path_);
        client.send(row.bytes);
        const Response response = client.receive();
        EXPECT_EQ(response.status, 400);
        EXPECT_EQ(response.body, std::string(R"({"error":")") + row.error + "\"}");
        EXPECT_TRUE(client.atEnd());
    }
    EXPECT_EQ(call("GET", "/v1/log").status, 200);
}

TEST_F(AdminDoor, RandomBytesNeverEndTheServer)
{
    std::mt19937 random(1);
    for (int i = 0; i < 100; i++) {
        std::string bytes(random() % 2000, ' ');
        std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<char>(random()); });
        Client client(path_);
        client.send(bytes);
        client.finishSending();
        const Response response = client.receive();
        EXPECT_EQ(response.status, bytes.empty() ? 0 : 400);
    }
    EXPECT_EQ(call("GET", "/v1/log").status, 200);
}

TEST_F(AdminDoor, ABodyOfExactlyTheLimitIsTaken)
{
    g_node.commands = {{"nas", "size", "", nullptr}};
    g_node.run = [](const std::optional<std::string> &value) {
        return host::CommandAnswer{0, std::to_string(value->size())};
    };
    const std::string head = R"({"module":"nas","command":"size","value":")";
    const std::string value(host::admin::kMaxBody - head.size() - 2, 'v');

    EXPECT_EQ(bodyOf("POST", "/v1/commands", head + value + "\"}"),
              R"({"result":0,"text":")" + std::to_string(value.size()) + "\"}");
}

TEST_F(AdminDoor, WhoSendsTooMuchCanSendItAllAndStillReadWhy)
{
    Client client(path_);

    EXPECT_TRUE(client.send(httpRequest("POST", "/v1/power", std::string(2 * host::admin::kMaxBody, 'x'))));

    EXPECT_EQ(client.receive().body, R"({"error":"the body is larger than 1048576 bytes"})");
    EXPECT_TRUE(client.atEnd());
}

TEST_F(AdminDoor, AClientThatLeavesInTheMiddleDoesNoHarm)
{
    const std::string request = httpRequest("PUT", "/v1/log", R"({"threshold":0})");
    for (size_t sent = 0; sent < request.size(); sent++) {
        Client client(path_);
        EXPECT_TRUE(client.send(request.substr(0, sent)));
    }

    EXPECT_EQ(bodyOf("GET", "/v1/log"), R"({"threshold":6,"classes":[6,4,4,3]})");
}

// ---- many callers, long changes, the end

TEST_F(AdminDoor, TwoHundredConnectionsAreServedSideBySide)
{
    std::deque<Client> clients;
    for (int i = 0; i < 200; i++) {
        ASSERT_TRUE(clients.emplace_back(path_).connected());
    }
    for (int round = 0; round < 2; round++) {
        for (const Client &client : clients) {
            EXPECT_TRUE(client.send(httpRequest("GET", "/v1/power", "")));
        }
        for (Client &client : clients) {
            EXPECT_EQ(client.receive().body, R"({"state":0,"name":"off"})");
        }
    }
}

TEST_F(AdminDoor, ConnectionsBeyondTheLimitWaitForOneToEnd)
{
    std::deque<Client> clients;
    for (size_t i = 0; i < host::admin::kMaxConnections; i++) {
        clients.emplace_back(path_).send(httpRequest("GET", "/v1/power", ""));
        ASSERT_EQ(clients.back().receive().status, 200);
    }
    Client waiting(path_);
    waiting.send(httpRequest("GET", "/v1/log", ""));

    clients.pop_front();

    EXPECT_EQ(waiting.receive().status, 200);
}

// A command that stays until it is let go.
class LongCommand {
public:
    LongCommand()
    {
        g_node.commands = {{"nas", "long", "", nullptr}};
        g_node.run = [this](const std::optional<std::string> &) {
            entered_.set_value();
            leave_.get_future().wait();
            return host::CommandAnswer{0, "done"};
        };
    }
    static std::string request() { return httpRequest("POST", "/v1/commands", R"({"module":"nas","command":"long"})"); }
    void waitUntilItRuns() { entered_.get_future().wait(); }
    void letGo() { leave_.set_value(); }

private:
    std::promise<void> entered_;
    std::promise<void> leave_;
};

TEST_F(AdminDoor, ReadingDoesNotWaitForAChangeThatRuns)
{
    LongCommand command;
    Client changing(path_);
    changing.send(LongCommand::request());
    command.waitUntilItRuns();

    EXPECT_EQ(call("GET", "/v1/status").status, 200);

    command.letGo();
    EXPECT_EQ(changing.receive().body, R"({"result":0,"text":"done"})");
}

TEST_F(AdminDoor, AtTheEndTheChangeThatRunsIsAnsweredAndThoseThatWaitAreLeftUndone)
{
    LongCommand command;
    Client running(path_);
    running.send(LongCommand::request());
    command.waitUntilItRuns();
    Client waiting(path_);
    waiting.send(httpRequest("PUT", "/v1/log", R"({"threshold":0})"));
    Client idle(path_);
    idle.send(httpRequest("GET", "/v1/log", ""));
    EXPECT_EQ(idle.receive().status, 200);

    std::thread stopping(host::stopAdminServer);
    EXPECT_TRUE(idle.atEnd());
    command.letGo();
    stopping.join();

    EXPECT_EQ(running.receive().body, R"({"result":0,"text":"done"})");
    EXPECT_TRUE(running.atEnd());
    EXPECT_TRUE(waiting.atEnd());
    EXPECT_EQ(g_node.threshold, 6U);
    EXPECT_FALSE(std::filesystem::exists(path_));
}

TEST_F(AdminDoor, AQuestionThatWaitsDelaysNeitherReadingNorAChangeNorAnotherQuestion)
{
    std::promise<void> asked;
    std::promise<void> answered;
    host::admin::ServerSettings settings;
    settings.socketPath = directory_ + "/asking.sock";
    settings.lane = [](const host::admin::Request &request) {
        return request.target == "/read"     ? host::admin::Lane::read
               : request.target == "/change" ? host::admin::Lane::change
                                             : host::admin::Lane::question;
    };
    settings.answer = [&](const host::admin::Request &request) {
        if (request.target == "/slow") {
            asked.set_value();
            answered.get_future().wait();
        }
        return host::admin::Answer{200, request.target};
    };
    const host::admin::Server server(settings);
    Client asking(settings.socketPath);
    asking.send(httpRequest("POST", "/slow", ""));
    asked.get_future().wait();

    for (const char *target : {"/read", "/change", "/question"}) {
        Client other(settings.socketPath);
        other.send(httpRequest("GET", target, ""));
        EXPECT_EQ(other.receive().body, target);
    }
    answered.set_value();
    EXPECT_EQ(asking.receive().body, "/slow");
}

// A server whose every call follows: it waits until the server has it return.
class FollowServer {
public:
    explicit FollowServer(const std::string &path)
    {
        settings_.socketPath = path;
        settings_.lane = [](const host::admin::Request &request) {
            return request.target == "/follow" ? host::admin::Lane::follow : host::admin::Lane::change;
        };
        settings_.answer = [this](const host::admin::Request &request) { return answer(request); };
        settings_.endFollowing = [this] { ended_.set_value(); };
        server_ = std::make_unique<host::admin::Server>(settings_);
    }
    void waitUntilAllFollow() { full_.get_future().wait(); }
    void end() { server_.reset(); }

private:
    host::admin::Answer answer(const host::admin::Request &request)
    {
        if (request.target == "/follow") {
            if (++following_ == host::admin::kMaxFollowers) {
                full_.set_value();
            }
            end_.wait();
        }
        return {200, request.target};
    }

    host::admin::ServerSettings settings_;
    std::atomic<size_t> following_ = 0;
    std::promise<void> full_;
    std::promise<void> ended_;
    std::shared_future<void> end_ = ended_.get_future().share();
    std::unique_ptr<host::admin::Server> server_;
};

TEST_F(AdminDoor, CallsThatFollowDelayNoOthersAreRefusedBeyondTheirLimitAndReturnAtTheEnd)
{
    const std::string path = directory_ + "/follow.sock";
    FollowServer server(path);
    std::deque<Client> followers;
    for (size_t i = 0; i < host::admin::kMaxFollowers; ++i) {
        followers.emplace_back(path).send(httpRequest("GET", "/follow", ""));
    }
    server.waitUntilAllFollow();
    Client other(path);

    other.send(httpRequest("GET", "/follow", ""));
    const Response refused = other.receive();
    EXPECT_EQ(refused.status, 503);
    EXPECT_EQ(refused.body, R"({"error":"16 calls wait for events already"})");
    other.send(httpRequest("GET", "/change", ""));
    EXPECT_EQ(other.receive().body, "/change");

    server.end();
    for (Client &follower : followers) {
        EXPECT_EQ(follower.receive().body, "/follow");
    }
}

TEST_F(AdminDoor, AFollowerMayComeWhenAnotherHasItsAnswer)
{
    for (size_t i = 0; i < host::admin::kMaxFollowers + 1; ++i) {
        EXPECT_EQ(call("GET", "/v1/events?limit=0&wait=0").status, 200);
    }
}

TEST_F(AdminDoor, NobodyWaitsForEventsAfterItsEnd)
{
    const uint64_t newest = host::readEvents(UINT64_MAX, 0).newest;
    host::stopAdminServer();
    EXPECT_TRUE(host::readEvents(newest, 1, std::chrono::hours(1)).events.empty());
}

// A service that keeps silent occupies every question, and must be told the end of that all the same.
TEST_F(AdminDoor, AWordWithTheServiceDoesNotWaitForTheQuestions)
{
    std::counting_semaphore<> asked(0);
    std::promise<void> answered;
    const std::shared_future<void> end = answered.get_future().share();
    host::admin::ServerSettings settings;
    settings.socketPath = directory_ + "/silent.sock";
    settings.lane = [](const host::admin::Request &request) {
        return request.target == "/question" ? host::admin::Lane::question : host::admin::Lane::service;
    };
    settings.answer = [&](const host::admin::Request &request) {
        if (request.target == "/question") {
            asked.release();
            end.wait();
        }
        return host::admin::Answer{200, request.target};
    };
    const host::admin::Server server(settings);
    std::vector<std::unique_ptr<Client>> asking;
    for (size_t i = 0; i < host::admin::kMaxQuestions; ++i) {
        asking.push_back(std::make_unique<Client>(settings.socketPath));
        asking.back()->send(httpRequest("POST", "/question", ""));
        asked.acquire();
    }

    Client other(settings.socketPath);
    other.send(httpRequest("GET", "/service", ""));

    EXPECT_EQ(other.receive().body, "/service");
    answered.set_value();
}

TEST_F(AdminDoor, MetricsComeAsPlainText)
{
    const Response response = call("GET", "/metrics");
    EXPECT_EQ(response.status, 200);
    EXPECT_THAT(response.head, HasSubstr("\r\nContent-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
    EXPECT_THAT(response.body, StartsWith("# HELP nasctrl_build_info "));
}

TEST_F(AdminDoor, AnIdleConnectionIsClosedInTime)
{
    host::admin::ServerSettings settings;
    settings.socketPath = directory_ + "/hasty.sock";
    settings.lane = [](const host::admin::Request &) { return host::admin::Lane::read; };
    settings.answer = [](const host::admin::Request &) { return host::admin::Answer{200, "{}"}; };
    settings.idleTimeout = std::chrono::milliseconds(1);
    const host::admin::Server server(settings);

    Client client(settings.socketPath);

    EXPECT_TRUE(client.atEnd());
}

// ---- the socket's file

std::string whyNotStarted(const std::string &path)
{
    try {
        host::startAdminServer(path);
    } catch (const std::runtime_error &error) {
        return error.what();
    }
    return "started";
}

TEST_F(AdminDoor, TheSocketIsItsOwnersAlone)
{
    struct stat file {};
    ASSERT_EQ(lstat(path_.c_str(), &file), 0);

    EXPECT_EQ(file.st_mode, static_cast<mode_t>(S_IFSOCK | S_IRUSR | S_IWUSR));
}

TEST_F(AdminDoor, StartsOnlyOnceAndAgainAfterItsEnd)
{
    EXPECT_EQ(whyNotStarted(directory_ + "/second.sock"), "admin server: it runs already");
    EXPECT_FALSE(std::filesystem::exists(directory_ + "/second.sock"));
    host::stopAdminServer();
    host::stopAdminServer();
    EXPECT_FALSE(std::filesystem::exists(path_));
    host::startAdminServer(path_);
    EXPECT_EQ(call("GET", "/v1/log").status, 200);
}

// Leaves the file of a bound socket behind; the socket listens when backlog is not negative.
int leaveSocket(const std::string &path, int backlog)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = socketAddress(path);
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
    if (backlog >= 0) {
        EXPECT_EQ(listen(fd, backlog), 0);
    }
    return fd;
}

TEST_F(AdminDoor, AStaleSocketIsReplaced)
{
    host::stopAdminServer();
    close(leaveSocket(path_, 0));

    host::startAdminServer(path_);

    EXPECT_EQ(call("GET", "/v1/log").status, 200);
}

TEST_F(AdminDoor, ALiveSocketIsRefusedAndLeftAlone)
{
    host::stopAdminServer();
    const int live = leaveSocket(path_, 0);

    EXPECT_EQ(whyNotStarted(path_), "admin server: " + path_ + ": another process listens on it");
    // The first attempt's connection fills the queue.
    EXPECT_EQ(whyNotStarted(path_), "admin server: " + path_ + ": another process listens on it");
    EXPECT_TRUE(std::filesystem::is_socket(path_));
    close(live);
}

TEST_F(AdminDoor, AFileThatIsNoSocketIsRefusedAndLeftAlone)
{
    host::stopAdminServer();
    std::ofstream(path_) << "precious";

    EXPECT_EQ(whyNotStarted(path_), "admin server: " + path_ + ": exists and is not a socket");
    EXPECT_TRUE(std::filesystem::is_regular_file(path_));
}

TEST_F(AdminDoor, APathThatCannotBeIsRefused)
{
    host::stopAdminServer();
    const std::string longPath = directory_ + "/" + std::string(108, 'x');

    EXPECT_EQ(whyNotStarted(""), "admin server: : is empty or too long for a socket, 107 characters at most");
    EXPECT_EQ(whyNotStarted(longPath),
              "admin server: " + longPath + ": is empty or too long for a socket, 107 characters at most");
    EXPECT_EQ(whyNotStarted(directory_ + "/none/a.sock"),
              "admin server: " + directory_ + "/none/a.sock: No such file or directory");
}

TEST_F(AdminDoor, AtTheEndAnothersSocketInItsPlaceIsLeftAlone)
{
    std::filesystem::remove(path_);
    const int other = leaveSocket(path_, 0);

    host::stopAdminServer();

    EXPECT_TRUE(std::filesystem::is_socket(path_));
    close(other);
}

} // namespace
