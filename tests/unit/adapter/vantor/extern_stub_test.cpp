#include <fake_host.h>

#include <gmock/gmock.h>
#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kDpcConf[] = "dpc.conf";
constexpr char kServerConf[] = "/opt/ostrak/eds/eds-f/conf/EBSServer.cfg";
constexpr char kReadFailed[] = "3 PROTOCOL: ret != 0 is failed, return NAS_ERROR!!!!!!!!!!!!";

std::string nullLine(const std::string &argument)
{
    return "3 PROTOCOL: " + argument + " is NULL, return NAS_ERROR(1)!!!!!!!!!!!!";
}

class Config : public testing::Test {
protected:
    void SetUp() override { fake::reset(); }
    void TearDown() override { EXPECT_EQ(fake::liveBlocks(), 0U); }
};

// ---- loaders

TEST_F(Config, ALoadedFileIsLoadedOnce)
{
    EXPECT_EQ(DpcInitExternStub(), 0U);
    EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_init("/opt/marovesta/brisqueta/conf/dpc.conf"))"));
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: load_cfg ini retry 3 -1."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcInitExternStub"));
}

TEST_F(Config, LoadingIsTriedThreeTimesWithASleepAfterEachFailure)
{
    fake::answer("kvos_cfg_init", {-1, -2, -3});
    EXPECT_EQ(DpcInitExternStub(), static_cast<uint32_t>(-3));
    const std::string load = R"(kvos_cfg_init("/opt/marovesta/brisqueta/conf/dpc.conf"))";
    const std::string sleep = "kvos_msleep(5000)";
    EXPECT_THAT(fake::calls(), ElementsAre(load, sleep, load, sleep, load, sleep));
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: load_cfg ini retry 3 -1.", "class 0 PROTOCOL: load_cfg ini retry 2 -1.",
                            "class 0 PROTOCOL: load_cfg ini retry 1 -1."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcInitExternStub", "DpcInitExternStub", "DpcInitExternStub"));
    EXPECT_EQ(fake::logLines().front().file, "extern_stub.cpp");
}

TEST_F(Config, LoadingMaySucceedAtTheThirdAttempt)
{
    struct Row {
        uint32_t (*load)();
        const char *call;
    };
    const Row rows[] = {
        {DpcInitExternStub, R"(kvos_cfg_init("/opt/marovesta/brisqueta/conf/dpc.conf"))"},
        {nas_ctrl_cluster_init, R"(ProtoCfgLoadFile("/opt/ostrak/eds/eds-f/conf/EBSServer.cfg"))"},
    };
    for (const Row &row : rows) {
        SetUp();
        const std::string call = row.call;
        fake::answer(call.substr(0, call.find('(')), {4, 5, 0});
        EXPECT_EQ(row.load(), 0U) << call;
        const std::string sleep = "kvos_msleep(5000)";
        EXPECT_THAT(fake::calls(), ElementsAre(call, sleep, call, sleep, call));
        EXPECT_THAT(fake::log(), testing::SizeIs(3)) << call;
    }
}

TEST_F(Config, LoadingEndsWithTheFirstSuccess)
{
    fake::answer("kvos_cfg_init", {4, 0});
    EXPECT_EQ(DpcInitExternStub(), 0U);
    EXPECT_THAT(fake::calls("kvos_cfg_init"), testing::SizeIs(2));
    EXPECT_THAT(fake::calls("kvos_msleep"), testing::SizeIs(1));
}

TEST_F(Config, TheServersFileIsLoadedTheSameWay)
{
    fake::answer("ProtoCfgLoadFile", {5, 6, 7});
    EXPECT_EQ(nas_ctrl_cluster_init(), 7U);
    const std::string load = "ProtoCfgLoadFile(\"" + std::string(kServerConf) + "\")";
    const std::string sleep = "kvos_msleep(5000)";
    EXPECT_THAT(fake::calls(), ElementsAre(load, sleep, load, sleep, load, sleep));
    EXPECT_THAT(fake::log(),
                ElementsAre("class 0 PROTOCOL: load_cfg ini retry 3.", "class 0 PROTOCOL: load_cfg ini retry 2.",
                            "class 0 PROTOCOL: load_cfg ini retry 1."));
    EXPECT_THAT(fake::logFuncs(), testing::Each("nas_ctrl_cluster_init"));
}

