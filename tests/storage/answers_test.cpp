// Every answer, byte by byte.
#include "message_peer.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <storage/answers.h>

namespace storage {
namespace {

std::string word(uint32_t value)
{
    std::string bytes;
    appendWord(bytes, value);
    return bytes;
}

std::string padded(const std::string &text, size_t width)
{
    return text + std::string(width - text.size(), '\0');
}

std::string addressEntry(uint32_t protocolType, const std::string &address, uint32_t status)
{
    return word(protocolType) + padded(address, 64) + word(status);
}

std::string error(int32_t code)
{
    return word(static_cast<uint32_t>(code));
}

struct Outcome {
    int32_t result;
    std::string payload;

    bool operator==(const Outcome &) const = default;
};

void PrintTo(const Outcome &outcome, std::ostream *out)
{
    *out << outcome.result << " with " << outcome.payload.size() << " bytes "
         << testing::PrintToString(outcome.payload.substr(0, 200));
}

Outcome ask(const std::string &data, uint32_t type, const std::string &request,
            const std::vector<Interface> &machine = {})
{
    const Data parsed = parseData(data);
    const Answer answer = answerQuestion({parsed, machine}, type, std::as_bytes(std::span(request)));
    return {answer.result, {reinterpret_cast<const char *>(answer.payload.data()), answer.payload.size()}};
}

const std::string kUnread(4, '\0');

TEST(NodeAddresses, AreEntriesOfSeventyTwoBytes)
{
    EXPECT_EQ(ask(R"({"addresses": [{"address": "10.0.0.1", "protocol_type": 7},
                     {"address": "fd00::1", "working": false}]})",
                  1, kUnread),
              (Outcome{0, word(0) + word(2) + addressEntry(7, "10.0.0.1", 1) + addressEntry(3, "fd00::1", 0)}));
}

TEST(NodeAddresses, OfTheMachineFollowThoseOfTheFileAndCountOnce)
{
    const std::vector<Interface> machine = {
        {"eth0", 2, true, true, false, 1500, "10.0.0.1", 24},   {"eth0", 2, true, true, false, 1500, "10.0.0.2", 24},
        {"eth1", 3, false, false, false, 1500, "10.0.0.3", 24}, {"eth2", 4, true, true, false, 1500, "192.168.0.1", 24},
        {"lo", 1, true, true, true, 65536, "10.0.0.9", 8},      {"eth3", 5, true, true, false, 1500, "", 0},
    };
    EXPECT_EQ(ask(R"({"addresses": [{"address": "10.0.0.1", "working": false}],
                     "address_sources": [{"interface": "eth*", "network": "10.0.0.0/8"},
                                         {"interface": "eth[01]", "protocol_type": 4, "working": false},
                                         {"interface": "eth0"}]})",
                  1, kUnread, machine),
              (Outcome{0, word(0) + word(6) + addressEntry(3, "10.0.0.1", 0) + addressEntry(3, "10.0.0.2", 1) +
                              addressEntry(3, "10.0.0.3", 0) + addressEntry(4, "10.0.0.1", 0) +
                              addressEntry(4, "10.0.0.2", 0) + addressEntry(4, "10.0.0.3", 0)}));
}

TEST(NodeAddresses, MoreThanAnAnswerHoldsAreLeftOut)
{
    std::vector<Interface> machine(14564);
    for (size_t i = 0; i < machine.size(); ++i) {
        machine[i].address = "10.0." + std::to_string(i >> 8) + "." + std::to_string(i & 255);
    }
    const Outcome outcome = ask(R"({"address_sources": [{}]})", 1, kUnread, machine);
    EXPECT_EQ(outcome.payload.size(), 8 + 14563 * 72U);
    EXPECT_EQ(outcome.payload.substr(0, 8), word(0) + word(14563));
}

TEST(Interfaces, AreEntriesOfNinetySixBytes)
{
    const std::vector<Interface> machine = {{"lo", 1, true, true, true, 65536, "127.0.0.1", 8},
                                            {"eth0", 2, true, false, false, 9000, "", 0}};
    EXPECT_EQ(ask(R"({"interfaces": [{"name": "data0", "index": 101, "up": false, "running": false, "mtu": 1400,
                                      "address": "fd00::1", "prefix_length": 64}],
                     "interface_sources": [{}, {"interface": "lo"}]})",
                  6, kUnread, machine),
              (Outcome{0, word(0) + word(3) + padded("data0", 16) + word(101) + word(0) + word(1400) + word(64) +
                              padded("fd00::1", 64) + padded("lo", 16) + word(1) + word(7) + word(65536) + word(8) +
                              padded("127.0.0.1", 64) + padded("eth0", 16) + word(2) + word(1) + word(9000) + word(0) +
                              padded("", 64)}));
}

TEST(HdfsConfiguration, FillsItsFieldsAndIsFoundHoweverTheAddressIsWritten)
{
    const std::string data = R"({"hdfs": [{"address": "fd00::1", "fs_id": 7, "tenant_id": 9, "subnet": "blue",
                                           "dtree_path": "/fs7/blue"}]})";
    const std::string expected = word(0) + word(7) + padded("/fs7/blue", 4096) + padded("blue", 64) + word(9);
    EXPECT_EQ(expected.size(), 4172U);
    EXPECT_EQ(ask(data, 3, padded("fd00::1", 64)), (Outcome{0, expected}));
    EXPECT_EQ(ask(data, 3, padded("FD00:0::0001", 64)), (Outcome{0, expected}));
    EXPECT_EQ(ask(data, 3, padded("fd00::2", 64)), (Outcome{0, padded(error(-ENOENT), 4172)}));
    EXPECT_EQ(ask(data, 3, std::string(64, '1')), (Outcome{0, padded(error(-EINVAL), 4172)}));
}

