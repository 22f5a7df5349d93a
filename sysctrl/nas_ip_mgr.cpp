/*
 * The IP manager's list: one record per service address and protocol type, in order of first appearance.
 *
 * Owns the list and both mutexes. g_ipListMutex guards every walk and change of the list and every field of its
 * records; g_ipSockIpLockMutex, taken before it, is the business of the callers that add, delete or compare as a whole.
 * Any thread may call these functions.
 */
#include <arpa/inet.h>
#include <cerrno>
#include <nasctrl/ip_manager.h>
#include <string_view>

#include "internal/bounded.h"
#include "internal/ip_list.h"
#include "internal/locks.h"
#include "internal/pool.h"

static_assert(sizeof(list_link) == 16);
static_assert(offsetof(NasIpListNode, link) == 0);
static_assert(offsetof(NasIpListNode, addr) == 16);
static_assert(offsetof(NasIpListNode, status) == 64);
static_assert(offsetof(NasIpListNode, protoType) == 68);
static_assert(sizeof(NasIpListNode) == 72);

list_link g_iplistHead = {&g_iplistHead, &g_iplistHead};
pthread_mutex_t g_ipListMutex = PTHREAD_MUTEX_INITIALIZER;
pthread_mutex_t g_ipSockIpLockMutex = PTHREAD_MUTEX_INITIALIZER;
uint32_t g_floatIpSupport = 1;

namespace {

/* Presence looks at the first 46 characters only, so that addresses of longer fields can be asked for. */
bool sameFirstCharacters(const NasIpListNode &record, const char *addr)
{
    return strncmp(record.addr, addr, NAS_IP_TEXT_SIZE) == 0;
}

/* Deletion, unlike presence, compares the whole text. */
bool sameText(const NasIpListNode &record, std::string_view addr)
{
    return std::string_view(record.addr, strnlen(record.addr, NAS_IP_TEXT_SIZE)) == addr;
}

} // namespace

NasIpListNode *NasIpMgrCreateListNode(const char *addr, uint32_t protoType, uint32_t status)
{
    auto *node = POOL_NEW(NasIpListNode);
    if (node == nullptr) {
        return nullptr;
    }
    if (nas::strcpy_s(node->addr, sizeof(node->addr), addr) != 0) {
        POOL_FREE(node);
        return nullptr;
    }
    nas::listInit(&node->link);
    node->protoType = protoType;
    node->status = status;
    return node;
}

void NasIpMgrAddToList(const char *addr, uint32_t protoType, uint32_t status)
{
    NasIpListNode *node = NasIpMgrCreateListNode(addr, protoType, status);
    if (node == nullptr) {
        return;
    }
    const nas::MutexGuard guard(&g_ipListMutex);
    nas::listAddTail(&g_iplistHead, &node->link);
}

void NasIpMgrDeleteFromListWithoutLock(const char *addr, uint32_t protoType)
{
    if (addr == nullptr) {
        LOG_NULL_VOID("addr");
        return;
    }
    /* The text may be that of a record which goes. No record has one as long as the copy's room. */
    const nas::CutText<NAS_IP_TEXT_SIZE + 1> wanted(addr);
    for (NasIpListNode &record : nas::IpRecords()) {
        if (record.protoType != protoType || !sameText(record, wanted.c_str())) {
            continue;
        }
        LOG_CLASS(0, "Delete nas IP(addr %s, protoType %u, status %d).", nas::IpText(record.addr).c_str(), protoType,
                  static_cast<int>(record.status));
        nas::listUnlink(&record.link);
        POOL_FREE(&record);
    }
}

void NasIpMgrDeleteFromList(const char *addr, uint32_t protoType)
{
    const nas::MutexGuard guard(&g_ipListMutex);
    NasIpMgrDeleteFromListWithoutLock(addr, protoType);
}

uint32_t NasIpMgrIsIpPresent(const char *addr)
{
    if (addr == nullptr) {
        return 0;
    }
    const nas::MutexGuard guard(&g_ipListMutex);
    for (const NasIpListNode &record : nas::IpRecords()) {
        if (sameFirstCharacters(record, addr)) {
            LOG_CLASS(0, "IP[%s] already exist", nas::IpText(record.addr).c_str());
            return 1;
        }
    }
    return 0;
}

uint32_t NasIpMgrIsIpPresentStrict(const char *addr, uint32_t protoType)
{
    if (addr == nullptr) {
        return 0;
    }
    const nas::MutexGuard guard(&g_ipListMutex);
    for (const NasIpListNode &record : nas::IpRecords()) {
        if (record.protoType == protoType && sameFirstCharacters(record, addr)) {
            LOG_CLASS(0, "IP: addr %s, protoType %u already exist.", nas::IpText(record.addr).c_str(), protoType);
            return 1;
        }
    }
    return 0;
}

uint32_t NasIpMgrGetIpFamily(const char *addr)
{
    in6_addr parsed;
    if (addr == nullptr) {
        return 0;
    }
    if (inet_pton(AF_INET, addr, &parsed) == 1) {
        return AF_INET;
    }
    return inet_pton(AF_INET6, addr, &parsed) == 1 ? AF_INET6 : 0;
}

int64_t NasIpMgrShowAllIp(char *buf, uint32_t buflen)
{
    if (buf == nullptr) {
        LOG_NULL("buf", "-EINVAL", -EINVAL);
        return -EINVAL;
    }
    if (buflen == 0) {
        return 0;
    }
    const nas::MutexGuard guard(&g_ipListMutex);
    buf[0] = '\0';
    int64_t position = 0;
    for (const NasIpListNode &record : nas::IpRecords()) {
        /* A failed print counts as -1, so the next line overwrites the last character; never one before the buffer. */
        position += nas::append(buf + position, buflen - static_cast<size_t>(position), "IP [%s %d] Notify Status=%d\n",
                                nas::IpText(record.addr).c_str(), static_cast<int>(record.protoType),
                                static_cast<int>(record.status));
        position = std::max<int64_t>(position, 0);
    }
    return static_cast<int64_t>(strlen(buf));
}

void NasIpMgrShowAllIpToLog()
{
    const nas::MutexGuard guard(&g_ipListMutex);
    for (const NasIpListNode &record : nas::IpRecords()) {
        LOG_CLASS(0, "IpList[%s:%u:%d].", nas::IpText(record.addr).c_str(), record.protoType,
                  static_cast<int>(record.status));
    }
}

uint32_t NasIpMgrIsSupportFloatIP()
{
    return nas::readWord(g_floatIpSupport);
}
