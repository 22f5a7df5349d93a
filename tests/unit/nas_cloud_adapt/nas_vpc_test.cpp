#include "vpc_fixture.h"

#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;
using vpc::kExists;
using vpc::kRefused;
using vpc::lookUp;
using vpc::put;

namespace {

class VpcTable : public vpc::Table {};

// ---- adding

TEST_F(VpcTable, ANetworkTakesTheFirstFreeSlotAndIsCutAtTheSlash)
{
    char network[] = "10.1.0.0/16";
    EXPECT_EQ(NasSetVpcInfo("vpc-a", network), 0U);
    EXPECT_STREQ(network, "10.1.0.0");
    vpc_record expected = {};
    strcpy(expected.id, "vpc-a");
    strcpy(expected.ip, "10.1.0.0");
    expected.mask = 16;
    expected.in_use = 1;
    EXPECT_EQ(memcmp(&g_vpc[0], &expected, sizeof expected), 0);
    EXPECT_TRUE(vpc::isZero(g_vpc[1]));
    EXPECT_THAT(fake::log(), IsEmpty());
}

struct NetworkRow {
    const char *name;
    const char *text;
    const char *record;
};

void PrintTo(const NetworkRow &row, std::ostream *stream)
{
    *stream << row.name;
}

class Networks : public VpcTable, public testing::WithParamInterface<NetworkRow> {};

TEST_P(Networks, AreTakenApartAtTheFirstSlashBehindTheAddress)
{
    EXPECT_EQ(vpc::set("a", GetParam().text), 0U);
    EXPECT_THAT(vpc::table(), ElementsAre(GetParam().record));
}

const NetworkRow kNetworkRows[] = {
    {"Whole", "10.0.0.0/8", "a 10.0.0.0/8"},
    {"NoSlash", "10.0.0.0", "a 10.0.0.0/0"},
    {"NothingBehindTheSlash", "10.0.0.0/", "a 10.0.0.0/0"},
    {"LeadingSlashes", "///10.0.0.0/8", "a 10.0.0.0/8"},
    {"TwoSlashes", "10.0.0.0/8/9", "a 10.0.0.0/8"},
    {"DoubleSlash", "10.0.0.0//8", "a 10.0.0.0/0"},
    {"Newline", "10.0.0.0/24\n", "a 10.0.0.0/24"},
    {"NewlineWithoutASlash", "10.0.0.0\n", "a 10.0.0.0\n/0"},
    {"Zero", "10.0.0.0/0", "a 10.0.0.0/0"},
    {"ThirtyTwo", "10.0.0.0/32", "a 10.0.0.0/32"},
    {"ThirtyThree", "10.0.0.0/33", "a 10.0.0.0/33"},
    {"Negative", "10.0.0.0/-8", "a 10.0.0.0/-8"},
    {"Plus", "10.0.0.0/+8", "a 10.0.0.0/8"},
    {"Blanks", "10.0.0.0/ 8 ", "a 10.0.0.0/8"},
    {"LeadingZero", "10.0.0.0/010", "a 10.0.0.0/10"},
    {"Hexadecimal", "10.0.0.0/0x10", "a 10.0.0.0/0"},
    {"Junk", "10.0.0.0/x", "a 10.0.0.0/0"},
    {"JunkBehind", "10.0.0.0/8x", "a 10.0.0.0/8"},
    {"DottedMask", "10.0.0.0/255.0.0.0", "a 10.0.0.0/255"},
    {"LargestOf16Bits", "10.0.0.0/32767", "a 10.0.0.0/32767"},
    {"BeyondTheSign", "10.0.0.0/32768", "a 10.0.0.0/-32768"},
    {"Beyond16Bits", "10.0.0.0/65544", "a 10.0.0.0/8"},
    {"Beyond64Bits", "10.0.0.0/99999999999999999999", "a 10.0.0.0/-1"},
    {"NoAddress", "not-an-address/8", "a not-an-address/8"},
};

INSTANTIATE_TEST_SUITE_P(Rows, Networks, testing::ValuesIn(kNetworkRows),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(VpcTable, ATextWithoutAnAddressIsRefused)
{
    for (const char *text : {"", "/", "////"}) {
        fake::reset();
        EXPECT_EQ(vpc::set("a", text), kRefused) << text;
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Input string is not valid, not include '/'.")) << text;
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSetVpcInfo")) << text;
    }
    EXPECT_THAT(vpc::table(), IsEmpty());
}

TEST_F(VpcTable, ARecordIsTakenOnce)
{
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), 0U);
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), kExists);
    EXPECT_EQ(vpc::set("a", "10.0.0.0/65544"), kExists);
    EXPECT_EQ(vpc::set("b", "10.0.0.0/8"), 0U);
    EXPECT_EQ(vpc::set("a", "10.0.0.1/8"), 0U);
    EXPECT_EQ(vpc::set("a", "10.0.0.0/9"), 0U);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8", "b 10.0.0.0/8", "a 10.0.0.1/8", "a 10.0.0.0/9"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcTable, ADuplicateBehindAHoleIsAddedAgain)
{
    put(1, "a", "10.0.0.0", 8);
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), 0U);
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8", "a 10.0.0.0/8"));
}

