// The switched-off question about addresses, and the owners of control addresses.
#include <cstdlib>
#include <cstring>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <memory>
#include <nasctrl/ipc.h>
#include <string>
#include <vector>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class IpListInfo : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }

    // A request on the heap with exactly these entries.
    static int32_t ask(uint32_t count, size_t entries, void **rsp)
    {
        const std::unique_ptr<char[]> request(new char[4 + 72 * entries]());
        memcpy(request.get(), &count, sizeof count);
        return GetIpListInfo(request.get(), rsp);
    }

    char untouched_ = 0;
    void *output_ = &untouched_;
};

TEST_F(IpListInfo, IsAnsweredWithTwelveAndNothingSent)
{
    for (const uint32_t count : {0U, 1U, 3U, 100U}) {
        EXPECT_EQ(ask(count, count, &output_), 12);
        EXPECT_EQ(output_, &untouched_);
    }
    EXPECT_THAT(fake::upcalls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
    EXPECT_EQ(fake::failableCalls(), 4U); // the copies of the requests
    EXPECT_EQ(fake::liveBlocks(), 0U);
}

TEST_F(IpListInfo, RefusesNullArgumentsTheRequestFirst)
{
    EXPECT_EQ(GetIpListInfo(nullptr, nullptr), -22);
    EXPECT_EQ(ask(0, 0, nullptr), -22);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: req is NULL, return -EINVAL(-22)!!!!!!!!!!!!",
                                         "3 PROTOCOL: rsp is NULL, return -EINVAL(-22)!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("GetIpListInfo", "GetIpListInfo"));
}

TEST_F(IpListInfo, FailsWithoutMemory)
{
    fake::failAllocation(1);
    EXPECT_EQ(ask(3, 3, &output_), -12);
    EXPECT_EQ(output_, &untouched_);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: reqMsg is NULL, return -ENOMEM(-12)!!!!!!!!!!!!"));
}

TEST_F(IpListInfo, FailsAboveTheLargestCopy)
{
    const uint32_t above = (256U << 20) / 72 + 1;
    EXPECT_EQ(ask(above, 0, &output_), -12);
    EXPECT_EQ(output_, &untouched_);
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: (ret != EOK) is failed(-12), goto OUT!!!!!!!!!!!!"));
}

struct Wanted {
    uint32_t pending;
    std::string ip;
    uint32_t lsId;
};

class ControlIpOwners : public testing::Test {
protected:
    using List = std::unique_ptr<ctrl_ip_list, decltype(&std::free)>;

    void SetUp() override { fake::reset(); }

    static List makeList(uint32_t busy, const std::vector<Wanted> &entries)
    {
        List list(static_cast<ctrl_ip_list *>(calloc(1, sizeof(ctrl_ip_list) + entries.size() * sizeof(ctrl_ip_entry))),
                  std::free);
        list->busy = busy;
        list->count = static_cast<uint32_t>(entries.size());
        for (size_t i = 0; i < entries.size(); ++i) {
            list->entries[i].pending = entries[i].pending;
            memcpy(list->entries[i].ip, entries[i].ip.data(), entries[i].ip.size());
            list->entries[i].lsId = entries[i].lsId;
        }
        return list;
    }
};

TEST_F(ControlIpOwners, AreFilledInWhereTheyArePending)
{
    fake::setCtrlIpLsId("10.0.0.1", 31);
    fake::setCtrlIpLsId("10.0.0.2", 32);
    fake::setCtrlIpLsId("10.0.0.4", 34);
    const List list =
        makeList(0, {{1, "10.0.0.1", 0}, {0, "10.0.0.2", 0}, {7, "10.0.0.3", 9}, {0xFFFFFFFF, "10.0.0.4", 9}});
    CTRL_GetIpsLsidByCtrlIp(list.get());
    const uint32_t expected[4][2] = {{0, 31}, {0, 0}, {7, 9}, {0, 34}};
    for (size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(list->entries[i].pending, expected[i][0]) << i;
        EXPECT_EQ(list->entries[i].lsId, expected[i][1]) << i;
    }
    EXPECT_THAT(fake::calls(),
                ElementsAre("CTRL_GetEdsLsidByCtrlIp(\"10.0.0.1\")", "CTRL_GetEdsLsidByCtrlIp(\"10.0.0.3\")",
                            "CTRL_GetEdsLsidByCtrlIp(\"10.0.0.4\")"));
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Use mangement add lock,ip:10.0.0.1,lsid:31.",
                                         "4 PROTOCOL: Use mangement add lock,ip:10.0.0.4,lsid:34."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("CTRL_GetIpsLsidByCtrlIp", "CTRL_GetIpsLsidByCtrlIp"));
}

TEST_F(ControlIpOwners, StayUnaskedInABusyOrEmptyList)
{
    fake::setCtrlIpLsId("10.0.0.1", 31);
    const List busy = makeList(1, {{1, "10.0.0.1", 5}});
    CTRL_GetIpsLsidByCtrlIp(busy.get());
    EXPECT_EQ(busy->entries[0].pending, 1U);
    EXPECT_EQ(busy->entries[0].lsId, 5U);
    const List empty = makeList(0, {});
    CTRL_GetIpsLsidByCtrlIp(empty.get());
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(ControlIpOwners, OfAnAddressWithoutAnEndAreAskedByItsWidth)
{
    const std::string ip(128, '1');
    fake::setCtrlIpLsId(ip, 31);
    const List list = makeList(0, {{1, ip, 0x32323232}});
    CTRL_GetIpsLsidByCtrlIp(list.get());
    EXPECT_EQ(list->entries[0].lsId, 31U);
    EXPECT_THAT(fake::log(), ElementsAre("4 PROTOCOL: Use mangement add lock,ip:" + ip + ",lsid:31."));
}

TEST_F(ControlIpOwners, OfAnAddressWithoutAnEndThatIsNotPendingStayUnasked)
{
    const std::string ip(128, '1');
    fake::setCtrlIpLsId(ip, 31);
    const List list = makeList(0, {{0, ip, 0x32323232}});
    const std::string before(reinterpret_cast<char *>(list.get()), sizeof(ctrl_ip_list) + sizeof(ctrl_ip_entry));
    CTRL_GetIpsLsidByCtrlIp(list.get());
    EXPECT_EQ(std::string(reinterpret_cast<char *>(list.get()), before.size()), before);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(ControlIpOwners, OfNoListAreRefused)
{
    CTRL_GetIpsLsidByCtrlIp(nullptr);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: list is NULL, return !!!!!!!!!!!!"));
}

} // namespace
