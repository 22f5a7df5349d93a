// The question whose answer is unpacked into an array of texts: the node ids of the global zone.
#include "nas_ip_mgr_faults.h"
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

constexpr const char *kName = "GetHdfsGlobalZoneNodeId";
const std::string kCallLine = "class 0 PROTOCOL: Msg call type(10), sid(6), module(18).";

std::string answer(uint32_t result, uint32_t count, const Texts &rows)
{
    std::string bytes;
    for (const uint32_t word : {result, count}) {
        bytes.append(reinterpret_cast<const char *>(&word), sizeof word);
    }
    for (std::string row : rows) {
        row.resize(3072, '\0');
        bytes += row;
    }
    return bytes;
}

class ZoneNodeIds : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        faults::reset();
    }

    int32_t ask() { return GetHdfsGlobalZoneNodeId(&list_, &count_); }

    // What was freed behind the request and then the response, which must come first.
    static std::vector<const void *> freedAfterTheMessages()
    {
        std::vector<const void *> addresses;
        for (const fake::FreedBlock &block : fake::freedBlocks()) {
            addresses.push_back(block.address);
        }
        if (addresses.size() < 2 || addresses[0] != fake::upcalls().at(0).record.request ||
            fake::freedBlocks()[1].func != "svr_upcall_sync") {
            ADD_FAILURE() << "the request and the response are not freed first, in this order";
            return {};
        }
        addresses.erase(addresses.begin(), addresses.begin() + 2);
        return addresses;
    }

    char **list_ = reinterpret_cast<char **>(this);
    uint32_t count_ = 99;
};

TEST_F(ZoneNodeIds, AreHandedOutAsTexts)
{
    const Texts ids = {"node-a", "", std::string(3071, 'n')};
    fake::answerUpcall(0, answer(0, 3, ids));
    ASSERT_EQ(ask(), 0);
    ASSERT_EQ(count_, 3U);
    EXPECT_EQ(Texts(list_, list_ + count_), ids);
    EXPECT_EQ(fake::upcalls()[0].request, std::string(4, '\0'));
    EXPECT_EQ(fake::upcalls()[0].record.type, 10U);
    char line[128];
    snprintf(line, sizeof line, "4 PROTOCOL: get zone id zone data pointer = %p, row = 3", static_cast<void *>(list_));
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine, line));
    EXPECT_EQ(fake::logFuncs()[1], kName);
    EXPECT_EQ(fake::liveBlocks(kName), 4U);
    EXPECT_EQ(fake::liveBlocks(), 4U);
    ReleaseHdfsGlobalZoneNodeId(list_, 3);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(ZoneNodeIds, RunOnIntoTheNextRowWithoutAnEnd)
{
    fake::answerUpcall(0, answer(0, 2, {std::string(3072, 'a'), "tail"}));
    ASSERT_EQ(ask(), 0);
    EXPECT_EQ(Texts(list_, list_ + 2), (Texts{std::string(3072, 'a') + "tail", "tail"}));
    ReleaseHdfsGlobalZoneNodeId(list_, 2);
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(ZoneNodeIds, MayEndWithTheAnswer)
{
    for (size_t length = 0; length <= 3073; ++length) {
        fake::reset();
        const std::string id(length, 'n');
        fake::answerUpcall(0, answer(0, 1, {}) + id + '\0');
        ASSERT_EQ(ask(), 0) << length;
        ASSERT_EQ(count_, 1U) << length;
        ASSERT_EQ(list_[0], id);
        ReleaseHdfsGlobalZoneNodeId(list_, 1);
        ASSERT_EQ(fake::liveBlocks(), 0U) << length;
    }
}

TEST_F(ZoneNodeIds, OfAFailedAnswerAreItsResultWord)
{
    for (const uint32_t result : {5U, static_cast<uint32_t>(-7)}) {
        fake::reset();
        fake::answerUpcall(0, answer(result, 1, {"node-a"}));
        EXPECT_EQ(ask(), static_cast<int32_t>(result));
        EXPECT_EQ(list_, nullptr);
        EXPECT_EQ(count_, 0U);
        EXPECT_EQ(fake::liveBlocks(), 0U);
        EXPECT_THAT(fake::log(), ElementsAre(kCallLine, "3 PROTOCOL: nas ctrl call sync failed, result = " +
                                                            std::to_string(static_cast<int32_t>(result))));
    }
}

TEST_F(ZoneNodeIds, MayBeNone)
{
    fake::answerUpcall(0, answer(0, 0, {}));
    EXPECT_EQ(ask(), 0);
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(count_, 0U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine));
}

