// The synchronous call to the storage-side service, and the two handlers of HDFS address notices.
#include <cstring>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/ipc.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Texts = std::vector<std::string>;

const std::string kCallLine = "class 0 PROTOCOL: Msg call type(15), sid(6), module(18).";

class MessageCall : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { nas_mem_comm_free(response_, "test", 0); }

    int32_t call() { return NasCtrlMsgCallSync(15, "query", 5, &response_, &length_); }

    void *response_ = nullptr;
    uint32_t length_ = 0;
};

TEST_F(MessageCall, FillsEveryFieldOfTheRecord)
{
    fake::answer("IpcGetLocalNid", {77});
    fake::answerUpcall(0, "answer");
    ASSERT_EQ(call(), 0);

    ASSERT_EQ(fake::upcalls().size(), 1U);
    svr_call_t record = fake::upcalls()[0].record;
    EXPECT_EQ(fake::upcalls()[0].request, "query");
    record.request = nullptr;
    const uint32_t expected[26] = {0, 0, 5, 18, 15, 10, 0, 6, 0, 0, 9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 77, 0};
    static_assert(sizeof expected == sizeof record);
    EXPECT_EQ(memcmp(&record, expected, sizeof record), 0);
}

TEST_F(MessageCall, MayCarryNoRequest)
{
    fake::answerUpcall(0, "answer");
    EXPECT_EQ(NasCtrlMsgCallSync(15, nullptr, 0, &response_, &length_), 0);
    ASSERT_EQ(fake::upcalls().size(), 1U);
    EXPECT_EQ(fake::upcalls()[0].record.request, nullptr);
    EXPECT_EQ(fake::upcalls()[0].record.length, 0U);
    EXPECT_EQ(std::string(static_cast<char *>(response_), length_), "answer");
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine));
}

TEST_F(MessageCall, HandsTheAnswerOutAndLogsTheCall)
{
    fake::answerUpcall(0, "answer");
    ASSERT_EQ(call(), 0);
    EXPECT_EQ(std::string(static_cast<char *>(response_), length_), "answer");
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlMsgCallSync"));
    EXPECT_EQ(fake::logLines()[0].file, "nas_ctrl_ipc.cpp");
}

TEST_F(MessageCall, IsTriedAgainAfterATimeOutWithoutASleep)
{
    fake::answer("svr_upcall_sync", {-110, -110, 0});
    fake::answerUpcall(0, "late");
    EXPECT_EQ(call(), 0);
    EXPECT_EQ(std::string(static_cast<char *>(response_), length_), "late");
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine, "3 PROTOCOL: Msg type(15) upcall failed(-110), try 1 times.",
                                         "3 PROTOCOL: Msg type(15) upcall failed(-110), try 2 times."));
    EXPECT_THAT(fake::calls(), ElementsAre("IpcGetLocalNid()", "svr_upcall_sync(15, 5, 6)", "svr_upcall_sync(15, 5, 6)",
                                           "svr_upcall_sync(15, 5, 6)"));
}

TEST_F(MessageCall, GivesUpAfterTheThirdTimeOut)
{
    fake::answerAlways("svr_upcall_sync", -110);
    EXPECT_EQ(call(), -110);
    EXPECT_EQ(fake::upcalls().size(), 3U);
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine, "3 PROTOCOL: Msg type(15) upcall failed(-110), try 1 times.",
                                         "3 PROTOCOL: Msg type(15) upcall failed(-110), try 2 times.",
                                         "3 PROTOCOL: Msg type(15) upcall failed(-110), try 3 times."));
}

TEST_F(MessageCall, ReturnsEveryOtherErrorAtOnce)
{
    for (const int64_t code : {-111, -12, -1, 1, 110}) {
        fake::reset();
        fake::answer("svr_upcall_sync", {code, 0});
        EXPECT_EQ(call(), code);
        EXPECT_EQ(fake::upcalls().size(), 1U) << code;
        EXPECT_THAT(fake::log(), ElementsAre(kCallLine)) << code;
    }
}

TEST_F(MessageCall, ReturnsAnErrorThatFollowsATimeOut)
{
    fake::answer("svr_upcall_sync", {-110, -5});
    EXPECT_EQ(call(), -5);
    EXPECT_EQ(fake::upcalls().size(), 2U);
}

TEST_F(MessageCall, RefusesNullArguments)
{
    EXPECT_EQ(NasCtrlMsgCallSync(1, nullptr, 4, &response_, &length_), -22);
    EXPECT_EQ(NasCtrlMsgCallSync(1, "", 0, nullptr, &length_), -22);
    EXPECT_EQ(NasCtrlMsgCallSync(1, "", 0, &response_, nullptr), -22);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: request is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: response is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: responseLength is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::calls(), IsEmpty());
}

std::vector<void *> g_first;
std::vector<void *> g_second;

void firstHandler(void *arg)
{
    g_first.push_back(arg);
}
void secondHandler(void *arg)
{
    g_second.push_back(arg);
}

std::string lowHalf(hdfs_ips_handler handler)
{
    char text[16];
    snprintf(text, sizeof text, "%x", static_cast<unsigned>(reinterpret_cast<uintptr_t>(handler)));
    return text;
}

