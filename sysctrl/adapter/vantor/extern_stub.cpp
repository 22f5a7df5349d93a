/*
 * The configuration adapter: loads two files through the host, then answers typed questions about them, and passes
 * some questions on to the host.
 *
 * Owns g_dpcSwitch, a plain byte that any thread may set and read. No lock: the loaders run once at start, before any
 * getter; getters keep nothing and run on any thread.
 */
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <nasctrl/config.h>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/config.h>
#include <nasctrl/host/platform.h>

#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/pool.h"
#include "internal/words.h"

static_assert(offsetof(data_slice_owner, owner) == 0);
static_assert(offsetof(data_slice_owner, slice) == 8);
static_assert(sizeof(data_slice_owner) == 16);

uint8_t g_dpcSwitch;

namespace {

constexpr char kDpcConf[] = "/opt/marovesta/brisqueta/conf/dpc.conf";
constexpr char kServerConf[] = "/opt/ostrak/eds/eds-f/conf/EBSServer.cfg";
constexpr char kGlobal[] = "GLOBAL";
constexpr char kDpc[] = "OSK_MID_DPC";

constexpr int kLoadAttempts = 3;
constexpr uint32_t kLoadRetryMs = 5000;
constexpr size_t kPairSize = 256;
constexpr uint32_t kIpPortListSize = 896;

/* Runs attempt(attempts left) until it returns 0; sleeps after every failure, the last one too. */
template <typename Attempt>
uint32_t loadWithRetries(Attempt attempt)
{
    int32_t ret = 0;
    for (int left = kLoadAttempts; left > 0; --left) {
        ret = attempt(left);
        if (ret == 0) {
            break;
        }
        kvos_msleep(kLoadRetryMs);
    }
    return static_cast<uint32_t>(ret);
}

/* Reads a value of dpc.conf into a cleared buffer; says whether it is there, and logs in func's name when it is not. */
template <size_t Size>
bool readValue(const char *func, const char *section, const char *key, char (&value)[Size])
{
    std::fill_n(value, Size, '\0');
    const bool found = kvos_cfg_getItemValue(section, key, value, Size) == 0;
    if (!found) {
        LOG_FAILED_RETURN_AS(func, "ret != 0", "NAS_ERROR");
    }
    value[Size - 1] = '\0'; /* whatever the host's reader has left there */
    return found;
}

/* Junk is 0: there is no check of syntax or range. */
long decimal(const char *text)
{
    return strtol(text, nullptr, 10);
}

bool isNull(const char *func, const void *argument, const char *name)
{
    if (argument == nullptr) {
        LOG_NULL_AS(func, name, "NAS_ERROR", NAS_ERROR);
    }
    return argument == nullptr;
}

/* ---- values of the form name:address ---- */

int32_t readServerConf(const char *section, const char *key, char *buffer, uint32_t size)
{
    return ProtoCfgGetStringValue(kServerConf, section, key, buffer, size);
}

struct Pair {
    const char *func; /* the name to log under */
    int32_t (*read)(const char *section, const char *key, char *buffer, uint32_t size);
    const char *section;
    const char *key;
    bool countsAddress; /* the copy's count is the address's length instead of the room */
};
constexpr Pair kLocalIp = {"DpcGetLocalIpAddr", kvos_cfg_getItemValue, kDpc, "dpc_data_ip", false};
constexpr Pair kDioCtrlIp = {"GetDioCtrlIp", kvos_cfg_getItemValue, kDpc, "dio_ctrl_ip", false};
constexpr Pair kEbsCtrlIp = {"DpcGetCtrlIpAddr", kvos_cfg_getItemValue, kDpc, "dpc_ctrl_ip", false};
constexpr Pair kDpcDataIp = {"EbsGetDpcDataAddr", readServerConf, kGlobal, "dpc_ip", true};

uint32_t getPairAddress(const Pair &pair, char *out, int len)
{
    char value[kPairSize] = {};
    if (isNull(pair.func, out, "out")) {
        return NAS_ERROR;
    }
    if (pair.read(pair.section, pair.key, value, sizeof(value)) != 0) {
        LOG_FAILED_RETURN_AS(pair.func, "ret != 0", "NAS_ERROR");
        return NAS_ERROR;
    }
    value[sizeof(value) - 1] = '\0';
    const char *colon = strchr(value, ':');
    if (colon == nullptr) {
        LOG_LINE_AS(pair.func, NASCTRL_LOG_ERROR, "Bad format pair:%s\n", value);
        return NAS_INVALID;
    }
    const char *address = colon + 1;
    const size_t room = nas::destinationSize(len);
    return static_cast<uint32_t>(nas::strncpy_s(out, room, address, pair.countsAddress ? strlen(address) : room));
}

/* ---- texts that the host writes straight into the caller's buffer ---- */

/* The logged line names the result twice, as "ret is failed, return ret". */
uint32_t readText(const char *func, const char *key, char *out, uint32_t size)
{
    if (isNull(func, out, "out")) {
        return NAS_ERROR;
    }
    const int32_t ret = kvos_cfg_getItemValue(kGlobal, key, out, size);
    if (ret != 0) {
        LOG_FAILED_RETURN_AS(func, "ret", "ret");
    }
    return static_cast<uint32_t>(ret);
}

/* Says whether value is short enough for a bound of len, which 0 and less refuse altogether. */
bool fits(const char *func, const char *value, int len)
{
    const bool shorter = static_cast<long>(strlen(value)) < len;
    if (!shorter) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "valueLen >= len");
    }
    return shorter;
}

} // namespace

