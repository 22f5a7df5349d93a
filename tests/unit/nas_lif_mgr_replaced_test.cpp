// A host that puts functions of its own in the place of the table's: what the library does with answers that its own
// functions never give.
#include "nas_lif_mgr_fixture.h"

uint32_t lifport_id_to_index(uint64_t)
{
    return 8192;
}

uint32_t NasIpMgrRegisterIpEvent(uint32_t, ip_event_hook)
{
    return 6;
}

void DeleteEachLifPortByIpList(const node_ip_entry *, uint32_t, NasLifPortEntry *, uint32_t *counter)
{
    ++*counter;
}

namespace {

using testing::ElementsAre;

class LifReplaced : public lif::Table {};

TEST_F(LifReplaced, AnIndexBeyondTheTableFailsTheAddition)
{
    EXPECT_EQ(nas_lifport_add_update(18446744073709551615ULL, "eth0", "10.0.0.1", 5), 0xFFFFFFFFU);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: lifportid:18446744073709551615 alloc index failed(8192)."));
    EXPECT_EQ(fake::liveBlocks(), 1U);
    EXPECT_EQ(lif::usedSlots(), 0U);
}

TEST_F(LifReplaced, ARefusedHookEndsTheStart)
{
    EXPECT_EQ(NasLifMgrModuleStart(), 6U);
    EXPECT_THAT(fake::log(), ElementsAre("class 3 PROTOCOL: Reg lif module ip event failed 6."));
    EXPECT_THAT(fake::calls(), testing::IsEmpty());
}

TEST_F(LifReplaced, ACountedCleanUpIsLogged)
{
    NasLifPortEntry entry{};
    list_link *head = &g_NfsLifPortInfo.buckets[9].head;
    entry.link = {head, head};
    head->next = head->prev = &entry.link;
    const node_ip_entry none{};
    DeleteRedundancyLifInfoByIpList(&none, 0);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Delete redundancy 1 ip."));
}

} // namespace
