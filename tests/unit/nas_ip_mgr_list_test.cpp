#include "nas_ip_mgr_fixture.h"

using ip::listed;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using IpList = ip::IpManager;

const std::string kLongest(45, 'a');
const std::string kTooLong(46, 'a');

TEST_F(IpList, AnEmptyListHoldsNothingShowsNothingAndDeletesNothing)
{
    char text[8] = "garbage";
    EXPECT_EQ(NasIpMgrIsIpPresent("10.0.0.1"), 0U);
    EXPECT_EQ(NasIpMgrIsIpPresentStrict("10.0.0.1", 3), 0U);
    EXPECT_EQ(NasIpMgrShowAllIp(text, sizeof text), 0);
    EXPECT_STREQ(text, "");
    NasIpMgrDeleteFromList("10.0.0.1", 3);
    NasIpMgrShowAllIpToLog();
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpList, ANewRecordIsZeroedFilledAndInNoList)
{
    NasIpListNode *node = NasIpMgrCreateListNode("10.0.0.1", 3, 5);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->link.next, &node->link);
    EXPECT_EQ(node->link.prev, &node->link);
    EXPECT_STREQ(node->addr, "10.0.0.1");
    EXPECT_EQ(node->protoType, 3U);
    EXPECT_EQ(node->status, 5U);
    EXPECT_THAT(listed(), IsEmpty());
}

TEST_F(IpList, RecordsStandInOrderOfFirstAppearance)
{
    NasIpMgrAddToList("10.0.0.2", 3, 63);
    NasIpMgrAddToList("10.0.0.1", 3, 0);
    NasIpMgrAddToList("fe80::1", 4, 59);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 63", "10.0.0.1 3 0", "fe80::1 4 59"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpList, AnAddressOf45CharactersIsStoredAndOneOf46SilentlyLeftOut)
{
    NasIpMgrAddToList(kLongest.c_str(), 3, 0);
    NasIpMgrAddToList(kTooLong.c_str(), 3, 0);
    EXPECT_THAT(listed(), ElementsAre(kLongest + " 3 0"));
    EXPECT_EQ(fake::liveBlocks(), 1U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpList, ARecordThatGetsNoMemoryOrNoAddressIsSilentlyLeftOut)
{
    fake::failAllocation(1);
    NasIpMgrAddToList("10.0.0.1", 3, 0);
    NasIpMgrAddToList(nullptr, 3, 0);
    EXPECT_EQ(NasIpMgrCreateListNode(nullptr, 3, 0), nullptr);
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpList, PresenceIsOfAnyTypeAndStrictPresenceOfOne)
{
    NasIpMgrAddToList("10.0.0.1", 3, 0);
    NasIpMgrAddToList("10.0.0.1", 4, 0);
    EXPECT_EQ(NasIpMgrIsIpPresent("10.0.0.1"), 1U);
    EXPECT_EQ(NasIpMgrIsIpPresentStrict("10.0.0.1", 4), 1U);
    EXPECT_EQ(NasIpMgrIsIpPresentStrict("10.0.0.1", 5), 0U);
    EXPECT_EQ(NasIpMgrIsIpPresent("10.0.0.11"), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: IP[10.0.0.1] already exist",
                                         "class 0 PROTOCOL: IP: addr 10.0.0.1, protoType 4 already exist."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrIsIpPresent", "NasIpMgrIsIpPresentStrict"));
}

TEST_F(IpList, DeletionOfOneTypeLeavesTheOther)
{
    NasIpMgrAddToList("10.0.0.1", 3, 0);
    NasIpMgrAddToList("10.0.0.1", 4, 63);
    NasIpMgrDeleteFromList("10.0.0.1", 4);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 0"));
    EXPECT_EQ(fake::liveBlocks(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: Delete nas IP(addr 10.0.0.1, protoType 4, status 63)."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasIpMgrDeleteFromListWithoutLock"));
}

TEST_F(IpList, OneDeletionRemovesEveryEqualRecord)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    NasIpMgrAddToList("10.0.0.2", 3, 2);
    NasIpMgrAddToList("10.0.0.1", 3, 4);
    NasIpMgrDeleteFromList("10.0.0.1", 3);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.2 3 2"));
    EXPECT_EQ(fake::liveBlocks(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: Delete nas IP(addr 10.0.0.1, protoType 3, status 1).",
                                         "class 0 PROTOCOL: Delete nas IP(addr 10.0.0.1, protoType 3, status 4)."));
}

TEST_F(IpList, DeletionExpectsTheMutexHeldInItsPlainForm)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    pthread_mutex_lock(&g_ipListMutex);
    NasIpMgrDeleteFromListWithoutLock("10.0.0.1", 3);
    pthread_mutex_unlock(&g_ipListMutex);
    EXPECT_THAT(listed(), IsEmpty());
}

// A record whose field is full can only come from outside; the two comparisons still hold to their widths.
TEST_F(IpList, DeletionTakesTheTextOfARecordThatGoes)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    NasIpMgrDeleteFromList(reinterpret_cast<const NasIpListNode *>(g_iplistHead.next)->addr, 3);
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IpList, PresenceLooksAt46CharactersAndDeletionAtTheWholeText)
{
    NasIpMgrAddToList("x", 3, 0);
    auto *record = static_cast<NasIpListNode *>(g_iplistHead.next);
    ip::fillUpTo(record, offsetof(NasIpListNode, addr), offsetof(NasIpListNode, protoType), 'a');
    const std::string longer(60, 'a');
    EXPECT_EQ(NasIpMgrIsIpPresent(longer.c_str()), 1U);
    EXPECT_EQ(NasIpMgrIsIpPresentStrict(longer.c_str(), 3), 1U);
    EXPECT_EQ(NasIpMgrIsIpPresent(kLongest.c_str()), 0U);
    NasIpMgrDeleteFromList(longer.c_str(), 3);
    EXPECT_EQ(fake::liveBlocks(), 1U);
    NasIpMgrDeleteFromList(kTooLong.c_str(), 3);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: IP[" + kTooLong + "] already exist",
                            "class 0 PROTOCOL: IP: addr " + kTooLong + ", protoType 3 already exist.",
                            "class 0 PROTOCOL: Delete nas IP(addr " + kTooLong + ", protoType 3, status 1633771873)."));
}

