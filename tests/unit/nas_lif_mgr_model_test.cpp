// Random sequences of operations on the LIF port table against a plain model, and many threads at once.
#include "nas_lif_mgr_fixture.h"

#include <atomic>
#include <random>
#include <thread>

namespace {

using lif::Model;
using lif::Texts;

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
            EXPECT_EQ(buffer, model.nameOf(id, "untouched"));
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
    std::vector<uint64_t> ids_ = lif::crowdedIds();
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
