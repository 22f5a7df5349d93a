#include <fake_host.h>

#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ClusterList : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        nas_ctrl_cluster_list_init();
    }
    void TearDown() override { EXPECT_EQ(fake::locksHeld(), 0); }

    static void add(std::initializer_list<uint64_t> ids)
    {
        for (const uint64_t id : ids) {
            ASSERT_EQ(nas_ctrl_add_to_cluster_list(id), 0U);
        }
    }
    static std::vector<uint64_t> listed()
    {
        std::vector<uint64_t> ids(8);
        uint16_t count = 99;
        EXPECT_EQ(nas_ctrl_get_cluster_list(ids.data(), &count), 0U);
        ids.resize(count);
        return ids;
    }
    static std::vector<uint64_t> slots()
    {
        return {std::begin(g_nas_cluster_id_list.ids), std::end(g_nas_cluster_id_list.ids)};
    }
    // The lines logged by what follows.
    static void forgetLog() { fake::reset(); }
};

TEST_F(ClusterList, StartsEmptyWithAnUnlockedLock)
{
    std::fill_n(reinterpret_cast<char *>(&g_nas_cluster_id_list), sizeof(g_nas_cluster_id_list), 'x');
    nas_ctrl_cluster_list_init();
    EXPECT_THAT(slots(), testing::Each(0U));
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
    EXPECT_EQ(g_nas_cluster_id_list.lock.lock, 0U);
    EXPECT_EQ(g_nas_cluster_id_list.lock.magic, 0xDEAD4EADU);
    EXPECT_EQ(g_nas_cluster_id_list.lock.owner_cpu, 0xFFFFFFFFU);
    EXPECT_EQ(g_nas_cluster_id_list.lock.owner, ~uint64_t{0});
}

TEST_F(ClusterList, ExitEmptiesTheListAndLeavesTheLock)
{
    add({5, 9});
    g_nas_cluster_id_list.lock.magic = 1;
    nas_ctrl_cluster_list_exit();
    EXPECT_THAT(slots(), testing::Each(0U));
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
    EXPECT_EQ(g_nas_cluster_id_list.lock.magic, 1U);
}

TEST_F(ClusterList, AnAdditionTakesTheLowestFreeSlot)
{
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(5), 0U);
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(~uint64_t{0}), 0U);
    EXPECT_THAT(slots(), ElementsAre(5, ~uint64_t{0}, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(g_nas_cluster_id_list.count, 2);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Adding clusterID(5) index(0)",
                                         "6 PROTOCOL: Adding clusterID(18446744073709551615) index(1)"));
    EXPECT_THAT(fake::logFuncs(), testing::Each("NasCtrlAddToClusterList"));
}

TEST_F(ClusterList, TheLocalClusterIsNeverStored)
{
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(0), 0U);
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Did not add local clusterId (0)."));
}

TEST_F(ClusterList, AnIdIsStoredOnce)
{
    add({5});
    forgetLog();
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(5), 0U);
    EXPECT_EQ(g_nas_cluster_id_list.count, 1);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: clusterID(5) already present"));
}

