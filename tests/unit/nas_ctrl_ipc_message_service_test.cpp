// The program puts its own functions in the place of the library's, to see what a notice calls.
#include <fake_host.h>

#include <cstring>
#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<std::string> g_actions;

void recordAction(const std::string &action)
{
    g_actions.push_back(action);
    EXPECT_EQ(fake::locksHeld(), 0) << action;
}
void recordNotice(const std::string &name, const void *notice)
{
    const std::string bytes(static_cast<const char *>(notice), 72);
    recordAction(name + (bytes == std::string(72, '\0') ? "(zero)" : "(not zero)"));
}
uint32_t recordAddress(const std::string &name, const char *addr, uint32_t source)
{
    recordAction(name + "(" + addr + ", " + std::to_string(source) + ")");
    return 1; // the result of an action is nobody's business
}

} // namespace

int32_t NotifyIpdataChange(void *notice)
{
    recordNotice("change", notice);
    return -22;
}
int32_t NotifyIpdataClear(void *notice)
{
    recordNotice("clear", notice);
    return -22;
}
uint32_t NasIpMgrAddNewIP(const char *addr, uint32_t source)
{
    return recordAddress("add", addr, source);
}
uint32_t NasIpMgrDeleteOldIP(const char *addr, uint32_t source)
{
    return recordAddress("delete", addr, source);
}

namespace {

// The bytes of a notice; texts of 256 characters leave no room for their NUL.
std::string notice(uint32_t tenantId, std::string key, std::string value)
{
    key.resize(256);
    value.resize(256);
    return std::string(reinterpret_cast<const char *>(&tenantId), sizeof tenantId) + key + value;
}

class MessageService : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        g_actions.clear();
        fake::during("kvlog", [] { EXPECT_EQ(fake::locksHeld(), 0) << fake::log().back(); });
    }

    // Hands over a message in a block of exactly its size, so that a sanitizer sees a step outside.
    static uint32_t dispatch(uint32_t opcode, const std::string &bytes)
    {
        const auto buffer = std::make_unique<char[]>(bytes.size());
        memcpy(buffer.get(), bytes.data(), bytes.size());
        svr_msg_t record = {buffer.get(), static_cast<uint32_t>(bytes.size()), 18, opcode, {}, 41, 7};
        return NasCtrlIpServiceDispatch(&record);
    }
};

TEST_F(MessageService, RegistersAsModule18)
{
    NasCtrlIpServiceInit();
    EXPECT_THAT(fake::calls(), ElementsAre("svr_regist_module(18, 1)"));
    EXPECT_EQ(fake::handlerOf(18), NasCtrlIpServiceDispatch);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(MessageService, ARefusedRegistrationIsLogged)
{
    fake::answer("svr_regist_module", {-1});
    NasCtrlIpServiceInit();
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Regist module error."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlIpServiceInit"));
}

TEST_F(MessageService, NoRecordIsRefused)
{
    EXPECT_EQ(NasCtrlIpServiceDispatch(nullptr), 1U);
    EXPECT_EQ(NasCtrlIpServiceNotifyCommand(nullptr), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Arg is NULL.", "3 PROTOCOL: Arg is NULL."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlIpServiceDispatch", "NasCtrlIpServiceNotifyCommand"));
}

TEST_F(MessageService, AnEmptyMessageIsRefused)
{
    svr_msg_t record = {nullptr, 8, 18, 2, {}, 0, 0};
    EXPECT_EQ(NasCtrlIpServiceDispatch(&record), 1U);
    char byte = 0;
    record = {&byte, 0, 18, 2, {}, 0, 0};
    EXPECT_EQ(NasCtrlIpServiceDispatch(&record), 1U);
    ASSERT_EQ(fake::log().size(), 2U);
    EXPECT_EQ(fake::log()[0], "3 PROTOCOL: Arg param is invalid! msgbuf:(nil) msgLen:8.");
    EXPECT_THAT(fake::log()[1], testing::MatchesRegex("3 PROTOCOL: Arg param is invalid! msgbuf:0x.* msgLen:0\\."));
    EXPECT_EQ(fake::replies(), 0U);
}

