/*
 * What the admin door does with the VPC table. The library behind it is a plain table that this program defines, with
 * the file where the library has it, led into a temporary folder.
 */
#include "admin/routes.h"
#include "admin/vpc_table.h"
#include "admin_node.h"
#include "vpc_file.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <gmock/gmock.h>
#include <nasctrl/vpc.h>
#include <thread>

namespace {

struct Vpcs {
    uint32_t setResult = NAS_OK;
    std::vector<std::string> sets; // "ID NETWORK"
    std::string found = "vpc_id_default";
    uint32_t findResult = NAS_OK;
    std::vector<std::string> looked; // up
    int32_t clearResult = 0;
    std::function<void()> save = [] {};
    std::function<void()> load = [] {};
};

Vpcs g_vpcs;

void put(size_t slot, const std::string &id, const std::string &ip, int16_t mask)
{
    g_vpc[slot] = {};
    id.copy(g_vpc[slot].id, sizeof g_vpc[slot].id - 1);
    ip.copy(g_vpc[slot].ip, sizeof g_vpc[slot].ip);
    g_vpc[slot].mask = mask;
    g_vpc[slot].in_use = 1;
}

} // namespace

vpc_record g_vpc[NAS_VPC_RECORDS];
char g_VpcDefault[NAS_VPC_ID_SIZE] = NAS_VPC_DEFAULT_ID;

extern "C" {

uint32_t NasSetVpcInfo(const char *vpcId, char *ipMask)
{
    g_vpcs.sets.push_back(std::string(vpcId) + " " + ipMask);
    char *rest = nullptr;
    const char *ip = strtok_r(ipMask, "/", &rest);
    if (g_vpcs.setResult == NAS_OK) {
        put(5, vpcId, ip, static_cast<int16_t>(strtol(rest, nullptr, 10)));
    }
    return g_vpcs.setResult;
}
uint32_t NasGetVpcInfoByIP(const struct sockaddr *a, char *out)
{
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(a->sa_family, &reinterpret_cast<const sockaddr_in *>(a)->sin_addr, text, sizeof text);
    g_vpcs.looked.emplace_back(text);
    strcpy(out, g_vpcs.found.c_str());
    return g_vpcs.findResult;
}
int32_t NasCheckVpcID(const char *vpcId)
{
    return strcmp(vpcId, "known") == 0 ? 0 : -1;
}
int32_t NasClearVpcInfo(void)
{
    if (g_vpcs.clearResult == 0) {
        memset(g_vpc, 0, sizeof g_vpc);
    }
    return g_vpcs.clearResult;
}
void NasVpcSave(void)
{
    g_vpcs.save();
}
void NasVpcLoad(void)
{
    g_vpcs.load();
}

} // extern "C"

namespace {

using host::admin::Answer;
using testing::ElementsAre;
using testing::IsEmpty;

class AdminVpc : public testing::Test {
protected:
    void SetUp() override
    {
        resetNode();
        g_vpcs = Vpcs();
        memset(g_vpc, 0, sizeof g_vpc);
    }

    static Answer call(const std::string &method, const std::string &target, const std::string &body = "")
    {
        return host::admin::answerRequest({method, target, body});
    }

    // Of a call that has to succeed.
    static std::string bodyOf(const std::string &method, const std::string &target, const std::string &body = "")
    {
        const Answer answer = call(method, target, body);
        EXPECT_EQ(answer.status, 200U) << answer.body;
        return answer.body;
    }

    static void expectRefusal(const Answer &answer, unsigned status, const std::string &error)
    {
        EXPECT_EQ(answer.status, status);
        EXPECT_EQ(answer.body, "{\"error\":\"" + error + "\"}");
    }

    VpcFile file_;
};

TEST_F(AdminVpc, RecordsAreListedInTheOrderOfTheirSlots)
{
    put(0, "vpc-b", "10.2.0.0", 16);
    put(99, std::string(128, 'i'), "00000000000010.1.0.0", -1);
    EXPECT_EQ(bodyOf("GET", "/v1/vpc"), R"({"records":[{"slot":0,"id":"vpc-b","address":"10.2.0.0","length":16},)"
                                        R"({"slot":99,"id":")" +
                                            std::string(128, 'i') +
                                            R"(","address":"00000000000010.1.0.0","length":-1}]})");
}

TEST_F(AdminVpc, AnEmptyTableHasNoRecords)
{
    EXPECT_EQ(bodyOf("GET", "/v1/vpc"), R"({"records":[]})");
}

TEST_F(AdminVpc, ANetworkIsAddedAndShownWhereItStands)
{
    EXPECT_EQ(bodyOf("POST", "/v1/vpc", R"({"id":"a","network":"10.1.0.0/16"})"),
              R"({"added":true,"record":{"slot":5,"id":"a","address":"10.1.0.0","length":16}})");
    EXPECT_THAT(g_vpcs.sets, ElementsAre("a 10.1.0.0/16"));
}

