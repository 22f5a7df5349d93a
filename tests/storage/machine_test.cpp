// The real interfaces of the machine that runs the test: of them only the loopback is certain.
#include <algorithm>
#include <gtest/gtest.h>
#include <net/if.h>
#include <storage/machine.h>

namespace storage {
namespace {

TEST(Machine, HasALoopbackWithItsAddress)
{
    const auto interfaces = readMachineInterfaces();
    const auto found = std::ranges::find(interfaces, "127.0.0.1", &Interface::address);
    ASSERT_NE(found, interfaces.end());
    EXPECT_EQ(*found, (Interface{"lo", if_nametoindex("lo"), true, true, true, found->mtu, "127.0.0.1", 8}));
    EXPECT_GT(found->mtu, 0U);
}

TEST(Machine, IsFilteredByInterfaceAndNetwork)
{
    struct Row {
        const char *name;
        Filter filter;
        bool taken;
    };
    const Row rows[] = {
        {"everything", {}, true},
        {"its name", {"lo", std::nullopt}, true},
        {"a pattern of its name", {"l?", std::nullopt}, true},
        {"another name", {"lo0", std::nullopt}, false},
        {"its network", {"lo", parseNetwork("127.0.0.0/8")}, true},
        {"its address", {"*", parseNetwork("127.0.0.1/32")}, true},
        {"every IPv4 network", {"*", parseNetwork("0.0.0.0/0")}, true},
        {"another network", {"lo", parseNetwork("10.0.0.0/8")}, false},
        {"the other half of its network", {"lo", parseNetwork("127.128.0.0/9")}, false},
        {"an IPv6 network", {"lo", parseNetwork("::/0")}, false},
    };
    const Interface loopback{"lo", 1, true, true, true, 65536, "127.0.0.1", 8};
    for (const Row &row : rows) {
        EXPECT_EQ(matches(row.filter, loopback), row.taken) << row.name;
    }
}

TEST(Machine, AnInterfaceWithoutAnAddressIsInNoNetwork)
{
    const Interface bare{"eth0", 2, true, true, false, 1500, "", 0};
    EXPECT_TRUE(matches({"eth*", std::nullopt}, bare));
    EXPECT_FALSE(matches({"eth*", parseNetwork("0.0.0.0/0")}, bare));
}

} // namespace
} // namespace storage