TEST_F(Config, StartLoadsTheServersFile)
{
    EXPECT_EQ(extern_stub_init(), 0U);
    EXPECT_THAT(fake::log(), ElementsAre("class 0 PROTOCOL: load_cfg ini retry 3."));
}

TEST_F(Config, StartFailsWithoutTheServersFile)
{
    fake::answerAlways("ProtoCfgLoadFile", 9);
    EXPECT_EQ(extern_stub_init(), 1U);
    EXPECT_EQ(fake::log().back(), kReadFailed);
    EXPECT_EQ(fake::logFuncs().back(), "extern_stub_init");
}

// ---- values of the form name:address

struct PairGetter {
    const char *name;
    uint32_t (*get)(char *out, int len);
    const char *logName;
    const char *file;
    const char *section;
    const char *key;
    const char *reader;
};
constexpr PairGetter kPairGetters[] = {
    {"getLocalIPAddr", getLocalIPAddr, "DpcGetLocalIpAddr", kDpcConf, "OSK_MID_DPC", "dpc_data_ip",
     "kvos_cfg_getItemValue"},
    {"GetDioCtrlIp", GetDioCtrlIp, "GetDioCtrlIp", kDpcConf, "OSK_MID_DPC", "dio_ctrl_ip", "kvos_cfg_getItemValue"},
    {"getEbsCtrlIPAddr", getEbsCtrlIPAddr, "DpcGetCtrlIpAddr", kDpcConf, "OSK_MID_DPC", "dpc_ctrl_ip",
     "kvos_cfg_getItemValue"},
    {"EbsGetDpcDataAddr", EbsGetDpcDataAddr, "EbsGetDpcDataAddr", kServerConf, "GLOBAL", "dpc_ip",
     "ProtoCfgGetStringValue"},
};

class PairValues : public Config, public testing::WithParamInterface<PairGetter> {
protected:
    static void set(const std::string &value)
    {
        fake::setConfig(GetParam().file, GetParam().section, GetParam().key, value);
    }
};
INSTANTIATE_TEST_SUITE_P(Getters, PairValues, testing::ValuesIn(kPairGetters),
                         [](const auto &getter) { return std::string(getter.param.name); });

TEST_P(PairValues, GiveWhatFollowsTheFirstColon)
{
    char out[64];
    set("eth0:10.0.0.1");
    EXPECT_EQ(GetParam().get(out, sizeof out), 0U);
    EXPECT_STREQ(out, "10.0.0.1");
    EXPECT_THAT(fake::calls(), ElementsAre(std::string(GetParam().reader) + "(\"" + GetParam().section + "\", \"" +
                                           GetParam().key + "\", 256)"));
    EXPECT_THAT(fake::log(), IsEmpty());
    set("eth0:fd00::1");
    EXPECT_EQ(GetParam().get(out, sizeof out), 0U);
    EXPECT_STREQ(out, "fd00::1");
    set("eth0:");
    EXPECT_EQ(GetParam().get(out, sizeof out), 0U);
    EXPECT_STREQ(out, "");
}

TEST_P(PairValues, AreMalformedWithoutAColon)
{
    char out[64] = "unset";
    set("10.0.0.1");
    EXPECT_EQ(GetParam().get(out, sizeof out), 0xFFFFFFFFU);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Bad format pair:10.0.0.1\n"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre(GetParam().logName));
}

TEST_P(PairValues, AreReadUpTo255Characters)
{
    char out[256];
    set("eth0:" + std::string(250, '1'));
    EXPECT_EQ(GetParam().get(out, sizeof out), 0U);
    EXPECT_EQ(out, std::string(250, '1'));
    set(std::string(255, '1'));
    EXPECT_EQ(GetParam().get(out, sizeof out), 0xFFFFFFFFU);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Bad format pair:" + std::string(255, '1') + "\n"));
}

TEST_P(PairValues, FailWhenTheyAreMissing)
{
    char out[64] = "unset";
    EXPECT_EQ(GetParam().get(out, sizeof out), 1U);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre(kReadFailed));
    EXPECT_THAT(fake::logFuncs(), ElementsAre(GetParam().logName));
}