TEST_F(ZoneNodeIds, NeedAnAnswerOfTwoWords)
{
    for (size_t length = 0; length < 8; ++length) {
        fake::reset();
        fake::answerUpcall(0, answer(0, 1, {}).substr(0, length));
        EXPECT_EQ(ask(), -12) << length;
        EXPECT_EQ(list_, nullptr) << length;
        EXPECT_EQ(count_, 0U) << length;
        EXPECT_EQ(fake::liveBlocks(), 0U) << length;
        EXPECT_THAT(fake::log(),
                    ElementsAre(kCallLine, "3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!"));
    }
    fake::answerUpcallWithoutResponse(0);
    EXPECT_EQ(ask(), -12);
}

TEST_F(ZoneNodeIds, AreNotToBeHadFromAFailedCall)
{
    fake::answerUpcall(-5, answer(0, 1, {"node-a"}));
    EXPECT_EQ(ask(), -5);
    EXPECT_EQ(list_, nullptr);
    EXPECT_EQ(count_, 0U);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre(kCallLine, "3 PROTOCOL: ret is failed, goto OUT!!!!!!!!!!!!"));
}

TEST_F(ZoneNodeIds, WithoutMemoryLeaveNothingBehind)
{
    const std::string noRequest = "3 PROTOCOL: reqMsg is NULL, return -ENOMEM(-12)!!!!!!!!!!!!";
    const std::string noArray = "3 PROTOCOL: (zoneRow == NULL) is failed(-12), goto OUT!!!!!!!!!!!!";
    const std::string noRow = "3 PROTOCOL: (rowData == NULL) is failed(-12), goto OUT!!!!!!!!!!!!";
    struct Row {
        uint64_t nth;
        Texts lines;
        bool listIsNull;
    };
    for (const Row &row :
         {Row{1, {noRequest}, true}, Row{2, {kCallLine, noArray}, true}, Row{3, {kCallLine, noRow}, false},
          Row{4, {kCallLine, noRow}, false}, Row{5, {kCallLine, noRow}, false}}) {
        fake::reset();
        fake::answerUpcall(0, answer(0, 3, {"a", "b", "c"}));
        fake::failAllocation(row.nth);
        EXPECT_EQ(ask(), -12) << row.nth;
        EXPECT_EQ(count_, 0U) << row.nth;
        EXPECT_EQ(list_ == nullptr, row.listIsNull) << row.nth;
        EXPECT_EQ(fake::liveBlocks(), 0U) << row.nth;
        EXPECT_THAT(fake::log(), row.lines) << row.nth;
    }
    fake::reset();
    fake::answerUpcall(0, answer(0, 3, {"a", "b", "c"}));
    fake::failAllocation(6);
    EXPECT_EQ(ask(), 0);
    ReleaseHdfsGlobalZoneNodeId(list_, 3);
}

