// The bounds-checking library refuses copies that always fit: the process ends.
#include "ebsctrl_stub_fixture.h"

namespace {

// The move of memory, counted from now on, that is refused; 0 = none.
int g_refusedMove = 0;

} // namespace

extern "C" NASCTRL_API int _memmove_s_chk(void *dest, size_t, const void *src, size_t n, size_t, size_t)
{
    if (g_refusedMove != 0 && --g_refusedMove == 0) {
        return 400;
    }
    memmove(dest, src, n);
    return 0;
}

namespace {

class ShardCopies : public shard::View {
protected:
    void SetUp() override
    {
        View::SetUp();
        g_refusedMove = 0;
        start("1:a,2:b");
        shard::showLog();
    }

    shard_entry entry_{};
    char text_[1000] = "";
};

TEST_F(ShardCopies, OfAnEntryEndTheProcessWhenRefused)
{
    g_refusedMove = 1;
    EXPECT_EXIT(stub_getShardingInfoById(1, &entry_, nullptr, text_, sizeof text_), testing::KilledBySignal(SIGABRT),
                "^ebsctrl_stub.cpp:[0-9]+ stub_getShardingInfoById 3 PROTOCOL: Assertion \\(ret == 0\\) is "
                "failed!!!!!!!!!!!!\n$");
}

TEST_F(ShardCopies, OfAnAddressEndTheProcessWhenRefused)
{
    g_refusedMove = 2;
    EXPECT_EXIT(stub_getShardingInfoById(1, &entry_, nullptr, text_, sizeof text_), testing::KilledBySignal(SIGABRT),
                "stub_getShardingInfoById 3 PROTOCOL: Assertion");
    g_refusedMove = 1;
    EXPECT_EXIT(stub_queryAddrByLsId(1, text_, sizeof text_), testing::KilledBySignal(SIGABRT),
                "stub_queryAddrByLsId 3 PROTOCOL: Assertion");
}

TEST_F(ShardCopies, ForTheDisplayEndTheProcessWhenRefused)
{
    g_refusedMove = 2;
    EXPECT_EXIT(FspGetNodeInfo(text_, sizeof text_), testing::KilledBySignal(SIGABRT),
                "^ebsctrl_stub_migration.cpp:[0-9]+ FspGetNodeInfo 3 PROTOCOL: Assertion \\(ret == 0\\) is "
                "failed!!!!!!!!!!!!\n$");
}

} // namespace