TEST_F(IpList, ANullAddressIsNotPresentAndItsDeletionIsLogged)
{
    NasIpMgrAddToList("10.0.0.1", 3, 0);
    EXPECT_EQ(NasIpMgrIsIpPresent(nullptr), 0U);
    EXPECT_EQ(NasIpMgrIsIpPresentStrict(nullptr, 3), 0U);
    EXPECT_EQ(NasIpMgrGetIpFamily(nullptr), 0U);
    NasIpMgrDeleteFromList(nullptr, 3);
    EXPECT_THAT(listed(), ElementsAre("10.0.0.1 3 0"));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: addr is NULL, return !!!!!!!!!!!!"));
}

TEST_F(IpList, TheFamilyIsThatOfTheText)
{
    const struct {
        const char *addr;
        uint32_t family;
    } rows[] = {{"1.2.3.4", 2},     {"::ffff:1.2.3.4", 10}, {"fe80::1", 10},  {"::", 10},      {"", 0},
                {"nas.example", 0}, {"1.2.3", 0},           {"1.2.3.256", 0}, {"1.2.3.4 ", 0}, {"fe80::1%eth0", 0}};
    for (const auto &row : rows) {
        EXPECT_EQ(NasIpMgrGetIpFamily(row.addr), row.family) << "address \"" << row.addr << '"';
    }
}

TEST_F(IpList, TheListIsShownALineARecord)
{
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("fe80::1", 0xFFFFFFFFU, 0);
    char text[128];
    const std::string expected = "IP [10.0.0.1 3] Notify Status=63\nIP [fe80::1 -1] Notify Status=0\n";
    EXPECT_EQ(NasIpMgrShowAllIp(text, sizeof text), static_cast<int64_t>(expected.size()));
    EXPECT_EQ(text, expected);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(IpList, AShownListIsCutAtEveryLengthWithoutWritingBeyondIt)
{
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("fe80::1", 4, 0);
    const std::string whole = "IP [10.0.0.1 3] Notify Status=63\nIP [fe80::1 4] Notify Status=0\n";
    for (uint32_t size = 1; size <= whole.size() + 2; ++size) {
        std::string buffer(whole.size() + 3, '#');
        const std::string expected = whole.substr(0, size - 1);
        EXPECT_EQ(NasIpMgrShowAllIp(buffer.data(), size), static_cast<int64_t>(expected.size())) << size;
        EXPECT_EQ(std::string(buffer.c_str()), expected) << size;
        EXPECT_EQ(buffer.substr(size), std::string(buffer.size() - size, '#')) << size;
    }
}

TEST_F(IpList, AFailedPrintMovesTheNextLineBackByOneCharacter)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    NasIpMgrAddToList("10.0.0.2", 3, 2);
    NasIpMgrAddToList("10.0.0.3", 3, 3);
    faults::failPrint("IP [%s %d] Notify Status=%d\n", 2);
    char text[128];
    NasIpMgrShowAllIp(text, sizeof text);
    EXPECT_STREQ(text, "IP [10.0.0.1 3] Notify Status=1IP [10.0.0.3 3] Notify Status=3\n");
}

TEST_F(IpList, AFailedFirstPrintDoesNotMoveBeforeTheBuffer)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    NasIpMgrAddToList("10.0.0.2", 3, 2);
    faults::failPrint("IP [%s %d] Notify Status=%d\n", 1);
    char text[129] = "#";
    NasIpMgrShowAllIp(text + 1, sizeof text - 1);
    EXPECT_STREQ(text, "#IP [10.0.0.2 3] Notify Status=2\n");
}

TEST_F(IpList, ShowingIntoNoBufferIsRefusedAndIntoNoRoomWritesNothing)
{
    NasIpMgrAddToList("10.0.0.1", 3, 1);
    char text[] = "#";
    EXPECT_EQ(NasIpMgrShowAllIp(nullptr, 10), -22);
    EXPECT_EQ(NasIpMgrShowAllIp(text, 0), 0);
    EXPECT_STREQ(text, "#");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
}

TEST_F(IpList, TheListIsLoggedALineARecord)
{
    NasIpMgrAddToList("10.0.0.1", 3, 63);
    NasIpMgrAddToList("fe80::1", 4, 0);
    fake::during("kvlog", [] { EXPECT_FALSE(ip::isFree(&g_ipListMutex)); });
    NasIpMgrShowAllIpToLog();
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: IpList[10.0.0.1:3:63].", "class 0 PROTOCOL: IpList[fe80::1:4:0]."));
    EXPECT_EQ(fake::logLines().front().file, "nas_ip_mgr.cpp");
}

TEST_F(IpList, FloatingAddressesAreSupportedWhenTheSwitchSaysSo)
{
    EXPECT_EQ(NasIpMgrIsSupportFloatIP(), 1U);
    g_floatIpSupport = 0;
    EXPECT_EQ(NasIpMgrIsSupportFloatIP(), 0U);
}

} // namespace
