// The node's addresses out of the storage-side service's data, embedded and as a process of its own.
#include "node.h"

#include <csignal>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>

namespace integration {
namespace {

using testing::HasSubstr;

// A data file with these addresses, and whether each is working.
std::string dataOf(const std::vector<std::pair<std::string, bool>> &addresses)
{
    nlohmann::json data = {{"addresses", nlohmann::json::array()}};
    for (const auto &[address, working] : addresses) {
        data["addresses"].push_back({{"address", address}, {"working", working}});
    }
    return data.dump(1);
}

class StorageNode : public testing::Test {
protected:
    StorageNode() : port_(Node::freePort()), node_({{0, "nfs", "3", port_}}) { node_.option("--period", "1"); }

    std::string data() const { return node_.root() + "/storage.json"; }
    void write(const std::string &text) const { std::ofstream(data()) << text; }
    bool becomes(const std::string &address, const std::string &state) const
    {
        return Node::eventually([&] {
            return node_.moduleState(address, "nfs") == state && accepts(address, port_) == (state == "listening");
        });
    }
    nlohmann::json question(unsigned type) const
    {
        const nlohmann::json status = node_.json({"storage", "status"});
        for (const auto &row : status["questions"]) {
            if (row["type"] == type) {
                return row;
            }
        }
        return {};
    }

    uint16_t port_;
    Node node_;
};

TEST_F(StorageNode, ServesTheAddressesOfItsDataAsTheyComeAndGo)
{
    const std::string first = Node::address(61);
    const std::string second = Node::address(62);
    const std::string idle = Node::address(63);
    write(dataOf({{first, true}, {idle, false}}));
    node_.option("--storage-data", data());
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_TRUE(becomes(first, "listening"));
    EXPECT_EQ(node_.moduleState(idle, "nfs"), "") << "an address that is not working is not served";

    write(dataOf({{second, true}, {idle, true}}));
    node_.signal(SIGHUP);

    EXPECT_TRUE(becomes(second, "listening"));
    EXPECT_TRUE(becomes(idle, "listening"));
    EXPECT_TRUE(becomes(first, ""));
}

TEST_F(StorageNode, AnAnnouncedAddressThatTheDataDoesNotHoldVanishesWithTheNextPass)
{
    write(dataOf({}));
    node_.option("--storage-data", data());
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    const std::string address = Node::address(64);
    ASSERT_EQ(node_.ctl({"ip", "add", address}).exitCode, 0);

    const std::string line = "IP[addr " + address + ", protoType 3] has been deleted.";
    EXPECT_TRUE(Node::eventually([&] { return node_.log().find(line) != std::string::npos; }));
    EXPECT_TRUE(becomes(address, ""));
}

TEST_F(StorageNode, AReloadThatIsRefusedChangesNothingAndIsShown)
{
    const std::string address = Node::address(65);
    write(dataOf({{address, true}}));
    node_.option("--storage-data", data());
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_TRUE(becomes(address, "listening"));

    write("{\n\"addresses\": 5}");
    node_.signal(SIGHUP);

    const std::string why = data() + " line 2: addresses: must be a list in [ ]";
    EXPECT_TRUE(Node::eventually([&] { return node_.json({"storage", "status"})["error"] == why; }));
    const int asked = question(1)["requests"];
    EXPECT_TRUE(Node::eventually([&] { return question(1)["requests"] > asked; }));
    EXPECT_EQ(node_.moduleState(address, "nfs"), "listening");
    EXPECT_THAT(node_.log(), HasSubstr("the data stays as it was: " + why));
}

TEST_F(StorageNode, BadDataEndsTheStartWithOneLine)
{
    write("{\n\"addresses\": 5}");
    node_.option("--storage-data", data());
    EXPECT_FALSE(node_.start());
    EXPECT_EQ(node_.startOutput(),
              "nasctrld: storage service: " + data() + " line 2: addresses: must be a list in [ ]\n");
    EXPECT_FALSE(std::filesystem::exists(node_.root() + "/run/storage.sock"));
}

TEST_F(StorageNode, ASlowOrSilentServiceTimesOutThreeTimesAndTheAddressesStay)
{
    const std::string address = Node::address(66);
    write(dataOf({{address, true}}));
    node_.option("--storage-data", data());
    node_.option("--storage-timeout-ms", "20");
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_TRUE(becomes(address, "listening"));

    ASSERT_EQ(node_.ctl({"storage", "fault", "1", "timeout"}).exitCode, 0);

    EXPECT_TRUE(Node::eventually([&] { return node_.log().find("Get Node IP failed [-110].") != std::string::npos; }));
    EXPECT_THAT(node_.log(), HasSubstr("Msg type(1) upcall failed(-110), try 3 times."));
    EXPECT_EQ(node_.moduleState(address, "nfs"), "listening");
    EXPECT_EQ(question(1)["fault"], "timeout");
}

TEST_F(StorageNode, WithoutDataKeepsTheAddressesItWasToldAndStillHasAServiceToTellFaults)
{
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    const std::string address = Node::address(67);
    ASSERT_EQ(node_.ctl({"ip", "add", address}).exitCode, 0);
    EXPECT_TRUE(becomes(address, "listening"));
    EXPECT_EQ(node_.json({"storage", "status"})["data"], "");
    const Outcome told = node_.ctl({"storage", "fault", "fail", "5"});
    EXPECT_EQ(told.exitCode, 0) << told.err;
    EXPECT_EQ(question(15)["value"], 5);
    const Outcome refused = node_.ctl({"storage", "fault", "2", "none"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_THAT(refused.err, HasSubstr("type: must be one of 1, 3, 4, 5, 6, 9, 10, 11, 13, 14, 15, or \"all\""));
}

TEST_F(StorageNode, TakesItsAddressesFromAProcessOfItsOwnThatMayComeAndGo)
{
    const std::string address = Node::address(68);
    Stored stored(node_.root());
    stored.write(dataOf({{address, true}}));
    node_.option("--storage-socket", stored.socket());
    ASSERT_TRUE(node_.start()) << node_.startOutput();
    EXPECT_TRUE(Node::eventually([&] { return node_.log().find("Get Node IP failed [-111].") != std::string::npos; }));
    EXPECT_THAT(node_.ctl({"storage", "status"}).err,
                HasSubstr("the storage service does not answer: Connection refused"));

    ASSERT_TRUE(stored.start());
    EXPECT_TRUE(becomes(address, "listening"));
    EXPECT_EQ(node_.json({"storage", "status"})["pid"], stored.pid());
    EXPECT_EQ(stored.stop(SIGTERM), 0);
    EXPECT_EQ(node_.moduleState(address, "nfs"), "listening") << "what is served stays without the service";
}

} // namespace
} // namespace integration