TEST_F(ZoneNodeIds, KeepTheRowWhoseCopyFailedAllocatedAndFreeTheRowsBeforeIt)
{
    for (const auto fail : {faults::failClear, faults::failCopy}) {
        for (int row = 0; row < 2; ++row) {
            fake::reset();
            faults::reset();
            fake::answerUpcall(0, answer(0, 2, {"a", "b"}));
            fake::during("svr_upcall_sync", [&] { fail(row + 1, 403); });
            std::vector<const void *> rows;
            fake::during("kvlog", [&] {
                if (fake::log().size() == 2) {
                    rows.assign(list_, list_ + 2);
                }
            });
            EXPECT_EQ(ask(), 403);
            EXPECT_EQ(count_, 0U);
            EXPECT_THAT(fake::log(),
                        ElementsAre(kCallLine, "3 PROTOCOL: (ret != EOK) is failed(403), goto OUT!!!!!!!!!!!!"));
            ASSERT_EQ(rows.size(), 2U);
            std::vector<const void *> expected(rows.begin(), rows.begin() + row);
            expected.push_back(list_);
            EXPECT_EQ(freedAfterTheMessages(), expected) << row;
            EXPECT_EQ(fake::liveBlocks(kName), 1U);
            EXPECT_EQ(fake::liveBlocks(), 1U);
        }
    }
}

TEST_F(ZoneNodeIds, AreFreedAfterTheMessagesWhenARowFindsNoMemory)
{
    for (int row = 0; row < 3; ++row) {
        fake::reset();
        fake::answerUpcall(0, answer(0, 3, {"a", "b", "c"}));
        fake::failAllocation(static_cast<uint64_t>(row) + 3);
        std::vector<const void *> expected;
        fake::during("kvlog", [&] {
            if (fake::log().size() == 2) {
                expected.assign(list_, list_ + row);
            }
        });
        EXPECT_EQ(ask(), -12);
        expected.push_back(list_);
        EXPECT_EQ(freedAfterTheMessages(), expected) << row;
    }
}

TEST_F(ZoneNodeIds, FreeTheRequestBeforeTheResponse)
{
    struct Row {
        int32_t called;
        uint32_t result;
        uint32_t count;
    };
    for (const Row &row : {Row{-5, 0, 1}, Row{0, 7, 1}, Row{0, 0, 0}, Row{0, 0, 1}}) {
        fake::reset();
        fake::answerUpcall(row.called, answer(row.result, row.count, {"a"}));
        ask();
        EXPECT_THAT(freedAfterTheMessages(), IsEmpty()) << row.called << ", " << row.result << ", " << row.count;
        ReleaseHdfsGlobalZoneNodeId(list_, static_cast<int32_t>(count_));
    }
}

TEST_F(ZoneNodeIds, RefuseNullOutputsTheNumberFirst)
{
    EXPECT_EQ(GetHdfsGlobalZoneNodeId(nullptr, nullptr), -22);
    EXPECT_EQ(GetHdfsGlobalZoneNodeId(&list_, nullptr), -22);
    EXPECT_EQ(GetHdfsGlobalZoneNodeId(nullptr, &count_), -22);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: zoneNum is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: zoneNum is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: zoneList is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_EQ(list_, reinterpret_cast<char **>(this));
    EXPECT_EQ(count_, 99U);
    EXPECT_THAT(fake::calls(), IsEmpty());
}

TEST_F(ZoneNodeIds, AreReleasedUpToTheCountAndNulled)
{
    for (auto *release : {ReleaseHdfsGlobalZoneNodeId, ReleaseZoneNodeId}) {
        auto **list = static_cast<char **>(nas_mem_comm_zalloc(3 * sizeof(char *), "array", 0));
        list[0] = static_cast<char *>(nas_mem_comm_zalloc(1, "counted", 0));
        auto *beyond = static_cast<char *>(nas_mem_comm_zalloc(1, "beyond", 0));
        list[2] = beyond;
        release(list, 2);
        EXPECT_EQ(fake::liveBlocks(), 1U);
        EXPECT_EQ(fake::liveBlocks("beyond"), 1U);
        nas_mem_comm_free(beyond, "test", 0);
        release(nullptr, 2);
        release(static_cast<char **>(nas_mem_comm_zalloc(1, "array", 0)), -1);
        EXPECT_EQ(fake::liveBlocks(), 0U);
    }
}

} // namespace
