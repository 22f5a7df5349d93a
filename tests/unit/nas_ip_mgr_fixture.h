// What the tests of the IP manager share: a fresh list, hooks that record who was told what, and the held addition
// threads run one after the other at the moment when their starter waits for them.
#pragma once

#include "nas_ip_mgr_faults.h"
#include <algorithm>
#include <array>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <mutex>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace ip {

using Texts = std::vector<std::string>;

// Every record as "<address> <protocol type> <status>", first to last.
inline Texts listed()
{
    Texts records;
    for (auto *link = static_cast<list_link *>(g_iplistHead.next); link != &g_iplistHead;
         link = static_cast<list_link *>(link->next)) {
        const auto *record = reinterpret_cast<const NasIpListNode *>(link);
        records.push_back(std::string(record->addr) + " " + std::to_string(record->protoType) + " " +
                          std::to_string(record->status));
    }
    return records;
}

// The lines of the log that begin like this.
inline Texts logStarting(const std::string &beginning)
{
    Texts lines = fake::log();
    std::erase_if(lines, [&](const std::string &line) { return line.compare(0, beginning.size(), beginning) != 0; });
    return lines;
}

inline bool isFree(pthread_mutex_t *mutex)
{
    const bool free = pthread_mutex_trylock(mutex) == 0;
    if (free) {
        pthread_mutex_unlock(mutex);
    }
    return free;
}

inline int completions()
{
    int value = 0;
    sem_getvalue(&g_SockIpSem, &value);
    return value;
}

// count addresses from 10.<net>.0.1 on.
inline Texts addresses(size_t count, int net = 0)
{
    Texts texts;
    for (size_t i = 1; i <= count; ++i) {
        texts.push_back("10." + std::to_string(net) + ".0." + std::to_string(i));
    }
    return texts;
}

inline std::vector<fake::Address> onNode(const Texts &addrs, uint32_t protoType = 3)
{
    std::vector<fake::Address> node;
    for (const auto &addr : addrs) {
        node.push_back({protoType, addr});
    }
    return node;
}

inline Texts withEnding(Texts texts, const std::string &ending)
{
    for (auto &text : texts) {
        text += ending;
    }
    return texts;
}

// Fills a record's bytes from one offset up to another, padding included, so that no NUL is left between them.
inline void fillUpTo(void *record, size_t from, size_t to, char byte)
{
    std::fill(static_cast<char *>(record) + from, static_cast<char *>(record) + to, byte);
}

inline Texts sorted(Texts texts)
{
    std::sort(texts.begin(), texts.end());
    return texts;
}

// ---- hooks: each answers its module's result, and what it was told is kept as "<module> <event> <address> <family>"

struct Hooks {
    std::mutex mutex;
    Texts told;
    std::array<uint32_t, NAS_IP_MODULES> results{};
    std::function<void()> during;
};

inline Hooks &hooks()
{
    static Hooks instance;
    return instance;
}

template <uint32_t Module>
uint32_t hook(uint32_t event, const char *addr, uint32_t family)
{
    if (hooks().during) {
        hooks().during();
    }
    const std::lock_guard guard(hooks().mutex);
    hooks().told.push_back(std::to_string(Module) + " " + std::to_string(event) + " " + addr + " " +
                           std::to_string(family));
    return hooks().results[Module];
}

inline constexpr std::array<ip_event_hook, NAS_IP_MODULES> kHooks = {hook<0>, hook<1>, hook<2>,
                                                                     hook<3>, hook<4>, hook<5>};

// Puts a hook into a slot without the line of a registration, and says what it answers.
inline void setHook(uint32_t module, uint32_t result = 0)
{
    g_pIpEventCallBacks[module] = kHooks[module];
    hooks().results[module] = result;
}

class IpManager : public ::testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        faults::reset();
        forgetRecords();
        lifPorts_ = 0;
        g_floatIpSupport = 1;
        g_periodLength = 60;
        g_setPeriodNotifyFunc = nullptr;
        g_needRetry = 0;
        g_ipLastQueryTime = 0;
        g_ipChangeTime = 0;
        g_nasipMgrInitied = 0;
        sem_init(&g_SockIpSem, 0, 0);
        hooks().told.clear();
        hooks().results.fill(0);
        hooks().during = nullptr;
        std::fill(std::begin(g_pIpEventCallBacks), std::end(g_pIpEventCallBacks), nullptr);
    }

    void TearDown() override
    {
        fake::joinThreads();
        expectNothingHeld();
        forgetRecords();
        fake::reset();
    }

    // The records of an earlier test were blocks of an earlier pool.
    static void forgetRecords()
    {
        g_iplistHead = {&g_iplistHead, &g_iplistHead};
        g_NfsLifPortInfo.buckets = nullptr;
    }

    // A LIF port, which its table allocates under the table's spin lock.
    void addLifPort(uint64_t id, const char *addr)
    {
        ++lifPorts_;
        nas_lifport_add_update(id, "port", addr, 1);
    }

    void expectNothingHeld() const
    {
        EXPECT_EQ(fake::locksHeld(), 0);
        EXPECT_TRUE(isFree(&g_ipListMutex));
        EXPECT_TRUE(isFree(&g_ipSockIpLockMutex));
        EXPECT_EQ(fake::callsUnderSpinLock(), Texts(lifPorts_, "nas_mem_comm_alloc"));
    }

    // Starts the module with both of its threads held, and empty queues.
    static void start()
    {
        g_nasipMgrInitied = 0;
        NasIpMgrInitModule(nullptr);
        g_needRetry = 0;
    }

    // From now on a starter that waits finds the threads held so far run to their ends.
    static void runHeldThreadsAtWaits()
    {
        faults::duringWait([next = fake::heldThreads()]() mutable {
            while (next < fake::heldThreads()) {
                fake::runThread(next++);
            }
        });
    }

    // The event handler thread, until it has slept so many times.
    static bool runHandler(int sleeps = 1)
    {
        fake::during("kvos_msleep", [&] {
            if (--sleeps == 0) {
                throw fake::Stop{};
            }
        });
        return fake::runUntilStopped([] { NasIpMgrIpEventHandle(nullptr); });
    }

private:
    size_t lifPorts_ = 0;
};

} // namespace ip