TEST_F(VpcTable, ARecordLeftInAFreeSlotCountsAsADuplicate)
{
    put(0, "a", "10.0.0.0", 8);
    g_vpc[0].in_use = 0;
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), kExists);
    EXPECT_THAT(vpc::table(), IsEmpty());
}

TEST_F(VpcTable, AFreeSlotIsClearedBeforeItIsFilled)
{
    memset(&g_vpc[0], 'x', sizeof g_vpc[0]);
    g_vpc[0].in_use = 0;
    EXPECT_EQ(vpc::set("a", "10.0.0.0/8"), 0U);
    EXPECT_EQ(std::string(g_vpc[0].id, 129), "a" + std::string(128, '\0'));
    EXPECT_EQ(std::string(g_vpc[0].ip, 20), "10.0.0.0" + std::string(12, '\0'));
    EXPECT_EQ(g_vpc[0].spare, '\0');
}

TEST_F(VpcTable, AFullTableTakesNoMoreButKnowsItsOwn)
{
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(vpc::set("full", "10.0.0." + std::to_string(i) + "/32"), 0U) << i;
    }
    EXPECT_EQ(vpc::set("full", "10.0.0.100/32"), kRefused);
    EXPECT_EQ(vpc::set("full", "10.0.0.99/32"), kExists);
    EXPECT_EQ(vpc::table().size(), 100U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

struct LengthRow {
    size_t id;
    size_t ip;
    bool taken;
};

TEST_F(VpcTable, IdsTakeAtMost128CharactersAndAddresses20)
{
    constexpr LengthRow rows[] = {
        {1, 1, true},  {127, 8, true}, {128, 8, true},   {129, 8, false}, {4000, 8, false}, {5, 19, true},
        {5, 20, true}, {5, 21, false}, {5, 4000, false}, {0, 8, true},    {128, 20, true},  {129, 21, false},
    };
    for (const LengthRow &row : rows) {
        SetUp();
        SCOPED_TRACE("id " + std::to_string(row.id) + ", address " + std::to_string(row.ip));
        const std::string id(row.id, 'i');
        const std::string ip(row.ip, '1');
        EXPECT_EQ(vpc::set(id, ip + "/8"), row.taken ? 0U : kRefused);
        if (row.taken) {
            EXPECT_THAT(vpc::table(), ElementsAre(id + " " + ip + "/8"));
            EXPECT_EQ(g_vpc[0].id[128], '\0');
            EXPECT_EQ(g_vpc[0].spare, '\0');
            EXPECT_EQ(vpc::set(id, ip + "/8"), kExists);
        } else {
            EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Memcpy failed."));
            EXPECT_THAT(fake::logFuncs(), ElementsAre("NasSetVpcInfo"));
            EXPECT_TRUE(vpc::isZero(g_vpc[0]));
        }
    }
}

TEST_F(VpcTable, AnAdditionWithoutTextsIsRefused)
{
    char network[] = "10.0.0.0/8";
    EXPECT_EQ(NasSetVpcInfo(nullptr, network), kRefused);
    EXPECT_EQ(NasSetVpcInfo("a", nullptr), kRefused);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: vpcId is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: ipMask is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
    EXPECT_THAT(vpc::table(), IsEmpty());
}

// ---- looking up

TEST_F(VpcTable, AnAddressBelongsToTheNetworkThatItLiesIn)
{
    vpc::set("a", "10.1.0.0/16");
    vpc::set("b", "172.16.5.0/24");
    vpc::set("c", "11.0.0.0/8");
    EXPECT_EQ(lookUp("10.1.7.9"), "a");
    EXPECT_EQ(lookUp("10.2.0.1"), "vpc_id_default");
    EXPECT_EQ(lookUp("172.16.5.200"), "b");
    EXPECT_EQ(lookUp("172.16.6.1"), "vpc_id_default");
    EXPECT_EQ(lookUp("11.255.0.1"), "c");
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcTable, TheFirstOfSeveralNetworksWins)
{
    vpc::set("wide", "10.0.0.0/8");
    vpc::set("narrow", "10.1.0.0/16");
    EXPECT_EQ(lookUp("10.1.0.1"), "wide");
}

struct MaskRow {
    int16_t mask;
    const char *inside;
    const char *outside;
};

TEST_F(VpcTable, TheShiftIsTakenModulo32OfTheAddressAsItLiesInMemory)
{
    // The network is 10.20.30.40. In memory its last octet holds the highest bits, which the shift drops first.
    constexpr MaskRow rows[] = {
        {0, "10.20.30.40", "10.20.30.41"},   {32, "10.20.30.40", "10.20.30.41"}, {24, "10.20.30.0", "10.20.31.40"},
        {16, "10.20.0.0", "10.21.30.40"},    {8, "10.0.0.0", "11.20.30.40"},     {31, "10.20.30.168", "10.20.30.41"},
        {25, "10.20.30.254", "10.20.30.41"}, {1, "12.0.0.0", "11.0.0.0"},        {4, "26.0.0.0", "11.20.30.40"},
        {33, "12.0.0.0", "11.0.0.0"},        {-8, "10.20.30.0", "10.20.31.40"},  {64, "10.20.30.40", "10.20.30.41"},
        {-1, "10.20.30.168", "10.20.30.41"},
    };
    for (const MaskRow &row : rows) {
        SCOPED_TRACE("mask " + std::to_string(row.mask));
        put(0, "a", "10.20.30.40", row.mask);
        EXPECT_EQ(lookUp(row.inside), "a");
        EXPECT_EQ(lookUp(row.outside), "vpc_id_default");
    }
}

TEST_F(VpcTable, ANetworkWithoutALengthIsItsExactAddress)
{
    vpc::set("a", "10.1.0.0");
    EXPECT_EQ(lookUp("10.1.0.0"), "a");
    EXPECT_EQ(lookUp("10.1.0.1"), "vpc_id_default");
}

TEST_F(VpcTable, AFreeSlotAnswersForTheAddressOfAllOnesAlone)
{
    EXPECT_EQ(lookUp("255.255.255.255"), "");
    EXPECT_EQ(lookUp("255.255.255.254"), "vpc_id_default");
    vpc::fill();
    EXPECT_EQ(lookUp("255.255.255.255"), "vpc_id_default");
}

TEST_F(VpcTable, ANetworkThatIsNoAddressStandsForAllOnes)
{
    vpc::set("a", "not-an-address/8");
    EXPECT_EQ(lookUp("255.1.2.3"), "a");
    EXPECT_EQ(lookUp("254.1.2.3"), "vpc_id_default");
}

TEST_F(VpcTable, ALookUpReadsFreeSlotsToo)
{
    put(7, "left", "10.0.0.0", 8);
    g_vpc[7].in_use = 0;
    EXPECT_EQ(lookUp("10.1.2.3"), "left");
}

TEST_F(VpcTable, AnIdOf128CharactersIsFoundWholeAndTerminated)
{
    const std::string id(128, 'i');
    vpc::set(id, "10.0.0.0/8");
    sockaddr_in a = {};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = inet_addr("10.1.1.1");
    const auto out = std::make_unique<char[]>(129); // exactly sized, so that a sanitizer sees a step outside
    memset(out.get(), 'x', 129);
    EXPECT_EQ(NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&a), out.get()), 0U);
    EXPECT_EQ(std::string(out.get()), id);
}

