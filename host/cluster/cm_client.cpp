// Owns the node's cluster agent and its thread, and translates between it and the library: the library's calls of the
// cluster manager are answered here, and what the agent tells of becomes calls of the library.
//
// The agent is made once, when the library opens the client, and lives as long as the process: threads of the library
// may ask it at any time.

#include "cluster/cm_client.h"

#include "cluster/cluster_agent.h"
#include "cluster/view_changes.h"
#include "cluster/view_record.h"
#include "fmm/policy_runner.h"
#include "node.h"
#include "notify/events.h"
#include "platform/log.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <common/counted.h>
#include <nasctrl/config.h>
#include <nasctrl/control.h>
#include <nasctrl/host/adapters.h>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/log.h>
#include <nasctrl/host/memory.h>
#include <nlohmann/json.hpp>
#include <thread>

namespace host {
namespace {

constexpr int32_t kConnect = 0;
constexpr int32_t kDisconnect = 1;
constexpr uint32_t kClientIdOfEvent = 1; // what CM_getEventInfo is asked for
constexpr int32_t kNoView = 0x188004;    // the answer to a fetch: nobody ever joined
constexpr const char *kModule = "CM";
constexpr uint32_t kReportPauseMs = 1000;
constexpr uint32_t kFollowPauseMs = 1000;
constexpr uint32_t kFetchPauseMs = 100;

// Of events and commands the library reads only the type.
struct CmEvent {
    int32_t type;
    uint32_t clientId;
};

NodeLeaseSettings s_settings;
std::shared_ptr<Store> &s_store = *new std::shared_ptr<Store>; // outlives the threads of the library
std::atomic<ClusterAgent *> s_agent{nullptr};
std::thread s_thread;

std::chrono::milliseconds steadyNow()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch());
}

void deliver(int32_t type)
{
    CmEvent event{type, s_settings.node};
    NasCtrlHandleClusterEvent(&event);
}

void record(const char *name, const DpcClient &client)
{
    recordEvent({kModule, name, client.lsId, "session " + std::to_string(client.session)});
}

// was is null for a client that was not there.
void recordChange(const DpcClient *was, const DpcClient &now)
{
    const bool wasRunning = was == nullptr || was->runState == kRunning;
    const bool failedUnseen = was != nullptr && wasRunning && was->faults != now.faults;
    if (failedUnseen || (wasRunning && now.runState == kFaulty)) {
        record(now.faultReason == kHeartBreak ? "HEART_BREAK" : "FAULT", now);
    }
    if (now.runState == kRunning && was == nullptr) {
        record("JOINED", now);
    } else if (now.runState == kRunning && (failedUnseen || !wasRunning)) {
        record("RETURNED", now);
    }
}

void recordChanges(const DpcView &was, const DpcView &now)
{
    for (const DpcClient &client : now.clients) {
        recordChange(was.find(client.lsId), client);
    }
    for (const DpcClient &client : was.clients) {
        if (now.find(client.lsId) == nullptr) {
            record("LEFT", client);
        }
    }
}

// The shard policy hears of the clients that serve shards.
void reportStates(const DpcView &was, const DpcView &now)
{
    for (const DpcClient &client : now.clients) {
        const DpcClient *old = was.find(client.lsId);
        if (old == nullptr || old->runState != client.runState) {
            reportStorageLs(client.lsId, client.runState == kFaulty);
        }
    }
}

// The version first, then what it brought.
void recordView(const DpcView &was, const DpcView &now)
{
    recordEvent({kModule, "VIEW", now.version, common::counted(now.clients.size(), "client")});
    recordChanges(was, now);
}

// The library's own view of the clients.
void publish(const DpcView &view)
{
    try {
        ViewRecord record(view);
        do_kvos_spinlock_lock(&g_nasDpcLsView.lock);
        record.swap(g_nasDpcLsView.view);
        do_kvos_spinlock_unlock(&g_nasDpcLsView.lock);
    } catch (const std::bad_alloc &) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: no memory for a view of %zu clients", view.clients.size());
    }
}

