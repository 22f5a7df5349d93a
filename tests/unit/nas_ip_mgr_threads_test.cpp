// Producers, the real handler and monitor threads and their addition threads at once; meant for the thread sanitizer,
// and exact about the list that they leave behind.
#include "nas_ip_mgr_fixture.h"

#include <atomic>
#include <condition_variable>
#include <thread>

using ip::listed;

namespace {

constexpr int kProducers = 4;
constexpr size_t kAddressesEach = 40;
constexpr int kPassesWhileProducing = 8;

// Ends the two endless threads: the handler once it has been idle twice since the producers were done (its queue was
// looked at after the last of them), the monitor after its first pass since then. Until then the monitor makes a few
// passes and waits.
class Finish {
public:
    void producersDone()
    {
        const std::lock_guard guard(mutex_);
        done_ = true;
        changed_.notify_all();
    }
    void handlerSleeps()
    {
        std::unique_lock guard(mutex_);
        if (done_ && ++idle_ == 2) {
            throw fake::Stop{};
        }
        guard.unlock();
        std::this_thread::yield();
    }
    void monitorSleeps()
    {
        std::unique_lock guard(mutex_);
        if (++passes_ >= kPassesWhileProducing) {
            changed_.wait(guard, [this] { return done_; });
        }
        if (done_) {
            throw fake::Stop{};
        }
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    int idle_ = 0;
    int passes_ = 0;
};

// Refuses every address once.
std::mutex s_refusedMutex;
std::vector<std::string> s_refused;
uint32_t refuseOnce(uint32_t event, const char *addr, uint32_t)
{
    const std::lock_guard guard(s_refusedMutex);
    const bool known = std::find(s_refused.begin(), s_refused.end(), addr) != s_refused.end();
    if (event == NAS_IP_EVENT_ADD && !known) {
        s_refused.emplace_back(addr);
        return 1;
    }
    return 0;
}

void produce(int producer)
{
    const auto added = ip::addresses(kAddressesEach, producer);
    const auto deleted = ip::addresses(kAddressesEach, 100 + producer);
    for (size_t i = 0; i < kAddressesEach; ++i) {
        EXPECT_EQ(NasIpMgrAddNewIP(added[i].c_str(), 3), 0U);
        EXPECT_EQ(NasIpMgrDeleteOldIP(deleted[i].c_str(), 3), 0U);
        EXPECT_EQ(NasIpMgrAddNewNotifyEvent(static_cast<uint32_t>(producer), 1), 0U);
    }
}

void lookOn()
{
    char text[256];
    for (size_t i = 0; i < kAddressesEach; ++i) {
        NasIpMgrShowAllIp(text, sizeof text);
        NasIpMgrIsIpPresent("10.0.0.1");
        NasIpMgrSetIpQueryPeriod("30");
        NasIpMgrGetIpQueryPeriod(text, sizeof text);
        NasIpMgrRegisterIpEvent(1, ip::kHooks[1]);
    }
}

using IpThreads = ip::IpManager;

TEST_F(IpThreads, LeaveExactlyTheNodesAddressesBehind)
{
    Finish finish;
    ip::Texts node;
    for (int producer = 0; producer < kProducers; ++producer) {
        const auto added = ip::addresses(kAddressesEach, producer);
        node.insert(node.end(), added.begin(), added.end());
        for (const auto &addr : ip::addresses(kAddressesEach, 100 + producer)) {
            NasIpMgrAddToList(addr.c_str(), 3, NAS_IP_ALL_NOTIFIED);
        }
    }
    s_refused.clear();
    g_pIpEventCallBacks[0] = refuseOnce;
    fake::setNodeIps(ip::onNode(node));
    fake::during("kvos_msleep", [&] { finish.handlerSleeps(); });
    fake::during("kvos_10msleep", [&] { finish.monitorSleeps(); });
    fake::setThreads(fake::Threads::real);
    ASSERT_EQ(NasIpMgrInitModule(nullptr), 0);

    std::vector<std::thread> threads;
    for (int producer = 0; producer < kProducers; ++producer) {
        threads.emplace_back(produce, producer);
    }
    threads.emplace_back(lookOn);
    for (auto &thread : threads) {
        thread.join();
    }
    finish.producersDone();
    fake::joinThreads();
    NasRetryPendingAddNotification();

    EXPECT_EQ(ip::sorted(listed()), ip::sorted(ip::withEnding(node, " 3 63")));
    EXPECT_EQ(fake::liveBlocks(), node.size());
    EXPECT_EQ(ip::completions(), 0);
}

} // namespace