TEST_F(VpcTable, AnAddressOf20CharactersIsReadToItsEnd)
{
    vpc::set("a", "0000000000012.0.0.1\t/8"); // octal, and a blank at the end
    EXPECT_EQ(strnlen(g_vpc[0].ip, 21), 20U);
    EXPECT_EQ(lookUp("10.9.9.9"), "a");
}

TEST_F(VpcTable, TheDefaultCanBeReplaced)
{
    strcpy(g_VpcDefault, "elsewhere");
    EXPECT_EQ(lookUp("10.0.0.1"), "elsewhere");
    memset(g_VpcDefault, 0, sizeof g_VpcDefault);
    strcpy(g_VpcDefault, "vpc_id_default");
}

TEST_F(VpcTable, OnlyIpv4AddressesAreLookedUp)
{
    char out[129] = "unset";
    sockaddr_storage a = {};
    for (const int family : {AF_UNSPEC, AF_UNIX, AF_INET6}) {
        fake::reset();
        a.ss_family = static_cast<sa_family_t>(family);
        EXPECT_EQ(NasGetVpcInfoByIP(reinterpret_cast<const sockaddr *>(&a), out), kRefused);
        EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Input ip is not ipv4."));
        EXPECT_THAT(fake::logFuncs(), ElementsAre("NasGetVpcInfoByIP"));
    }
    EXPECT_STREQ(out, "unset");
}

