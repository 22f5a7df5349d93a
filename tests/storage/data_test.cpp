// The data file: what is taken, and the one line for each thing that is refused.
#include "message_peer.h"

#include <climits>
#include <fstream>
#include <gmock/gmock.h>
#include <storage/data.h>
#include <storage/json_tree.h>

using testing::ElementsAre;
using testing::SizeIs;

namespace storage {
namespace {

std::string refusal(const std::string &text)
{
    try {
        parseData(text);
    } catch (const DataError &error) {
        return error.what();
    }
    return "(taken)";
}

std::string repeated(const std::string &text, size_t times)
{
    std::string all;
    for (size_t i = 0; i < times; ++i) {
        all += text;
    }
    return all;
}

// {"addresses": [...]} with that many addresses, all different, one a line.
std::string addresses(size_t count)
{
    std::string text = "{\"addresses\": [";
    for (size_t i = 0; i < count; ++i) {
        text += std::string(i == 0 ? "" : ",") + "\n{\"address\": \"10." + std::to_string(i >> 16) + "." +
                std::to_string(i >> 8 & 255) + "." + std::to_string(i & 255) + "\"}";
    }
    return text + "]}";
}

TEST(DataFile, MayLeaveEverythingOut)
{
    const Data data = parseData("{}");
    EXPECT_THAT(data.addresses, SizeIs(0));
    EXPECT_FALSE(data.contactedZone);
    EXPECT_FALSE(data.zoneDomain);
}

TEST(DataFile, HasDefaultsForWhatAnEntryLeavesOut)
{
    const Data data = parseData(R"({"addresses": [{"address": "10.0.0.1"}], "address_sources": [{}],
        "interfaces": [{"name": "a", "index": 3}], "interface_sources": [{}]})");
    EXPECT_THAT(data.addresses, ElementsAre(ServiceAddress{"10.0.0.1", 3, true}));
    EXPECT_THAT(data.interfaces, ElementsAre(Interface{"a", 3, true, true, false, 1500, "", 0}));
    ASSERT_THAT(data.addressSources, SizeIs(1));
    EXPECT_EQ(data.addressSources[0].filter.interface, "*");
    EXPECT_FALSE(data.addressSources[0].filter.network);
    EXPECT_EQ(data.addressSources[0].protocolType, 3U);
    EXPECT_TRUE(data.addressSources[0].working);
    ASSERT_THAT(data.interfaceSources, SizeIs(1));
}

TEST(DataFile, TakesEveryFieldOfTheExample)
{
    const Data data = loadData(EXAMPLE_DATA);
    EXPECT_THAT(data.addresses,
                ElementsAre(ServiceAddress{"127.0.0.21", 3, true}, ServiceAddress{"127.0.0.22", 3, false}));
    EXPECT_THAT(data.addressSources, SizeIs(1));
    EXPECT_THAT(data.interfaces, ElementsAre(Interface{"data0", 101, true, true, false, 9000, "127.0.0.21", 8}));
    EXPECT_THAT(data.interfaceSources, SizeIs(1));
    EXPECT_EQ(data.hdfs.at("127.0.0.21").dtreePath, "/fs7/blue");
    EXPECT_EQ(data.tenants.at("127.0.0.22"), 0U);
    EXPECT_THAT(data.neighbours.at(2), SizeIs(2));
    EXPECT_THAT(data.zone, SizeIs(2));
    EXPECT_THAT(data.globalZones.at({7, 1, "blue-a"}), SizeIs(3));
    EXPECT_THAT(data.subnets.at({7, 1, "blue-a"}), SizeIs(1));
    EXPECT_THAT(data.nodeIds, ElementsAre("node-1", "node-2"));
    EXPECT_EQ(data.contactedZone->fsId, 7U);
    EXPECT_EQ(data.zoneDomain, "zone-a.nas.example");
}

TEST(DataFile, WritesEachAddressInItsShortestForm)
{
    EXPECT_EQ(parseData(R"({"addresses": [{"address": "FD00:0:0::0001"}]})").addresses[0].address, "fd00::1");
    EXPECT_EQ(refusal(R"({"addresses": [{"address": "fd00::1"}, {"address": "fd00:0::1"}]})"),
              "line 1: addresses[1]: fd00::1 of protocol type 3 is given twice");
}

TEST(DataFile, TakesAnAddressOncePerProtocolType)
{
    EXPECT_THAT(
        parseData(R"({"addresses": [{"address": "1.1.1.1"}, {"address": "1.1.1.1", "protocol_type": 4}]})").addresses,
        SizeIs(2));
}

TEST(DataFile, TakesNumbersAndTextsUpToTheirLimits)
{
    const std::string path(4095, 'p');
    const std::string domain(253, 'd');
    const Data data = parseData(R"({"hdfs": [{"address": "::1", "fs_id": 4294967295, "dtree_path": ")" + path +
                                R"("}], "neighbors": [{"eds_ls_id": -2147483648, "addresses": []},
        {"eds_ls_id": 2147483647, "addresses": []}], "zone_domain": ")" +
                                domain + "\"}");
    EXPECT_EQ(data.hdfs.at("::1").fsId, 4294967295U);
    EXPECT_EQ(data.hdfs.at("::1").dtreePath, path);
    EXPECT_TRUE(data.neighbours.contains(INT32_MIN) && data.neighbours.contains(INT32_MAX));
    EXPECT_EQ(data.zoneDomain, domain);
    EXPECT_THAT(parseData(addresses(14563)).addresses, SizeIs(14563));
}

