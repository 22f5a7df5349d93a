/*
 * The VPC table: networks and the clouds they belong to, with the file that keeps them.
 *
 * Owns g_vpc and g_VpcDefault, plain data without a lock: the start and the commands of the host change them, one at a
 * time; look-ups come from any thread and may see a record half written.
 */
#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <nasctrl/vpc.h>
#include <string_view>
#include <unistd.h>

#include "internal/bounded.h"
#include "internal/log.h"
#include "internal/pool.h"

static_assert(offsetof(vpc_record, id) == 0);
static_assert(offsetof(vpc_record, ip) == 129);
static_assert(offsetof(vpc_record, spare) == 149);
static_assert(offsetof(vpc_record, mask) == 150);
static_assert(offsetof(vpc_record, in_use) == 152);
static_assert(sizeof(vpc_record) == 156);

vpc_record g_vpc[NAS_VPC_RECORDS];
char g_VpcDefault[NAS_VPC_ID_SIZE] = NAS_VPC_DEFAULT_ID;

namespace {

constexpr char kVpcFile[] = "/opt/dr/config/vpc.local.conf";
constexpr size_t kFileTextSize = sizeof(g_vpc);
constexpr size_t kLineSize = 256;
constexpr size_t kMaxId = NAS_VPC_ID_SIZE - 1;
constexpr char kDashes[] = "------------------------------------------------------------------------------";
static_assert(sizeof(kDashes) - 1 == 78);

/* The texts of a record, within their fields whatever these hold: to compare, and to hand on. */
std::string_view idOf(const vpc_record &record)
{
    return {record.id, strnlen(record.id, sizeof(record.id))};
}

std::string_view ipOf(const vpc_record &record)
{
    return {record.ip, strnlen(record.ip, sizeof(record.ip))};
}

using VpcId = nas::CutText<sizeof(vpc_record::id)>;
using VpcIp = nas::CutText<sizeof(vpc_record::ip)>;

/* ---- adding ---- */

struct Network {
    const char *ip; /* null when the text holds none */
    int16_t mask;
};

/* Cuts text at the '/' behind the address. */
Network cutNetwork(char *text)
{
    char *rest = nullptr;
    const char *ip = strtok_r(text, "/", &rest);
    return {ip, ip == nullptr ? int16_t{0} : static_cast<int16_t>(strtol(rest, nullptr, 10))};
}

bool isSame(const vpc_record &record, const char *vpcId, const Network &network)
{
    return idOf(record) == vpcId && ipOf(record) == network.ip && record.mask == network.mask;
}

/* A record that is refused leaves its slot zeroed. */
uint32_t fillRecord(const char *func, vpc_record *record, const char *vpcId, const Network &network)
{
    if (nas::memset_s(record, sizeof(*record), 0, sizeof(*record)) != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Memset_s failed.");
        return NAS_INVALID;
    }
    if (nas::memcpy_s(record->ip, sizeof(record->ip), network.ip, strlen(network.ip)) != 0 ||
        nas::memcpy_s(record->id, kMaxId, vpcId, strlen(vpcId)) != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Memcpy failed.");
        *record = {};
        return NAS_INVALID;
    }
    record->mask = network.mask;
    record->in_use = 1;
    return NAS_OK;
}

/* ---- looking up ---- */

/* Both addresses in network order, as they lie in memory: the shift is meant for these words, whatever it compares. */
bool liesIn(in_addr_t address, const vpc_record &record)
{
    const unsigned shift = static_cast<unsigned>(32 - record.mask) % 32;
    const in_addr_t network = inet_addr(VpcIp(record.ip).c_str());
    return network << shift == address << shift;
}

in_addr_t addressOf(const sockaddr *a)
{
    in_addr_t address = 0;
    memcpy(&address, reinterpret_cast<const char *>(a) + offsetof(sockaddr_in, sin_addr), sizeof(address));
    return address;
}

/* ---- sorting ---- */

/* Equal records are out of order too, so that they change places. */
bool outOfOrder(const vpc_record &first, const vpc_record &second)
{
    const int ids = idOf(first).compare(idOf(second));
    return ids > 0 || (ids == 0 && ipOf(first) >= ipOf(second));
}

/* False ends the sort. */
bool swapRecords(const char *func, vpc_record *first, vpc_record *second)
{
    vpc_record kept;
    if (nas::memset_s(&kept, sizeof(kept), 0, sizeof(kept)) != 0) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Memset failed.");
        return false;
    }
    return NasCopyVpc(&kept, first) == NAS_OK && NasCopyVpc(first, second) == NAS_OK &&
           NasCopyVpc(second, &kept) == NAS_OK;
}

/* ---- the file ---- */

