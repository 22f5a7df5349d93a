#include "fake_library.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/power.h>
#include <node.h>
#include <power.h>
#include <root.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;

TEST(Node, KnowsItsIdentity)
{
    host::setNodeIdentity({9, "/srv/node9", "1.0.0"});
    EXPECT_EQ(host::nodeIdentity().id, 9U);
    EXPECT_EQ(host::nodeIdentity().root, "/srv/node9");
    EXPECT_EQ(host::nodeIdentity().version, "1.0.0");
}

TEST(Node, KeepsTheStepsOfItsStartInOrder)
{
    const size_t before = host::startSteps().size();
    host::recordStartStep("b", 0);
    host::recordStartStep("a", -22);
    const std::vector<host::StartStep> steps = host::startSteps();
    ASSERT_EQ(steps.size(), before + 2);
    EXPECT_EQ(steps[before].name, "b");
    EXPECT_EQ(steps[before].result, 0);
    EXPECT_EQ(steps[before + 1].name, "a");
    EXPECT_EQ(steps[before + 1].result, -22);
}

class Power : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        fake::listAddress("127.0.0.1", 3, 63);
        fake::listAddress("127.0.0.2", 3, 59);
    }
    static uint32_t statusOf(size_t position)
    {
        const void *link = g_iplistHead.next;
        for (; position > 0; --position) {
            link = static_cast<const list_link *>(link)->next;
        }
        return static_cast<const NasIpListNode *>(link)->status;
    }
};

TEST_F(Power, OpensTheDoorWhenTheServiceIsSwitchedOn)
{
    host::shutServiceDoor();
    EXPECT_EQ(host::registerPower(), 0);
    EXPECT_EQ(g_floatIpSupport, 0U);
    EXPECT_EQ(g_nas_power_mgr.start(nullptr, nullptr), 0);
    EXPECT_EQ(g_floatIpSupport, 1U);
}

TEST_F(Power, AnnouncesWaitingAddressesOnceTheDoorIsOpenAndReportsThatTheServiceIsUp)
{
    host::registerPower();
    g_nas_power_mgr.start(nullptr, nullptr);
    EXPECT_THAT(fake::library().calls,
                ElementsAre("nas_ctrl_power_reg()", "NasRetryPendingAddNotification() with door 1",
                            "nas_ctrl_power_on_success()"));
}

TEST_F(Power, HasTheModulesCloseEveryAddressBeforeTheDoorIsShut)
{
    host::registerPower();
    g_nas_power_mgr.start(nullptr, nullptr);
    fake::library().calls.clear();
    EXPECT_EQ(g_nas_power_mgr.stop(nullptr, nullptr), 0);
    EXPECT_THAT(fake::library().calls, ElementsAre("NasIpMgrInvokeEvent(1, 127.0.0.1, 3, 0) with door 1",
                                                   "NasIpMgrInvokeEvent(1, 127.0.0.2, 3, 0) with door 1"));
    EXPECT_EQ(g_floatIpSupport, 0U);
}

TEST_F(Power, KeepsTheAddressesAsWaitingForTheNextStart)
{
    host::registerPower();
    g_nas_power_mgr.start(nullptr, nullptr);
    g_nas_power_mgr.stop(nullptr, nullptr);
    EXPECT_EQ(statusOf(0), 0U);
    EXPECT_EQ(statusOf(1), 0U);
}

TEST_F(Power, PassesOnThatTheLibraryRefusedItsRoutines)
{
    fake::library().result = 5;
    EXPECT_EQ(host::registerPower(), 5);
}

class Root : public testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/nasctrl-root-XXXXXX";
        root_ = mkdtemp(pattern);
    }
    void TearDown() override { std::filesystem::remove_all(root_); }
    // The line with which the root is refused.
    static std::string refusal(const std::string &root)
    {
        try {
            host::enterRoot(root);
        } catch (const std::runtime_error &error) {
            return error.what();
        }
        return "(entered)";
    }
    std::string root_;
};

TEST_F(Root, WithoutItsOptIsRefused)
{
    EXPECT_EQ(refusal(root_), "--root: " + root_ + "/opt cannot be used: No such file or directory");
}

TEST_F(Root, WhoseOptIsAFileIsRefused)
{
    std::ofstream(root_ + "/opt") << "text";
    EXPECT_EQ(refusal(root_), "--root: " + root_ + "/opt is not a directory");
}

TEST_F(Root, ShowsItsOptToTheProcessThatEnteredItAndToNoOther)
{
    std::filesystem::create_directory(root_ + "/opt");
    std::ofstream(root_ + "/opt/nasctrl-probe") << "seen";
    constexpr int kSeen = 0;
    constexpr int kHidden = 1;
    constexpr int kRefused = 2;
    const pid_t child = fork();
    if (child == 0) {
        const std::string line = refusal(root_);
        if (line != "(entered)") {
            _exit(line.find("or install the files under /opt") != std::string::npos ? kRefused : kHidden);
        }
        const bool owns = access("/opt/nasctrl-probe", R_OK) == 0 && geteuid() == getuid();
        std::ofstream("/opt/nasctrl-written") << "by the child";
        _exit(owns ? kSeen : kHidden);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    if (WEXITSTATUS(status) == kRefused) {
        GTEST_SKIP() << "this machine refuses namespaces";
    }
    EXPECT_EQ(WEXITSTATUS(status), kSeen);
    EXPECT_TRUE(std::filesystem::exists(root_ + "/opt/nasctrl-written"));
    EXPECT_FALSE(std::filesystem::exists("/opt/nasctrl-probe"));
}

} // namespace
