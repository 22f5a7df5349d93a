#include <fake_host.h>

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SpecificationValue : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }
};

TEST_F(SpecificationValue, IsReadFromAnySectionAndKey)
{
    uint64_t value = 0;
    fake::setConfig("dpc.conf", "LIMITS", "max_open", "18446744073709551615");
    EXPECT_EQ(NasSysCtrlGetSpecificationConfigValue("LIMITS", "max_open", &value), 0U);
    EXPECT_EQ(value, ~uint64_t{0});
    EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_getItemValue("LIMITS", "max_open", 21))"));
    EXPECT_THAT(
        fake::log(),
        ElementsAre("class 1 PROTOCOL: Get spec section:LIMITS config:max_open value:18446744073709551615 success."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSysCtrlGetSpecificationConfigValue"));
}

TEST_F(SpecificationValue, ThatIsMissingGivesTheReadersCodeSilently)
{
    uint64_t value = 5;
    fake::answer("kvos_cfg_getItemValue", {-17});
    EXPECT_EQ(NasSysCtrlGetSpecificationConfigValue("LIMITS", "max_open", &value), static_cast<uint32_t>(-17));
    EXPECT_EQ(value, 5U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(SpecificationValue, IsNotAskedForWithoutAllArguments)
{
    uint64_t value = 5;
    EXPECT_EQ(NasSysCtrlGetSpecificationConfigValue(nullptr, "k", &value), 1U);
    EXPECT_EQ(NasSysCtrlGetSpecificationConfigValue("s", nullptr, &value), 1U);
    EXPECT_EQ(NasSysCtrlGetSpecificationConfigValue("s", "k", nullptr), 1U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: section is NULL, return NAS_ERROR(1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: key is NULL, return NAS_ERROR(1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: out is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

} // namespace
