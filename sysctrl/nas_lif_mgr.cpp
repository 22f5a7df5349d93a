/*
 * The table of LIF ports: a stable index for each port id, with the port's name, address and update time; the IP
 * manager's hook of module 3; and the removal of ports whose address the node no longer serves.
 *
 * Locks: a bucket's reader-writer lock guards its entries; the table's spin lock, taken inside a bucket's write lock
 * when both are held, guards the slot array. nas_lifportid_hashfind reads the slots without any lock, so that every
 * slot is read and written with relaxed atomics although its type is plain.
 * Any thread may call in. Before nas_lifport_info_init the table is empty and takes no port: the IP monitor starts
 * earlier and may ask for a clean-up by then.
 */
#include "internal/bounded.h"
#include "internal/list.h"
#include "internal/locks.h"
#include "internal/log.h"
#include "internal/pool.h"

#include <cstddef>
#include <cstring>
#include <nasctrl/host/notify.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>

namespace {

constexpr uint64_t kHashMultiplier = 0x9e37fffffffc0001U;
constexpr unsigned kHashShift = 64 - 13;
constexpr size_t kNameMax = 256;
constexpr size_t kIpMax = 46;
constexpr uint32_t kHookModule = 3;
constexpr uint32_t kStatisticsKind = 0;
constexpr uint32_t kPerfOff = 0;
constexpr uint32_t kPerfOn = 1;
constexpr const char *kLoopback = "127.0.0.1";

static_assert(NAS_LIF_PORT_SLOTS == uint64_t{1} << (64 - kHashShift));
static_assert(sizeof(NasLifPortBucket) == 24);
static_assert(offsetof(NasLifPortBucket, lock) == 0 && offsetof(NasLifPortBucket, head) == 8);
static_assert(sizeof(NasLifPortEntry) == 344);
static_assert(offsetof(NasLifPortEntry, id) == 0 && offsetof(NasLifPortEntry, index) == 8);
static_assert(offsetof(NasLifPortEntry, time) == 16 && offsetof(NasLifPortEntry, name) == 24);
static_assert(offsetof(NasLifPortEntry, ip) == 281 && offsetof(NasLifPortEntry, link) == 328);
static_assert(sizeof(NasLifPortEntry::name) == kNameMax + 1 && sizeof(NasLifPortEntry::ip) == kIpMax + 1);
static_assert(sizeof(nas_lif_port_info) == 65576);
static_assert(offsetof(nas_lif_port_info, lock) == 0 && offsetof(nas_lif_port_info, slots) == 24);
static_assert(offsetof(nas_lif_port_info, buckets) == 65560 && offsetof(nas_lif_port_info, find) == 65568);
static_assert(sizeof(node_ip_entry) == 72 && offsetof(node_ip_entry, addr) == 4);

uint64_t slotId(uint32_t index)
{
    return __atomic_load_n(&g_NfsLifPortInfo.slots[index], __ATOMIC_RELAXED);
}

void setSlot(uint32_t index, uint64_t id)
{
    __atomic_store_n(&g_NfsLifPortInfo.slots[index], id, __ATOMIC_RELAXED);
}

uint32_t homeSlot(uint64_t id)
{
    return static_cast<uint32_t>((id * kHashMultiplier) >> kHashShift);
}

/*
 * The first slot on the probe path of id that matches, or the home slot, where the path ends, when none does.
 */
template <typename Matches>
uint32_t probe(uint64_t id, Matches matches)
{
    const uint32_t home = homeSlot(id);
    for (uint32_t index = home; index < NAS_LIF_PORT_SLOTS; ++index) {
        if (matches(slotId(index))) [[likely]] {
            return index;
        }
    }
    for (uint32_t index = 0; index < home; ++index) {
        if (matches(slotId(index))) {
            return index;
        }
    }
    return home;
}

/* The buckets, or null before the table is built. */
NasLifPortBucket *allBuckets()
{
    return __atomic_load_n(&g_NfsLifPortInfo.buckets, __ATOMIC_ACQUIRE);
}

NasLifPortBucket *bucketOf(uint64_t id)
{
    NasLifPortBucket *buckets = allBuckets();
    return buckets != nullptr ? &buckets[id % NAS_LIF_PORT_BUCKETS] : nullptr;
}

void initBuckets(NasLifPortBucket *buckets)
{
    for (size_t i = 0; i < NAS_LIF_PORT_BUCKETS; ++i) {
        buckets[i].lock.word = 0;
        nas::listInit(&buckets[i].head);
    }
}

/* The first entry of a bucket that matches, front to back, or null; the bucket is locked. */
template <typename Matches>
NasLifPortEntry *findEntry(const NasLifPortBucket *bucket, Matches matches)
{
    for (list_link *link = nas::listNext(&bucket->head); link != &bucket->head; link = nas::listNext(link)) {
        NasLifPortEntry *entry = LIST_RECORD(link, NasLifPortEntry, link);
        if (matches(*entry)) {
            return entry;
        }
    }
    return nullptr;
}

NasLifPortEntry *findEntryById(const NasLifPortBucket *bucket, uint64_t id)
{
    return findEntry(bucket, [id](const NasLifPortEntry &entry) { return entry.id == id; });
}

bool sameIp(const char *left, const char *right)
{
    return strncmp(left, right, kIpMax) == 0;
}

bool isLoopback(const char *ip)
{
    return strcmp(ip, kLoopback) == 0;
}

/* Fills a new entry; longer texts are cut, a null text fails. */
bool fillEntry(NasLifPortEntry *entry, uint32_t index, uint64_t id, const char *name, const char *ip, uint64_t time)
{
    entry->id = id;
    entry->index = index;
    entry->time = time;
    return nas::strncpy_s(entry->name, sizeof entry->name, name, kNameMax) == 0 &&
           nas::strncpy_s(entry->ip, sizeof entry->ip, ip, kIpMax) == 0;
}

/* Takes over newer data: 0, or the sum of what failed, with the time already taken over. */
uint32_t refreshEntry(NasLifPortEntry *entry, const char *name, const char *ip, uint64_t time)
{
    if (entry->time >= time) {
        return 0;
    }
    entry->time = time;
    int ret = nas::memset_s(entry->name, sizeof entry->name, 0, sizeof entry->name);
    ret += nas::strncpy_s(entry->name, sizeof entry->name, name, kNameMax);
    ret += nas::memset_s(entry->ip, sizeof entry->ip, 0, sizeof entry->ip);
    ret += nas::strncpy_s(entry->ip, sizeof entry->ip, ip, kIpMax);
    return static_cast<uint32_t>(ret);
}

/* Ends an entry, whose bucket is write-locked: slot, list, memory. */
void removeEntry(const char *func, NasLifPortEntry *entry)
{
    nas_lifportid_del(entry->index, entry->id);
    nas::listUnlink(&entry->link);
    nas_mem_comm_free(entry, func, __LINE__);
}

/* The host's delete, once the entry is found and its bucket write-locked. */
void deleteUnlessNewer(const char *func, NasLifPortEntry *entry, const char *ip, uint64_t time)
{
    if (entry->time > time) {
        return;
    }
    if (!isLoopback(ip) && CheckLifPortSupportPerf(entry->id) == 0) {
        const uint32_t ret = regLifportAdpter(entry->id, kPerfOff);
        LOG_LINE_AS(func, nas_log_map_get(1), "Ftds:PERF_SWITCH Ip is (%s) lifportid(id:%llu), (ret:%d).", ip,
                    nas::llu(entry->id), static_cast<int>(ret));
    } else {
        LOG_LINE_AS(func, nas_log_map_get(1), "Ftds: Ip is (%s), lifport(id:%llu), don't support perf.", ip,
                    nas::llu(entry->id));
    }
    removeEntry(func, entry);
}

} // namespace