class Listener : public AgentListener {
public:
    void connected() override
    {
        recordEvent({kModule, "CONNECTED", s_settings.node});
        deliver(kConnect);
    }
    void disconnected() override
    {
        recordEvent({kModule, "DISCONNECTED", s_settings.node});
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the store has not answered for %lld s",
                 static_cast<long long>(s_settings.ttl.count()));
        deliver(kDisconnect);
    }
    void masterChanged(std::optional<uint32_t> master) override
    {
        const std::string who = master ? "LS " + std::to_string(*master) : "not known";
        HOST_LOG(NASCTRL_LOG_PROGRESS, "cluster: the master is %s", who.c_str());
        recordEvent({kModule, "MASTER", master.value_or(0), who});
        NasCtrlHandleCmStatus();
    }
    void command(int32_t type) override
    {
        CmEvent command{type, s_settings.node};
        NasCtrlHandleCmCommand(&command);
    }
    void firstView(const DpcView &now) override
    {
        publish(now);
        recordView({}, now);
        reportStates({}, now);
        tellFirstView(now);
    }
    void changed(const DpcView &was, const DpcView &now) override
    {
        publish(now);
        recordView(was, now);
        reportStates(was, now);
        tellChange(was, now);
        reportWhenEmpty(was, now);
    }
    void missed(const DpcView &was, const DpcView &now) override
    {
        publish(now);
        recordView(was, now);
        reportStates(was, now);
        tellMissedChanges(was, now);
        reportWhenEmpty(was, now);
    }

private:
    // One node reports for all.
    static void reportWhenEmpty(const DpcView &was, const DpcView &now)
    {
        if (!was.clients.empty() && now.clients.empty() && s_agent.load()->isMaster()) {
            NasReportRemovDpcStatustoCM();
        }
    }
};

bool isAddress(const char *text)
{
    in6_addr room{};
    return inet_pton(AF_INET, text, &room) == 1 || inet_pton(AF_INET6, text, &room) == 1;
}

void runAgent(ClusterAgent &agent)
{
    pthread_setname_np(pthread_self(), "cm");
    while (agent.waitForWork()) {
        try {
            agent.round();
        } catch (const std::exception &error) {
            HOST_LOG(NASCTRL_LOG_ERROR, "cluster: a round of the CM client broke off: %s", error.what());
        }
    }
    agent.leave();
}

// A business-status report on its way to the store.
struct Report {
    std::string value;
    cm_report_cb callback;
    void *context;
};

int32_t store(const Report &report)
{
    const std::string key = kServicePrefix + "status";
    const StoreRead read = s_store->read(key);
    StoreResult result = read.result;
    if (read.result == StoreResult::absent) {
        result = createSettled(*s_store, key, report.value).result;
    } else if (read.result == StoreResult::done) {
        result = writeSettled(*s_store, key, report.value, read.item.version).result;
    }
    return result == StoreResult::done ? 0 : -EAGAIN;
}

// The library repeats a report that failed at once and without end, so a failure is told late.
void *deliverReport(void *own)
{
    const std::unique_ptr<Report> report(static_cast<Report *>(own));
    int32_t result = -ENOMEM;
    try {
        result = store(*report);
    } catch (const std::bad_alloc &) { // told like any other failure
    }
    if (result != 0) {
        kvos_msleep(kReportPauseMs);
    }
    report->callback(report->context, result);
    return nullptr;
}

std::string textOf(const cm_attr *records, uint32_t count)
{
    nlohmann::json json = nlohmann::json::object();
    for (uint32_t i = 0; i < count; ++i) {
        const auto &record = records[i];
        json[std::string(record.name, strnlen(record.name, sizeof record.name))] =
            std::string(record.value, strnlen(record.value, sizeof record.value));
    }
    return json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// The oldest task, or null.
dpc_event_task *takeTask()
{
    auto &list = g_nasDpcEventTaskList;
    dpc_event_task *task = nullptr;
    do_kvos_spinlock_lock(&list.lock);
    auto *first = static_cast<list_link *>(list.head.next);
    if (first != nullptr && first != &list.head) {
        task = reinterpret_cast<dpc_event_task *>(first);
        static_cast<list_link *>(first->next)->prev = first->prev;
        static_cast<list_link *>(first->prev)->next = first->next;
    }
    do_kvos_spinlock_unlock(&list.lock);
    return task;
}

// The library gives the node up after 101 attempts, so one of them lasts as long as a lease: the node is to outlive a
// store that is gone for minutes.
StoreResult fetchPatiently(ClusterAgent &agent)
{
    const auto end = steadyNow() + s_settings.ttl;
    StoreResult fetched = agent.fetchView();
    while (fetched == StoreResult::unknown && steadyNow() < end) {
        kvos_msleep(kFetchPauseMs);
        fetched = agent.fetchView();
    }
    return fetched;
}

// Reads the whole view and follows it from there. False when that broke off for want of memory or a thread.
bool followView()
{
    NasCtrlHandleTryGetDpcViewAdapter(nullptr); // ends the process rather than fail
    try {
        s_agent.load()->followFetched();
        return true;
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the view is not followed yet: %s", error.what());
        return false;
    }
}

} // namespace

void configureCmClient(const NodeLeaseSettings &settings)
{
    s_settings = settings;
}

int connectCmClient()
{
    ClusterAgent *agent = s_agent;
    if (agent == nullptr) {
        return -ENOTCONN;
    }
    agent->round();
    s_thread = std::thread([agent] { runAgent(*agent); });
    return 0;
}