TEST_F(VpcTable, ALookUpWithoutAddressOrOutputIsRefused)
{
    char out[129] = "unset";
    const sockaddr a = {AF_INET, {}};
    EXPECT_EQ(NasGetVpcInfoByIP(nullptr, out), kRefused);
    EXPECT_EQ(NasGetVpcInfoByIP(&a, nullptr), kRefused);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: a is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: out is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
}

// ---- checking, clearing, copying

TEST_F(VpcTable, AnIdIsKnownWhenASlotHasItUsedOrFree)
{
    vpc::set("a", "10.0.0.0/8");
    put(99, "left", "10.0.0.0", 8);
    g_vpc[99].in_use = 0;
    EXPECT_EQ(NasCheckVpcID("a"), 0);
    EXPECT_EQ(NasCheckVpcID("left"), 0);
    EXPECT_EQ(NasCheckVpcID("b"), -1);
    EXPECT_EQ(NasCheckVpcID("aa"), -1);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(VpcTable, AnEmptyIdIsKnownWhileASlotIsFree)
{
    EXPECT_EQ(NasCheckVpcID(""), 0);
    vpc::fill();
    EXPECT_EQ(NasCheckVpcID(""), -1);
}

TEST_F(VpcTable, NoIdIsNotKnown)
{
    EXPECT_EQ(NasCheckVpcID(nullptr), -1);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Input is null."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("NasCheckVpcID"));
}

TEST_F(VpcTable, ClearingFreesEverySlot)
{
    vpc::fill();
    EXPECT_EQ(NasClearVpcInfo(), 0);
    for (const vpc_record &record : g_vpc) {
        EXPECT_TRUE(vpc::isZero(record));
    }
}

TEST_F(VpcTable, ACopyIsTheWholeRecordButItsSpareByte)
{
    vpc_record source;
    vpc_record target;
    memset(&source, 's', sizeof source);
    memset(&target, 't', sizeof target);
    EXPECT_EQ(NasCopyVpc(&target, &source), 0U);
    EXPECT_EQ(target.spare, 't');
    target.spare = 's';
    EXPECT_EQ(memcmp(&target, &source, sizeof source), 0);
}

TEST_F(VpcTable, ACopyOfNothingIsRefused)
{
    vpc_record record = {};
    EXPECT_EQ(NasCopyVpc(nullptr, &record), kRefused);
    EXPECT_EQ(NasCopyVpc(&record, nullptr), kRefused);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: dst is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!",
                                         "3 PROTOCOL: src is NULL, return NAS_INVALID(-1)!!!!!!!!!!!!"));
}

TEST_F(VpcTable, TheGeneralQueryIsEmpty)
{
    EXPECT_EQ(NasGetVpcInfo(), 0U);
}

// ---- sorting and listing

TEST_F(VpcTable, SortsByIdThenByAddressAsText)
{
    vpc::set("b", "10.0.0.0/8");
    vpc::set("a", "9.0.0.0/8");
    vpc::set("a", "10.0.0.0/8");
    vpc::set("B", "10.0.0.0/8");
    vpc::set("\xff", "10.0.0.0/8");
    vpc::set("a", "10.0.0.0/16");
    vpc::set("ab", "1.0.0.0/8");
    NasSortVpc();
    // The two records of equal id and address change places whenever they meet.
    EXPECT_THAT(vpc::table(), ElementsAre("B 10.0.0.0/8", "a 10.0.0.0/16", "a 10.0.0.0/8", "a 9.0.0.0/8",
                                          "ab 1.0.0.0/8", "b 10.0.0.0/8", "\xff 10.0.0.0/8"));
}

