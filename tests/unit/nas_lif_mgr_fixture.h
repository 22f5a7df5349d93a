// What the tests of the LIF port table share: a fresh table, its entries as text, and ids by their home slot.
#pragma once

#include <cstring>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <memory>
#include <nasctrl/host/memory.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>
#include <string>
#include <vector>

namespace lif {

using Texts = std::vector<std::string>;

inline NasLifPortEntry *entryOf(void *link)
{
    return reinterpret_cast<NasLifPortEntry *>(static_cast<char *>(link) - offsetof(NasLifPortEntry, link));
}

inline std::vector<NasLifPortEntry *> entriesOf(uint64_t bucket)
{
    std::vector<NasLifPortEntry *> entries;
    list_link *head = &g_NfsLifPortInfo.buckets[bucket % 256].head;
    for (auto *link = static_cast<list_link *>(head->next); link != head; link = static_cast<list_link *>(link->next)) {
        entries.push_back(entryOf(link));
    }
    return entries;
}

inline std::string shown(const NasLifPortEntry &entry)
{
    return std::to_string(entry.id) + " #" + std::to_string(entry.index) + " @" + std::to_string(entry.time) + " " +
           entry.name + " " + entry.ip;
}

// Every port as "<id> #<index> @<time> <name> <ip>", bucket after bucket, front to back.
inline Texts table()
{
    Texts ports;
    for (uint64_t bucket = 0; bucket < 256; ++bucket) {
        for (const NasLifPortEntry *entry : entriesOf(bucket)) {
            ports.push_back(shown(*entry));
        }
    }
    return ports;
}

inline uint32_t homeSlot(uint64_t id)
{
    return static_cast<uint32_t>((id * 0x9e37fffffffc0001ULL) >> 51);
}

// The first count ids from `from` on with this home slot.
inline std::vector<uint64_t> idsAt(uint32_t home, size_t count, uint64_t from = 1)
{
    std::vector<uint64_t> ids;
    for (uint64_t id = from; ids.size() < count; ++id) {
        if (homeSlot(id) == home) {
            ids.push_back(id);
        }
    }
    return ids;
}

inline size_t usedSlots()
{
    size_t used = 0;
    for (const uint64_t id : g_NfsLifPortInfo.slots) {
        used += id != 0 ? 1 : 0;
    }
    return used;
}

class Table : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        memset(&g_NfsLifPortInfo, 0, sizeof g_NfsLifPortInfo);
        ASSERT_EQ(nas_lifport_info_init(), 0U);
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), locksLeft_); }

    // A mark in the log, and the lines after it.
    static size_t logged() { return fake::log().size(); }
    static Texts logSince(size_t start)
    {
        const Texts lines = fake::log();
        return {lines.begin() + static_cast<ptrdiff_t>(start), lines.end()};
    }

    int locksLeft_ = 0;
};

} // namespace lif
