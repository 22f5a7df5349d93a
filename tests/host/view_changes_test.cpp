// What DLG and FMM are told when the view of the clients changes, through the real library.
#include "cluster/view_changes.h"

#include "events.h"
#include "fake_host.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ViewChanges : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        NasCtrlDpcClusterInit();
    }
    void TearDown() override { fake::reset(); }

    static host::DpcView view(uint64_t version, std::initializer_list<host::DpcClient> clients)
    {
        return {version, "test", clients};
    }
    // "MODULE/EVENT LS" of each notification.
    static std::vector<std::string> told()
    {
        std::vector<std::string> lines;
        for (const fake::Notice &notice : fake::notices()) {
            const auto lsId = static_cast<unsigned char>(notice.argument[0]);
            lines.push_back(std::string(notice.module == 2 ? "DLG" : "FMM") +
                            (notice.event == 5 ? " fault " : " recover ") + std::to_string(lsId));
        }
        return lines;
    }
    static host::DpcClient running(uint32_t lsId, uint64_t session, uint64_t faults = 0)
    {
        return {lsId, session, host::kRunning, host::kNoFault, faults, 1, {}};
    }
    static host::DpcClient faulty(uint32_t lsId, uint64_t session, int32_t reason, uint64_t faults = 1)
    {
        return {lsId, session, host::kFaulty, reason, faults, 1, {}};
    }
    // The reason is read from the record, as the real host does.
    static void answerReasons(std::initializer_list<int64_t> reasons) { fake::answer("CM_getLsFaultReason", reasons); }
};

TEST_F(ViewChanges, TellsDlgAndThenFmmOfAFaultAndOfTheReturn)
{
    answerReasons({host::kProcessFault});
    host::tellChange(view(1, {running(7, 1)}), view(2, {faulty(7, 1, host::kProcessFault)}));
    host::tellChange(view(2, {faulty(7, 1, host::kProcessFault)}), view(3, {running(7, 2, 1)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7", "DLG recover 7", "FMM recover 7"));
}

TEST_F(ViewChanges, TellsNothingOfAClientThatJoins)
{
    host::tellChange(view(1, {}), view(2, {running(7, 1)}));

    EXPECT_THAT(told(), IsEmpty());
}

TEST_F(ViewChanges, TellsOfAClientThatLeftAndOfNoOther)
{
    host::tellChange(view(1, {running(7, 1), running(8, 1)}), view(2, {running(8, 1)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7"));
    EXPECT_EQ(fake::heldThreads(), 1U) << "a client that leaves in good order keeps no locks to be cleared";
}

TEST_F(ViewChanges, TellsANewNodeOfTheClientsThatAreFaulty)
{
    answerReasons({host::kHeartBreak});
    host::tellFirstView(view(9, {running(6, 1), faulty(7, 1, host::kHeartBreak)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7"));
}

TEST_F(ViewChanges, TellsOfAFaultThatCameAndWentUnseen)
{
    answerReasons({host::kHeartBreak});
    host::tellMissedChanges(view(1, {running(7, 1)}), view(9, {running(7, 2, 1)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7", "DLG recover 7", "FMM recover 7"));
}

TEST_F(ViewChanges, TellsOfAClientThatLeftAndJoinedUnseen)
{
    host::tellMissedChanges(view(1, {running(7, 1)}), view(9, {running(7, 2)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7", "DLG recover 7", "FMM recover 7"));
}

TEST_F(ViewChanges, TellsOfAReturnUnseen)
{
    host::tellMissedChanges(view(1, {faulty(7, 1, host::kHeartBreak)}), view(9, {running(7, 2, 1)}));

    EXPECT_THAT(told(), ElementsAre("DLG recover 7", "FMM recover 7"));
}

TEST_F(ViewChanges, CountsAClientThatIsGoneUnseenAsLost)
{
    host::tellMissedChanges(view(1, {running(7, 1)}), view(9, {}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7"));
    EXPECT_EQ(fake::heldThreads(), 2U) << "the task thread, and one that clears the lost client's locks";
}

TEST_F(ViewChanges, TellsOfASecondFaultUnseen)
{
    answerReasons({host::kProcessFault});
    host::tellMissedChanges(view(1, {faulty(7, 1, host::kHeartBreak)}),
                            view(9, {faulty(7, 2, host::kProcessFault, 2)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7"));
}

TEST_F(ViewChanges, TellsOfAFaultyClientThatJoinedUnseen)
{
    answerReasons({host::kHeartBreak});
    host::tellMissedChanges(view(1, {}), view(9, {faulty(7, 1, host::kHeartBreak), running(8, 1, 4)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7"));
}

TEST_F(ViewChanges, TellsOfThoseThatLeftAfterThoseThatFailed)
{
    answerReasons({host::kHeartBreak});
    host::tellChange(view(1, {running(6, 1), running(7, 1)}), view(2, {faulty(7, 1, host::kHeartBreak)}));

    EXPECT_THAT(told(), ElementsAre("DLG fault 7", "FMM fault 7", "DLG fault 6", "FMM fault 6"));
}

TEST_F(ViewChanges, TellsNothingWhereNothingWasMissed)
{
    host::tellMissedChanges(view(1, {running(7, 1), faulty(8, 1, host::kHeartBreak)}),
                            view(9, {running(7, 1), faulty(8, 1, host::kHeartBreak), running(9, 1)}));

    EXPECT_THAT(told(), IsEmpty());
}

} // namespace
