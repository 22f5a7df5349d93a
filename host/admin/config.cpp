/*
 * What the library's configuration getters answer at this moment, values as text.
 */
#include "admin/calls.h"
#include <algorithm>
#include <array>
#include <cstring>
#include <nasctrl/config.h>
#include <nasctrl/power.h>
#include <nlohmann/json.hpp>
#include <vector>

namespace host::admin {

namespace {

constexpr uint32_t kAddressSize = 256;
constexpr uint32_t kShortTextSize = 128;
constexpr uint32_t kPortListSize = 896; // what getEbsIpPortList asks of its caller
constexpr uint32_t kLongTextSize = 64 * 1024;
constexpr size_t kMaxLsPairs = 256;

// A getter behind one form: its result, and the value as text when the result is 0.
using Reader = uint32_t (*)(std::string &value);

template <typename Call>
uint32_t readText(std::string &value, uint32_t size, Call call)
{
    std::vector<char> buffer(size);
    const uint32_t result = call(buffer.data());
    value.assign(buffer.data(), strnlen(buffer.data(), buffer.size()));
    return result;
}

// Getters whose size is an int.
template <uint32_t (*Get)(char *, int), uint32_t Size>
uint32_t boundedText(std::string &value)
{
    return readText(value, Size, [](char *out) { return Get(out, static_cast<int>(Size)); });
}

// Getters whose size is unsigned.
template <uint32_t (*Get)(char *, uint32_t)>
uint32_t longText(std::string &value)
{
    return readText(value, kLongTextSize, [](char *out) { return Get(out, kLongTextSize); });
}

// Getters whose result is the value.
template <uint32_t (*Get)()>
uint32_t plainNumber(std::string &value)
{
    value = std::to_string(Get());
    return NAS_OK;
}

uint32_t portList(std::string &value)
{
    return readText(value, kPortListSize, getEbsIpPortList);
}

uint32_t clusterId(std::string &value)
{
    uint32_t id = 0;
    const uint32_t result = DpcGetClusterId(&id, static_cast<int>(kShortTextSize));
    value = std::to_string(id);
    return result;
}

uint32_t inodeCacheMax(std::string &value)
{
    uint32_t number = 0;
    const uint32_t result = getShimInodeCacheMaxNumber(&number);
    value = std::to_string(number);
    return result;
}

uint32_t zusThreads(std::string &value)
{
    uint32_t start = 0;
    uint32_t number = 0;
    const uint32_t result = DpcGetZusStartThread(&start, &number);
    value = std::to_string(start) + "," + std::to_string(number);
    return result;
}

uint32_t cfgLsList(std::string &value)
{
    std::array<uint32_t, 2 * kMaxLsPairs> pairs{};
    uint32_t count = 0;
    const uint32_t result = CTRL_GetCfgLsList(pairs.data(), static_cast<uint32_t>(kMaxLsPairs), &count);
    const size_t used = 2 * std::min<size_t>(count, kMaxLsPairs);
    for (size_t i = 0; i < used; i += 2) {
        value += (i == 0 ? "" : ",") + std::to_string(pairs.at(i)) + ":" + std::to_string(pairs.at(i + 1));
    }
    return result;
}

struct Getter {
    const char *name;
    Reader read;
};

constexpr std::array kGetters = {
    Getter{"getLocalIPAddr", boundedText<getLocalIPAddr, kAddressSize>},
    Getter{"GetDioCtrlIp", boundedText<GetDioCtrlIp, kAddressSize>},
    Getter{"getEbsCtrlIPAddr", boundedText<getEbsCtrlIPAddr, kAddressSize>},
    Getter{"EbsGetDpcDataAddr", boundedText<EbsGetDpcDataAddr, kAddressSize>},
    Getter{"DpcGetClusterType", boundedText<DpcGetClusterType, kShortTextSize>},
    Getter{"DpcGetClusterId", clusterId},
    Getter{"DpcGetMDomainName", longText<DpcGetMDomainName>},
    Getter{"getEbsCmIpList", longText<getEbsCmIpList>},
    Getter{"getEbsIpPortList", portList},
    Getter{"getDpcCtrlIPAddr", boundedText<getDpcCtrlIPAddr, kAddressSize>},
    Getter{"getShimInodeCacheMaxNumber", inodeCacheMax},
    Getter{"getDpcBusinessClusterId", plainNumber<getDpcBusinessClusterId>},
    Getter{"DpcGetZusStartThread", zusThreads},
    Getter{"getDpcLsID", plainNumber<getDpcLsID>},
    Getter{"getLocalLsID", plainNumber<getLocalLsID>},
    Getter{"GetMasterNodeId", plainNumber<GetMasterNodeId>},
    Getter{"CTRL_GetCfgLsList", cfgLsList},
    Getter{"GetDpcSwitch", plainNumber<GetDpcSwitch>},
    Getter{"GetNasPowerOnStatus", plainNumber<GetNasPowerOnStatus>},
};

Json getterRow(const Getter &getter)
{
    std::string value;
    const uint32_t result = getter.read(value);
    Json row = {{"name", getter.name}, {"result", result}, {"value", nullptr}};
    if (result == NAS_OK) {
        row["value"] = std::move(value);
    }
    return row;
}

} // namespace

Json getConfig(const CallInput & /*input*/)
{
    Json rows = Json::array();
    for (const Getter &getter : kGetters) {
        rows.push_back(getterRow(getter));
    }
    return {{"getters", std::move(rows)}};
}

} // namespace host::admin