TEST_P(PairValues, MustFitTheOutputWithTheirNul)
{
    set("eth0:10.0.0.1");
    const auto out = std::make_unique<char[]>(9); // exactly sized, so that a sanitizer sees a step outside
    EXPECT_EQ(GetParam().get(out.get(), 9), 0U);
    EXPECT_STREQ(out.get(), "10.0.0.1");
    EXPECT_NE(GetParam().get(out.get(), 8), 0U);
    EXPECT_STREQ(out.get(), "");
}

TEST_P(PairValues, FailIntoNoRoom)
{
    char out[64] = "unset";
    set("eth0:10.0.0.1");
    EXPECT_NE(GetParam().get(out, 0), 0U);
    EXPECT_NE(GetParam().get(out, -1), 0U);
    EXPECT_STREQ(out, "unset");
    EXPECT_EQ(GetParam().get(nullptr, 64), 1U);
    EXPECT_THAT(fake::log(), ElementsAre(nullLine("out")));
    EXPECT_THAT(fake::logFuncs(), ElementsAre(GetParam().logName));
}

// ---- texts and numbers

TEST_F(Config, TheClusterTypeMustBeShorterThanItsBound)
{
    char out[8] = "unset";
    fake::setConfig(kDpcConf, "GLOBAL", "cluster_type", "abcdefg");
    EXPECT_EQ(DpcGetClusterType(out, 7), 1U);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: valueLen >= len"));
    EXPECT_EQ(DpcGetClusterType(out, 8), 0U);
    EXPECT_STREQ(out, "abcdefg");
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetClusterType"));
}

TEST_F(Config, AnEmptyClusterTypeFailsItsPrint)
{
    char out[8] = "unset";
    fake::setConfig(kDpcConf, "GLOBAL", "cluster_type", "");
    EXPECT_EQ(DpcGetClusterType(out, sizeof out), 1U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: sprintf_s error(0"));
}

TEST_F(Config, ABoundOfZeroOrLessRefusesEveryValue)
{
    char out[8] = "unset";
    uint32_t id = 5;
    fake::setConfig(kDpcConf, "GLOBAL", "cluster_type", "");
    fake::setConfig(kDpcConf, "GLOBAL", "cm_cluster_id", "");
    EXPECT_EQ(DpcGetClusterType(out, 0), 1U);
    EXPECT_EQ(DpcGetClusterType(out, -1), 1U);
    EXPECT_EQ(DpcGetClusterId(&id, 0), 1U);
    EXPECT_EQ(DpcGetClusterId(&id, -1), 1U);
    EXPECT_STREQ(out, "unset");
    EXPECT_EQ(id, 5U);
    EXPECT_THAT(fake::log(), testing::Each("3 PROTOCOL: valueLen >= len"));
}

TEST_F(Config, TheClusterIdIsADecimalShorterThanItsBound)
{
    uint32_t id = 5;
    fake::setConfig(kDpcConf, "GLOBAL", "cm_cluster_id", "1234");
    EXPECT_EQ(DpcGetClusterId(&id, 4), 1U);
    EXPECT_EQ(id, 5U);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: valueLen >= len"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetClusterId"));
    EXPECT_EQ(DpcGetClusterId(&id, 5), 0U);
    EXPECT_EQ(id, 1234U);
}

TEST_F(Config, ClusterTypeAndIdAreReadUpTo127Characters)
{
    char out[128];
    uint32_t id = 5;
    const std::string type(127, 't');
    fake::setConfig(kDpcConf, "GLOBAL", "cluster_type", type);
    fake::setConfig(kDpcConf, "GLOBAL", "cm_cluster_id", std::string(124, '0') + "321");
    EXPECT_EQ(DpcGetClusterType(out, sizeof out), 0U);
    EXPECT_EQ(out, type);
    EXPECT_EQ(DpcGetClusterId(&id, 128), 0U);
    EXPECT_EQ(id, 321U);
    EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_getItemValue("GLOBAL", "cluster_type", 128))",
                                           R"(kvos_cfg_getItemValue("GLOBAL", "cm_cluster_id", 128))"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Config, JunkIsTheNumberZero)
{
    uint32_t id = 5;
    fake::setConfig(kDpcConf, "GLOBAL", "cm_cluster_id", "junk");
    EXPECT_EQ(DpcGetClusterId(&id, 64), 0U);
    EXPECT_EQ(id, 0U);
}

