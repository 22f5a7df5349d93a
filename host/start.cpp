// The order of a node's start: the host's services first, then the library as its start-up asks for, then the doors
// through which others reach it.

#include "start.h"

#include "admin/admin_server.h"
#include "cluster/cm_client.h"
#include "cluster/name_service.h"
#include "config/ini_file.h"
#include "fmm/policy_runner.h"
#include "node.h"
#include "platform/log.h"
#include "power.h"
#include "storage/embedded.h"

#include <filesystem>
#include <nasctrl/host/config.h>
#include <nasctrl/nasctrl.h>
#include <system_error>

namespace host {
namespace {

constexpr const char *kDeploymentFile = "/opt/marovesta/brisqueta/conf/dpc.conf";
constexpr const char *kConfigurationFiles[] = {kDeploymentFile, "/opt/ostrak/eds/eds-f/conf/EBSServer.cfg"};

constexpr const char *kVpcDirectory = "/opt/dr/config";

struct Step {
    const char *name;
    // 0, or the code of the failure; or throws std::exception with one clear line.
    int32_t (*run)(const NodeOptions &options);
    void (*stop)() = nullptr;
};

std::vector<const Step *> s_stepsToStop; // in the order of their start; main thread only

void makeSocketDirectory(const std::string &socketPath)
{
    const auto directory = std::filesystem::path(socketPath).parent_path();
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        throw std::runtime_error("directory " + directory.string() + " cannot be made: " + error.message());
    }
}

int32_t makeSocketDirectories(const NodeOptions &options)
{
    makeSocketDirectory(options.messages.socketPath);
    makeSocketDirectory(options.adminSocket);
    if (options.embedsStorage) {
        makeSocketDirectory(options.messages.storageSocketPath);
    }
    return 0;
}

// The library's loaders try a bad file three times, 5 seconds apart; an operator is better served at once.
int32_t checkConfigurationFiles(const NodeOptions &options)
{
    for (const char *path : kConfigurationFiles) {
        try {
            const IniFile file(path);
        } catch (const std::runtime_error &error) {
            throw std::runtime_error(options.root + error.what());
        }
    }
    return 0;
}

int32_t setPeriod(const NodeOptions &options)
{
    return options.period ? NasIpMgrSetIpQueryPeriod(std::to_string(*options.period).c_str()) : 0;
}

// The shard view reads the file by its path, for which it has to be loaded by its path too.
int32_t buildShardView(const NodeOptions & /*options*/)
{
    const int32_t loaded = ProtoCfgLoadFile(kDeploymentFile);
    return loaded != 0 ? loaded : static_cast<int32_t>(stub_initShardView(kDeploymentFile));
}

// The library makes the file of its VPC table but not the folder; a node that cannot have one runs without.
int32_t startCloudAdapter(const NodeOptions &options)
{
    std::error_code error;
    std::filesystem::create_directories(kVpcDirectory, error);
    if (error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "start: %s%s cannot be made: %s; the VPC table cannot be saved",
                 options.root.c_str(), kVpcDirectory, error.message().c_str());
    }
    return NasCloudAdaptInit();
}

int32_t startStore(const NodeOptions &options)
{
    startClusterStore(options.store);
    startNameService();
    return 0;
}

void stopStore()
{
    stopNameService();
    stopClusterStore();
}

// A name service that does not answer fails no start: nasctl ns create makes the name later.
int32_t createVersionName(const NodeOptions &)
{
    const char *name = GetNasCtrlClusterNsName();
    const auto store = clusterStore();
    const StoreResult found = store->read(keyOfName(s_nasctrlDpcNsHdl, name)).result;
    if (found == StoreResult::absent) {
        NasCtrlDpcCreateNs(); // logs how it went
    } else if (found == StoreResult::unknown) {
        HOST_LOG(NASCTRL_LOG_ERROR, "start: name %s is not looked for: %s", name, store->status().error.c_str());
    }
    return 0;
}

int32_t done(void (*call)())
{
    call();
    return 0;
}

