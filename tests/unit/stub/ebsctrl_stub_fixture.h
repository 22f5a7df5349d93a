// What the tests of the shard view share: an empty view, a start from a list of pairs, and the index as text.
#pragma once

#include <csignal>
#include <cstdio>
#include <cstring>
#include <events.h>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/shard_view.h>
#include <string>
#include <vector>

namespace shard {

using Texts = std::vector<std::string>;

constexpr const char *kConf = "/etc/view.conf";
constexpr uint32_t kNone = 0xFFFFFFFF;

inline shard_node *nodeOf(void *link)
{
    return reinterpret_cast<shard_node *>(static_cast<char *>(link) - offsetof(shard_node, bucket_link));
}

inline std::string shown(const shard_node &node)
{
    return std::to_string(node.fspId) + " on " + std::to_string(node.shardId) + " v" + std::to_string(node.version);
}

// Every node as "<bucket>: <FSP> on <shard> v<version>", bucket after bucket, in list order.
inline Texts index()
{
    Texts nodes;
    for (int bucket = 0; bucket < 8; ++bucket) {
        list_link *head = &shardViewList.buckets[bucket];
        for (auto *link = static_cast<list_link *>(head->next); link != head;
             link = static_cast<list_link *>(link->next)) {
            nodes.push_back(std::to_string(bucket) + ": " + shown(*nodeOf(link)));
        }
    }
    return nodes;
}

inline size_t freeNodes()
{
    size_t count = 0;
    list_link *head = &shardViewList.free_head;
    for (auto *link = static_cast<list_link *>(head->next); link != head; link = static_cast<list_link *>(link->next)) {
        ++count;
    }
    return count;
}

// Takes nodes until none is left.
inline void fillIndex()
{
    for (uint32_t fsp = 0; freeNodes() != 0; ++fsp) {
        FspGetShardIdByFsp(1000000 + fsp);
    }
}

// Everything is as it is at load.
inline void clearView()
{
    memset(&g_shardviewTbl, 0, sizeof g_shardviewTbl);
    memset(shard_addr_list, 0, sizeof shard_addr_list);
    memset(shardViewStatus, 0, sizeof shardViewStatus);
    memset(&shardViewList, 0, sizeof shardViewList);
    memset(static_cast<void *>(shardNodeEntry), 0, sizeof shardNodeEntry);
    g_partionNumber = 3;
    g_fmmLwtQ = nullptr;
}

inline uint32_t initView(const std::string &list, const std::string &partitions = "")
{
    fake::setConfig(kConf, "GLOBAL", "ebsserver_ip_list", list);
    if (!partitions.empty()) {
        fake::setConfig(kConf, "GLOBAL", "partition_number", partitions);
    }
    return stub_initShardView(kConf);
}

// Puts the last log line on stderr as "<file>:<line> <func> <level> <text>", for tests of a process that ends.
inline void showLog()
{
    fake::during("kvlog", [] {
        const fake::LogLine line = fake::logLines().back();
        fprintf(stderr, "%s:%u %s %s %s\n", line.file.c_str(), line.line, line.func.c_str(), line.level.c_str(),
                line.text.c_str());
    });
}

class View : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        clearView();
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), locksLeft_); }

    // A started view whose start is forgotten.
    static void start(const std::string &list, const std::string &partitions = "4096")
    {
        ASSERT_EQ(initView(list, partitions), 0U);
        logged_ = fake::log().size();
        called_ = fake::calls().size();
    }
    // The log lines, and the calls of the host, since start.
    static Texts log()
    {
        const Texts all = fake::log();
        return {all.begin() + static_cast<ptrdiff_t>(logged_), all.end()};
    }
    static Texts calls()
    {
        const Texts all = fake::calls();
        return {all.begin() + static_cast<ptrdiff_t>(called_), all.end()};
    }

    int locksLeft_ = 0;
    inline static size_t logged_ = 0;
    inline static size_t called_ = 0;
};

} // namespace shard