TEST_F(Config, TheDomainNameIsReadStraightIntoTheOutput)
{
    char out[16] = "unset";
    EXPECT_EQ(DpcGetMDomainName(out, sizeof out), 1U);
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre(kReadFailed));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetMDomainName"));
    fake::setConfig(kDpcConf, "GLOBAL", "ds_name", "ds_1");
    EXPECT_EQ(DpcGetMDomainName(out, sizeof out), 0U);
    EXPECT_STREQ(out, "ds_1");
    EXPECT_EQ(fake::calls().back(), R"(kvos_cfg_getItemValue("GLOBAL", "ds_name", 16))");
}

TEST_F(Config, TheCmServerListIsReadStraightIntoTheOutput)
{
    char out[16] = "unset";
    fake::answer("kvos_cfg_getItemValue", {-9});
    EXPECT_EQ(getEbsCmIpList(out, sizeof out), static_cast<uint32_t>(-9));
    EXPECT_STREQ(out, "unset");
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ret is failed, return ret!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetCmIpList"));
    fake::setConfig(kDpcConf, "GLOBAL", "cm_ip_list", "10.1.0.1:1");
    EXPECT_EQ(getEbsCmIpList(out, sizeof out), 0U);
    EXPECT_STREQ(out, "10.1.0.1:1");
    EXPECT_EQ(fake::calls().back(), R"(kvos_cfg_getItemValue("GLOBAL", "cm_ip_list", 16))");
}

TEST_F(Config, TheIpPortListHasAFixedSize)
{
    char out[896] = "unset";
    fake::answer("kvos_cfg_getItemValue", {-9});
    EXPECT_EQ(getEbsIpPortList(out), static_cast<uint32_t>(-9));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: ret is failed, return ret!!!!!!!!!!!!"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetIpPortList"));
    const std::string list(895, '1');
    fake::setConfig(kDpcConf, "GLOBAL", "ebs_ctrl_ip_list", list);
    EXPECT_EQ(getEbsIpPortList(out), 0U);
    EXPECT_EQ(out, list);
    EXPECT_EQ(fake::calls().back(), R"(kvos_cfg_getItemValue("GLOBAL", "ebs_ctrl_ip_list", 896))");
}

TEST_F(Config, TheControlAddressIsTheHostsDataAddress)
{
    char out[16] = "unset";
    EXPECT_EQ(getDpcCtrlIPAddr(out, sizeof out), 0U);
    EXPECT_STREQ(out, "10.0.0.9");
    EXPECT_NE(getDpcCtrlIPAddr(out, 8), 0U);
    EXPECT_NE(getDpcCtrlIPAddr(out, 0), 0U);
    EXPECT_THAT(fake::log(), IsEmpty());
    fake::setLocalDataAddr(nullptr);
    EXPECT_EQ(getDpcCtrlIPAddr(out, sizeof out), 0xFFFFFFFFU);
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Local_ip is null."));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("getDpcCtrlIPAddr"));
}

TEST_F(Config, TheInodeNumberIsLoggedWithItsText)
{
    uint32_t number = 5;
    fake::setConfig(kDpcConf, "GLOBAL", "inode_num", "4000 files");
    EXPECT_EQ(getShimInodeCacheMaxNumber(&number), 0U);
    EXPECT_EQ(number, 4000U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: get inode max num 4000 4000 files from cfg"));
    EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_getItemValue("GLOBAL", "inode_num", 256))"));
}

TEST_F(Config, AnInodeNumberIsReadUpTo255Characters)
{
    uint32_t number = 5;
    const std::string text = std::string(252, '0') + "321";
    fake::setConfig(kDpcConf, "GLOBAL", "inode_num", text);
    EXPECT_EQ(getShimInodeCacheMaxNumber(&number), 0U);
    EXPECT_EQ(number, 321U);
    EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: get inode max num 321 " + text + " from cfg"));
}

