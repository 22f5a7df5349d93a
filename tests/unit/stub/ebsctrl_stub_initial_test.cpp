// The shard view's objects as they are at load.
#include <cstring>
#include <fake_host.h>
#include <gtest/gtest.h>
#include <nasctrl/shard_view.h>
#include <vector>

namespace {

template <typename Object>
bool allZero(const Object &object)
{
    const std::vector<char> zeros(sizeof object);
    return memcmp(&object, zeros.data(), sizeof object) == 0;
}

TEST(ShardViewAtLoad, IsZeroButForThePathAndThePartitions)
{
    EXPECT_TRUE(allZero(g_shardviewTbl));
    EXPECT_TRUE(allZero(shard_addr_list));
    EXPECT_TRUE(allZero(shardViewStatus));
    EXPECT_TRUE(allZero(shardViewList));
    EXPECT_TRUE(allZero(shardNodeEntry));
    EXPECT_EQ(g_fmmLwtQ, nullptr);
    EXPECT_EQ(fmm_get_lwt_queue(), nullptr);
    EXPECT_STREQ(g_confPath, "/opt/marovesta/brisqueta/conf/dpc.conf");
    EXPECT_EQ(g_partionNumber, 3U);
    EXPECT_EQ(stub_GetPartionNumber(), 3U);
}

} // namespace
