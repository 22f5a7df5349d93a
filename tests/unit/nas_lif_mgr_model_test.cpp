// Random sequences of operations on the LIF port table against a plain model, and many threads at once.
#include "nas_lif_mgr_fixture.h"

#include <array>
#include <atomic>
#include <deque>
#include <random>
#include <thread>

namespace {

using lif::Texts;

struct Port {
    uint64_t id;
    uint32_t index;
    uint64_t time;
    std::string name;
    std::string ip;
};

// What the table should be, kept in the plainest way.
class Model {
public:
    uint32_t add(uint64_t id, const std::string &name, const std::string &ip, uint64_t time, bool memory)
    {
        for (Port &port : buckets_[id % 256]) {
            if (port.id == id) {
                if (port.time < time) {
                    port.time = time;
                    port.name = name;
                    port.ip = ip;
                }
                return port.index;
            }
        }
        const uint32_t index = claim(id);
        if (!memory) {
            return 0xFFFFFFFF;
        }
        buckets_[id % 256].push_front({id, index, time, name, ip});
        return index;
    }

    void remove(const std::string &ip, uint64_t time)
    {
        for (auto &bucket : buckets_) {
            for (auto port = bucket.begin(); port != bucket.end(); ++port) {
                if (port->ip == ip) {
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
                if (std::find(ips.begin(), ips.end(), port->ip) != ips.end()) {
                    ++port;
                } else {
                    release(*port);
                    port = bucket.erase(port);
                }
            }
        }
    }

    std::string nameOf(uint64_t id) const
    {
        for (const Port &port : buckets_[id % 256]) {
            if (port.id == id) {
                return port.name;
            }
        }
        return "untouched";
    }

    uint32_t find(uint64_t id) const
    {
        for (uint32_t i = 0; i < 8192; ++i) {
            if (slots_[(lif::homeSlot(id) + i) % 8192] == id) {
                return (lif::homeSlot(id) + i) % 8192;
            }
        }
        return lif::homeSlot(id);
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
    uint32_t claim(uint64_t id)
    {
        uint32_t slot = lif::homeSlot(id);
        while (slots_[slot] != 0 && slots_[slot] != id) {
            slot = (slot + 1) % 8192;
        }
        slots_[slot] = id;
        return slot;
    }
    void release(const Port &port) { slots_[slots_[port.index] == port.id ? port.index : find(port.id)] = 0; }

    std::array<uint64_t, 8192> slots_{};
    std::array<std::deque<Port>, 256> buckets_;
};

// Ids that crowd a few home slots, some beside the wrap, and some that share a bucket.
std::vector<uint64_t> crowdedIds()
{
    std::vector<uint64_t> ids;
    for (const uint32_t home : {500U, 501U, 8190U, 8191U}) {
        const auto some = lif::idsAt(home, 6);
        ids.insert(ids.end(), some.begin(), some.end());
    }
    for (uint64_t i = 0; i < 8; ++i) {
        ids.push_back(77 + 256 * i);
    }
    return ids;
}

std::string address(uint64_t number)
{
    return number == 0 ? "127.0.0.1" : "10.0.0." + std::to_string(number);
}

class LifModel : public lif::Table {
protected:
    uint64_t random(uint64_t limit) { return random_() % limit; }

    void step(Model &model)
    {
        const uint64_t id = ids_[random(ids_.size())];
        const std::string ip = address(random(12));
        const std::string name = "port" + std::to_string(random(100));
        const uint64_t time = random(30);
        switch (random(8)) {
        case 0:
        case 1:
        case 2:
        case 3: {
            const bool memory = random(10) != 0;
            fake::failAllocation(memory ? 0 : 1);
            EXPECT_EQ(nas_lifport_add_update(id, name.c_str(), ip.c_str(), time),
                      model.add(id, name, ip, time, memory));
            fake::failAllocation(0);
            break;
        }
        case 4:
        case 5:
            nas_lifportid_del_update(ip.c_str(), time);
            model.remove(ip, time);
            break;
        case 6: {
            char buffer[32] = "untouched";
            EXPECT_EQ(nas_get_lifport_name(id, buffer, sizeof buffer), 0U);
            EXPECT_EQ(buffer, model.nameOf(id));
            break;
        }
        default:
            if (random(4) == 0) {
                cleanUp(model);
            }
        }
    }

    void cleanUp(Model &model)
    {
        Texts kept;
        std::vector<node_ip_entry> entries;
        for (uint64_t i = 0; i < 12; ++i) {
            if (random(3) != 0) {
                kept.push_back(address(i));
                node_ip_entry entry{};
                memcpy(entry.addr, kept.back().data(), kept.back().size());
                entries.push_back(entry);
            }
        }
        entries.emplace_back();
        DeleteRedundancyLifInfoByIpList(entries.data(), static_cast<uint32_t>(kept.size()));
        model.keepOnly(kept);
    }

    std::mt19937_64 random_;
    std::vector<uint64_t> ids_ = crowdedIds();
};

TEST_F(LifModel, AgreesWithTheTableAfterEveryOperation)
{
    for (uint64_t seed = 1; seed <= 10; ++seed) {
        SetUp();
        random_.seed(seed);
        Model model;
        for (int operation = 0; operation < 400; ++operation) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", operation " + std::to_string(operation));
            step(model);
            ASSERT_EQ(lif::table(), model.table());
            ASSERT_TRUE(model.sameSlots());
            const uint64_t id = ids_[random(ids_.size())];
            ASSERT_EQ(nas_lifportid_hashfind(id), model.find(id)) << id;
            ASSERT_EQ(fake::liveBlocks(), model.table().size() + 1);
            ASSERT_EQ(fake::locksHeld(), 0);
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST_F(LifModel, HoldsWithSeveralThreadsAtOnce)
{
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kRounds = 60;
    std::atomic<uint64_t> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            // Every second id and address is shared with the other threads.
            for (uint64_t i = 0; i < kRounds; ++i) {
                const uint64_t id = ids_[(i * (t % 2 + 1)) % ids_.size()];
                const std::string ip = address(i % 12);
                char name[32] = "";
                wrong += nas_lifport_add_update(id, "port", ip.c_str(), i) < 8192 ? 0 : 1;
                wrong += nas_lifportid_hashfind(id) < 8192 ? 0 : 1;
                wrong += nas_get_lifport_name(id, name, sizeof name);
                wrong += name[0] == '\0' || strcmp(name, "port") == 0 ? 0 : 1;
                nas_lifportid_del_update(address((i + t) % 12).c_str(), kRounds);
                if (i % 20 == 19) {
                    const node_ip_entry none{};
                    DeleteRedundancyLifInfoByIpList(&none, 0);
                }
            }
        });
    }
    for (auto &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(wrong, 0U);
    EXPECT_EQ(lif::usedSlots(), lif::table().size());
    const node_ip_entry none{};
    DeleteRedundancyLifInfoByIpList(&none, 0);
    EXPECT_EQ(lif::usedSlots(), 0U);
    EXPECT_EQ(fake::liveBlocks(), 1U);
}

} // namespace
