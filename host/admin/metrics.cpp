/*
 * What the node counts, in the text format of Prometheus. Everything is read when it is asked for: whoever counts adds
 * to a word of his own and knows nothing of metrics. Labels take a bounded set of values, known at start.
 */
#include "adapters/adapters.h"
#include "adapters/lif_table.h"
#include "admin/addresses.h"
#include "admin/calls.h"
#include "admin/monitor_view.h"
#include "message/message_service.h"
#include "message/storage_statistics.h"
#include "modules/modules.h"
#include "nlm/file_locks.h"
#include "node.h"
#include "notify/notify.h"
#include "notify/statistics.h"
#include "platform/log.h"
#include "platform/memory.h"
#include <algorithm>
#include <atomic>
#include <limits>
#include <nasctrl/ip_manager.h>
#include <nasctrl/power.h>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

namespace host::admin {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Labels = std::vector<ClientMetric::Label>;

constexpr double kMsPerSecond = 1000;

// The families of one answer, in their order.
class Sheet {
public:
    void family(const std::string &name, const std::string &help, MetricType type)
    {
        families_.push_back({"nasctrl_" + name, help, type, {}});
    }

    // A sample of the last family.
    void sample(double value, const Labels &labels = {})
    {
        ClientMetric &metric = add(labels);
        (families_.back().type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
    }

    void gauge(const std::string &name, const std::string &help, double value, const Labels &labels = {})
    {
        family(name, help, MetricType::Gauge);
        sample(value, labels);
    }

    void counter(const std::string &name, const std::string &help, uint64_t value)
    {
        family(name, help, MetricType::Counter);
        sample(static_cast<double>(value));
    }

    ClientMetric &add(const Labels &labels)
    {
        ClientMetric &metric = families_.back().metric.emplace_back();
        metric.label = labels;
        return metric;
    }

    const std::vector<MetricFamily> &families() const { return families_; }

private:
    std::vector<MetricFamily> families_;
};

void addNode(Sheet &sheet)
{
    sheet.gauge("build_info", "The version that runs; always 1.", 1, {{"version", nodeIdentity().version}});
    sheet.gauge("uptime_seconds", "Time since the start of the node.",
                static_cast<double>(uptime().count()) / kMsPerSecond);
    sheet.gauge("power_state", "State of the protocol service: 0 off, 1 on, 2 going off, 3 going on.",
                GetNasPowerOnStatus());
}

Labels labelsOf(const ModuleConfig &config)
{
    return {{"slot", std::to_string(config.slot)}, {"module", config.name}};
}

Labels labelsOf(const ModuleConfig &config, const char *state)
{
    Labels labels = labelsOf(config);
    labels.push_back({"state", state});
    return labels;
}

// Addresses that the module serves and that it neither listens on nor refuses.
size_t pendingFor(const ModuleState &module, const std::vector<ServiceAddress> &addresses)
{
    return static_cast<size_t>(std::ranges::count_if(addresses, [&module](const ServiceAddress &each) {
        const bool served =
            std::ranges::find(module.config.protoTypes, each.protocolType) != module.config.protoTypes.end();
        const bool known =
            std::ranges::find(module.listening, each.address) != module.listening.end() ||
            std::ranges::find(module.failures, each.address, &ModuleFailure::address) != module.failures.end();
        return served && !known;
    }));
}

void addAddresses(Sheet &sheet, const std::vector<ModuleState> &modules)
{
    const auto addresses = readAddresses();
    sheet.gauge("addresses_busy", "1 when work held the address list, and what needs it is left out.",
                addresses ? 0 : 1);
    if (addresses) {
        sheet.gauge("addresses_listed", "Service addresses in the node's list.",
                    static_cast<double>(addresses->size()));
    }
    sheet.family("addresses", "Service addresses by module and state.", MetricType::Gauge);
    for (const ModuleState &module : modules) {
        sheet.sample(static_cast<double>(module.listening.size()), labelsOf(module.config, "listening"));
        sheet.sample(static_cast<double>(module.failures.size()), labelsOf(module.config, "failing"));
        if (addresses) {
            sheet.sample(static_cast<double>(pendingFor(module, *addresses)), labelsOf(module.config, "pending"));
        }
    }
}

struct ModuleCounter {
    const char *name;
    const char *help;
    uint64_t ModuleCounts::*count;
};

constexpr std::array kModuleCounters = {
    ModuleCounter{"module_additions_total", "Additions that modules accepted.", &ModuleCounts::additions},
    ModuleCounter{"module_deletions_total", "Deletions that modules were told of.", &ModuleCounts::deletions},
    ModuleCounter{"module_retries_total", "Additions tried again after a refusal.", &ModuleCounts::retries},
    ModuleCounter{"module_failures_total", "Additions that modules refused.", &ModuleCounts::failures},
};

void addModules(Sheet &sheet, const std::vector<ModuleState> &modules)
{
    for (const ModuleCounter &row : kModuleCounters) {
        sheet.family(row.name, row.help, MetricType::Counter);
        for (const ModuleState &module : modules) {
            sheet.sample(static_cast<double>(module.counts.*row.count), labelsOf(module.config));
        }
    }
}

void addMonitor(Sheet &sheet)
{
    sheet.gauge("monitor_period_seconds", "Time between two passes of the address monitor.",
                std::atomic_ref(g_periodLength).load());
    sheet.gauge("monitor_retry",
                "1 when the monitor hurries: something failed, or a pass found an address that it knew.",
                std::atomic_ref(g_needRetry).load());
    if (const auto view = readMonitor()) {
        sheet.gauge("monitor_last_pass_age_seconds", "Time since the last pass began.",
                    static_cast<double>(view->ageMs) / kMsPerSecond);
    }
}

ClientMetric::Histogram histogramOf(const StorageCallCounts &counts)
{
    ClientMetric::Histogram histogram;
    for (size_t i = 0; i < counts.byDuration.size(); ++i) {
        histogram.sample_count += counts.byDuration[i];
        const double bound =
            i < kStorageDurationBounds.size() ? kStorageDurationBounds[i] : std::numeric_limits<double>::infinity();
        histogram.bucket.push_back({histogram.sample_count, bound});
    }
    histogram.sample_sum = std::chrono::duration<double>(counts.total).count();
    return histogram;
}

// Every type and result from the start, so that a first failure is a rise from 0.
void addStorageCalls(Sheet &sheet)
{
    const auto rows = storageCallCounts();
    sheet.family("storage_queries_total", "Questions to the storage-side service, each try of one counted.",
                 MetricType::Counter);
    for (size_t kind = 0; kind < rows.size(); ++kind) {
        for (size_t result = 0; result < kStorageResults; ++result) {
            sheet.sample(static_cast<double>(rows[kind].byResult[result]),
                         {{"type", kStorageCallKinds[kind].name}, {"result", kStorageResultNames[result]}});
        }
    }
    sheet.family("storage_query_duration_seconds", "How long the tries took, whatever came of them.",
                 MetricType::Histogram);
    for (size_t kind = 0; kind < rows.size(); ++kind) {
        sheet.add({{"type", kStorageCallKinds[kind].name}}).histogram = histogramOf(rows[kind]);
    }
}

// The registered look-up is held against the table: it answers another port's index for an id that has lost its slot.
bool isDisplaced(const LifPort &port)
{
    return statisticsIndex(kLifPortKind, port.id) != port.index;
}

void addLifPorts(Sheet &sheet)
{
    const LifTable table = readLifTable();
    sheet.gauge("lif_ports", "LIF ports in the table.", static_cast<double>(table.ports.size()));
    sheet.gauge("lif_ports_performance", "LIF ports whose performance path is on.",
                static_cast<double>(perfPorts().size()));
    sheet.gauge("lif_ports_displaced", "LIF ports that the statistics find under another index than their own.",
                static_cast<double>(std::ranges::count_if(table.ports, isDisplaced)));
    sheet.gauge("lif_buckets_busy", "Parts of the LIF table that were held and are left out.",
                static_cast<double>(table.busyBuckets.size()));
}

void addLog(Sheet &sheet)
{
    sheet.family("log_lines_total", "Lines of the log by level; those above the threshold are not written.",
                 MetricType::Counter);
    uint32_t level = 0;
    for (const uint64_t count : logLineCounts()) {
        sheet.sample(static_cast<double>(count), {{"level", std::to_string(level++)}});
    }
}

void addPool(Sheet &sheet)
{
    MemoryAccount all{};
    for (const MemoryAccount &account : memoryAccounts()) {
        all.liveBlocks += account.liveBlocks;
        all.liveBytes += account.liveBytes;
        all.totalBlocks += account.totalBlocks;
    }
    sheet.gauge("pool_blocks", "Live blocks of the memory pool.", static_cast<double>(all.liveBlocks));
    sheet.gauge("pool_bytes", "Bytes in the live blocks of the memory pool.", static_cast<double>(all.liveBytes));
    sheet.counter("pool_allocations_total", "Blocks ever taken from the memory pool.", all.totalBlocks);
}

void addMessages(Sheet &sheet)
{
    const MessageCounters counters = messageCounters();
    sheet.gauge("message_connections", "Connections to the message socket.", static_cast<double>(counters.connections));
    sheet.counter("message_connections_total", "Connections accepted on the message socket.", counters.accepted);
    sheet.counter("messages_total", "Messages handed to a module.", counters.messages);
    sheet.counter("message_replies_total", "Replies that modules sent.", counters.replies);
    sheet.counter("messages_malformed_total", "Frames that closed their connection.", counters.malformed);
    sheet.counter("messages_undelivered_total", "Messages for a module that there is not.", counters.undelivered);
}

void addEvents(Sheet &sheet)
{
    sheet.family("events_total", "Events of the node's stream by module and kind.", MetricType::Counter);
    for (const EventCount &row : eventCounts()) {
        sheet.sample(static_cast<double>(row.count), {{"module", row.module}, {"event", row.name}});
    }
}

void addNotifications(Sheet &sheet)
{
    sheet.counter("notifications_refused_total",
                  "Notifications whose module or event is not known, or lost for want of memory.",
                  refusedNotifications());
}

void addFileLocks(Sheet &sheet)
{
    sheet.gauge("file_locks", "Byte ranges that clients have locked.", static_cast<double>(fileLockCount()));
    sheet.counter("file_locks_released_by_faults_total", "Byte ranges released because their client was lost.",
                  locksReleasedByFaults());
    sheet.counter("clients_lost_total", "Clients whose file locks were released.", lostClients());
}

} // namespace

std::string metricsText()
{
    Sheet sheet;
    const std::vector<ModuleState> modules = moduleStates();
    addNode(sheet);
    addAddresses(sheet, modules);
    addModules(sheet, modules);
    addMonitor(sheet);
    addStorageCalls(sheet);
    addLifPorts(sheet);
    addLog(sheet);
    addPool(sheet);
    addMessages(sheet);
    addEvents(sheet);
    addNotifications(sheet);
    addFileLocks(sheet);
    return prometheus::TextSerializer().Serialize(sheet.families());
}

} // namespace host::admin