TEST_F(MessageService, Opcode2GetsAFixedReplyAndTheResultOfSendingIt)
{
    fake::answer("SvrSendResponse", {0, 9});
    EXPECT_EQ(dispatch(2, "x"), 0U);
    EXPECT_EQ(fake::lastReply(), std::string("\0\0\0\0\2\0\0\0", 8));
    EXPECT_EQ(dispatch(2, "x"), 9U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(MessageService, Opcode3SendsNothing)
{
    EXPECT_EQ(dispatch(3, "x"), 0U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(MessageService, AnyOtherOpcodeIsRefused)
{
    EXPECT_EQ(dispatch(0, "x"), 1U);
    EXPECT_EQ(dispatch(4, "x"), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Invalid opcode:0 moudle:18 seq:41 dir:7.",
                                         "3 PROTOCOL: Invalid opcode:4 moudle:18 seq:41 dir:7."));
    EXPECT_EQ(fake::replies(), 0U);
}

TEST_F(MessageService, ANoticeOfAnotherLengthGetsNoAnswer)
{
    const std::string whole = notice(1, "ip_add_event", "192.168.1.10");
    EXPECT_EQ(dispatch(1, whole.substr(0, 515)), 1U);
    EXPECT_EQ(dispatch(1, whole + "x"), 1U);
    svr_msg_t record = {nullptr, 516, 18, 1, {}, 0, 0};
    EXPECT_EQ(NasCtrlIpServiceNotifyCommand(&record), 1U);
    ASSERT_EQ(fake::log().size(), 3U);
    EXPECT_THAT(fake::log()[0], testing::MatchesRegex("3 PROTOCOL: Input param is invalid msgbuf:0x.* msglen:515\\."));
    EXPECT_THAT(fake::log()[1], testing::MatchesRegex("3 PROTOCOL: Input param is invalid msgbuf:0x.* msglen:517\\."));
    EXPECT_EQ(fake::log()[2], "3 PROTOCOL: Input param is invalid msgbuf:(nil) msglen:516.");
    EXPECT_EQ(fake::replies(), 0U);
    EXPECT_THAT(g_actions, IsEmpty());
}

TEST_F(MessageService, ANoticeRunsTheActionOfItsKeyAndIsEchoed)
{
    struct Row {
        const char *key;
        const char *action;
    };
    const Row rows[] = {
        {"notify_eds_change_ip", "change(zero)"},
        {"notify_eds_clear_ip", "clear(zero)"},
        {"ip_add_event", "add(192.168.1.10, 3)"},
        {"ip_del_event", "delete(192.168.1.10, 3)"},
    };
    for (const Row &row : rows) {
        SetUp();
        const std::string message = notice(12, row.key, "192.168.1.10");
        fake::answer("SvrSendResponse", {5});
        EXPECT_EQ(dispatch(1, message), 5U) << row.key;
        EXPECT_THAT(g_actions, ElementsAre(row.action)) << row.key;
        EXPECT_EQ(fake::lastReply(), message) << row.key;
        EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Print tenantId(12), key(" + std::string(row.key) +
                                             "), value(192.168.1.10), ret(0)."));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCtrlIpServiceNotifyCommand"));
        EXPECT_EQ(fake::logLines().front().file, "nas_ctrl_ipc_message_service.cpp");
        EXPECT_EQ(fake::lastSpinLock(), nullptr) << row.key;
    }
}

TEST_F(MessageService, AnUnknownKeyIsLoggedAndStillEchoed)
{
    for (const char *key : {"", "IP_ADD_EVENT", "ip_add_events", "ip_add_even"}) {
        SetUp();
        const std::string message = notice(0, key, "v");
        EXPECT_EQ(dispatch(1, message), 0U);
        EXPECT_THAT(g_actions, IsEmpty()) << key;
        EXPECT_EQ(fake::lastReply(), message) << key;
        EXPECT_THAT(fake::log(),
                    ElementsAre("4 PROTOCOL: Print tenantId(0), key(" + std::string(key) + "), value(v), ret(0).",
                                "3 PROTOCOL: Invalid key:" + std::string(key) + " value:v."));
    }
}

TEST_F(MessageService, AKeyWithoutItsNulIsShownCutAndMatchesNothing)
{
    const std::string key(256, 'k');
    const std::string message = notice(0, key, "v");
    EXPECT_EQ(dispatch(1, message), 0U);
    EXPECT_THAT(g_actions, IsEmpty());
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Print tenantId(0), key(" + key + "), value(v), ret(0).",
                                         "3 PROTOCOL: Invalid key:" + key + " value:v."));
    EXPECT_EQ(fake::lastReply(), message);
}

TEST_F(MessageService, AValueWithoutItsNulIsShownCutAndHandedOnEmpty)
{
    const std::string value(256, '1');
    const std::string message = notice(0, "ip_del_event", value);
    EXPECT_EQ(dispatch(1, message), 0U);
    EXPECT_THAT(g_actions, ElementsAre("delete(, 3)"));
    ASSERT_EQ(fake::log().size(), 1U);
    EXPECT_THAT(fake::log()[0],
                testing::StartsWith("4 PROTOCOL: Print tenantId(0), key(ip_del_event), value(" + value + "), ret("));
    EXPECT_THAT(fake::log()[0], testing::Not(testing::EndsWith("ret(0).")));
    EXPECT_EQ(fake::lastReply(), message);
}

TEST_F(MessageService, TheNoticeIsReadFromAnyAlignment)
{
    const std::string message = notice(0x01020304, "ip_add_event", "fd00::1");
    const auto buffer = std::make_unique<char[]>(message.size() + 1);
    memcpy(buffer.get() + 1, message.data(), message.size());
    svr_msg_t record = {buffer.get() + 1, 516, 18, 1, {}, 0, 0};
    EXPECT_EQ(NasCtrlIpServiceNotifyCommand(&record), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Print tenantId(16909060), key(ip_add_event), value(fd00::1), "
                                         "ret(0)."));
}

} // namespace