/* ---- loaders ---- */

uint32_t DpcInitExternStub(void)
{
    const char *func = __func__;
    return loadWithRetries([func](int left) {
        LOG_CLASS_AS(func, 0, "load_cfg ini retry %d %d.", left, -1);
        return kvos_cfg_init(kDpcConf);
    });
}

uint32_t nas_ctrl_cluster_init(void)
{
    const char *func = __func__;
    return loadWithRetries([func](int left) {
        LOG_CLASS_AS(func, 0, "load_cfg ini retry %d.", left);
        return ProtoCfgLoadFile(kServerConf);
    });
}

uint32_t extern_stub_init(void)
{
    if (nas_ctrl_cluster_init() != 0) {
        LOG_FAILED_RETURN("ret != 0", "NAS_ERROR");
        return NAS_ERROR;
    }
    return NAS_OK;
}

/* ---- values of the form name:address ---- */

uint32_t getLocalIPAddr(char *out, int len)
{
    return getPairAddress(kLocalIp, out, len);
}

uint32_t GetDioCtrlIp(char *out, int len)
{
    return getPairAddress(kDioCtrlIp, out, len);
}

uint32_t getEbsCtrlIPAddr(char *out, int len)
{
    return getPairAddress(kEbsCtrlIp, out, len);
}

uint32_t EbsGetDpcDataAddr(char *out, int len)
{
    return getPairAddress(kDpcDataIp, out, len);
}

/* ---- texts and numbers ---- */

uint32_t DpcGetClusterType(char *out, int len)
{
    char value[128];
    if (isNull(__func__, out, "out") || !readValue(__func__, kGlobal, "cluster_type", value) ||
        !fits(__func__, value, len)) {
        return NAS_ERROR;
    }
    const int ret = nas::sprintf_s(out, nas::destinationSize(len), "%s", value);
    if (ret < 1) {
        /* An empty type ends here too. The line's bracket stays open. */
        LOG_ERROR("sprintf_s error(%d", ret);
        return NAS_ERROR;
    }
    return NAS_OK;
}

uint32_t DpcGetClusterId(uint32_t *out, int len)
{
    char value[128];
    if (isNull(__func__, out, "out") || !readValue(__func__, kGlobal, "cm_cluster_id", value) ||
        !fits(__func__, value, len)) {
        return NAS_ERROR;
    }
    *out = static_cast<uint32_t>(decimal(value));
    return NAS_OK;
}

uint32_t DpcGetMDomainName(char *out, uint32_t size)
{
    if (isNull(__func__, out, "out")) {
        return NAS_ERROR;
    }
    if (kvos_cfg_getItemValue(kGlobal, "ds_name", out, size) != 0) {
        LOG_FAILED_RETURN("ret != 0", "NAS_ERROR");
        return NAS_ERROR;
    }
    return NAS_OK;
}

uint32_t getEbsCmIpList(char *out, uint32_t size)
{
    return readText("DpcGetCmIpList", "cm_ip_list", out, size);
}

uint32_t getEbsIpPortList(char *out)
{
    return readText("DpcGetIpPortList", "ebs_ctrl_ip_list", out, kIpPortListSize);
}

uint32_t getDpcCtrlIPAddr(char *out, int len)
{
    if (isNull(__func__, out, "out")) {
        return NAS_ERROR;
    }
    const char *ip = getLocalDataAddr();
    if (ip == nullptr) {
        LOG_ERROR("Local_ip is null.");
        return NAS_INVALID;
    }
    const size_t room = nas::destinationSize(len);
    return static_cast<uint32_t>(nas::strncpy_s(out, room, ip, room));
}

