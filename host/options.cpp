// One table of options, read by both doors: CLI11 cuts command line and option file into names and texts, a row's own
// function judges the text, so that a wrong value reads the same wherever it stood.

#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <climits>
#include <common/suggest.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <span>

namespace host {
namespace {

constexpr const char *kRunDirectory = "/run/nasctrl";
constexpr const char *kStateDirectory = "/var/lib/nasctrl"; // outlives the machine's restart
constexpr unsigned kMaxPeriodSeconds = 600;
constexpr unsigned kMaxThreads = 64;
constexpr unsigned kMaxLeaseSeconds = 3600;
constexpr unsigned kMaxStorageTimeoutMs = 3600000;
constexpr unsigned kMaxTenantId = 1024;
constexpr size_t kMaxTenantName = 63;

struct OptionRow {
    const char *name; // as in the option file; the flag is "--" before it
    const char *value;
    const char *help;
    // Judges the text and stores it. Throws std::invalid_argument: what the text is not.
    void (*apply)(NodeOptions &options, const std::string &text);
    bool repeatable = false;
};

uint64_t wholeNumber(const std::string &text, uint64_t least, uint64_t most)
{
    uint64_t number = 0;
    const char *end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || number < least || number > most) {
        throw std::invalid_argument(text + " is not a whole number from " + std::to_string(least) + " to " +
                                    std::to_string(most));
    }
    return number;
}

uint32_t id(const std::string &text)
{
    return static_cast<uint32_t>(wholeNumber(text, 1, UINT32_MAX));
}

unsigned count(const std::string &text, unsigned most)
{
    return static_cast<unsigned>(wholeNumber(text, 1, most));
}

std::string path(const std::string &text)
{
    if (text.empty()) {
        throw std::invalid_argument("an empty text is not a path, leave the option out instead");
    }
    const auto whole = std::filesystem::absolute(text).lexically_normal();
    return (whole.has_filename() ? whole : whole.parent_path()).string(); // "DIR/" is DIR
}

std::pair<std::string, std::string> cut(const std::string &text, char separator, const char *form)
{
    const size_t at = text.rfind(separator);
    if (at == std::string::npos || at == 0 || at + 1 == text.size()) {
        throw std::invalid_argument(text + " is not of the form " + form);
    }
    return {text.substr(0, at), text.substr(at + 1)};
}

bool isAddress(const std::string &text)
{
    in6_addr room{};
    return inet_pton(AF_INET, text.c_str(), &room) == 1 || inet_pton(AF_INET6, text.c_str(), &room) == 1;
}

void addModule(NodeOptions &options, const std::string &text)
{
    const ModuleConfig module = parseModule(text);
    for (const ModuleConfig &other : options.modules) {
        if (other.slot == module.slot) {
            throw std::invalid_argument(text + " is not possible, slot " + std::to_string(module.slot) +
                                        " is that of module " + other.name);
        }
    }
    options.modules.push_back(module);
}

void setLogClass(NodeOptions &options, const std::string &text)
{
    const auto [logClass, level] = cut(text, ':', "CLASS:LEVEL");
    options.log.classLevels[wholeNumber(logClass, 0, kLogClasses - 1)] =
        static_cast<uint32_t>(wholeNumber(level, 0, kMaxLogLevel));
}

void setBackend(NodeOptions &options, const std::string &text)
{
    if (text != "fibers" && text != "threads") {
        throw std::invalid_argument(text + " is not a kind of light-weight threads, choose fibers or threads");
    }
    options.lwtBackend = text == "fibers" ? LwtBackend::fibers : LwtBackend::threads;
}

void setLsIds(NodeOptions &options, const std::string &text)
{
    options.adapters.lsIds.clear();
    for (size_t begin = 0; begin <= text.size();) {
        const size_t end = std::min(text.find(',', begin), text.size());
        options.adapters.lsIds.push_back(id(text.substr(begin, end - begin)));
        begin = end + 1;
    }
}

void addTenant(NodeOptions &options, const std::string &text)
{
    const size_t at = text.find(':');
    if (at == std::string::npos || at + 1 == text.size() || text.size() - at - 1 > kMaxTenantName) {
        throw std::invalid_argument(text + " is not of the form ID:NAME with a name of 1 to 63 characters");
    }
    const auto tenant = static_cast<uint32_t>(wholeNumber(text.substr(0, at), 0, kMaxTenantId));
    options.adapters.tenants[tenant] = text.substr(at + 1);
}

void addControlIp(NodeOptions &options, const std::string &text)
{
    const auto [address, ls] = cut(text, '=', "ADDRESS=LS");
    if (!isAddress(address)) {
        throw std::invalid_argument(address + " is not an IPv4 or IPv6 address");
    }
    options.adapters.controlIps[address] = id(ls);
}

void setNodeName(NodeOptions &options, const std::string &text)
{
    if (text.empty() || text.size() > kMaxNodeName) {
        throw std::invalid_argument(text + " is not a name of 1 to " + std::to_string(kMaxNodeName) + " characters");
    }
    options.adapters.nodeName = text;
}

void setStore(NodeOptions &options, const std::string &text)
{
    options.store = parseStore(text);
    if (!options.store.file.empty()) {
        options.store.file = path(options.store.file);
    }
}

constexpr OptionRow kRows[] = {
    {"root", "DIR", "Run against DIR/opt in the place of /opt",
     [](NodeOptions &o, const std::string &text) { o.root = path(text); }},
    {"node-id", "ID", "Node id, also its LS id [1]",
     [](NodeOptions &o, const std::string &text) { o.nodeId = id(text); }},
    {"node-name", "NAME", "Node name [the machine's]", setNodeName},
    {"module", "SLOT:NAME:TYPES:PORT", "A protocol module, for example 0:nfs:3:20049 (repeatable)", addModule, true},
    {"message-socket", "PATH", "Where other processes send messages [ROOT/run/message.sock]",
     [](NodeOptions &o, const std::string &text) { o.messages.socketPath = path(text); }},
    {"admin-socket", "PATH", "Where nasctl connects [ROOT/run/admin.sock]",
     [](NodeOptions &o, const std::string &text) { o.adminSocket = path(text); }},
    {"storage-socket", "PATH", "Where a storage-side service of its own process listens [none]",
     [](NodeOptions &o, const std::string &text) { o.messages.storageSocketPath = path(text); }},
    {"storage-data", "FILE",
     "Data of the storage-side service in this process; the node's addresses come from it [none]",
     [](NodeOptions &o, const std::string &text) { o.storageData = path(text); }},
    {"storage-timeout-ms", "MS", "How long to wait for the storage-side service [3000]",
     [](NodeOptions &o, const std::string &text) {
         o.messages.storageTimeout = std::chrono::milliseconds(count(text, kMaxStorageTimeoutMs));
     }},
    {"store", "KIND:PLACE", "Cluster store: sqlite:PATH or etcd:URL[,URL...] [sqlite:ROOT/var/cluster.db]", setStore},
    {"lease", "SECONDS", "How long the cluster takes a silent node for alive [5]",
     [](NodeOptions &o, const std::string &text) { o.lease = std::chrono::seconds(count(text, kMaxLeaseSeconds)); }},
    {"message-clients", "N", "Clients of the message service at once [1024]",
     [](NodeOptions &o, const std::string &text) { o.messages.clients = count(text, kMaxMessageClients); }},
    {"log-file", "PATH", "Append the log to this file",
     [](NodeOptions &o, const std::string &text) { o.log.file = path(text); }},
    {"log-level", "LEVEL", "Drop lines above this level, 3 error, 4 progress, 6 information [6]",
     [](NodeOptions &o, const std::string &text) {
         o.log.threshold = static_cast<uint32_t>(wholeNumber(text, 0, kMaxLogLevel));
     }},
    {"log-class", "CLASS:LEVEL", "Level of a class of lines (repeatable) [0:6 1:4 2:4 3:3]", setLogClass, true},
    {"lwt", "KIND", "Light-weight threads: fibers or threads [fibers]", setBackend},
    {"lwt-workers", "N", "Threads that run fibers [2]",
     [](NodeOptions &o, const std::string &text) { o.lwtWorkers = count(text, kMaxThreads); }},
    {"ls-ids", "ID,ID...", "The configured LS ids [the node's own]", setLsIds},
    {"tenant", "ID:NAME", "Name of a tenant (repeatable)", addTenant, true},
    {"control-ip", "ADDRESS=LS", "Which LS owns a control address (repeatable)", addControlIp, true},
    {"period", "SECONDS", "Time between address queries, 1 to 600 [60]",
     [](NodeOptions &o, const std::string &text) { o.period = count(text, kMaxPeriodSeconds); }},
    {"ready-fd", "FD", "Write a line to this descriptor and close it once the node is ready",
     [](NodeOptions &o, const std::string &text) { o.readyFd = static_cast<int>(wholeNumber(text, 0, INT_MAX)); }},
};

constexpr const char *kNoConsole = "no-console";

const OptionRow *findRow(const std::string &name)
{
    const auto *row = std::ranges::find_if(kRows, [&](const OptionRow &candidate) { return name == candidate.name; });
    return row == std::end(kRows) ? nullptr : row;
}

std::string suggestion(const std::string &name)
{
    std::vector<std::string> known = {kNoConsole};
    for (const OptionRow &row : kRows) {
        known.emplace_back(row.name);
    }
    return common::suggestion(name, known);
}

// "FILE line 3: " of the first line of the option file that gives the option in the way that fits; empty when none
// does. fits is given what follows the name.
std::string placeOf(const std::string &file, const std::string &name,
                    const std::function<bool(const std::string &)> &fits)
{
    std::ifstream input(file);
    std::string line;
    for (unsigned number = 1; std::getline(input, line); ++number) {
        const size_t begin = std::min(line.find_first_not_of(" \t"), line.size());
        if (line.compare(begin, name.size(), name) == 0 && fits(line.substr(begin + name.size()))) {
            return file + " line " + std::to_string(number) + ": ";
        }
    }
    return "";
}

// Where the option file gives the option, or this value of it.
std::string lineOf(const std::string &file, const std::string &name, const std::string &value)
{
    const std::string place =
        placeOf(file, name, [&](const std::string &rest) { return rest.find(value) != std::string::npos; });
    return place.empty() ? file + ": " : place;
}

// CLI11 takes a line that is a name alone for a flag that is set.
void requireValue(const std::string &file, const OptionRow &row)
{
    const std::string place = placeOf(file, row.name, [](const std::string &rest) {
        const size_t next = rest.find_first_not_of(" \t\r");
        return next == std::string::npos || rest[next] == '#';
    });
    if (!place.empty()) {
        throw UsageError(place + row.name + ": needs a value, write " + row.name + " = " + row.value);
    }
}

void applyAll(NodeOptions &options, const OptionRow &row, const std::vector<std::string> &texts,
              const std::string &file)
{
    for (const std::string &text : texts) {
        try {
            row.apply(options, text);
        } catch (const std::invalid_argument &error) {
            const std::string place = file.empty() ? "--" : lineOf(file, row.name, text);
            throw UsageError(place + row.name + ": " + error.what());
        }
    }
}

bool truth(const std::string &file, const CLI::ConfigItem &item)
{
    const std::string text = item.inputs.empty() ? "true" : item.inputs.front();
    if (text != "true" && text != "false") {
        throw UsageError(lineOf(file, item.name, text) + item.name + ": " + text + " is not true or false");
    }
    return text == "true";
}

std::string joined(const std::vector<std::string> &parts)
{
    std::string text;
    for (const std::string &part : parts) {
        text += (text.empty() ? "" : ",") + part;
    }
    return text;
}

void applyItem(NodeOptions &options, const CLI::ConfigItem &item, const std::string &file)
{
    const OptionRow *row = findRow(item.name);
    if (row == nullptr || !item.parents.empty()) {
        throw UsageError(lineOf(file, item.name, "") + item.fullname() + ": no such option" + suggestion(item.name));
    }
    requireValue(file, *row);
    // CLI11 cuts a text at blanks and commas of an array; an option that is not repeatable takes it as one text again.
    applyAll(options, *row, row->repeatable ? item.inputs : std::vector<std::string>{joined(item.inputs)}, file);
}

std::vector<CLI::ConfigItem> readItems(const std::string &file)
{
    try {
        return CLI::ConfigTOML().from_file(file);
    } catch (const CLI::Error &) {
        throw UsageError("--config: " + file + " is not a file that can be read");
    }
}

void applyFile(NodeOptions &options, const std::string &file, const std::set<std::string> &onCommandLine)
{
    for (const CLI::ConfigItem &item : readItems(file)) {
        if (item.name == "++" || item.name == "--" || onCommandLine.contains(item.name)) {
            continue; // "++" and "--" are CLI11's marks for the begin and end of a section
        }
        if (item.name == kNoConsole) {
            options.log.console = !truth(file, item);
            continue;
        }
        applyItem(options, item, file);
    }
}

void setDefaultLsIds(NodeOptions &options)
{
    std::vector<uint32_t> &ids = options.adapters.lsIds;
    if (ids.empty()) {
        ids = {options.nodeId};
    } else if (std::ranges::find(ids, options.nodeId) == ids.end()) {
        throw UsageError("--ls-ids: the node's own id " + std::to_string(options.nodeId) +
                         " is not among them; add it, or name the node by another --node-id");
    }
}

void setDefaults(NodeOptions &options)
{
    const std::string run = options.root.empty() ? kRunDirectory : options.root + "/run";
    options.messages.nodeId = options.nodeId;
    if (options.messages.socketPath.empty()) {
        options.messages.socketPath = run + "/message.sock";
    }
    if (options.adminSocket.empty()) {
        options.adminSocket = run + "/admin.sock";
    }
    if (options.store.file.empty() && options.store.endpoints.empty()) {
        options.store.file =
            (options.root.empty() ? std::string(kStateDirectory) : options.root + "/var") + "/cluster.db";
    }
    setDefaultLsIds(options);
    options.embedsStorage = options.messages.storageSocketPath.empty();
    if (options.embedsStorage) {
        options.messages.storageSocketPath = run + "/storage.sock";
    } else if (!options.storageData.empty()) {
        throw UsageError("--storage-data: not together with --storage-socket, whose service has data of its own");
    }
    options.adapters.hasStorage = !options.embedsStorage || !options.storageData.empty();
}

// The texts of the command line, by option.
struct Given {
    std::map<std::string, std::vector<std::string>> texts;
    std::string file;
    bool noConsole = false;
};

void describe(CLI::App &app, Given &given, const std::string &version)
{
    app.name("nasctrld");
    app.allow_extras();
    app.set_version_flag("--version", "nasctrld " + version, "Print the version and leave");
    app.add_option("--config", given.file, "Read options from this file, as NAME = VALUE lines")->type_name("FILE");
    for (const OptionRow &row : kRows) {
        CLI::Option *option = app.add_option(std::string("--") + row.name, given.texts[row.name], row.help);
        option->type_name(row.value)->type_size(1)->expected(1)->allow_extra_args(false);
        option->multi_option_policy(row.repeatable ? CLI::MultiOptionPolicy::TakeAll : CLI::MultiOptionPolicy::Throw);
    }
    app.add_flag("--no-console", given.noConsole, "Do not write the log to standard error")->disable_flag_override();
}

} // namespace

std::optional<NodeOptions> parseOptions(const std::vector<std::string> &arguments, const std::string &version,
                                        std::ostream &out)
{
    CLI::App app("The control plane of a NAS node");
    Given given;
    describe(app, given, version);
    if (!common::cutCommandLine(app, arguments, out)) {
        return std::nullopt;
    }
    NodeOptions options;
    options.log.console = !given.noConsole;
    if (!given.file.empty()) {
        std::set<std::string> onCommandLine;
        for (const auto &[name, texts] : given.texts) {
            if (!texts.empty()) {
                onCommandLine.insert(name);
            }
        }
        if (given.noConsole) {
            onCommandLine.insert(kNoConsole);
        }
        applyFile(options, given.file, onCommandLine);
    }
    for (const OptionRow &row : kRows) {
        applyAll(options, row, given.texts[row.name], "");
    }
    setDefaults(options);
    return options;
}

} // namespace host