nas_lif_port_info g_NfsLifPortInfo;

uint32_t NasLifMgrModuleStart(void)
{
    uint32_t ret = nas_lifport_info_init();
    if (ret != 0) {
        LOG_ERROR("lifport info init failed.");
        return ret;
    }
    ret = NasIpMgrRegisterIpEvent(kHookModule, LifIpEvent);
    if (ret != 0) {
        LOG_CLASS(3, "Reg lif module ip event failed %d.", static_cast<int>(ret));
        return ret;
    }
    ret = static_cast<uint32_t>(statis_int_handle_register(kStatisticsKind, nas_lifportid_hashfind));
    if (ret != 0) {
        LOG_ERROR("register statis int handler fail %d.", static_cast<int>(ret));
        return ret;
    }
    ret = static_cast<uint32_t>(statis_string_handle_register(kStatisticsKind, nas_get_lifport_name));
    if (ret != 0) {
        /* Says "int" here too. */
        LOG_ERROR("register statis int handler fail %d.", static_cast<int>(ret));
    }
    return ret;
}

uint32_t nas_lifport_info_init(void)
{
    nas::spinlockInit(&g_NfsLifPortInfo.lock);
    auto *buckets = static_cast<NasLifPortBucket *>(POOL_ZALLOC(NAS_LIF_PORT_BUCKETS * sizeof(NasLifPortBucket)));
    if (buckets == nullptr) {
        LOG_CLASS(3, "Malloc failed.");
        return NAS_ERROR;
    }
    /* The buckets appear only when they are whole: the IP monitor may be looking for them. */
    initBuckets(buckets);
    __atomic_store_n(&g_NfsLifPortInfo.buckets, buckets, __ATOMIC_RELEASE);
    __atomic_store_n(&g_NfsLifPortInfo.find, &nas_lifportid_hashfind, __ATOMIC_RELEASE);
    return NAS_OK;
}