void stopCmClient()
{
    if (s_thread.joinable()) {
        s_agent.load()->stop();
        s_thread.join();
    }
}

CmStatus cmStatus()
{
    CmStatus status;
    status.node = s_settings.node;
    status.ttl = s_settings.ttl;
    if (const ClusterAgent *agent = s_agent) {
        status.connected = agent->isConnected();
        status.master = agent->master();
        status.sinceContact = agent->sinceContact();
    }
    return status;
}

std::shared_ptr<const DpcView> knownView()
{
    const ClusterAgent *agent = s_agent;
    return agent != nullptr ? agent->known() : nullptr;
}

} // namespace host

using namespace host;

// The client's id is the node's id; its servers are those of the cluster store, so those of the list are only named.
uint32_t NasCrtlOpenCmClientAdapter(const char *cm_list, const char *local_ip, uint32_t *client_id)
{
    if (cm_list == nullptr || local_ip == nullptr || client_id == nullptr) {
        return NAS_ERROR;
    }
    if (!isAddress(local_ip)) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: dpc_data_ip %s is not an IPv4 or IPv6 address", local_ip);
        return NAS_INVALID;
    }
    s_store = clusterStore();
    if (s_store == nullptr) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: the cluster store is not open");
        return NAS_ERROR;
    }
    if (s_agent == nullptr) {
        static Listener listener;
        s_agent = new ClusterAgent(*s_store, s_settings, steadyNow, listener);
    }
    *client_id = s_settings.node;
    HOST_LOG(NASCTRL_LOG_PROGRESS, "cluster: CM client %u opened from %s (servers %s)", s_settings.node, local_ip,
             cm_list);
    return NAS_OK;
}

int32_t CM_getEventInfo(const void *event, uint32_t what, uint32_t *client_id)
{
    if (event == nullptr || client_id == nullptr || what != kClientIdOfEvent) {
        return -EINVAL;
    }
    *client_id = static_cast<const CmEvent *>(event)->clientId;
    return 0;
}

int32_t CM_getLsFaultReason(const void *ls_entry)
{
    return ls_entry == nullptr ? -EINVAL : faultReasonOf(*static_cast<const cm_ls_entry *>(ls_entry));
}

int32_t CM_reportDsBusinessStatusAsyn(uint32_t client_id, const void *records, uint32_t count, cm_report_cb callback,
                                      void *context)
{
    if (client_id != s_settings.node || records == nullptr || count == 0 || callback == nullptr) {
        return -EINVAL;
    }
    if (s_store == nullptr) {
        return -ENOTCONN;
    }
    try {
        auto report =
            std::make_unique<Report>(Report{textOf(static_cast<const cm_attr *>(records), count), callback, context});
        unsigned long thread = 0;
        const int32_t result = kvos_thrd_create(deliverReport, report.get(), &thread);
        if (result == 0) {
            static_cast<void>(report.release()); // deliverReport owns it
        }
        return result;
    } catch (const std::bad_alloc &) {
        return -ENOMEM;
    }
}

int32_t getGlbMasterLsId(uint32_t *ls_id)
{
    if (ls_id == nullptr) {
        return -EINVAL;
    }
    const ClusterAgent *agent = s_agent;
    const auto master = agent != nullptr ? agent->master() : std::nullopt;
    if (!master) {
        return -ENOTCONN;
    }
    *ls_id = *master;
    return 0;
}

uint32_t getLocalCtrlLsId(void)
{
    return nodeIdentity().id;
}

// ---- the library's empty entry points, with a host's behaviour

// Reads the whole view; following it then puts it where the library keeps it.
void NasCtrlHandleDpcEventAdapter(int32_t *result, uint32_t, void *)
{
    ClusterAgent *agent = s_agent;
    if (agent == nullptr) {
        *result = -ENOTCONN;
        return;
    }
    try {
        const StoreResult fetched = fetchPatiently(*agent);
        *result = fetched == StoreResult::done ? 0 : fetched == StoreResult::absent ? kNoView : -ETIMEDOUT;
    } catch (const std::exception &error) {
        HOST_LOG(NASCTRL_LOG_ERROR, "cluster: %s", error.what());
        *result = -EBADMSG;
    }
}

void *NasCtrlHandleDpcConnectEvent(void *)
{
    while (!followView()) {
        kvos_msleep(kFollowPauseMs);
    }
    std::atomic_ref<uint32_t>(g_nasCtrlDpcSubscribed).store(1);
    return nullptr;
}

// A process that failed holds no locks any more.
void NasCtrlExecuteDpcEventTask(void)
{
    while (dpc_event_task *task = takeTask()) {
        NlmE_NodeFaultEvent(task->lsid);
        nas_mem_comm_free(task, __func__, __LINE__);
    }
}