struct RefusalRow {
    const char *name;
    std::string text;
    const char *line;
};

const RefusalRow kRefusals[] = {
    {"an empty file", "",
     "line 1: this is no JSON: syntax error while parsing value - unexpected end of input; expected '[', '{', or a "
     "literal"},
    {"a comma too many", "{\n\"addresses\": [\n],\n}",
     "line 4: this is no JSON: syntax error while parsing object key - unexpected '}'; expected string literal"},
    {"a file that is cut", "{\n\"addresses\": [\n",
     "line 2: this is no JSON: syntax error while parsing value - unexpected end of input; expected '[', '{', or a "
     "literal"},
    {"two values", "{}\n{}",
     "line 2: this is no JSON: syntax error while parsing value - unexpected '{'; expected end of input"},
    {"bytes that are no text", "{\n\"\xFF\": 1}",
     "line 2: this is no JSON: syntax error while parsing object key - invalid string: ill-formed UTF-8 byte; last "
     "read: '\"\xFF'; expected string literal"},
    {"a list", "\n[]", "line 2: must be an object in { }"},
    {"an endless nest", repeated("[", 17), "line 1: this is nested deeper than 16 levels"},
    {"an unknown field", "{\n\n\"adresses\": []}", "line 3: \"adresses\" is not a field here"},
    {"an unknown field over two lines", "{\n\"a\\n\\u001b[1mb\": []}",
     "line 2: \"a\\x0a\\x1b[1mb\" is not a field here"},
    {"a byte that is no character", "{\"a\x7F",
     "line 1: this is no JSON: syntax error while parsing object key - invalid string: missing closing quote; last "
     "read: '\"a\\x7f'; expected string literal"},
    {"an unknown field of an entry", "{\"tenants\": [\n{\"address\": \"::1\",\n\"tenant\":\n1}]}",
     "line 3: tenants[0]: \"tenant\" is not a field here"},
    {"a field twice", "{\"addresses\": [],\n\"addresses\": []}", "line 2: addresses: is given twice"},
    {"a field missing", "{\"tenants\": [\n{\n\"address\": \"::1\"}]}", "line 2: tenants[0]: tenant_id is missing"},
    {"no list", "{\n\"addresses\": {}}", "line 2: addresses: must be a list in [ ]"},
    {"no object", "{\"addresses\": [\n5]}", "line 2: addresses[0]: must be an object in { }"},
    {"a number in quotes", "{\"tenants\": [{\"address\": \"::1\",\n\"tenant_id\": \"1\"\n}]}",
     "line 2: tenants[0].tenant_id: must be a whole number from 0 to 4294967295"},
    {"a number below its range", "{\"tenants\": [{\"address\": \"::1\",\n\"tenant_id\": -1\n}]}",
     "line 2: tenants[0].tenant_id: must be a whole number from 0 to 4294967295"},
    {"a number above its range", "{\"tenants\": [{\"address\": \"::1\",\n\"tenant_id\": 4294967296\n}]}",
     "line 2: tenants[0].tenant_id: must be a whole number from 0 to 4294967295"},
    {"a number beyond 64 bits", "{\"tenants\": [{\"address\": \"::1\",\n\"tenant_id\": 18446744073709551616\n}]}",
     "line 2: tenants[0].tenant_id: must be a whole number from 0 to 4294967295"},
    {"a fraction", "{\"tenants\": [{\"address\": \"::1\",\n\"tenant_id\": 1.0\n}]}",
     "line 2: tenants[0].tenant_id: must be a whole number from 0 to 4294967295"},
    {"a signed number below its range", "{\"neighbors\": [{\"eds_ls_id\": -2147483649\n, \"addresses\": []}]}",
     "line 1: neighbors[0].eds_ls_id: must be a whole number from -2147483648 to 2147483647"},
    {"a signed number above its range", "{\"neighbors\": [{\"eds_ls_id\": 2147483648\n, \"addresses\": []}]}",
     "line 1: neighbors[0].eds_ls_id: must be a whole number from -2147483648 to 2147483647"},
    {"a number for true or false", "{\"addresses\": [{\"address\": \"::1\", \"working\":\n1}]}",
     "line 2: addresses[0].working: must be true or false"},
    {"null", "{\"addresses\":\nnull}", "line 2: addresses: must be a list in [ ]"},
    {"an address that is none", "{\"addresses\": [\n{\"address\": \"10.0.0.300\"}]}",
     "line 2: addresses[0].address: \"10.0.0.300\" is not an IPv4 or IPv6 address"},
    {"an address with a NUL behind it", "{\"addresses\": [{\"address\": \"10.0.0.3\\u0000x\"}]}",
     "line 1: addresses[0].address: \"10.0.0.3\" is not an IPv4 or IPv6 address"},
    {"an address that is a number", "{\"addresses\": [{\"address\": 10}]}",
     "line 1: addresses[0].address: must be an address in quotes"},
    {"an address twice in a list in a list",
     "{\"neighbors\": [{\"eds_ls_id\": 1, \"addresses\": [{\"address\": \"1.1.1.1\"},\n{\"address\": \"1.1.1.1\"}]}]}",
     "line 2: neighbors[0].addresses[1]: 1.1.1.1 of protocol type 3 is given twice"},
    {"a network without its length", "{\"address_sources\": [{\"network\": \"10.0.0.0\"}]}",
     "line 1: address_sources[0].network: \"10.0.0.0\" is not a network like 10.0.0.0/8 or fd00::/8"},
    {"a network with a length beyond its address", "{\"address_sources\": [{\"network\": \"10.0.0.0/33\"}]}",
     "line 1: address_sources[0].network: \"10.0.0.0/33\" is not a network like 10.0.0.0/8 or fd00::/8"},
    {"an empty pattern", "{\"interface_sources\": [{\"interface\": \"\"}]}",
     "line 1: interface_sources[0].interface: must be a text of 1 to 63 bytes without NUL"},
    {"an interface's name that is too long", "{\"interfaces\": [{\"name\": \"0123456789abcdef\", \"index\": 1}]}",
     "line 1: interfaces[0].name: must be a text of 1 to 15 bytes without NUL"},
    {"a prefix longer than its address",
     "{\"interfaces\": [{\"name\": \"a\", \"index\": 1, \"address\": \"1.1.1.1\", \"prefix_length\": 33}]}",
     "line 1: interfaces[0]: prefix_length is more than the 32 bits of its address"},
    {"a prefix without an address", "{\"interfaces\": [{\"name\": \"a\", \"index\": 1, \"prefix_length\": 1}]}",
     "line 1: interfaces[0]: prefix_length is more than the 0 bits of its address"},
    {"an interface twice", "{\"interfaces\": [{\"name\": \"a\", \"index\": 1},\n{\"name\": \"a\", \"index\": 2}]}",
     "line 2: interfaces[1]: \"a\" is given twice with the same address"},
    {"a tenant's address twice",
     "{\"tenants\": [{\"address\": \"::1\", \"tenant_id\": 1},\n{\"address\": \"0::1\", \"tenant_id\": 2}]}",
     "line 2: tenants[1]: another entry has the same address"},
    {"a neighbour twice",
     "{\"neighbors\": [{\"eds_ls_id\": 1, \"addresses\": []},\n{\"eds_ls_id\": 1, \"addresses\": []}]}",
     "line 2: neighbors[1]: another entry has the same eds_ls_id"},
    {"a subnet twice",
     "{\"subnets\": [{\"fs_id\": 1, \"tenant_id\": 2, \"subnet\": \"s\", \"addresses\": []},\n"
     "{\"fs_id\": 1, \"tenant_id\": 2, \"subnet\": \"s\", \"addresses\": []}]}",
     "line 2: subnets[1]: another entry has the same fs_id, tenant_id and subnet"},
    {"a subnet's text that is too long",
     "{\"subnets\": [{\"fs_id\": 1, \"tenant_id\": 2, \"subnet\": \"" + std::string(64, 's') + "\"}]}",
     "line 1: subnets[0].subnet: must be a text of 1 to 63 bytes without NUL"},
    {"a path that is too long",
     "{\"hdfs\": [{\"address\": \"::1\", \"fs_id\": 1, \"dtree_path\": \"" + std::string(4096, 'p') + "\"}]}",
     "line 1: hdfs[0].dtree_path: must be a text of 1 to 4095 bytes without NUL"},
    {"a node id twice", "{\"global_zone_node_ids\": [\"n\",\n\"n\"]}",
     "line 2: global_zone_node_ids[1]: \"n\" is given twice"},
    {"a node id that is too long", "{\"global_zone_node_ids\": [\"" + std::string(3072, 'n') + "\"]}",
     "line 1: global_zone_node_ids[0]: must be a text of 1 to 3071 bytes without NUL"},
    {"a domain that is too long", "{\"zone_domain\": \"" + std::string(254, 'd') + "\"}",
     "line 1: zone_domain: must be a text of 1 to 253 bytes without NUL"},
    {"a zone that is no object", "{\"contacted_zone\": []}", "line 1: contacted_zone: must be an object in { }"},
    {"more addresses than one answer holds", addresses(14564),
     "line 1: addresses: holds 14564 entries, 14563 fit into one answer"},
};

TEST(DataFile, IsRefusedInOneLineThatNamesLineAndField)
{
    for (const RefusalRow &row : kRefusals) {
        EXPECT_EQ(refusal(row.text), row.line) << row.name;
    }
}

TEST(DataFile, IsNamedInTheLineWhenItIsLoaded)
{
    const TempDir dir;
    std::ofstream(dir.file("node.json")) << "{\n\"zone_domain\": 5}";
    const std::pair<std::string, std::string> rows[] = {
        {dir.file("node.json"), " line 2: zone_domain: must be a text of 1 to 253 bytes without NUL"},
        {dir.file("absent.json"), ": cannot be read: No such file or directory"},
        {dir.path(), ": cannot be read: Is a directory"},
    };
    for (const auto &[path, line] : rows) {
        try {
            loadData(path);
            ADD_FAILURE() << path << " was taken";
        } catch (const std::runtime_error &error) {
            EXPECT_EQ(error.what(), path + line);
        }
    }
}

} // namespace
} // namespace storage