uint32_t nas_lifport_hashinit(void)
{
    NasLifPortBucket *buckets = allBuckets();
    if (buckets != nullptr) {
        initBuckets(buckets);
    }
    return NAS_OK;
}

uint32_t lifport_id_to_index(uint64_t id)
{
    const uint32_t index = probe(id, [id](uint64_t slot) { return slot == id || slot == 0; });
    if (slotId(index) == 0) {
        setSlot(index, id);
    }
    /* In a full table this is another id's slot, and two ports share the index. */
    return index;
}

uint32_t nas_lifportid_hashfind(uint64_t id)
{
    return probe(id, [id](uint64_t slot) { return slot == id; });
}

uint32_t nas_lifport_add(uint64_t id, const char *name, const char *ip, uint64_t time)
{
    NasLifPortBucket *bucket = bucketOf(id);
    if (bucket == nullptr) {
        LOG_NULL("buckets", "-1", -1);
        return NAS_INVALID;
    }
    uint32_t index = 0;
    NasLifPortEntry *entry = nullptr;
    bool filled = false;
    {
        /* The entry is allocated under the spin lock: claiming the slot and listing its owner are one step. */
        const nas::SpinGuard guard(&g_NfsLifPortInfo.lock);
        index = lifport_id_to_index(id);
        entry = index < NAS_LIF_PORT_SLOTS ? POOL_NEW(NasLifPortEntry) : nullptr;
        filled = entry != nullptr && fillEntry(entry, index, id, name, ip, time);
        if (filled) {
            nas::listAddFront(&bucket->head, &entry->link);
        }
    }
    if (index >= NAS_LIF_PORT_SLOTS) {
        LOG_CLASS(3, "lifportid:%llu alloc index failed(%u).", nas::llu(id), index);
        return NAS_INVALID;
    }
    /* A claimed slot stays claimed when the rest fails; the next add of the id finds it. */
    if (entry == nullptr) {
        LOG_CLASS(3, "malloc failed(lifportid:%llu).", nas::llu(id));
        return NAS_INVALID;
    }
    if (!filled) {
        POOL_FREE(entry);
        return NAS_INVALID;
    }
    LOG_CLASS(0, "lifportid:%llu alloc index:%u.", nas::llu(id), index);
    return index;
}