TEST_F(AdminVpc, ARecordThatIsThereIsShownWhereItStands)
{
    put(2, "a", "10.1.0.0", 8);
    put(3, "a", "10.1.0.0", 16);
    g_vpcs.setResult = NAS_VPC_EXISTS;
    EXPECT_EQ(bodyOf("POST", "/v1/vpc", R"({"id":"a","network":"10.1.0.0/16"})"),
              R"({"added":false,"record":{"slot":3,"id":"a","address":"10.1.0.0","length":16}})");
}

TEST_F(AdminVpc, AnIdOf127BytesIsTaken)
{
    const std::string id(127, 'i');
    bodyOf("POST", "/v1/vpc", R"({"id":")" + id + R"(","network":"10.1.0.0/16"})");
    EXPECT_THAT(g_vpcs.sets, ElementsAre(id + " 10.1.0.0/16"));
}

TEST_F(AdminVpc, AFullTableTakesNoMore)
{
    g_vpcs.setResult = NAS_INVALID;
    expectRefusal(call("POST", "/v1/vpc", R"({"id":"a","network":"10.1.0.0/16"})"), 400,
                  "the table is full with 100 records");
}

TEST_F(AdminVpc, WhatTheFileCouldNotGiveBackIsNotTaken)
{
    for (const std::string &id : {std::string(), std::string(128, 'i'), std::string(129, 'i')}) {
        expectRefusal(call("POST", "/v1/vpc", R"({"id":")" + id + R"(","network":"10.1.0.0/16"})"), 400,
                      "id: must have 1 to 127 bytes");
    }
    for (const char *id : {"a;b", R"(a\n)", R"(\u0001)", R"(\u007f)"}) {
        expectRefusal(call("POST", "/v1/vpc", std::string(R"({"id":")") + id + R"(","network":"10.1.0.0/16"})"), 400,
                      "id: must hold neither ';' nor control characters");
    }
    for (const char *network :
         {"", "/", "10.1.0.0", "10.1.0.0/", "/16", "10.1.0.0/33", "10.1.0.0/-1", "10.1.0.0/+8", "10.1.0.0/ 8",
          "10.1.0.0/8x", "10.1.0.0/8/8", "10.1.0.0/65552", "10.1.0.0/99999999999", "10.1.0/16", "10.1.0.0.0/16",
          "10.1.0.256/16", "0000000000010.1.0.0/16", "fd00::/16", "x/16"}) {
        expectRefusal(call("POST", "/v1/vpc", std::string(R"({"id":"a","network":")") + network + "\"}"), 400,
                      "network: must be an IPv4 address, '/' and a length from 0 to 32");
    }
    EXPECT_THAT(g_vpcs.sets, IsEmpty());
}

TEST_F(AdminVpc, EveryLengthFrom0To32IsTaken)
{
    for (int length = 0; length <= 32; ++length) {
        const std::string network = "10.1.0.0/" + std::to_string(length);
        bodyOf("POST", "/v1/vpc", R"({"id":"a","network":")" + network + "\"}");
        EXPECT_EQ(g_vpcs.sets.back(), "a " + network);
    }
}

TEST_F(AdminVpc, ClearingTellsHowManyRecordsThereWere)
{
    put(0, "a", "10.1.0.0", 16);
    put(7, "b", "10.2.0.0", 16);
    EXPECT_EQ(bodyOf("DELETE", "/v1/vpc"), R"({"removed":2})");
    EXPECT_EQ(bodyOf("DELETE", "/v1/vpc"), R"({"removed":0})");
    g_vpcs.clearResult = 400;
    expectRefusal(call("DELETE", "/v1/vpc"), 500, "the table was not cleared");
}

TEST_F(AdminVpc, AnAddressIsLookedUp)
{
    g_vpcs.found = "a";
    EXPECT_EQ(bodyOf("GET", "/v1/vpc/of/10.1.7.9"), R"({"address":"10.1.7.9","id":"a","default":false})");
    g_vpcs.found = "vpc_id_default";
    EXPECT_EQ(bodyOf("GET", "/v1/vpc/of/255.255.255.255"),
              R"({"address":"255.255.255.255","id":"vpc_id_default","default":true})");
    EXPECT_THAT(g_vpcs.looked, ElementsAre("10.1.7.9", "255.255.255.255"));
    g_vpcs.findResult = NAS_INVALID;
    expectRefusal(call("GET", "/v1/vpc/of/10.1.7.9"), 500, "the look-up failed, the log tells why");
}

TEST_F(AdminVpc, OnlyIpv4AddressesAreLookedUp)
{
    for (const char *address : {"::1", "10.1", "x", "10.0.0.300"}) {
        expectRefusal(call("GET", std::string("/v1/vpc/of/") + address), 400, "address: must be an IPv4 address");
    }
    EXPECT_THAT(g_vpcs.looked, IsEmpty());
}

TEST_F(AdminVpc, AnIdIsChecked)
{
    EXPECT_EQ(bodyOf("POST", "/v1/vpc/check", R"({"id":"known"})"), R"({"id":"known","known":true})");
    EXPECT_EQ(bodyOf("POST", "/v1/vpc/check", R"({"id":"b"})"), R"({"id":"b","known":false})");
    expectRefusal(call("POST", "/v1/vpc/check", R"({"id":""})"), 400, "id: must have 1 to 127 bytes");
}

