/*
 * What the tests of the VPC table share: an empty table, and short words for what is in it.
 */
#pragma once

#include <arpa/inet.h>
#include <cstring>
#include <fake_host.h>
#include <gmock/gmock.h>
#include <string>
#include <string_view>
#include <vector>

namespace vpc {

using Texts = std::vector<std::string>;

constexpr uint32_t kExists = 0xFFFFFFFE;
constexpr uint32_t kRefused = 0xFFFFFFFF;

inline uint32_t set(const std::string &id, std::string network)
{
    return NasSetVpcInfo(id.c_str(), network.data());
}

inline std::string shown(const vpc_record &record)
{
    return std::string(record.id) + " " + std::string(record.ip, strnlen(record.ip, sizeof record.ip)) + "/" +
           std::to_string(record.mask);
}

// The used records as "ID ADDRESS/LENGTH", in slot order.
inline Texts table()
{
    Texts records;
    for (const vpc_record &record : g_vpc) {
        if (record.in_use != 0) {
            records.push_back(shown(record));
        }
    }
    return records;
}

inline void put(size_t slot, const std::string &id, const std::string &ip, int16_t mask)
{
    g_vpc[slot] = {};
    id.copy(g_vpc[slot].id, sizeof g_vpc[slot].id - 1);
    ip.copy(g_vpc[slot].ip, sizeof g_vpc[slot].ip);
    g_vpc[slot].mask = mask;
    g_vpc[slot].in_use = 1;
}

inline void fill()
{
    for (int i = 0; i < NAS_VPC_RECORDS; ++i) {
        put(static_cast<size_t>(i), "full", "10.9.9." + std::to_string(i), 32);
    }
}

inline bool isZero(const vpc_record &record)
{
    const vpc_record zero = {};
    return memcmp(&record, &zero, sizeof zero) == 0;
}

// The id that a look-up finds, or the result it fails with.
inline std::string lookUp(const std::string &address)
{
    sockaddr_in a = {};
    char out[129] = "unset";
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr(address.c_str());
    const uint32_t result = NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&a), out);
    return result == 0 ? std::string(out) : "result " + std::to_string(result);
}

class Table : public testing::Test {
protected:
    void SetUp() override
    {
        fake::reset();
        memset(g_vpc, 0, sizeof g_vpc);
    }
    void TearDown() override { EXPECT_EQ(fake::liveBlocks(), 0U); }
};

} // namespace vpc