uint32_t getShimInodeCacheMaxNumber(uint32_t *out)
{
    char value[256];
    if (out == nullptr || !readValue(__func__, kGlobal, "inode_num", value)) {
        return NAS_ERROR;
    }
    *out = static_cast<uint32_t>(decimal(value));
    LOG_INFO("get inode max num %u %s from cfg", *out, value);
    return NAS_OK;
}

/* Returns the id itself, so that an id of 1 cannot be told from a failure. */
uint32_t getDpcBusinessClusterId(void)
{
    char value[64];
    if (!readValue(__func__, kGlobal, "business_cluster_id", value)) {
        return NAS_ERROR;
    }
    const long id = decimal(value);
    LOG_INFO("Dpc business_cluster_id:%llu\n", static_cast<unsigned long long>(id));
    return static_cast<uint32_t>(id);
}

uint32_t DpcGetZusStartThread(uint32_t *start, uint32_t *num)
{
    char startText[64];
    char numText[64];
    if (isNull(__func__, start, "start") || isNull(__func__, num, "num") ||
        !readValue(__func__, kDpc, "zus_start_thread", startText) ||
        !readValue(__func__, kDpc, "zus_thread_num", numText)) {
        return NAS_ERROR;
    }
    *start = static_cast<uint32_t>(decimal(startText));
    *num = static_cast<uint32_t>(decimal(numText));
    return NAS_OK;
}

/* ---- facts of the host ---- */

uint32_t getDpcLsID(void)
{
    return CgwGetInitLocalLsId();
}

uint32_t getLocalLsID(void)
{
    return getDpcLsID();
}

uint32_t getLocalLsIDByWwn(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    return CgwGetClientLsIdByWwn(a, b, c, d, e, f);
}

uint32_t GetMasterNodeId(void)
{
    uint32_t id = 0;
    return getGlbMasterLsId(&id) != 0 ? NAS_ERROR : id;
}

uint32_t CTRL_GetCfgLsList(uint32_t *pairs, uint32_t max, uint32_t *count)
{
    if (isNull(__func__, pairs, "pairs") || isNull(__func__, count, "count")) {
        return NAS_ERROR;
    }
    const auto scratch = POOL_OWNER(static_cast<uint32_t *>(POOL_ZALLOC(size_t{max} * sizeof(uint32_t))));
    if (isNull(__func__, scratch.get(), "scratch")) {
        return NAS_ERROR;
    }
    const int32_t ret = GetCfgLsList(scratch.get(), max, count);
    if (ret != 0) {
        LOG_ERROR("Error (%d)", ret);
        return static_cast<uint32_t>(ret);
    }
    const uint32_t filled = std::min(*count, max);
    for (uint32_t i = 0; i < filled; ++i) {
        pairs[size_t{i} * 2] = scratch.get()[i];
        pairs[size_t{i} * 2 + 1] = getLocalLsID();
    }
    return NAS_OK;
}

/* ---- fixed answers ---- */

uint32_t getEbsServerIpList(void)
{
    return NAS_OK;
}

uint32_t GetNodePoolByDiskPoolId(uint64_t, uint16_t *pool)
{
    if (isNull(__func__, pool, "pool")) {
        return NAS_ERROR;
    }
    *pool = 0;
    return NAS_OK;
}

uint32_t FssGetDataSliceOwner(data_slice_owner *rec)
{
    if (isNull(__func__, rec, "rec")) {
        return NAS_ERROR;
    }
    rec->owner = 0;
    rec->slice = 0;
    return NAS_OK;
}

void SetDpcSwitch(int on)
{
    nas::writeWord<uint8_t>(g_dpcSwitch, on != 0);
}

uint32_t GetDpcSwitch(void)
{
    return nas::readWord(g_dpcSwitch);
}

/* ---- entry points that are empty in this build ---- */

uint32_t handle_cmd(void *)
{
    return 0;
}
uint32_t NasCtlCmSubscribe(void)
{
    return 0;
}
uint32_t NasCtrlGetDpcAddrByLsid(void)
{
    return 0;
}
uint32_t HdfsCtrlGetTenantId(void)
{
    return 0;
}
void *NasCtrlHandleDpcConnectEvent(void *)
{
    return nullptr;
}
void handle_evend(void *) {}
void handle_status(void) {}
void NasCtrlGetDpcLsViewCallback(void) {}
void NasSubsDpcLsViewCallback(void) {}
void NasCtrlHandleDpcEventAdapter(int32_t *, uint32_t, void *) {}
void NasCtrlExecuteDpcEventTask(void) {}