// ---- the file

constexpr char kName[] = "/srv/n7/opt/dr/config/vpc.local.conf";

TEST_F(AdminVpc, ASaveTellsWhatItLeftOfALongerText)
{
    put(0, "a", "10.1.0.0", 16);
    g_vpcs.save = [this] { file_.write("a;10.1.0.0/16\n\n"); };
    EXPECT_EQ(bodyOf("POST", "/v1/vpc/save"), std::string(R"({"file":")") + kName + R"(","records":1,"left_bytes":0})");
    g_vpcs.save = [this] { file_.write("a;10.1.0.0/16\n\ntail\n"); };
    EXPECT_EQ(bodyOf("POST", "/v1/vpc/save", "{}"),
              std::string(R"({"file":")") + kName + R"(","records":1,"left_bytes":5})");
}

TEST_F(AdminVpc, ASaveThatDidNotReachTheFileIsAnError)
{
    put(0, "a", "10.1.0.0", 16);
    file_.write("older\n");
    expectRefusal(call("POST", "/v1/vpc/save"), 500,
                  std::string(kName) + " does not hold all records; the log may tell why");
}

TEST_F(AdminVpc, AFileThatCannotBeWrittenIsToldWithItsReason)
{
    bool saved = false;
    g_vpcs.save = [&saved] { saved = true; };
    file_.refuseWriting(EACCES);
    expectRefusal(call("POST", "/v1/vpc/save"), 500, std::string(kName) + " cannot be written: Permission denied");
    file_.refuseWriting(0);
    std::filesystem::create_directory(file_.path());
    expectRefusal(call("POST", "/v1/vpc/save"), 500, std::string(kName) + " cannot be written: Is a directory");
    std::filesystem::remove_all(std::filesystem::path(file_.path()).parent_path());
    expectRefusal(call("POST", "/v1/vpc/save"), 500,
                  std::string(kName) + " cannot be written: No such file or directory");
    EXPECT_FALSE(saved);
}

TEST_F(AdminVpc, AReloadTellsWhatItAdded)
{
    put(0, "a", "10.1.0.0", 16);
    file_.write("anything");
    g_vpcs.load = [] { put(1, "b", "10.2.0.0", 16); };
    EXPECT_EQ(bodyOf("POST", "/v1/vpc/reload"), std::string(R"({"file":")") + kName + R"(","added":1,"records":2})");
}

TEST_F(AdminVpc, AFileThatCannotBeReadIsToldWithItsReason)
{
    bool loaded = false;
    g_vpcs.load = [&loaded] { loaded = true; };
    expectRefusal(call("POST", "/v1/vpc/reload"), 404,
                  std::string(kName) + " cannot be read: No such file or directory");
    std::filesystem::create_directory(file_.path());
    expectRefusal(call("POST", "/v1/vpc/reload"), 500, std::string(kName) + " cannot be read: Is a directory");
    EXPECT_FALSE(loaded);
}

TEST_F(AdminVpc, CallsWithoutFieldsTakeNone)
{
    for (const auto &[method, target] :
         {std::pair{"DELETE", "/v1/vpc"}, {"POST", "/v1/vpc/save"}, {"POST", "/v1/vpc/reload"}}) {
        expectRefusal(call(method, target, R"({"x":1})"), 400, "x: is not a field of this call");
    }
}

// ---- one call at a time

TEST_F(AdminVpc, CallsDoNotWaitLongForOneThatKeepsTheTable)
{
    std::optional<host::admin::VpcHold> hold(std::in_place);
    const std::pair<const char *, const char *> calls[] = {
        {"GET", "/v1/vpc"},       {"GET", "/v1/vpc/of/10.1.1.1"}, {"DELETE", "/v1/vpc"},
        {"POST", "/v1/vpc/save"}, {"POST", "/v1/vpc/reload"},
    };
    for (const auto &[method, target] : calls) {
        const Answer answer = std::async(std::launch::async, [&] { return call(method, target); }).get();
        expectRefusal(answer, 503, "the VPC table is in use");
    }
    hold.reset();
    EXPECT_EQ(call("GET", "/v1/vpc").status, 200U);
}

TEST_F(AdminVpc, ACommandOfTheCloudModuleKeepsTheTableWhileItRuns)
{
    Answer during{};
    g_node.commands = {{"cloud_adapt", "get_vpc", "usage", nullptr}, {"other", "show", "usage", nullptr}};
    g_node.run = [&during](const std::optional<std::string> &) {
        during = std::async(std::launch::async, [] { return call("GET", "/v1/vpc"); }).get();
        return host::CommandAnswer{0, "done"};
    };
    EXPECT_EQ(bodyOf("POST", "/v1/commands", R"({"module":"cloud_adapt","command":"get_vpc"})"),
              R"({"result":0,"text":"done"})");
    EXPECT_EQ(during.status, 503U);
    bodyOf("POST", "/v1/commands", R"({"module":"other","command":"show"})");
    EXPECT_EQ(during.status, 200U);
}

} // namespace