TEST_F(Config, AMissingInodeNumberFailsAndAMissingOutputIsSilent)
{
    uint32_t number = 5;
    EXPECT_EQ(getShimInodeCacheMaxNumber(nullptr), 1U);
    EXPECT_THAT(fake::log(), IsEmpty());
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_EQ(getShimInodeCacheMaxNumber(&number), 1U);
    EXPECT_EQ(number, 5U);
    EXPECT_THAT(fake::log(), ElementsAre(kReadFailed));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("getShimInodeCacheMaxNumber"));
}

TEST_F(Config, TheBusinessClusterIdIsTheResultItself)
{
    struct Row {
        const char *text;
        uint32_t result;
        const char *shown;
    };
    const Row rows[] = {
        {"7", 7, "7"},
        {"1", 1, "1"}, // looks like a failure
        {"4294967301", 5, "4294967301"},
        {"-1", 0xFFFFFFFFU, "18446744073709551615"},
        {"junk", 0, "0"},
    };
    for (const Row &row : rows) {
        SetUp();
        fake::setConfig(kDpcConf, "GLOBAL", "business_cluster_id", row.text);
        EXPECT_EQ(getDpcBusinessClusterId(), row.result) << row.text;
        EXPECT_THAT(fake::log(), ElementsAre("6 PROTOCOL: Dpc business_cluster_id:" + std::string(row.shown) + "\n"));
        EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_getItemValue("GLOBAL", "business_cluster_id", 64))"));
    }
}

TEST_F(Config, AMissingBusinessClusterIdIsOne)
{
    EXPECT_EQ(getDpcBusinessClusterId(), 1U);
    EXPECT_THAT(fake::log(), ElementsAre(kReadFailed));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("getDpcBusinessClusterId"));
}

TEST_F(Config, StartThreadAndThreadNumberComeTogether)
{
    uint32_t start = 5;
    uint32_t num = 6;
    fake::setConfig(kDpcConf, "OSK_MID_DPC", "zus_start_thread", "12");
    EXPECT_EQ(DpcGetZusStartThread(&start, &num), 1U);
    EXPECT_EQ(start, 5U);
    EXPECT_THAT(fake::log(), ElementsAre(kReadFailed));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("DpcGetZusStartThread"));
    fake::setConfig(kDpcConf, "OSK_MID_DPC", "zus_thread_num", "34");
    EXPECT_EQ(DpcGetZusStartThread(&start, &num), 0U);
    EXPECT_EQ(start, 12U);
    EXPECT_EQ(num, 34U);
    EXPECT_EQ(fake::calls().back(), R"(kvos_cfg_getItemValue("OSK_MID_DPC", "zus_thread_num", 64))");
}

TEST_F(Config, BusinessIdAndThreadsAreReadUpTo63Characters)
{
    uint32_t start = 5;
    uint32_t num = 6;
    const std::string zeros(61, '0');
    fake::setConfig(kDpcConf, "GLOBAL", "business_cluster_id", zeros + "21");
    fake::setConfig(kDpcConf, "OSK_MID_DPC", "zus_start_thread", zeros + "32");
    fake::setConfig(kDpcConf, "OSK_MID_DPC", "zus_thread_num", zeros + "43");
    EXPECT_EQ(getDpcBusinessClusterId(), 21U);
    EXPECT_EQ(DpcGetZusStartThread(&start, &num), 0U);
    EXPECT_EQ(start, 32U);
    EXPECT_EQ(num, 43U);
}

TEST_F(Config, AMissingStartThreadEndsTheReadingThere)
{
    uint32_t start = 5;
    uint32_t num = 6;
    fake::setConfig(kDpcConf, "OSK_MID_DPC", "zus_thread_num", "34");
    EXPECT_EQ(DpcGetZusStartThread(&start, &num), 1U);
    EXPECT_EQ(num, 6U);
    EXPECT_THAT(fake::calls(), ElementsAre(R"(kvos_cfg_getItemValue("OSK_MID_DPC", "zus_start_thread", 64))"));
}

