// The bounds-checking library refuses what it never refuses of itself, in the transitions of DPC states.
#include "nas_ctrl_dpc_tasks.h"

#include <cluster.h>
#include <events.h>
#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kRefused = 400;
bool g_refuseClear = false;
int g_refusedCopy = 0; // the how-manieth text copy from now on; 0 = none

} // namespace

extern "C" NASCTRL_API int _memset_s_chk(void *dest, size_t, int value, size_t n, size_t)
{
    if (g_refuseClear) {
        return kRefused;
    }
    memset(dest, value, n);
    return 0;
}
extern "C" NASCTRL_API int _strcpy_s_chk(char *dest, size_t, const char *src, size_t)
{
    if (g_refusedCopy != 0 && --g_refusedCopy == 0) {
        return kRefused;
    }
    strcpy(dest, src);
    return 0;
}

namespace {

class Refused : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_refuseClear = false;
        g_refusedCopy = 0;
        ASSERT_EQ(NasCtrlDpcClusterInit(), 0U);
        fake::reset();
        ls_->lsId = 7;
    }

    const std::unique_ptr<cm_ls_entry> ls_ = std::make_unique<cm_ls_entry>();
};

TEST_F(Refused, ClearingEndsATransition)
{
    const auto faulty = std::make_unique<cm_ls_entry>();
    faulty->rs = 1;
    fake::answer("CM_getLsFaultReason", {2});
    g_refuseClear = true;
    NasCtrlHandleDpcState(ls_.get(), faulty.get());
    NasCtrlHandleDpcState(faulty.get(), ls_.get());
    EXPECT_THAT(fake::notices(), IsEmpty());
    EXPECT_THAT(dpc::queuedTasks(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("class 1 PROTOCOL: DPC [ls:7] run state [0]-->[1], sessionId [0]-->[0] ",
                                         "class 3 PROTOCOL: memset_s err(400).",
                                         "class 1 PROTOCOL: DPC [ls:0] run state [1]-->[0], sessionId [0]-->[0] ",
                                         "class 3 PROTOCOL: memset_s err(400)."));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlHandleDpcState"));
}

TEST_F(Refused, ClearingEndsTheTransitionsOfMany)
{
    g_refuseClear = true;
    NasCtrlHandleDpcStateShrink(ls_.get(), 1);
    NasCtrlHandleDpcStateFault(ls_.get(), 1);
    NasCtrlHandleDpcStateRecover(ls_.get(), 1);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(),
                ElementsAre("class 1 PROTOCOL: Handle shrink (count:1).", "class 3 PROTOCOL: memset_s err(400).",
                            "class 1 PROTOCOL: [DPC_PROCESS_FAULT] Handle Fault, count:1).",
                            "class 3 PROTOCOL: memset_s err(400).",
                            "class 1 PROTOCOL: [DPC_RECOVER] handle recover count(1).",
                            "class 3 PROTOCOL: memset_s err(400)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlHandleDpcStateShrink", "NasCtrlHandleDpcStateShrink",
                                              "NasCtrlHandleDpcStateFault", "NasCtrlHandleDpcStateFault",
                                              "NasCtrlHandleDpcStateRecover", "NasCtrlHandleDpcStateRecover"));
}

TEST_F(Refused, ClearingIsAnErrorOfAScaleDown)
{
    dpc_view view = {};
    view.lsNum = 1;
    view.ls = ls_.get();
    g_refuseClear = true;
    EXPECT_EQ(ScaleDownNotifyDlgAndFmm(&view, nullptr), 400U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: (ret != RETURN_OK) is failed, return ret!!!!!!!!!!!!"));
}

TEST_F(Refused, FillingTheReportOfARemovalEndsIt)
{
    for (const int refusedCopy : {0, 1, 2}) {
        fake::reset();
        g_refuseClear = refusedCopy == 0;
        g_refusedCopy = refusedCopy;
        NasReportRemovDpcStatustoCM();
        EXPECT_THAT(fake::calls(), IsEmpty());
        EXPECT_THAT(fake::log(),
                    ElementsAre("3 PROTOCOL: DPC CM EVENT: fill Ds Business Status failed, error code(400)."));
    }
}

} // namespace