TEST_F(ClusterList, AFullListRefusesNewIdsAndThoseItHolds)
{
    add({1, 2, 3, 4, 5, 6, 7, 8});
    forgetLog();
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(9), 1U);
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(3), 1U);
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(0), 0U);
    EXPECT_THAT(listed(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_EQ(fake::log()[0], "3 PROTOCOL: clusterID (9) has reached max.");
    EXPECT_EQ(fake::log()[1], "3 PROTOCOL: clusterID (3) has reached max.");
}

TEST_F(ClusterList, AListWithoutAFreeSlotBelowItsCountTakesNothingSilently)
{
    add({1, 2, 3, 4, 5, 6, 7, 8});
    g_nas_cluster_id_list.count = 7;
    forgetLog();
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(9), 0U);
    EXPECT_EQ(g_nas_cluster_id_list.count, 7);
    EXPECT_THAT(slots(), ElementsAre(1, 2, 3, 4, 5, 6, 7, 8));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(ClusterList, TheUnlockedAdditionWorksOnAnyListAndRefusesNone)
{
    nas_cluster_id_list own = {};
    EXPECT_EQ(NasCtrlAddToClusterList(&own, 4), 0U);
    EXPECT_EQ(own.ids[0], 4U);
    EXPECT_EQ(own.count, 1);
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
    forgetLog();
    EXPECT_EQ(NasCtrlAddToClusterList(nullptr, 4), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: list is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(ClusterList, OnlyTheLockedAdditionTakesTheLock)
{
    std::vector<int> held;
    fake::during("kvlog", [&] { held.push_back(fake::locksHeld()); });
    add({4});
    nas_cluster_id_list own = {};
    NasCtrlAddToClusterList(&own, 4);
    EXPECT_THAT(held, ElementsAre(1, 0));
}

TEST_F(ClusterList, LinesAboutIdsAreLoggedUnderTheLock)
{
    struct Row {
        const char *name;
        void (*act)();
        std::vector<int> held; // at each line
    };
    const Row rows[] = {
        {"addition of the local cluster", [] { nas_ctrl_add_to_cluster_list(0); }, {1}},
        {"addition of an id that is there", [] { nas_ctrl_add_to_cluster_list(5); }, {1}},
        {"removal", [] { nas_ctrl_remove_from_cluster_list(6); }, {1}},
        {"removal of an absent id", [] { nas_ctrl_remove_from_cluster_list(77); }, {1}},
        {"listing", [] { listed(); }, {1, 1, 1}},
    };
    for (const Row &row : rows) {
        SetUp();
        add({5, 6});
        std::vector<int> held;
        fake::during("kvlog", [&] { held.push_back(fake::locksHeld()); });
        row.act();
        EXPECT_EQ(held, row.held) << row.name;
        EXPECT_EQ(fake::lastSpinLock(), &g_nas_cluster_id_list.lock) << row.name;
        EXPECT_EQ(fake::locksHeld(), 0) << row.name;
    }
}

TEST_F(ClusterList, AFullListIsReportedUnderTheLock)
{
    add({1, 2, 3, 4, 5, 6, 7, 8});
    int held = -1;
    fake::during("kvlog", [&] { held = fake::locksHeld(); });
    EXPECT_EQ(nas_ctrl_add_to_cluster_list(9), 1U);
    EXPECT_EQ(held, 1);
}

TEST_F(ClusterList, ARemovalLeavesAHoleThatTheNextAdditionFills)
{
    add({1, 2, 3, 4});
    forgetLog();
    EXPECT_EQ(nas_ctrl_remove_from_cluster_list(3), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Remove clusterID 3 success"));
    EXPECT_THAT(slots(), ElementsAre(1, 2, 0, 4, 0, 0, 0, 0));
    EXPECT_EQ(g_nas_cluster_id_list.count, 3);
    add({50});
    EXPECT_THAT(listed(), ElementsAre(1, 2, 50, 4));
}

TEST_F(ClusterList, RemovingAnAbsentIdIsLoggedAndSucceeds)
{
    EXPECT_EQ(nas_ctrl_remove_from_cluster_list(77), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ClusterID 77 not found"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("nas_ctrl_remove_from_cluster_list"));
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
}

TEST_F(ClusterList, ARemovalEndsAtTheFirstOfTwoSlotsWithTheSameId)
{
    add({1, 7, 3});
    g_nas_cluster_id_list.ids[5] = 7;
    g_nas_cluster_id_list.count = 4;
    forgetLog();
    EXPECT_EQ(nas_ctrl_remove_from_cluster_list(7), 0U);
    EXPECT_THAT(slots(), ElementsAre(1, 0, 3, 0, 0, 7, 0, 0));
    EXPECT_EQ(g_nas_cluster_id_list.count, 3);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Remove clusterID 7 success"));
}

TEST_F(ClusterList, RemovingTheLocalClusterDoesNothingWithoutTheLock)
{
    int held = -1;
    fake::during("kvlog", [&] { held = fake::locksHeld(); });
    EXPECT_EQ(nas_ctrl_remove_from_cluster_list(0), 0U);
    EXPECT_EQ(held, 0);
    EXPECT_EQ(g_nas_cluster_id_list.count, 0);
    EXPECT_EQ(fake::lastSpinLock(), nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: local clusterId 0 -nothing to do"));
    EXPECT_EQ(fake::logLines().front().file, "nas_ctrl_cluster_list.cpp");
}

TEST_F(ClusterList, TheCountIsLoggedAfterTheLockIsReleased)
{
    add({5, 9});
    forgetLog();
    int held = -1;
    fake::during("kvlog", [&] { held = fake::locksHeld(); });
    EXPECT_EQ(nas_ctrl_get_cluster_list_count(), 2);
    EXPECT_EQ(held, 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: clusterCount is 2"));
}

TEST_F(ClusterList, ListingLogsEachIdAndTheCount)
{
    add({5, 6, 9});
    nas_ctrl_remove_from_cluster_list(6);
    forgetLog();
    EXPECT_THAT(listed(), ElementsAre(5, 9));
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Found clusterID 5", "6 PROTOCOL: Found clusterID 9",
                                         "6 PROTOCOL: clusterCount is 2"));
}

TEST_F(ClusterList, ListingWithoutAnOutputIsRefused)
{
    uint64_t ids[8];
    uint16_t count = 99;
    EXPECT_EQ(nas_ctrl_get_cluster_list(nullptr, &count), 1U);
    EXPECT_EQ(nas_ctrl_get_cluster_list(ids, nullptr), 1U);
    EXPECT_EQ(count, 99);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: out is NULL, return NAS_ERROR(1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: n is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

TEST_F(ClusterList, AnEmptyListPrintsItsCountOnly)
{
    char text[64];
    EXPECT_EQ(nas_ctrl_get_cluster_count_list(text, sizeof text), 23);
    EXPECT_STREQ(text, "Cluster list count : 0\n");
}

TEST_F(ClusterList, APrintedListEndsEachLineWithANewline)
{
    char text[256];
    add({5, 9});
    const int64_t length = nas_ctrl_get_cluster_count_list(text, sizeof text);
    EXPECT_STREQ(text, "Cluster list count : 2\nCluster list contents are : 5, 9\n");
    EXPECT_EQ(length, static_cast<int64_t>(strlen(text)));
}

TEST_F(ClusterList, APrintIsCutToTheRoomAndCountsWhatIsThere)
{
    const std::string whole = "Cluster list count : 2\nCluster list contents are : 5, 9\n";
    add({5, 9});
    for (size_t size = 1; size <= whole.size() + 1; ++size) {
        const auto buffer = std::make_unique<char[]>(size); // exactly sized, so that a sanitizer sees a step outside
        const int64_t length = nas_ctrl_get_cluster_count_list(buffer.get(), static_cast<long>(size));
        EXPECT_EQ(std::string(buffer.get()), whole.substr(0, size - 1)) << "size " << size;
        EXPECT_EQ(length, static_cast<int64_t>(size - 1)) << "size " << size;
    }
}

TEST_F(ClusterList, APrintWithoutRoomWritesNothing)
{
    char text[8] = "unset";
    add({5});
    EXPECT_EQ(nas_ctrl_get_cluster_count_list(text, 0), 0);
    EXPECT_EQ(nas_ctrl_get_cluster_count_list(text, -1), 0);
    EXPECT_STREQ(text, "unset");
}

TEST_F(ClusterList, APrintIntoNothingIsRefused)
{
    EXPECT_EQ(nas_ctrl_get_cluster_count_list(nullptr, 64), 1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return NAS_ERROR(1)!!!!!!!!!!!!"));
}

} // namespace