class OpenFile {
public:
    explicit OpenFile(int fd) : fd_(fd) {}
    ~OpenFile()
    {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    OpenFile(const OpenFile &) = delete;
    OpenFile &operator=(const OpenFile &) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

/* Prints the used records into text; what does not fit is cut. Returns the length. */
size_t printEntries(char *text, size_t size)
{
    size_t length = 0;
    for (const vpc_record &record : g_vpc) {
        if (record.in_use != 0) {
            length +=
                static_cast<size_t>(nas::append(text + length, size - length, "%s;%s/%d\n\n", VpcId(record.id).c_str(),
                                                VpcIp(record.ip).c_str(), int{record.mask}));
        }
    }
    return length;
}

/* Adds the entry that line holds; false when there is nothing in it. The empty line behind each entry is refused. */
bool addEntry(const char *func, char *line)
{
    char *rest = nullptr;
    const char *vpcId = strtok_r(line, ";", &rest);
    if (vpcId == nullptr) {
        LOG_LINE_AS(func, NASCTRL_LOG_ERROR, "Input string is not valid, not include ';'.");
        return false;
    }
    NasSetVpcInfo(vpcId, rest);
    return true;
}

} // namespace

uint32_t NasSetVpcInfo(const char *vpcId, char *ipMask)
{
    if (vpcId == nullptr || ipMask == nullptr) {
        LOG_NULL(vpcId == nullptr ? "vpcId" : "ipMask", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    const Network network = cutNetwork(ipMask);
    if (network.ip == nullptr) {
        LOG_ERROR("Input string is not valid, not include '/'.");
        return NAS_INVALID;
    }
    for (vpc_record &record : g_vpc) {
        if (isSame(record, vpcId, network)) {
            return NAS_VPC_EXISTS;
        }
        /* The first free slot ends the search: the same record behind a hole is not found. */
        if (record.in_use == 0) {
            return fillRecord(__func__, &record, vpcId, network);
        }
    }
    return NAS_INVALID;
}

uint32_t NasGetVpcInfoByIP(const struct sockaddr *a, char *out)
{
    if (a == nullptr || out == nullptr) {
        LOG_NULL(a == nullptr ? "a" : "out", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    if (a->sa_family != AF_INET) {
        LOG_ERROR("Input ip is not ipv4.");
        return NAS_INVALID;
    }
    const in_addr_t address = addressOf(a);
    for (const vpc_record &record : g_vpc) {
        if (liesIn(address, record)) {
            const int ret = nas::memcpy_s(out, NAS_VPC_ID_SIZE, record.id, kMaxId);
            out[kMaxId] = '\0';
            return static_cast<uint32_t>(ret);
        }
    }
    return static_cast<uint32_t>(nas::memcpy_s(out, NAS_VPC_ID_SIZE, g_VpcDefault, sizeof(g_VpcDefault)));
}

int32_t NasCheckVpcID(const char *vpcId)
{
    if (vpcId == nullptr) {
        LOG_ERROR("Input is null.");
        return -1;
    }
    for (const vpc_record &record : g_vpc) {
        if (idOf(record) == vpcId) {
            return 0;
        }
    }
    return -1;
}

int32_t NasClearVpcInfo(void)
{
    return nas::memset_s(g_vpc, sizeof(g_vpc), 0, sizeof(g_vpc));
}

void NasSortVpc(void)
{
    for (int i = 0; i < NAS_VPC_RECORDS - 1; ++i) {
        for (int j = i + 1; j < NAS_VPC_RECORDS && g_vpc[j].in_use != 0; ++j) {
            if (outOfOrder(g_vpc[i], g_vpc[j]) && !swapRecords(__func__, &g_vpc[i], &g_vpc[j])) {
                return;
            }
        }
    }
}

uint32_t NasListVpcInfo(char *buf, uint32_t size)
{
    if (buf == nullptr) {
        LOG_NULL("buf", "0", 0);
        return 0;
    }
    NasSortVpc();
    long length = nas::append(buf, size, "\n%-32s%-32s%-32s\n%s\n", "VpcID", "IP", "Mask", kDashes);
    for (const vpc_record &record : g_vpc) {
        if (record.in_use != 0) {
            length += nas::append(buf + length, nas::destinationSize(size - length), "%-32s %-32s%-32llu\n",
                                  VpcId(record.id).c_str(), VpcIp(record.ip).c_str(), nas::llu(record.mask));
        }
    }
    length += nas::append(buf + length, nas::destinationSize(size - length), "%s\n", kDashes);
    return static_cast<uint32_t>(length);
}

void NasVpcSave(void)
{
    /* Not truncated: the tail of an older, longer text stays behind the new one. */
    const OpenFile file(open(kVpcFile, O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    if (file.fd() < 0) {
        return;
    }
    const auto text = POOL_OWNER(static_cast<char *>(POOL_ZALLOC(kFileTextSize)));
    if (text == nullptr) {
        return;
    }
    if (write(file.fd(), text.get(), printEntries(text.get(), kFileTextSize)) == -1) {
        LOG_ERROR("Write err : %d.", errno);
    }
}

void NasVpcLoad(void)
{
    char line[kLineSize];
    FILE *file = fopen(kVpcFile, "re");
    if (file == nullptr) {
        return;
    }
    while (fgets(line, sizeof(line), file) != nullptr && addEntry(__func__, line)) {
    }
    fclose(file);
}

uint32_t NasCopyVpc(vpc_record *dst, const vpc_record *src)
{
    if (dst == nullptr || src == nullptr) {
        LOG_NULL(dst == nullptr ? "dst" : "src", "NAS_INVALID", -1);
        return NAS_INVALID;
    }
    if (nas::memcpy_s(dst->id, sizeof(dst->id), src->id, sizeof(src->id)) != 0 ||
        nas::memcpy_s(dst->ip, sizeof(dst->ip), src->ip, sizeof(src->ip)) != 0) {
        LOG_ERROR("Memcpy failed.");
        return NAS_INVALID;
    }
    dst->mask = src->mask;
    dst->in_use = src->in_use;
    return NAS_OK;
}

uint32_t NasGetVpcInfo(void)
{
    return 0;
}
