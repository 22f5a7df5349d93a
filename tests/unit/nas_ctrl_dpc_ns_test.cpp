#include <fake_host.h>

#include <gmock/gmock.h>

namespace {

TEST(VersionNs, NeedsNoPreparation)
{
    fake::reset();
    EXPECT_EQ(InitNasCtrlDpcNs(), 0);
    EXPECT_THAT(fake::calls(), testing::IsEmpty());
    EXPECT_THAT(fake::log(), testing::IsEmpty());
}

} // namespace