uint32_t nas_lifportid_hashadd(uint64_t id, const char *name, const char *ip, uint64_t time, uint32_t *isNew)
{
    if (isNew == nullptr) {
        LOG_NULL("isNew", "-1", -1);
        return NAS_INVALID;
    }
    *isNew = 0;
    NasLifPortBucket *bucket = bucketOf(id);
    if (bucket == nullptr) {
        LOG_NULL("buckets", "-1", -1);
        return NAS_INVALID;
    }
    uint32_t ret = 0;
    uint32_t index = 0;
    uint64_t entryTime = 0;
    {
        const nas::WriteGuard guard(&bucket->lock);
        NasLifPortEntry *entry = findEntryById(bucket, id);
        if (entry == nullptr) {
            *isNew = 1;
            return nas_lifport_add(id, name, ip, time);
        }
        ret = refreshEntry(entry, name, ip, time);
        index = entry->index;
        entryTime = entry->time;
    }
    if (ret != 0) {
        LOG_CLASS(3, "Err,lif:%llu,name:%s, ip:%s, time:%llu-%llu, index:%u, ret:%u.", nas::llu(id), nas::orNull(name),
                  nas::orNull(ip), nas::llu(time), nas::llu(entryTime), index, ret);
        return NAS_INVALID;
    }
    LOG_CLASS(3, "Duplicate,lif:%llu,name:%s, ip:%s, time:%llu-%llu, index:%u.", nas::llu(id), nas::orNull(name),
              nas::orNull(ip), nas::llu(time), nas::llu(entryTime), index);
    return index;
}

uint32_t nas_lifport_add_update(uint64_t id, const char *name, const char *ip, uint64_t time)
{
    if (id == 0) {
        return NAS_INVALID;
    }
    uint32_t isNew = 0;
    const uint32_t index = nas_lifportid_hashadd(id, name, ip, time, &isNew);
    if (index >= NAS_LIF_PORT_SLOTS || isNew == 0) {
        return index;
    }
    if (CheckLifPortSupportPerf(id) != 0 || isLoopback(ip)) {
        LOG_CLASS(1, "Ftds: Ip is (%s), lifport(id:%llu), don't support perf.", ip, nas::llu(id));
        return index;
    }
    const uint32_t ret = regLifportAdpter(id, kPerfOn);
    if (ret != 0) {
        LOG_CLASS(3, "Ftds: PERF_SWITCH ON lifport(id:%llu,index:%u) failed (ret:%d).", nas::llu(id), index,
                  static_cast<int>(ret));
    }
    LOG_INFO("Add lif_port success, id: %llu, name: %s, ip: %s.", nas::llu(id), name, ip);
    return index;
}

void nas_lifportid_del(uint32_t index, uint64_t id)
{
    const nas::SpinGuard guard(&g_NfsLifPortInfo.lock);
    /* An id that has no slot clears its home slot, whoever owns that. */
    setSlot(slotId(index) == id ? index : nas_lifportid_hashfind(id), 0);
}

void nas_lifportid_del_update(const char *ip, uint64_t time)
{
    if (ip == nullptr) {
        return;
    }
    LOG_CLASS(0, "nas_lifportid_del_update begin %s.", ip);
    NasLifPortBucket *buckets = allBuckets();
    for (size_t i = 0; buckets != nullptr && i < NAS_LIF_PORT_BUCKETS; ++i) {
        const nas::WriteGuard guard(&buckets[i].lock);
        NasLifPortEntry *entry =
            findEntry(&buckets[i], [ip](const NasLifPortEntry &candidate) { return sameIp(candidate.ip, ip); });
        if (entry != nullptr) {
            deleteUnlessNewer(__func__, entry, ip, time);
            return;
        }
    }
    LOG_ERROR("ERR, not found ip:%s, time:%llu.", ip, nas::llu(time));
}

