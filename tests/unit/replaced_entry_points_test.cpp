// A host that defines an entry point of the library itself: the library calls the host's.
#include <fake_host.h>

#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

int g_executed = 0;
int32_t g_nsResult = 0;

} // namespace

uint32_t HdfsCtrlGetTenantId(void)
{
    return 33;
}
uint32_t nas_ctrl_cluster_init(void)
{
    return 5;
}
void NasCtrlExecuteDpcEventTask(void)
{
    ++g_executed;
}
int32_t InitNasCtrlDpcNs(void)
{
    return g_nsResult;
}
uint32_t getDpcLsID(void)
{
    return 55;
}
uint32_t nas_ctrl_get_cluster_list(uint64_t *out, uint16_t *n)
{
    out[0] = 9;
    *n = 1;
    return 0xFFFFFFF9U;
}

namespace {

class Replaced : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_executed = 0;
        g_nsResult = 0;
    }
};

TEST_F(Replaced, TenantIdAnswersOpcode3)
{
    char byte = 0;
    svr_msg_t record = {&byte, 1, 18, 3, {}, 0, 0};
    EXPECT_EQ(NasCtrlIpServiceDispatch(&record), 33U);
}

TEST_F(Replaced, ClusterInitLoadsTheServersFile)
{
    EXPECT_EQ(extern_stub_init(), 1U);
    EXPECT_THAT(fake::calls("ProtoCfgLoadFile"), testing::IsEmpty());
}

TEST_F(Replaced, DpcLsIdIsTheLocalLsId)
{
    EXPECT_EQ(getLocalLsID(), 55U);
    EXPECT_THAT(fake::calls(), testing::IsEmpty());
}

TEST_F(Replaced, ClusterListThatFailsIsLoggedAndPrintsNothing)
{
    char text[64] = "unset";
    EXPECT_EQ(nas_ctrl_get_cluster_count_list(text, sizeof text), 1);
    EXPECT_STREQ(text, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: getting cluster list failed: -7."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_ctrl_get_cluster_count_list"));
}

TEST_F(Replaced, TaskExecutorRunsOnTheTaskThread)
{
    fake::during("kvlwt_task_sleep", [] { throw fake::Stop{}; });
    EXPECT_TRUE(fake::runUntilStopped([] { NasCtrlDpcEventTaskThread(nullptr); }));
    EXPECT_EQ(g_executed, 1);
}

TEST_F(Replaced, NameServiceThatFailsDoesNotFailTheStart)
{
    g_nsResult = -6;
    fake::setConfig("dpc.conf", "GLOBAL", "cm_ip_list", "10.1.0.1:1");
    fake::setConfig("dpc.conf", "OSK_MID_DPC", "dpc_data_ip", "eth0:10.0.0.1");
    EXPECT_EQ(NasCtrlClusterInit(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: NASCTRL_DPC: init ns failed(-6)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlClusterInit"));
}

} // namespace
