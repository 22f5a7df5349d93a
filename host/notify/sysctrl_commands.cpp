// The commands of module "sysctrl": the library's own functions for an operator's hands. Each handler gets the
// operator's text in buf (null or empty when there was none), leaves its answer there and returns the answer's length,
// or a negative errno.

#include "adapters/adapters.h"
#include "adapters/lif_table.h"
#include "notify/commands.h"
#include "notify/statistics.h"
#include "platform/log.h"

#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <nasctrl/cluster_list.h>
#include <nasctrl/host/notify.h>
#include <nasctrl/ip_manager.h>
#include <nasctrl/lif_port.h>

namespace {

constexpr const char *kModule = "sysctrl";
constexpr uint32_t kDefaultProtoType = 3;

int32_t answer(char *buf, uint32_t size, const std::string &text)
{
    const size_t length = std::min<size_t>(text.size(), size - 1);
    memcpy(buf, text.data(), length);
    buf[length] = '\0';
    return static_cast<int32_t>(length);
}

bool parseNumber(const std::string &text, uint64_t &number)
{
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end;
}

// 0 stays 0; the library's other results are failures of the operator's request.
int32_t failure(int64_t result)
{
    return result == 0 ? 0 : -EINVAL;
}

int32_t showIps(char *buf, uint32_t size)
{
    return static_cast<int32_t>(NasIpMgrShowAllIp(buf, size));
}

using AddressCall = uint32_t (*)(const char *addr, uint32_t protoType);

// "ADDRESS" or "ADDRESS,TYPE".
int32_t callWithAddress(const char *buf, AddressCall call)
{
    if (buf == nullptr) {
        return -EINVAL;
    }
    const std::string text = buf;
    const size_t comma = text.find(',');
    const std::string address = text.substr(0, comma);
    uint64_t type = kDefaultProtoType;
    const bool typed = comma == std::string::npos || parseNumber(text.substr(comma + 1), type);
    if (!typed || type > UINT32_MAX || NasIpMgrGetIpFamily(address.c_str()) == 0) {
        return -EINVAL;
    }
    return failure(call(address.c_str(), static_cast<uint32_t>(type)));
}

int32_t addIp(char *buf, uint32_t)
{
    return callWithAddress(buf, NasIpMgrAddNewIP);
}

int32_t deleteIp(char *buf, uint32_t)
{
    return callWithAddress(buf, NasIpMgrDeleteOldIP);
}

int32_t queryPeriod(char *buf, uint32_t size)
{
    if (buf[0] != '\0' && NasIpMgrSetIpQueryPeriod(buf) != 0) {
        return -EINVAL;
    }
    return static_cast<int32_t>(NasIpMgrGetIpQueryPeriod(buf, size));
}

int32_t listClusters(char *buf, uint32_t size)
{
    return static_cast<int32_t>(nas_ctrl_get_cluster_count_list(buf, size));
}

using ClusterCall = uint32_t (*)(uint64_t id);

int32_t callWithCluster(const char *buf, ClusterCall call)
{
    uint64_t id = 0;
    return buf != nullptr && parseNumber(buf, id) ? failure(call(id)) : -EINVAL;
}

int32_t addCluster(char *buf, uint32_t)
{
    return callWithCluster(buf, nas_ctrl_add_to_cluster_list);
}

int32_t deleteCluster(char *buf, uint32_t)
{
    return callWithCluster(buf, nas_ctrl_remove_from_cluster_list);
}

int32_t logLevel(char *buf, uint32_t size)
{
    if (buf[0] != '\0') {
        uint64_t level = 0;
        if (!parseNumber(buf, level) || level > host::kMaxLogLevel) {
            return -EINVAL;
        }
        host::setLogThreshold(static_cast<uint32_t>(level));
    }
    return answer(buf, size, std::to_string(host::logThreshold()) + "\n");
}

int32_t listLifPorts(char *buf, uint32_t size)
{
    const host::LifTable table = host::readLifTable();
    std::string text;
    for (const host::LifPort &port : table.ports) {
        text += std::to_string(port.index) + " " + std::to_string(port.id) + " " + port.name + " " + port.ip + "\n";
    }
    for (const uint32_t bucket : table.busyBuckets) {
        text += "busy: ports with an id of " + std::to_string(bucket) + " modulo " +
                std::to_string(NAS_LIF_PORT_BUCKETS) + "\n";
    }
    return answer(buf, size, text);
}

// What statistics know of a LIF port: its index and its name.
int32_t showLifPort(char *buf, uint32_t size)
{
    uint64_t id = 0;
    if (buf == nullptr || !parseNumber(buf, id)) {
        return -EINVAL;
    }
    if (host::lifTableIsBuilt() && !host::canRead(id)) {
        return -EBUSY; // the look-up of the name would wait for the bucket's lock without end
    }
    const auto index = host::statisticsIndex(host::kLifPortKind, id);
    const auto name = host::statisticsName(host::kLifPortKind, id);
    if (!index || !name || name->empty()) {
        return -ENOENT;
    }
    return answer(buf, size, std::to_string(*index) + " " + *name + "\n");
}

int32_t listPerfPorts(char *buf, uint32_t size)
{
    std::string text;
    for (const uint64_t id : host::perfPorts()) {
        text += std::to_string(id) + "\n";
    }
    return answer(buf, size, text);
}

struct CommandRow {
    const char *name;
    const char *usage;
    host::CommandHandler handler;
};

constexpr CommandRow kRows[] = {
    {"ip_show", "-m sysctrl -c ip_show", showIps},
    {"ip_add", "-m sysctrl -c ip_add -v ADDRESS[,TYPE]", addIp},
    {"ip_del", "-m sysctrl -c ip_del -v ADDRESS[,TYPE]", deleteIp},
    {"ip_period", "-m sysctrl -c ip_period [-v SECONDS]", queryPeriod},
    {"cluster_list", "-m sysctrl -c cluster_list", listClusters},
    {"cluster_add", "-m sysctrl -c cluster_add -v ID", addCluster},
    {"cluster_del", "-m sysctrl -c cluster_del -v ID", deleteCluster},
    {"lif_list", "-m sysctrl -c lif_list", listLifPorts},
    {"lif_show", "-m sysctrl -c lif_show -v ID", showLifPort},
    {"perf_list", "-m sysctrl -c perf_list", listPerfPorts},
    {"log_level", "-m sysctrl -c log_level [-v LEVEL]", logLevel},
};

} // namespace

void RegisterSysCtrlCmd(void)
{
    for (const CommandRow &row : kRows) {
        if (!host::registerCommand({kModule, row.name, row.usage, row.handler})) {
            HOST_LOG(NASCTRL_LOG_ERROR, "notify: command %s %s is registered already", kModule, row.name);
        }
    }
}
