// The bounds-checking library refuses what it never refuses of itself, from the nth call on.
#include "vpc_fixture.h"

using testing::ElementsAre;
using vpc::put;

namespace {

constexpr int kRefused = 400;
int g_clearsLeft = -1; // until one is refused; below 0 none is
int g_copiesLeft = -1;

bool refuses(int &left)
{
    return left >= 0 && left-- == 0;
}

} // namespace

extern "C" NASCTRL_API int _memset_s_chk(void *dest, size_t, int value, size_t n, size_t)
{
    if (refuses(g_clearsLeft)) {
        return kRefused;
    }
    memset(dest, value, n);
    return 0;
}
extern "C" NASCTRL_API int _memcpy_s_chk(void *dest, size_t, const void *src, size_t n, size_t, size_t)
{
    if (refuses(g_copiesLeft)) {
        return kRefused;
    }
    memcpy(dest, src, n);
    return 0;
}

namespace {

class VpcRefused : public vpc::Table {
protected:
    void SetUp() override
    {
        vpc::Table::SetUp();
        g_clearsLeft = g_copiesLeft = -1;
    }
};

TEST_F(VpcRefused, ClearingASlotEndsTheAddition)
{
    g_clearsLeft = 0;
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), 0xFFFFFFFFU);
    EXPECT_THAT(vpc::table(), testing::IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memset_s failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSetVpcInfo"));
}

TEST_F(VpcRefused, CopyingAddressOrIdEndsTheAdditionAndLeavesTheSlotZeroed)
{
    for (const int nth : {0, 1}) {
        SetUp();
        g_copiesLeft = nth;
        EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), 0xFFFFFFFFU) << nth;
        EXPECT_TRUE(vpc::isZero(g_vpc[0])) << nth;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memcpy failed.")) << nth;
    }
}

TEST_F(VpcRefused, CopyingTheAnswerFailsTheLookUpWithItsCode)
{
    put(0, "a", "10.0.0.0", 8);
    g_copiesLeft = 0;
    EXPECT_EQ(vpc::lookUp("10.1.1.1"), "result 400");
    g_copiesLeft = 0;
    EXPECT_EQ(vpc::lookUp("11.1.1.1"), "result 400");
}

TEST_F(VpcRefused, ClearingTheTableFailsWithItsCode)
{
    put(0, "a", "10.0.0.0", 8);
    g_clearsLeft = 0;
    EXPECT_EQ(NasClearVpcInfo(), 400);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8"));
}

TEST_F(VpcRefused, EitherCopyFailsTheCopyOfARecord)
{
    const vpc_record source = {};
    vpc_record target = {};
    for (const int nth : {0, 1}) {
        fake::reset();
        g_copiesLeft = nth;
        EXPECT_EQ(NasCopyVpc(&target, &source), 0xFFFFFFFFU) << nth;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memcpy failed.")) << nth;
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCopyVpc")) << nth;
    }
}

TEST_F(VpcRefused, ClearingTheSpareRecordEndsTheSortWhereItIs)
{
    put(0, "c", "10.0.0.0", 8);
    put(1, "b", "10.0.0.0", 8);
    put(2, "a", "10.0.0.0", 8);
    g_clearsLeft = 1; // of the second swap
    NasSortVpc();
    EXPECT_THAT(vpc::table(), ElementsAre("b 10.0.0.0/8", "c 10.0.0.0/8", "a 10.0.0.0/8"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memset failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSortVpc"));
}

TEST_F(VpcRefused, ACopyThatFailsEndsTheSort)
{
    put(0, "b", "10.0.0.0", 8);
    put(1, "a", "10.0.0.0", 8);
    g_copiesLeft = 0;
    NasSortVpc();
    EXPECT_THAT(vpc::table(), ElementsAre("b 10.0.0.0/8", "a 10.0.0.0/8"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memcpy failed."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCopyVpc"));
}

} // namespace
