// Every question of the library, asked through the node's own client and answered by the real service.
#include "message_peer.h"

#include <algorithm>
#include <cerrno>
#include <gmock/gmock.h>
#include <message/message_service.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/ipc.h>
#include <storage/service.h>

namespace {

using testing::ElementsAre;

std::string padded(const std::string &text, size_t width)
{
    return text + std::string(width - text.size(), '\0');
}

class Library : public testing::Test {
protected:
    Library() : service_({dir_.file("storage.sock"), EXAMPLE_DATA})
    {
        host::MessageSettings settings;
        settings.socketPath = dir_.file("message.sock");
        settings.storageSocketPath = dir_.file("storage.sock");
        settings.storageTimeout = std::chrono::seconds(1);
        host::startMessageService(settings);
    }
    ~Library() override { host::stopMessageService(); }

    void setFault(const std::string &fault) { Peer::connectTo(dir_.file("storage.sock")).ask(frame(100, 2, 1, fault)); }

    TempDir dir_;
    storage::Service service_;
};

// The first bytes of a query's copy, which is released.
template <class Query>
std::string copyOf(Query query, size_t size, int32_t expected = 0)
{
    void *copy = nullptr;
    EXPECT_EQ(query(&copy), expected);
    const std::string bytes = copy != nullptr ? std::string(static_cast<char *>(copy), size) : "";
    nas_mem_comm_free(copy, __func__, __LINE__);
    return bytes;
}

// The address texts of a list.
template <class Query>
std::vector<std::string> addressesOf(Query query)
{
    void *copy = nullptr;
    EXPECT_EQ(query(&copy), 0);
    const auto *list = static_cast<const node_ip_list *>(copy);
    EXPECT_EQ(list->result, 0);
    std::vector<std::string> texts;
    for (uint32_t i = 0; i < list->count; ++i) {
        texts.emplace_back(list->entries[i].addr);
    }
    nas_mem_comm_free(copy, __func__, __LINE__);
    return texts;
}

zone_request blue()
{
    zone_request request{7, 1, {}};
    std::ranges::copy(std::string("blue-a"), request.subnet);
    return request;
}

TEST_F(Library, GetsTheNodesAddressesWithTheirWorkState)
{
    node_ip_list *list = nullptr;
    ASSERT_EQ(GetCurNodeIpList(&list), 0);
    EXPECT_EQ(list->result, 0);
    ASSERT_GE(list->count, 2U);
    EXPECT_EQ(list->entries[0].proto_type, 3U);
    EXPECT_STREQ(list->entries[0].addr, "127.0.0.21");
    EXPECT_EQ(list->entries[0].work_status, 1U);
    EXPECT_STREQ(list->entries[1].addr, "127.0.0.22");
    EXPECT_EQ(list->entries[1].work_status, 0U);
    FreeCurNodeIpList(list);
}

TEST_F(Library, GetsTheInterfaces)
{
    const std::string head = copyOf(GetCurNodeIfaceList, 8 + 16);
    EXPECT_EQ(wordAt(head, 0), 0U);
    EXPECT_GE(wordAt(head, 4), 2U);
    EXPECT_EQ(head.substr(8), padded("data0", 16));
}

TEST_F(Library, GetsTheAnswersOfOneAddress)
{
    const std::string address = padded("127.0.0.21", 64);
    const std::string conf = copyOf([&](void **rsp) { return GetHdfsConf(address.data(), rsp); }, 4172);
    EXPECT_EQ(wordAt(conf, 0), 0U);
    EXPECT_EQ(wordAt(conf, 4), 7U);
    EXPECT_EQ(conf.substr(8), padded("/fs7/blue", 4096) + padded("blue-a", 64) + std::string("\1\0\0\0", 4));
    EXPECT_EQ(copyOf([&](void **rsp) { return GetTenantIdByIp(address.data(), rsp); }, 8),
              std::string("\0\0\0\0\1\0\0\0", 8));
}

TEST_F(Library, GetsTheListsOfZonesSubnetsAndNeighbours)
{
    const zone_request request = blue();
    const std::string neighbours = std::string("\2\0\0\0", 4) + std::string(68, '\0');
    EXPECT_THAT(addressesOf(GetHdfsZoneIpList), ElementsAre("127.0.0.21", "127.0.0.31"));
    EXPECT_THAT(addressesOf([&](void **rsp) { return GetHdfsGlobalZoneIpList(&request, rsp); }),
                ElementsAre("127.0.0.21", "127.0.0.31", "127.0.0.41"));
    EXPECT_THAT(addressesOf([&](void **rsp) { return GetSubnetAllIpList(&request, rsp); }), ElementsAre("127.0.0.21"));
    EXPECT_THAT(addressesOf([&](void **rsp) { return GetHdfsNeighborIpList(neighbours.data(), rsp); }),
                ElementsAre("127.0.0.31", "127.0.0.32"));
}

TEST_F(Library, GetsTheZonesNodesConfigurationAndDomain)
{
    char **ids = nullptr;
    uint32_t count = 0;
    ASSERT_EQ(GetHdfsGlobalZoneNodeId(&ids, &count), 0);
    ASSERT_EQ(count, 2U);
    EXPECT_STREQ(ids[0], "node-1");
    EXPECT_STREQ(ids[1], "node-2");
    ReleaseHdfsGlobalZoneNodeId(ids, static_cast<int32_t>(count));
    EXPECT_EQ(copyOf(GetContactedZoneHdfsConfigure, 16), std::string("\0\0\0\0\1\0\0\0\7\0\0\0\1\0\0\0", 16));
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258), std::string(4, '\0') + padded("zone-a.nas.example", 254));
}

TEST_F(Library, SeesEachFaultAsItIsMeant)
{
    setFault(R"({"type": 15, "fault": "fail", "value": 5})");
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258, -EIO), "");

    setFault(R"({"type": 15, "fault": "short", "value": 8})");
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258), std::string(4, '\0') + padded("zone", 254));

    setFault(R"({"type": 15, "fault": "short", "value": 0})");
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258, -ENOMEM), "");

    setFault(R"({"type": 15, "fault": "timeout"})");
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258, -ETIMEDOUT), "");

    setFault(R"({"type": 15, "fault": "slow", "value": 1})");
    EXPECT_EQ(copyOf(GetZoneFullDomain, 258).substr(4, 6), "zone-a");
}

} // namespace