uint32_t nas_get_lifport_name(uint64_t id, char *buf, uint32_t len)
{
    if (buf == nullptr) {
        LOG_CLASS(3, "pObjName is null.");
        return NAS_ERROR;
    }
    NasLifPortBucket *bucket = bucketOf(id);
    if (bucket == nullptr) {
        return NAS_OK;
    }
    kvos_rwlock_read_lock(&bucket->lock);
    const NasLifPortEntry *entry = findEntryById(bucket, id);
    /* No more room is used than a name needs, because the copy clears what is left of it. */
    const uint32_t room = std::min<uint32_t>(len, kNameMax + 1);
    if (entry != nullptr && nas::strncpy_s(buf, room, entry->name, kNameMax) != 0) {
        /* The read hold stays, on purpose: from now on the bucket takes no change. */
        return NAS_ERROR;
    }
    kvos_rwlock_read_unlock(&bucket->lock);
    return NAS_OK;
}

uint32_t getNasLifPortIdByIp(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    return getNasLifPortIdByIpAdpter(a, b, c, d, e, f);
}

uint32_t LifIpEvent(uint32_t event, const char *addr, uint32_t family)
{
    return LifIpEventAdpter(event, addr, family);
}

uint32_t IsIpInList(const node_ip_entry *entries, uint32_t count, const char *ip)
{
    if (ip == nullptr) {
        LOG_NULL("ip", "0", 0);
        return 0;
    }
    const uint32_t present = entries != nullptr ? count : 0;
    for (uint32_t i = 0; i < present; ++i) {
        if (sameIp(entries[i].addr, ip)) {
            return 1;
        }
    }
    return 0;
}

void DeleteEachLifPortByIpList(const node_ip_entry *entries, uint32_t count, NasLifPortEntry *entry, uint32_t *)
{
    if (entry == nullptr) {
        LOG_NULL_VOID("entry");
        return;
    }
    if (IsIpInList(entries, count, entry->ip) != 0) {
        return;
    }
    if (isLoopback(entry->ip) || CheckLifPortSupportPerf(entry->id) != 0) {
        LOG_INFO("Auto Detact: Ip is (%s), lifport(id:%llu), don't support perf.", entry->ip, nas::llu(entry->id));
    } else {
        const uint32_t ret = regLifportAdpter(entry->id, kPerfOff);
        LOG_INFO("Auto Detact: PERF_SWITCH Ip is (%s) lifportid(id:%llu), (ret:%d).", entry->ip, nas::llu(entry->id),
                 static_cast<int>(ret));
    }
    removeEntry(__func__, entry);
}

void DeleteRedundancyLifInfoByIpList(const node_ip_entry *entries, uint32_t count)
{
    if (entries == nullptr) {
        LOG_ERROR("Param is invalid, IP str is NULL.");
        return;
    }
    uint32_t counter = 0;
    NasLifPortBucket *buckets = allBuckets();
    for (size_t i = 0; buckets != nullptr && i < NAS_LIF_PORT_BUCKETS; ++i) {
        const nas::WriteGuard guard(&buckets[i].lock);
        list_link *head = &buckets[i].head;
        for (list_link *link = nas::listNext(head), *next = nullptr; link != head; link = next) {
            next = nas::listNext(link);
            DeleteEachLifPortByIpList(entries, count, LIST_RECORD(link, NasLifPortEntry, link), &counter);
        }
    }
    /* The step for each entry does not count, so that this line stays unwritten. */
    if (counter != 0) {
        LOG_INFO("Delete redundancy %u ip.", counter);
    }
}