TEST(Tenant, IsThatOfTheAddress)
{
    const std::string data = R"({"tenants": [{"address": "10.0.0.1", "tenant_id": 4294967295}]})";
    EXPECT_EQ(ask(data, 11, padded("10.0.0.1", 64)), (Outcome{0, word(0) + word(4294967295U)}));
    EXPECT_EQ(ask(data, 11, padded("10.0.0.2", 64)), (Outcome{0, error(-ENOENT) + word(0)}));
    EXPECT_EQ(ask(data, 11, padded("", 64)), (Outcome{0, error(-EINVAL) + word(0)}));
}

TEST(NeighbourAddresses, AreThoseOfTheLsAndTheRequestsEntriesAreNotRead)
{
    const std::string data = R"({"neighbors": [{"eds_ls_id": -2, "addresses": [{"address": "10.0.0.1"}]}]})";
    const Outcome found{0, word(0) + word(1) + addressEntry(3, "10.0.0.1", 1)};
    const std::string bare = error(-2) + std::string(64, 'x');
    EXPECT_EQ(ask(data, 4, bare + word(0)), found);
    EXPECT_EQ(ask(data, 4, bare + word(2) + std::string(144, 'y')), found);
    EXPECT_EQ(ask(data, 4, word(2) + std::string(64, 'x') + word(0)), (Outcome{0, error(-ENOENT) + word(0)}));
    EXPECT_EQ(ask(data, 4, bare + word(2) + std::string(143, 'y')), (Outcome{-EINVAL, ""}));
    EXPECT_EQ(ask(data, 4, bare + word(0xFFFFFFFF)), (Outcome{-EINVAL, ""}));
}

TEST(ZoneAddresses, AreListed)
{
    EXPECT_EQ(ask(R"({"zone_addresses": [{"address": "10.0.0.1"}]})", 5, kUnread),
              (Outcome{0, word(0) + word(1) + addressEntry(3, "10.0.0.1", 1)}));
}

TEST(ZonesAndSubnets, MatchByFsTenantAndSubnetEachInItsOwnList)
{
    const std::string data = R"({
        "global_zones": [{"fs_id": 1, "tenant_id": 2, "subnet": "s", "addresses": [{"address": "10.0.0.1"}]}],
        "subnets": [{"fs_id": 1, "tenant_id": 2, "subnet": "s", "addresses": []}]})";
    const std::string key = word(1) + word(2) + padded("s", 64);
    const Outcome none{0, error(-ENOENT) + word(0)};
    EXPECT_EQ(ask(data, 9, key), (Outcome{0, word(0) + word(1) + addressEntry(3, "10.0.0.1", 1)}));
    EXPECT_EQ(ask(data, 14, key), (Outcome{0, word(0) + word(0)}));
    for (const uint32_t type : {9U, 14U}) {
        EXPECT_EQ(ask(data, type, word(2) + word(2) + padded("s", 64)), none);
        EXPECT_EQ(ask(data, type, word(1) + word(1) + padded("s", 64)), none);
        EXPECT_EQ(ask(data, type, word(1) + word(2) + padded("st", 64)), none);
        EXPECT_EQ(ask(data, type, word(1) + word(2) + std::string(64, 's')), none);
    }
}

TEST(NodeIds, AreRowsOf3072Bytes)
{
    EXPECT_EQ(ask(R"({"global_zone_node_ids": ["node-1", "n2"]})", 10, kUnread),
              (Outcome{0, word(0) + word(2) + padded("node-1", 3072) + padded("n2", 3072)}));
}

TEST(ContactedZone, IsSixteenBytes)
{
    EXPECT_EQ(ask(R"({"contacted_zone": {"zone_id": 1, "fs_id": 2, "tenant_id": 3}})", 13, kUnread),
              (Outcome{0, word(0) + word(1) + word(2) + word(3)}));
}

TEST(ZoneDomain, IsTwoHundredAndFiftyEightBytes)
{
    const std::string longest(253, 'd');
    EXPECT_EQ(ask(R"({"zone_domain": "a.example"})", 15, kUnread), (Outcome{0, word(0) + padded("a.example", 254)}));
    EXPECT_EQ(ask(R"({"zone_domain": ")" + longest + "\"}", 15, kUnread), (Outcome{0, word(0) + padded(longest, 254)}));
}

TEST(EmptyData, GivesEmptyListsAndSaysWhatThereIsNot)
{
    for (const uint32_t type : {1U, 5U, 6U, 10U}) {
        EXPECT_EQ(ask("{}", type, kUnread), (Outcome{0, word(0) + word(0)})) << type;
    }
    EXPECT_EQ(ask("{}", 13, kUnread), (Outcome{0, padded(error(-ENOENT), 16)}));
    EXPECT_EQ(ask("{}", 15, kUnread), (Outcome{0, padded(error(-ENOENT), 258)}));
}

TEST(Questions, OfAnotherLengthOrTypeGetAnErrorAndNoPayload)
{
    for (const Question &question : questions()) {
        for (const size_t size : {size_t{0}, question.requestSize - 1, question.requestSize + 1}) {
            EXPECT_EQ(ask("{}", question.type, std::string(size, '\0')), (Outcome{-EINVAL, ""}))
                << question.name << " " << size;
        }
    }
    for (const uint32_t type : {0U, 2U, 7U, 8U, 12U, 16U, 0xFFFFFFFFU}) {
        EXPECT_EQ(ask("{}", type, kUnread), (Outcome{-EOPNOTSUPP, ""})) << type;
    }
}

} // namespace
} // namespace storage
