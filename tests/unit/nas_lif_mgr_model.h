// The LIF port table as text, and what it should be, kept in the plainest way.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
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

// Ids that crowd a few home slots, some beside the wrap, and some that share a bucket.
inline std::vector<uint64_t> crowdedIds()
{
    std::vector<uint64_t> ids;
    for (const uint32_t home : {500U, 501U, 8190U, 8191U}) {
        const auto some = idsAt(home, 6);
        ids.insert(ids.end(), some.begin(), some.end());
    }
    for (uint64_t i = 0; i < 8; ++i) {
        ids.push_back(77 + 256 * i);
    }
    return ids;
}

// An empty table, whatever there was.
inline bool startTable()
{
    memset(&g_NfsLifPortInfo, 0, sizeof g_NfsLifPortInfo);
    return nas_lifport_info_init() == 0;
}

class Model {
public:
    // memory: whether an entry can be had.
    uint32_t add(uint64_t id, const std::string &name, const std::string &ip, uint64_t time, bool memory)
    {
        for (Port &port : buckets_[id % 256]) {
            if (port.id == id) {
                if (port.time < time) {
                    port = {id, port.index, time, cut(name, 256), cut(ip, 46)};
                }
                return port.index;
            }
        }
        const uint32_t index = claim(id);
        if (!memory) {
            return 0xFFFFFFFF;
        }
        auto &bucket = buckets_[id % 256];
        bucket.insert(bucket.begin(), {id, index, time, cut(name, 256), cut(ip, 46)});
        return index;
    }

    void remove(const std::string &ip, uint64_t time)
    {
        for (auto &bucket : buckets_) {
            for (auto port = bucket.begin(); port != bucket.end(); ++port) {
                if (port->ip == cut(ip, 46)) {
                    if (port->time <= time) {
                        release(*port);
                        bucket.erase(port);
                    }
                    return;
                }
            }
        }
    }

    void keepOnly(const Texts &ips)
    {
        for (auto &bucket : buckets_) {
            for (auto port = bucket.begin(); port != bucket.end();) {
                if (std::any_of(ips.begin(), ips.end(), [&](const auto &ip) { return cut(ip, 46) == port->ip; })) {
                    ++port;
                } else {
                    release(*port);
                    port = bucket.erase(port);
                }
            }
        }
    }

    std::string nameOf(uint64_t id, const std::string &otherwise) const
    {
        for (const Port &port : buckets_[id % 256]) {
            if (port.id == id) {
                return port.name;
            }
        }
        return otherwise;
    }

    uint32_t find(uint64_t id) const
    {
        for (uint32_t i = 0; i < 8192; ++i) {
            if (slots_[(homeSlot(id) + i) % 8192] == id) {
                return (homeSlot(id) + i) % 8192;
            }
        }
        return homeSlot(id);
    }

    Texts table() const
    {
        Texts ports;
        for (const auto &bucket : buckets_) {
            for (const Port &port : bucket) {
                ports.push_back(std::to_string(port.id) + " #" + std::to_string(port.index) + " @" +
                                std::to_string(port.time) + " " + port.name + " " + port.ip);
            }
        }
        return ports;
    }
    bool sameSlots() const { return memcmp(slots_.data(), g_NfsLifPortInfo.slots, sizeof slots_) == 0; }

private:
    struct Port {
        uint64_t id;
        uint32_t index;
        uint64_t time;
        std::string name;
        std::string ip;
    };

    static std::string cut(const std::string &text, size_t most) { return text.substr(0, most); }
    uint32_t claim(uint64_t id)
    {
        uint32_t slot = homeSlot(id);
        while (slots_[slot] != 0 && slots_[slot] != id) {
            slot = (slot + 1) % 8192;
        }
        slots_[slot] = id;
        return slot;
    }
    void release(const Port &port) { slots_[slots_[port.index] == port.id ? port.index : find(port.id)] = 0; }

    std::array<uint64_t, 8192> slots_{};
    std::array<std::vector<Port>, 256> buckets_; // the newest port of each first
};

} // namespace lif
