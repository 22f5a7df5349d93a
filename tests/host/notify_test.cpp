// What the library's notifications become. The registry and the stream live as long as the process, so each test begins
// at the number of the newest event.
#include "failing_new.h"
#include "notify/notify.h"
#include "recorded_log.h"

#include <cerrno>
#include <cstring>
#include <gmock/gmock.h>
#include <nasctrl/host/notify.h>
#include <nasctrl/shard_view.h>
#include <thread>

namespace {

using host::EventDetails;
using host::kNotifyDlg;
using host::kNotifyFmm;
using host::Move;
using host::readEvents;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kNodeFault = 5;

int32_t registerEvent(uint32_t module, uint32_t event, const std::string &name)
{
    notify_event_reg_t record{};
    memcpy(record.module_name, "NAS_FMM", sizeof "NAS_FMM");
    name.copy(record.event_name, sizeof record.event_name);
    return notifyEventRegister(module, event, &record);
}

int32_t tell(uint32_t module, uint32_t event, uint64_t data)
{
    notify_arg_t arg{};
    arg.data = data;
    return notifyCall(module, event, &arg);
}

class Notifications : public testing::Test {
protected:
    void SetUp() override
    {
        registerEvent(kNotifyFmm, 1, "VNODE_MOVEIN");
        registerEvent(kNotifyFmm, 2, "VNODE_MOVEOUT");
        registerEvent(kNotifyFmm, kNodeFault, "NODE_FAULT");
        recorded::clear();
    }

    // "MODULE NAME DATA" of the events since the test began.
    std::vector<std::string> told() const
    {
        std::vector<std::string> lines;
        for (const auto &event : readEvents(before_, SIZE_MAX).events) {
            const EventDetails &details = event->details;
            lines.push_back(details.module + " " + details.name + " " + std::to_string(details.data));
        }
        return lines;
    }
    EventDetails first() const { return readEvents(before_, 1).events.at(0)->details; }

private:
    const uint64_t before_ = readEvents(UINT64_MAX, 0).newest;
};

TEST_F(Notifications, ReachTheirModulesInTheOrderOfTheCalls)
{
    EXPECT_EQ(tell(kNotifyDlg, kNodeFault, 12), 0);
    EXPECT_EQ(tell(kNotifyFmm, kNodeFault, 12), 0);
    EXPECT_EQ(tell(kNotifyDlg, 6, 12), 0);
    EXPECT_THAT(told(), ElementsAre("DLG NODE_FAULT 12", "FMM NODE_FAULT 12", "DLG NODE_RECOVER 12"));
    EXPECT_THAT(recorded::lines(), IsEmpty());
}

TEST_F(Notifications, ForDlgNeedNoRegistration)
{
    for (uint32_t event = 1; event <= 6; ++event) {
        EXPECT_EQ(tell(kNotifyDlg, event, 0), 0) << event;
    }
    EXPECT_THAT(told(), ElementsAre("DLG VNODE_MOVEIN 0", "DLG VNODE_MOVEOUT 0", "DLG SCALE_OUT 0", "DLG SCALE_IN 0",
                                    "DLG NODE_FAULT 0", "DLG NODE_RECOVER 0"));
}

TEST_F(Notifications, OfAnUnknownEventAreRefusedWithALine)
{
    const uint64_t refused = host::refusedNotifications();
    EXPECT_EQ(tell(kNotifyFmm, 20, 1), -ENOENT);
    EXPECT_EQ(tell(kNotifyDlg, 0, 1), -ENOENT);
    EXPECT_EQ(tell(kNotifyFmm, UINT32_MAX, 1), -ENOENT);
    EXPECT_THAT(told(), IsEmpty());
    EXPECT_THAT(
        recorded::lines(),
        ElementsAre(
            "3 notify: event 20 of module 1 is refused with -2: the module has registered no such event",
            "3 notify: event 0 of module 2 is refused with -2: the module has registered no such event",
            "3 notify: event 4294967295 of module 1 is refused with -2: the module has registered no such event"));
    EXPECT_EQ(host::refusedNotifications(), refused + 3);
}

TEST_F(Notifications, OfAnUnknownModuleAreRefusedWithALine)
{
    EXPECT_EQ(tell(3, kNodeFault, 1), -ENODEV);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("3 notify: event 5 of module 3 is refused with -19: there is no such module"));
}

TEST_F(Notifications, WithoutAnArgumentAreRefusedWithALine)
{
    EXPECT_EQ(notifyCall(kNotifyFmm, kNodeFault, nullptr), -EINVAL);
    EXPECT_THAT(recorded::lines(),
                ElementsAre("3 notify: event 5 of module 1 is refused with -22: it has no argument"));
}

TEST_F(Notifications, AreKnownFromTheirRegistrationOnUnderItsLastName)
{
    EXPECT_EQ(tell(kNotifyFmm, 31, 1), -ENOENT);
    EXPECT_EQ(registerEvent(kNotifyFmm, 31, "OLD"), 0);
    EXPECT_EQ(registerEvent(kNotifyFmm, 31, "NEW"), 0);
    EXPECT_EQ(tell(kNotifyFmm, 31, 1), 0);
    EXPECT_THAT(told(), ElementsAre("FMM NEW 1"));
}

