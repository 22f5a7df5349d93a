// The bounds-checking library refuses what it never refuses of itself: the failures of copies that always fit.
#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;

namespace {

constexpr int kRefused = 400;
bool g_refuseClear = false;
bool g_refuseCopy = false;

} // namespace

extern "C" NASCTRL_API int _memset_s_chk(void *dest, size_t, int value, size_t n, size_t)
{
    if (g_refuseClear) {
        return kRefused;
    }
    memset(dest, value, n);
    return 0;
}
extern "C" NASCTRL_API int _strncpy_s_chk(char *dest, size_t size, const char *src, size_t n, size_t, size_t)
{
    const size_t length = strnlen(src, n);
    if (g_refuseCopy || length >= size) {
        return kRefused;
    }
    memcpy(dest, src, length);
    dest[length] = '\0';
    return 0;
}

namespace {

class Refused : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_refuseClear = false;
        g_refuseCopy = false;
    }
};

TEST_F(Refused, ClearingEndsTheRegistrationOfModule3)
{
    g_refuseClear = true;
    EXPECT_EQ(nas_ctrl_handler_reg(), -22);
    EXPECT_EQ(fake::handlerOf(3), nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: memset failed."));
}

TEST_F(Refused, ClearingDoesNotEndTheRegistrationOfModule18)
{
    g_refuseClear = true;
    NasCtrlIpServiceInit();
    EXPECT_THAT(fake::calls(), ElementsAre("svr_regist_module(18, 1)"));
    EXPECT_EQ(fake::handlerOf(18), NasCtrlIpServiceDispatch);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memset moudule_info failed."));
}

TEST_F(Refused, CopyingFailsTheAddressLookup)
{
    char out[64] = "unset";
    const auto ls = std::make_unique<cm_ls_entry>();
    for (cm_attr &attr : ls->attrs) {
        strcpy(attr.name, "data_ip");
        strcpy(attr.value, "10.0.0.1");
    }
    g_refuseCopy = true;
    EXPECT_EQ(NasCtrlGetAddrFromCmLs(ls.get(), out, "data_ip"), 0xFFFFFFFFU);
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: The address could not be copied :400."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlGetAddrFromCmLs"));
}

} // namespace