TEST_F(VpcTable, EqualRecordsChangePlaces)
{
    put(0, "a", "10.0.0.0", 8);
    put(1, "a", "10.0.0.0", 16);
    NasSortVpc();
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/16", "a 10.0.0.0/8"));
    NasSortVpc();
    EXPECT_THAT(vpc::table(), ElementsAre("a 10.0.0.0/8", "a 10.0.0.0/16"));
}

TEST_F(VpcTable, ASortingPassStopsAtTheFirstFreeSlot)
{
    put(0, "c", "10.0.0.0", 8);
    put(1, "b", "10.0.0.0", 8);
    put(3, "a", "10.0.0.0", 8);
    NasSortVpc();
    EXPECT_STREQ(g_vpc[0].id, "b");
    EXPECT_STREQ(g_vpc[1].id, "c");
    // The free slot is compared like any other when it is the first of a pair: an empty id stays in front.
    EXPECT_STREQ(g_vpc[2].id, "");
    EXPECT_STREQ(g_vpc[3].id, "a");
}

TEST_F(VpcTable, AFullTableIsSorted)
{
    for (size_t i = 0; i < 100; ++i) {
        put(i, std::to_string(299 - i), "10.0.0.0", 8);
    }
    NasSortVpc();
    for (size_t i = 0; i < 100; ++i) {
        EXPECT_EQ(g_vpc[i].id, std::to_string(200 + i));
    }
}

std::string padded(const std::string &text)
{
    return text + std::string(32 - std::min<size_t>(text.size(), 32), ' ');
}

const std::string kDashLine = std::string(78, '-') + "\n";
const std::string kHead = "\n" + padded("VpcID") + padded("IP") + padded("Mask") + "\n" + kDashLine;

TEST_F(VpcTable, AnEmptyTableListsItsHead)
{
    char text[512];
    EXPECT_EQ(NasListVpcInfo(text, sizeof text), kHead.size() + kDashLine.size());
    EXPECT_EQ(text, kHead + kDashLine);
}

TEST_F(VpcTable, AListingIsSortedAndShowsMasksAsUnsignedNumbers)
{
    char text[2048];
    const std::string wide(40, 'w');
    vpc::set("b", "10.2.0.0/16");
    vpc::set("a", "10.1.0.0/-1");
    vpc::set(wide, "10.3.0.0/24");
    const std::string expected = kHead + padded("a") + " " + padded("10.1.0.0") + padded("18446744073709551615") +
                                 "\n" + padded("b") + " " + padded("10.2.0.0") + padded("16") + "\n" + wide + " " +
                                 padded("10.3.0.0") + padded("24") + "\n" + kDashLine;
    EXPECT_EQ(NasListVpcInfo(text, sizeof text), expected.size());
    EXPECT_EQ(text, expected);
    EXPECT_STREQ(g_vpc[0].id, "a");
}

TEST_F(VpcTable, AListingIsCutToTheRoomAndCountsWhatIsThere)
{
    char whole[1024];
    vpc::set("a", "10.1.0.0/16");
    const size_t length = NasListVpcInfo(whole, sizeof whole);
    for (uint32_t size = 1; size <= length + 1; ++size) {
        const auto buffer = std::make_unique<char[]>(size); // exactly sized, so that a sanitizer sees a step outside
        EXPECT_EQ(NasListVpcInfo(buffer.get(), size), size - 1) << "size " << size;
        EXPECT_EQ(std::string(buffer.get()), std::string(whole).substr(0, size - 1)) << "size " << size;
    }
}

TEST_F(VpcTable, AListingWithoutRoomWritesNothing)
{
    char text[8] = "unset";
    vpc::set("a", "10.1.0.0/16");
    EXPECT_EQ(NasListVpcInfo(text, 0), 0U);
    EXPECT_STREQ(text, "unset");
}

TEST_F(VpcTable, AListingIntoNothingIsRefused)
{
    EXPECT_EQ(NasListVpcInfo(nullptr, 64), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: buf is NULL, return 0(0)!!!!!!!!!!!!"));
}

} // namespace