TEST_F(Notifications, TakeANameThatFillsItsFieldAsItsFirst32Characters)
{
    EXPECT_EQ(registerEvent(kNotifyFmm, 30, std::string(33, 'x')), 0);
    EXPECT_EQ(tell(kNotifyFmm, 30, 1), 0);
    EXPECT_THAT(told(), ElementsAre("FMM " + std::string(32, 'x') + " 1"));
}

TEST_F(Notifications, AreNotRegisteredWithoutModuleNumberRecordOrName)
{
    EXPECT_EQ(registerEvent(0, 1, "A"), -EINVAL);
    EXPECT_EQ(registerEvent(kNotifyFmm, host::kMaxNotifyEvents, "A"), -EINVAL);
    EXPECT_EQ(registerEvent(kNotifyFmm, 1, ""), -EINVAL);
    EXPECT_EQ(notifyEventRegister(kNotifyFmm, 1, nullptr), -EINVAL);
    EXPECT_THAT(recorded::lines(), ElementsAre("3 notify: event 1 cannot be registered for module 0",
                                               "3 notify: event 32 cannot be registered for module 1",
                                               "3 notify: event 1 cannot be registered for module 1",
                                               "3 notify: event 1 cannot be registered for module 1"));
}

TEST_F(Notifications, OfAVnodeMoveCarryItsRecordsInPlaceOfTheirAddress)
{
    migration_record records[] = {{1, 2, 3, 4, {}}, {5, 6, 65535, 8, {}}};
    migration_payload payload{0, 0, 2, records, 0};
    EXPECT_EQ(tell(kNotifyFmm, 1, reinterpret_cast<uintptr_t>(&payload)), 0);
    records[0] = {}; // the stream keeps copies
    EXPECT_EQ(first().data, 0U);
    EXPECT_THAT(first().moves, ElementsAre(Move{1, 2, 3, 4}, Move{5, 6, 65535, 8}));
    EXPECT_EQ(first().moveCount, 2U);
}

TEST_F(Notifications, OfAMoveOfManyCarryTheFirstRecordsAndTheirNumber)
{
    std::vector<migration_record> records(4096);
    migration_payload payload{0, 0, 4096, records.data(), 0};
    EXPECT_EQ(tell(kNotifyDlg, 2, reinterpret_cast<uintptr_t>(&payload)), 0);
    EXPECT_EQ(first().moves.size(), host::kMaxEventMoves);
    EXPECT_EQ(first().moveCount, 4096U);
}

TEST_F(Notifications, OfAMoveWithoutPayloadOrRecordsCarryNone)
{
    migration_payload payload{0, 0, 7, nullptr, 0};
    EXPECT_EQ(tell(kNotifyFmm, 2, reinterpret_cast<uintptr_t>(&payload)), 0);
    EXPECT_EQ(tell(kNotifyFmm, 2, 0), 0);
    EXPECT_THAT(told(), ElementsAre("FMM VNODE_MOVEOUT 0", "FMM VNODE_MOVEOUT 0"));
    EXPECT_EQ(first().moveCount, 0U);
}

TEST_F(Notifications, WaitForWhoeverHoldsThemBackWhoMayTellHimself)
{
    std::jthread other;
    {
        const host::NotifyHold hold;
        other = std::jthread([] { tell(kNotifyFmm, kNodeFault, 2); });
        EXPECT_EQ(tell(kNotifyDlg, kNodeFault, 1), 0);
        EXPECT_THAT(told(), ElementsAre("DLG NODE_FAULT 1"));
    }
    other.join();
    EXPECT_THAT(told(), ElementsAre("DLG NODE_FAULT 1", "FMM NODE_FAULT 2"));
}

TEST_F(Notifications, ThatMemoryIsTooShortForAreRefusedAndLeaveTheRestAsItWas)
{
    migration_record records[] = {{1, 2, 3, 4, {}}};
    migration_payload payload{0, 0, 1, records, 0};
    notify_arg_t arg{};
    arg.data = reinterpret_cast<uintptr_t>(&payload);
    int32_t result = 0;
    failing::sweep([&] { result = notifyCall(kNotifyFmm, 1, &arg); },
                   [&] {
                       EXPECT_EQ(result, -ENOMEM);
                       EXPECT_THAT(told(), IsEmpty());
                       EXPECT_EQ(recorded::lines().back(),
                                 "3 notify: event 1 of module 1 is refused with -12: memory short");
                   });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(told(), ElementsAre("FMM VNODE_MOVEIN 0"));
}

TEST_F(Notifications, FromManyThreadsReachEachModuleInTheOrderOfEachThread)
{
    constexpr uint64_t kThreads = 4;
    constexpr uint64_t kEach = 200;
    {
        std::vector<std::jthread> threads;
        for (uint64_t i = 0; i < kThreads; ++i) {
            threads.emplace_back([i] {
                for (uint64_t k = 0; k < kEach; ++k) {
                    tell(kNotifyDlg, kNodeFault, i * kEach + k);
                    tell(kNotifyFmm, kNodeFault, i * kEach + k);
                }
            });
        }
    }
    std::map<std::string, uint64_t> next; // by module and thread
    const std::vector<std::string> lines = told();
    ASSERT_EQ(lines.size(), kThreads * kEach * 2);
    for (const std::string &line : lines) {
        const uint64_t data = std::stoull(line.substr(line.rfind(' ')));
        EXPECT_EQ(data % kEach, next[line.substr(0, 3) + std::to_string(data / kEach)]++);
    }
}

} // namespace