constexpr Step kSteps[] = {
    {"light-weight threads",
     [](const NodeOptions &o) {
         startLwt(o.lwtBackend, o.lwtWorkers);
         return 0;
     },
     stopLwt},
    {"protocol modules",
     [](const NodeOptions &o) {
         configureModules(o.modules);
         return 0;
     },
     closeModules},
    {"adapters",
     [](const NodeOptions &o) {
         configureAdapters(o.adapters);
         return 0;
     }},
    {"configuration files", checkConfigurationFiles},
    {"socket directories", makeSocketDirectories},
    {"storage service",
     [](const NodeOptions &o) {
         if (o.embedsStorage) {
             startEmbeddedStorage(o.messages.storageSocketPath, o.storageData);
         }
         return 0;
     },
     stopEmbeddedStorage},
    {"message service",
     [](const NodeOptions &o) {
         startMessageService(o.messages);
         return 0;
     },
     stopMessageService},
    {"cluster store", startStore, stopStore},
    {"CM client",
     [](const NodeOptions &o) {
         configureCmClient({o.nodeId, o.adapters.nodeName, o.lease});
         return 0;
     }},
    {"nas_ctrl_cluster_list_init", [](const NodeOptions &) { return done(nas_ctrl_cluster_list_init); }},
    {"DpcInitExternStub", [](const NodeOptions &) { return static_cast<int32_t>(DpcInitExternStub()); }},
    {"extern_stub_init", [](const NodeOptions &) { return static_cast<int32_t>(extern_stub_init()); }},
    {"nas_ctrl_init", [](const NodeOptions &) { return static_cast<int32_t>(nas_ctrl_init()); }},
    {"nas_ctrl_handler_reg", [](const NodeOptions &) { return nas_ctrl_handler_reg(); }},
    {"NasCtrlClusterInit", [](const NodeOptions &) { return static_cast<int32_t>(NasCtrlClusterInit()); }},
    {"version name", createVersionName},
    {"stub_initShardView", buildShardView},
    {"nas_fmm_module_init", [](const NodeOptions &) { return nas_fmm_module_init(); }},
    {"CM connect event", [](const NodeOptions &) { return connectCmClient(); }, stopCmClient},
    {"service door", [](const NodeOptions &) { return done(shutServiceDoor); }},
    {"module hooks", [](const NodeOptions &) { return done(registerModuleHooks); }},
    {"address query period", setPeriod},
    {"NasIpMgrInitModule", [](const NodeOptions &) { return NasIpMgrInitModule(nullptr); }},
    {"NasLifMgrModuleStart", [](const NodeOptions &) { return static_cast<int32_t>(NasLifMgrModuleStart()); }},
    {"HdfsGetIpRegister", [](const NodeOptions &) { return HdfsGetIpRegister(); }},
    {"nas_ctrl_power_reg", [](const NodeOptions &) { return registerPower(); }},
    {"nas_ctrl_power_on", [](const NodeOptions &) { return nas_ctrl_power_on(nullptr, nullptr); },
     [] { nas_ctrl_power_off(nullptr, nullptr); }},
    {"NasCloudAdaptInit", startCloudAdapter},
    {"shard policy", [](const NodeOptions &) { return done(startShardPolicy); }, stopShardPolicy},
    {"admin server",
     [](const NodeOptions &o) {
         startAdminServer(o.adminSocket);
         return 0;
     },
     stopAdminServer},
};

// A step runs on this thread, so that the last line it wrote says best what stopped it.
std::string reasonOf(const Step &step, int32_t result, const std::string &lastLine)
{
    const std::string failed = step.name + std::string(" failed with ") + std::to_string(result);
    return failed + (lastLine.empty() ? ", the log tells why" : ": " + lastLine + "; the log tells more");
}

void runStep(const Step &step, const NodeOptions &options)
{
    HOST_LOG(NASCTRL_LOG_PROGRESS, "start: %s", step.name);
    int32_t result = -1;
    std::string why;
    try {
        const OwnLogLines lines;
        result = step.run(options);
        why = reasonOf(step, result, lines.last());
    } catch (const std::exception &error) {
        why = error.what();
    }
    recordStartStep(step.name, result);
    if (result != 0) {
        HOST_LOG(NASCTRL_LOG_ERROR, "start: %s: %s", step.name, why.c_str());
        throw std::runtime_error(why);
    }
    if (step.stop != nullptr) {
        s_stepsToStop.push_back(&step);
    }
}

} // namespace

void startNode(const NodeOptions &options)
{
    for (const Step &step : kSteps) {
        runStep(step, options);
    }
}

void stopNode()
{
    for (; !s_stepsToStop.empty(); s_stepsToStop.pop_back()) {
        const Step &step = *s_stepsToStop.back();
        HOST_LOG(NASCTRL_LOG_PROGRESS, "stop: undo %s", step.name);
        step.stop();
    }
    flushLog();
}

} // namespace host