class HdfsHandlers : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_hdfsGetIpsHandler[0] = nullptr;
        g_hdfsGetIpsHandler[1] = nullptr;
        g_first.clear();
        g_second.clear();
    }
};

TEST_F(HdfsHandlers, AreStoredByOpcode)
{
    HdfsGetIpsHandlerRegister(0, firstHandler);
    HdfsGetIpsHandlerRegister(1, secondHandler);
    EXPECT_EQ(g_hdfsGetIpsHandler[0], firstHandler);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], secondHandler);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: register success, opcode 0",
                                         "4 PROTOCOL: HDFS_GET_IP: register success, opcode 1"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("HdfsGetIpsHandlerRegister", "HdfsGetIpsHandlerRegister"));
}

TEST_F(HdfsHandlers, AreReplacedByALaterRegistration)
{
    HdfsGetIpsHandlerRegister(1, firstHandler);
    fake::reset();
    HdfsGetIpsHandlerRegister(1, secondHandler);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], secondHandler);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: register opcode 1, addr:" + lowHalf(firstHandler),
                                         "4 PROTOCOL: HDFS_GET_IP: register success, opcode 1"));
}

TEST_F(HdfsHandlers, OfAnUnknownOpcodeOrNullAreIgnored)
{
    g_hdfsGetIpsHandler[0] = secondHandler;
    HdfsGetIpsHandlerRegister(2, firstHandler);
    HdfsGetIpsHandlerRegister(4294967295U, firstHandler);
    HdfsGetIpsHandlerRegister(0, nullptr);
    EXPECT_EQ(g_hdfsGetIpsHandler[0], secondHandler);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], nullptr);
    char handler[32];
    snprintf(handler, sizeof handler, "%p", reinterpret_cast<void *>(firstHandler));
    EXPECT_THAT(fake::log(),
                ElementsAre("4 PROTOCOL: HDFS_GET_IP: invalid opcode 2 func " + std::string(handler),
                            "4 PROTOCOL: HDFS_GET_IP: invalid opcode 4294967295 func " + std::string(handler),
                            "4 PROTOCOL: HDFS_GET_IP: invalid opcode 0 func (nil)"));
}

TEST_F(HdfsHandlers, AreClearedByOpcode)
{
    HdfsGetIpsHandlerRegister(0, firstHandler);
    HdfsGetIpsHandlerRegister(1, firstHandler);
    fake::reset();
    HdfsGetIpsHandlerUnregister(1);
    HdfsGetIpsHandlerUnregister(2);
    EXPECT_EQ(g_hdfsGetIpsHandler[0], firstHandler);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: unregister success, opcode 1",
                                         "4 PROTOCOL: HDFS_GET_IP: invalid opcode 2 func"));
}

TEST_F(HdfsHandlers, AreTheLibrarysOwnAfterItsRegistration)
{
    EXPECT_EQ(HdfsGetIpRegister(), 0);
    EXPECT_EQ(g_hdfsGetIpsHandler[0], HdfsNotifyChangeCache);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], HdfsNotifyClearCache);
    EXPECT_EQ(HdfsGetIpUnregister(), 0);
    EXPECT_EQ(g_hdfsGetIpsHandler[0], nullptr);
    EXPECT_EQ(g_hdfsGetIpsHandler[1], nullptr);
}

TEST_F(HdfsHandlers, OfTheLibraryOnlyLog)
{
    HdfsNotifyChangeCache(nullptr);
    HdfsNotifyClearCache(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: HdfsNotifyChangeCache",
                                         "4 PROTOCOL: HDFS_GET_IP: HdfsNotifyClearCache"));
}

TEST_F(HdfsHandlers, AreCalledWithTheNotice)
{
    int notice = 0;
    HdfsGetIpsHandlerRegister(0, firstHandler);
    HdfsGetIpsHandlerRegister(1, secondHandler);
    fake::reset();
    EXPECT_EQ(NotifyIpdataChange(&notice), 0);
    EXPECT_THAT(g_first, ElementsAre(&notice));
    EXPECT_THAT(g_second, IsEmpty());
    EXPECT_EQ(NotifyIpdataClear(nullptr), 0);
    EXPECT_THAT(g_second, ElementsAre(nullptr));
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: NotifyIpdataChange func in",
                                         "4 PROTOCOL: HDFS_GET_IP: NotifyIpdataChange notify success",
                                         "4 PROTOCOL: HDFS_GET_IP: NotifyIpdataClear func in",
                                         "4 PROTOCOL: HDFS_GET_IP: NotifyIpdataClear notify success"));
}

TEST_F(HdfsHandlers, AreMissedByANoticeWithoutOne)
{
    HdfsGetIpRegister();
    HdfsGetIpUnregister();
    fake::reset();
    EXPECT_EQ(NotifyIpdataChange(nullptr), -22);
    EXPECT_EQ(NotifyIpdataClear(nullptr), -22);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: HDFS_GET_IP: NotifyIpdataChange func in",
                                         "3 PROTOCOL: handler is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "4 PROTOCOL: HDFS_GET_IP: NotifyIpdataClear func in",
                                         "3 PROTOCOL: handler is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(),
                ElementsAre("NotifyIpdataChange", "NotifyIpdataChange", "NotifyIpdataClear", "NotifyIpdataClear"));
}

} // namespace