TEST_F(Config, MissingOutputsAreLogged)
{
    uint32_t word = 5;
    EXPECT_EQ(DpcGetZusStartThread(nullptr, &word), 1U);
    EXPECT_EQ(DpcGetZusStartThread(&word, nullptr), 1U);
    EXPECT_EQ(DpcGetClusterType(nullptr, 8), 1U);
    EXPECT_EQ(DpcGetClusterId(nullptr, 8), 1U);
    EXPECT_EQ(DpcGetMDomainName(nullptr, 8), 1U);
    EXPECT_EQ(getEbsCmIpList(nullptr, 8), 1U);
    EXPECT_EQ(getEbsIpPortList(nullptr), 1U);
    EXPECT_EQ(getDpcCtrlIPAddr(nullptr, 8), 1U);
    EXPECT_EQ(CTRL_GetCfgLsList(nullptr, 1, &word), 1U);
    EXPECT_EQ(CTRL_GetCfgLsList(&word, 1, nullptr), 1U);
    EXPECT_EQ(GetNodePoolByDiskPoolId(1, nullptr), 1U);
    EXPECT_EQ(FssGetDataSliceOwner(nullptr), 1U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_EQ(word, 5U);
    EXPECT_THAT(fake::log(), ElementsAre(nullLine("start"), nullLine("num"), nullLine("out"), nullLine("out"),
                                         nullLine("out"), nullLine("out"), nullLine("out"), nullLine("out"),
                                         nullLine("pairs"), nullLine("count"), nullLine("pool"), nullLine("rec")));
}

// ---- facts of the host

TEST_F(Config, TheLocalLsIdIsTheHosts)
{
    fake::answerAlways("CgwGetInitLocalLsId", 0xFFFFFFFE);
    EXPECT_EQ(getDpcLsID(), 0xFFFFFFFEU);
    EXPECT_EQ(getLocalLsID(), 0xFFFFFFFEU);
    EXPECT_THAT(fake::calls(), ElementsAre("CgwGetInitLocalLsId()", "CgwGetInitLocalLsId()"));
}

TEST_F(Config, TheLsIdByWwnPassesItsSixArgumentsOn)
{
    fake::answer("CgwGetClientLsIdByWwn", {8});
    EXPECT_EQ(getLocalLsIDByWwn(1, 2, 3, ~uintptr_t{0}, 5, 6), 8U);
    EXPECT_THAT(fake::calls(), ElementsAre("CgwGetClientLsIdByWwn(1, 2, 3, 18446744073709551615, 5, 6)"));
}

TEST_F(Config, TheMasterNodeIsOneWhileThereIsNone)
{
    fake::setMasterLsId(23);
    EXPECT_EQ(GetMasterNodeId(), 23U);
    fake::answer("getGlbMasterLsId", {-4});
    EXPECT_EQ(GetMasterNodeId(), 1U);
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Config, EveryConfiguredLsIsPairedWithTheLocalOne)
{
    uint32_t count = 0;
    const auto pairs = std::make_unique<uint32_t[]>(6);
    fake::setCfgLsIds({11, 12, 13});
    fake::answerAlways("CgwGetInitLocalLsId", 44);
    EXPECT_EQ(CTRL_GetCfgLsList(pairs.get(), 3, &count), 0U);
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(std::vector<uint32_t>(pairs.get(), pairs.get() + 6), (std::vector<uint32_t>{11, 44, 12, 44, 13, 44}));
    EXPECT_EQ(fake::calls().front(), "GetCfgLsList(3)");
}

TEST_F(Config, OnlyTheReturnedIdsArePaired)
{
    uint32_t count = 0;
    uint32_t pairs[6] = {1, 2, 3, 4, 5, 6};
    fake::setCfgLsIds({11});
    EXPECT_EQ(CTRL_GetCfgLsList(pairs, 3, &count), 0U);
    EXPECT_EQ(count, 1U);
    EXPECT_THAT(pairs, ElementsAre(11, 0, 3, 4, 5, 6));
}

TEST_F(Config, MoreIdsThanThereIsRoomForAreNotPaired)
{
    uint32_t count = 0;
    const auto pairs = std::make_unique<uint32_t[]>(4); // exactly sized, so that a sanitizer sees a step outside
    fake::setCfgLsIds({11, 12, 13});
    fake::setCfgLsCount(3);
    fake::answerAlways("CgwGetInitLocalLsId", 44);
    EXPECT_EQ(CTRL_GetCfgLsList(pairs.get(), 2, &count), 0U);
    EXPECT_EQ(std::vector<uint32_t>(pairs.get(), pairs.get() + 4), (std::vector<uint32_t>{11, 44, 12, 44}));
    EXPECT_THAT(fake::calls("CgwGetInitLocalLsId"), testing::SizeIs(2));
}

TEST_F(Config, WithoutRoomNoIdIsPaired)
{
    uint32_t count = 5;
    uint32_t pairs[2] = {1, 2};
    fake::setCfgLsIds({11});
    EXPECT_EQ(CTRL_GetCfgLsList(pairs, 0, &count), 0U);
    EXPECT_EQ(count, 0U);
    EXPECT_THAT(pairs, ElementsAre(1, 2));
    EXPECT_THAT(fake::calls(), ElementsAre("GetCfgLsList(0)"));
    EXPECT_THAT(fake::log(), IsEmpty());
}

TEST_F(Config, AFailedLsListGivesTheHostsCodeAndNoPairs)
{
    uint32_t count = 0;
    uint32_t pairs[2] = {1, 2};
    size_t liveDuring = 0;
    size_t liveAtTheLine = 0;
    fake::during("GetCfgLsList", [&] { liveDuring = fake::liveBlocks("CTRL_GetCfgLsList"); });
    fake::during("kvlog", [&] { liveAtTheLine = fake::liveBlocks("CTRL_GetCfgLsList"); });
    fake::answer("GetCfgLsList", {-7});
    EXPECT_EQ(CTRL_GetCfgLsList(pairs, 1, &count), static_cast<uint32_t>(-7));
    EXPECT_EQ(liveDuring, 1U);
    EXPECT_EQ(liveAtTheLine, 1U); // reported before it is freed
    EXPECT_EQ(fake::liveBlocks(), 0U);
    EXPECT_THAT(pairs, ElementsAre(1, 2));
    EXPECT_THAT(fake::log(), ElementsAre("3 PROTOCOL: Error (-7)"));
    EXPECT_THAT(fake::logFuncs(), ElementsAre("CTRL_GetCfgLsList"));
}

TEST_F(Config, TheLsListNeedsMemory)
{
    uint32_t count = 5;
    uint32_t pairs[2] = {1, 2};
    fake::failAllocation(1);
    EXPECT_EQ(CTRL_GetCfgLsList(pairs, 1, &count), 1U);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_EQ(count, 5U);
    EXPECT_THAT(fake::log(), ElementsAre(nullLine("scratch")));
}

// ---- fixed answers

TEST_F(Config, FixedAnswersAreZero)
{
    uint16_t pool = 5;
    data_slice_owner owner = {6, 7};
    EXPECT_EQ(getEbsServerIpList(), 0U);
    EXPECT_EQ(GetNodePoolByDiskPoolId(9, &pool), 0U);
    EXPECT_EQ(pool, 0);
    EXPECT_EQ(FssGetDataSliceOwner(&owner), 0U);
    EXPECT_EQ(owner.owner, 0);
    EXPECT_EQ(owner.slice, 0U);
}

TEST_F(Config, TheDpcSwitchIsOneForAnythingButZero)
{
    for (const int on : {1, -1, 256, 0}) {
        SetDpcSwitch(on);
        EXPECT_EQ(GetDpcSwitch(), on != 0 ? 1U : 0U) << on;
        EXPECT_EQ(g_dpcSwitch, on != 0 ? 1 : 0) << on;
    }
}

TEST_F(Config, EmptyEntryPointsDoNothing)
{
    int32_t result = 5;
    EXPECT_EQ(handle_cmd(nullptr), 0U);
    EXPECT_EQ(NasCtlCmSubscribe(), 0U);
    EXPECT_EQ(NasCtrlGetDpcAddrByLsid(), 0U);
    EXPECT_EQ(HdfsCtrlGetTenantId(), 0U);
    EXPECT_EQ(NasCtrlHandleDpcConnectEvent(nullptr), nullptr);
    handle_evend(nullptr);
    handle_status();
    NasCtrlGetDpcLsViewCallback();
    NasSubsDpcLsViewCallback();
    NasCtrlHandleDpcEventAdapter(&result, 1, nullptr);
    NasCtrlExecuteDpcEventTask();
    EXPECT_EQ(result, 5);
    EXPECT_THAT(fake::calls(), IsEmpty());
    EXPECT_THAT(fake::log(), IsEmpty());
}

} // namespace
