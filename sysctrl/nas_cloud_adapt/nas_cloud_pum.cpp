/*
 * The commands of module "cloud_adapt" over the VPC table, and the state of the identity client.
 *
 * Owns gToken, gAcc and bInitialed, plain data. No lock: the host's command framework runs one handler at a time.
 */
#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <nasctrl/cloud.h>
#include <nasctrl/host/notify.h>
#include <nasctrl/vpc.h>

#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/pool.h"

static_assert(offsetof(pum_cmd_t, module) == 8);
static_assert(offsetof(pum_cmd_t, command) == 40);
static_assert(offsetof(pum_cmd_t, usage) == 104);
static_assert(offsetof(pum_cmd_t, handler) == 4608);
static_assert(sizeof(pum_cmd_t) == 4624);
static_assert(offsetof(iam_token, expiry) == 8);
static_assert(sizeof(iam_token) == 16);
static_assert(sizeof(iam_account) == 24);

iam_token gToken;
iam_account gAcc;
uint8_t bInitialed;

namespace {

constexpr size_t kMaxCommandId = 127; /* one less than the table takes */
constexpr char kDashes[] = "-------------------------------------------------";
static_assert(sizeof(kDashes) - 1 == 49);

/* The first two words belong to the host's command framework, which wants them so. */
constexpr pum_cmd_t kCommands[] = {
    {32, 1, "cloud_adapt", "set_vpc", "-m cloud_adapt -c set_vpc -v [vpcID,IP/Mask]", NasCloudSetVpcInfo, 0, 0},
    {32, 0, "cloud_adapt", "get_vpc", "-m cloud_adapt -c get_vpc ", NasCloudGetVpcInfo, 0, 0},
    {32, 0, "cloud_adapt", "clear_vpc", "-m cloud_adapt -c clear_vpc ", NasCloudClearVpcInfo, 0, 0},
    {32, 0, "cloud_adapt", "get_vpc_by_ip", "-m cloud_adapt -c get_vpc_by_ip -v [ipStr]", NasCloudGetVpcInfoByIP, 0, 0},
    {32, 0, "cloud_adapt", "check_vpc_id", "-m cloud_adapt -c check_vpc_id -v [ipStr]", NasCloudCheckVpcID, 0, 0},
    {32, 0, "cloud_adapt", "save_vpc", "-m cloud_adapt -c save_vpc", NasCloudSaveVpc, 0, 0},
    {32, 0, "cloud_adapt", "reload_vpc", "-m cloud_adapt -c reload_vpc", NasCloudReloadVpc, 0, 0},
};

bool isNull(const char *func, const char *buf)
{
    if (buf == nullptr) {
        LOG_NULL_AS(func, "buf", "-EINVAL", -EINVAL);
    }
    return buf == nullptr;
}

} // namespace

int32_t NasCloudAdaptInit(void)
{
    NasCloudPumRegister();
    return 0;
}

void NasCloudPumRegister(void)
{
    for (const pum_cmd_t &command : kCommands) {
        pum_register_cmd(&command);
    }
    NasVpcLoad();
}

/* ---- commands ---- */

int32_t NasCloudSetVpcInfo(char *buf, uint32_t size)
{
    if (isNull(__func__, buf)) {
        return -EINVAL;
    }
    char *network = nullptr;
    const char *vpcId = strtok_r(buf, ",", &network);
    if (vpcId == nullptr) {
        LOG_ERROR("Input is not valid.");
        return nas::append(buf, size, "Input is not valid. Provide option -v vpcID,IP/Mask\n");
    }
    if (strlen(vpcId) > kMaxCommandId) {
        LOG_ERROR("VPC ID must be maximum 127 characters.");
        return nas::append(buf, size, "VPC ID must be maximum 127 characters\n");
    }
    const uint32_t ret = NasSetVpcInfo(vpcId, network);
    if (ret == NAS_VPC_EXISTS) {
        return nas::append(buf, size, "Already exist.\n");
    }
    if (ret != NAS_OK) {
        LOG_ERROR("NasSetVpcInfo failed.");
        return nas::append(buf, size, "set_vpc failed\n");
    }
    return 0;
}

int32_t NasCloudGetVpcInfo(char *buf, uint32_t size)
{
    if (isNull(__func__, buf)) {
        return -EINVAL;
    }
    /* Twice on purpose: the second listing takes the place of the first. */
    NasListVpcInfo(buf, size);
    return static_cast<int32_t>(NasListVpcInfo(buf, size));
}

int32_t NasCloudClearVpcInfo(char *, uint32_t)
{
    NasClearVpcInfo();
    return 0;
}

int32_t NasCloudGetVpcInfoByIP(char *buf, uint32_t size)
{
    char vpcId[NAS_VPC_ID_SIZE] = {};
    sockaddr_in address = {};
    if (isNull(__func__, buf)) {
        return -EINVAL;
    }
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = inet_addr(buf); /* all ones for a text that is no address */
    if (NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&address), vpcId) != NAS_OK) {
        LOG_ERROR("Get vpc info error.");
        return 0;
    }
    return nas::append(buf, size, "%s\nVpcID : %s\n%s\n", kDashes, vpcId, kDashes);
}

int32_t NasCloudCheckVpcID(char *buf, uint32_t size)
{
    if (isNull(__func__, buf)) {
        return -EINVAL;
    }
    return nas::append(buf, size, "%s",
                       NasCheckVpcID(buf) == 0 ? "Congratulations, you get it!\n" : "Sorry, it's not exist!\n");
}

int32_t NasCloudSaveVpc(char *, uint32_t)
{
    NasVpcSave();
    return 0;
}

int32_t NasCloudReloadVpc(char *, uint32_t)
{
    NasVpcLoad();
    return 0;
}

/* ---- the identity client ---- */

uint32_t NasIsTokenExpired(const iam_token *t)
{
    if (t == nullptr || t->expiry == nullptr) {
        return 0;
    }
    tm expiry = {};
    strptime(t->expiry, "%Y-%m-%dT%H:%M:%S", &expiry);
    return mktime(&expiry) >= time(nullptr);
}

void NasFreeIamToken(void *first, void *second)
{
    for (void *block : {second, first}) {
        if (block != nullptr) {
            POOL_FREE(block);
        }
    }
}

void NasSetIamAccoutInfo(const iam_account *a)
{
    if (a == nullptr) {
        LOG_NULL_VOID("a");
        return;
    }
    gAcc = *a;
}

int32_t NasInitNasIam(void)
{
    bInitialed = 1;
    return 0;
}

/* ---- entry points that are empty in this build ---- */

int32_t NasGetIamToken(void)
{
    return 0;
}
int32_t NasParseTokenData(void)
{
    return 0;
}
int32_t NasSendIamRequest(void)
{
    return 0;
}
int32_t NasReceiveIamData(void)
{
    return 0;
}
