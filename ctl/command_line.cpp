/*
 * Options stay texts here: each is judged where it is used, in words of its own. The parser collects what it does not
 * know instead of complaining, so that the complaint can suggest the nearest word.
 */
#include "command_line.h"
#include "commands/commands.h"
#include "failure.h"
#include "parse.h"
#include <CLI/CLI.hpp>
#include <common/command_line.h>
#include <common/suggest.h>
#include <memory>
#include <optional>

namespace ctl {

namespace {

constexpr uint64_t kMaxTimeoutMs = 3600000;

using Action = std::function<int(const Session &)>;

struct Arguments {
    // Absent and empty differ: an empty directory is an error of a script, not a wish for the default.
    std::optional<std::string> root, adminSocket, messageSocket, timeout;
    std::optional<std::string> module, opcode, hex, command, value, level, logClass;
    std::optional<std::string> period, time, address, id, fsId, tenantId, subnet, after, lsId, to, steady, state;
    Words words;
    bool json = false;
    bool all = false;
    bool follow = false;
    bool shared = false;
    bool place = false;
    bool dryRun = false;
};

class Grammar {
public:
    Grammar();
    void parse(int argc, char **argv, Invocation &invocation);

private:
    CLI::App *family(const std::string &name, const std::string &text);
    CLI::App *leaf(CLI::App *parent, const std::string &name, const std::string &text, Action action);
    void defineGlobals();
    void defineNode();
    void defineAddresses();
    void defineClusters();
    void defineCommands();
    void defineLog();
    void defineStorage();
    void defineClients();
    void defineNames();
    void defineLifPorts();
    void defineVpcs();
    void defineQuestions();
    void defineEvents();
    void defineLocks();
    void defineShards();
    void defineShardMoves(CLI::App *shard);
    void defineFmm();
    void defineZone(CLI::App *hdfs, const std::string &name, const std::string &text);

    const CLI::App *recognised() const;
    std::string commandName() const;
    std::string helpHint() const;
    void checkWords() const;
    void fill(Session &session) const;

    CLI::App app_{"nasctl looks into a running node and changes what may be changed while it runs."};
    Arguments args_;
    Action action_;
};

// Positional words and option values as they were typed, without the parser's own reading of them.
CLI::Option *collectWords(CLI::App *command, const std::string &name, const std::string &text, Words &words,
                          bool required)
{
    return command
        ->add_option_function<Words>(
            name, [&words](const Words &typed) { words = typed; }, text)
        ->required(required)
        ->type_name("");
}

CLI::Option *addText(CLI::App *command, const std::string &names, std::optional<std::string> &value,
                     const std::string &text, const std::string &type)
{
    return command
        ->add_option_function<std::string>(
            names, [&value](const std::string &typed) { value = typed; }, text)
        ->type_name(type)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

Grammar::Grammar()
{
    app_.name("nasctl");
    app_.set_help_flag("-h,--help", "Print this help");
    app_.set_version_flag("--version", "nasctl " NASCTL_VERSION, "Print the version");
    app_.require_subcommand(0, 1);
    app_.allow_extras();
    app_.fallthrough();
    defineGlobals();
    defineNode();
    defineAddresses();
    defineClusters();
    defineCommands();
    defineLog();
    defineStorage();
    defineClients();
    defineNames();
    defineLifPorts();
    defineVpcs();
    defineQuestions();
    defineEvents();
    defineLocks();
    defineShards();
    defineFmm();
    app_.footer("Global options may also follow the command; nasctl COMMAND --help tells more of each.\n"
                "Exit codes: 0 done, 1 failed, 2 the command line is wrong.");
}

CLI::App *Grammar::family(const std::string &name, const std::string &text)
{
    CLI::App *command = app_.add_subcommand(name, text);
    command->require_subcommand(0, 1);
    return command;
}

CLI::App *Grammar::leaf(CLI::App *parent, const std::string &name, const std::string &text, Action action)
{
    CLI::App *command = parent->add_subcommand(name, text);
    command->callback([this, action = std::move(action)] { action_ = action; });
    return command;
}

void Grammar::defineGlobals()
{
    addText(&app_, "--root", args_.root, "Directory of the node: its sockets are in DIR/run", "DIR");
    addText(&app_, "--admin-socket", args_.adminSocket, "Admin socket [/run/nasctrl/admin.sock]", "PATH");
    addText(&app_, "--message-socket", args_.messageSocket, "Message socket [/run/nasctrl/message.sock]", "PATH");
    addText(&app_, "--timeout-ms", args_.timeout, "Time for one call to the node [10000]", "N");
    app_.add_flag("--json", args_.json, "Print JSON instead of tables")->disable_flag_override();
}

void Grammar::defineNode()
{
    leaf(&app_, "status", "The node on one screen", showStatus);
    CLI::App *power = family("power", "The power state of the protocol service: on, off, status");
    leaf(power, "on", "Start the protocol service", [](const Session &session) { return switchPower(session, "on"); });
    leaf(power, "off", "Stop the protocol service", [](const Session &session) { return switchPower(session, "off"); });
    leaf(power, "status", "Print the state", showPower);
    CLI::App *config = leaf(&app_, "config", "What the configuration getters answer",
                            [this](const Session &session) { return showConfig(session, args_.words); });
    collectWords(config, "NAME", "Only these getters", args_.words, false);
    CLI::App *mem = leaf(&app_, "mem", "Accounts of the memory pool that have live blocks",
                         [this](const Session &session) { return showMemory(session, args_.all); });
    mem->add_flag("--all", args_.all, "Accounts without live blocks too")->disable_flag_override();
}

void Grammar::defineAddresses()
{
    CLI::App *ip = family("ip", "The service addresses of the node: ls, add, del, monitor, explain, node");
    leaf(ip, "ls", "List the addresses and what became of them", listAddresses);
    CLI::App *add = leaf(ip, "add", "Announce addresses to the node",
                         [this](const Session &session) { return addAddresses(session, args_.words); });
    CLI::App *del = leaf(ip, "del", "Withdraw addresses from the node",
                         [this](const Session &session) { return deleteAddresses(session, args_.words); });
    collectWords(add, "ADDR", "IPv4 or IPv6 addresses", args_.words, true);
    collectWords(del, "ADDR", "IPv4 or IPv6 addresses", args_.words, true);
    CLI::App *monitor = leaf(ip, "monitor", "When the node looks at its addresses, and what makes it hurry",
                             [this](const Session &session) { return showMonitor(session, args_.period); });
    addText(monitor, "--period", args_.period, "Set the time between two looks, 1 to 600 seconds", "N");
    CLI::App *explain = leaf(ip, "explain", "All that the node knows of an address",
                             [this](const Session &session) { return explainAddress(session, *args_.address); });
    addText(explain, "ADDR", args_.address, "IPv4 or IPv6 address", "")->required();
    leaf(ip, "node", "The node's addresses as the storage-side service tells them",
         [](const Session &session) { return askStorage(session, "node-ips"); });
}

void Grammar::defineLifPorts()
{
    CLI::App *lif = family("lif", "The LIF ports of the node: ls, add, del, find, name");
    leaf(lif, "ls", "List the ports", listPorts);
    CLI::App *add = leaf(lif, "add", "Add a port, or refresh it",
                         [this](const Session &session) { return addPort(session, args_.words, args_.time); });
    collectWords(add, "ID NAME ADDRESS", "The port's id, its name and its address", args_.words, true);
    addText(add, "--time", args_.time, "Its time [the node's milliseconds]; an older one changes nothing", "T");
    CLI::App *del = leaf(lif, "del", "Delete the first port with an address",
                         [this](const Session &session) { return deletePort(session, *args_.address, args_.time); });
    addText(del, "ADDR", args_.address, "Its address", "")->required();
    addText(del, "--time", args_.time, "Leave a port that was added later", "T");
    CLI::App *find = leaf(lif, "find", "The index of a port",
                          [this](const Session &session) { return findPort(session, *args_.id); });
    addText(find, "ID", args_.id, "Its id", "")->required();
    CLI::App *name = leaf(lif, "name", "The name of a port",
                          [this](const Session &session) { return namePort(session, *args_.id); });
    addText(name, "ID", args_.id, "Its id", "")->required();
}

void Grammar::defineVpcs()
{
    CLI::App *vpc =
        family("vpc", "The networks of virtual private clouds: ls, add, lookup, check, clear, save, reload");
    leaf(vpc, "ls", "List the records in the order in which look-ups try them", listVpcs);
    CLI::App *add = leaf(vpc, "add", "Add a network to a cloud",
                         [this](const Session &session) { return addVpc(session, args_.words); });
    collectWords(add, "ID ADDRESS/LENGTH", "The cloud's id and the network", args_.words, true);
    CLI::App *lookup = leaf(vpc, "lookup", "The cloud that an address belongs to",
                            [this](const Session &session) { return lookUpVpc(session, *args_.address); });
    addText(lookup, "ADDR", args_.address, "IPv4 address", "")->required();
    CLI::App *check = leaf(vpc, "check", "Whether a record has an id",
                           [this](const Session &session) { return checkVpc(session, *args_.id); });
    addText(check, "ID", args_.id, "The cloud's id", "")->required();
    leaf(vpc, "clear", "Remove all records from the table, not from the file", clearVpcs);
    leaf(vpc, "save", "Write the records to the file", saveVpcs);
    leaf(vpc, "reload", "Add the file's records to the table", reloadVpcs);
}

void Grammar::defineZone(CLI::App *hdfs, const std::string &name, const std::string &text)
{
    CLI::App *command = leaf(hdfs, name, text, [this, name](const Session &session) {
        const ZoneWords zone{args_.fsId.value_or("0"), args_.tenantId.value_or("0"), *args_.subnet};
        return askAboutZone(session, name, zone);
    });
    addText(command, "SUBNET", args_.subnet, "The subnet's text", "")->required();
    addText(command, "--fs-id", args_.fsId, "File system [0]", "N");
    addText(command, "--tenant-id", args_.tenantId, "Tenant [0]", "N");
}

struct NamedCommand {
    const char *name;
    const char *text;
};

constexpr NamedCommand kPlainQuestions[] = {
    {"zone", "The addresses of this node's zone"},
    {"node-ids", "The node ids of the global zone"},
    {"domain", "The zone's full domain name"},
    {"contacted", "The contacted zone's configuration"},
};

constexpr NamedCommand kAddressQuestions[] = {
    {"conf", "The HDFS configuration behind an address"},
    {"tenant", "The tenant that owns an address"},
};

void Grammar::defineQuestions()
{
    CLI::App *hdfs = family("hdfs", "Questions to the storage-side service: conf, tenant, zone, node-ids, domain, "
                                    "contacted, neighbors, global-zone, subnet");
    for (const NamedCommand &row : kAddressQuestions) {
        CLI::App *command = leaf(hdfs, row.name, row.text, [this, &row](const Session &session) {
            return askAboutAddress(session, row.name, *args_.address);
        });
        addText(command, "ADDR", args_.address, "IPv4 or IPv6 address", "")->required();
    }
    for (const NamedCommand &row : kPlainQuestions) {
        leaf(hdfs, row.name, row.text, [&row](const Session &session) { return askStorage(session, row.name); });
    }
    CLI::App *neighbours = leaf(hdfs, "neighbors", "The addresses of an LS's neighbours",
                                [this](const Session &session) { return askAboutNeighbours(session, *args_.id); });
    addText(neighbours, "LS", args_.id, "EDS LS id", "")->required();
    defineZone(hdfs, "global-zone", "The addresses of the global zone");
    defineZone(hdfs, "subnet", "All addresses of a subnet");
    leaf(&app_, "ifaces", "The node's interfaces as the storage-side service tells them",
         [](const Session &session) { return askStorage(session, "ifaces"); });
    CLI::App *owners = leaf(&app_, "ctrl-ips", "The LS that owns each control address",
                            [this](const Session &session) { return showControlIps(session, args_.words); });
    collectWords(owners, "ADDR", "IPv4 or IPv6 addresses", args_.words, true);
}

void Grammar::defineClusters()
{
    CLI::App *cluster = family("cluster", "The remote clusters that the node serves: ls, add, rm");
    leaf(cluster, "ls", "List their ids", listClusters);
    CLI::App *add = leaf(cluster, "add", "Add clusters",
                         [this](const Session &session) { return addClusters(session, args_.words); });
    CLI::App *remove = leaf(cluster, "rm", "Remove clusters",
                            [this](const Session &session) { return removeClusters(session, args_.words); });
    collectWords(add, "ID", "Cluster ids, from 1", args_.words, true);
    collectWords(remove, "ID", "Cluster ids, from 1", args_.words, true);
}

int listOrRun(const Session &session, const Arguments &args)
{
    if (!args.module && !args.command && !args.value) {
        return listCommands(session);
    }
    if (!args.module || !args.command) {
        throw UsageFailure(std::string(!args.module ? "-m MODULE" : "-c COMMAND") +
                           " is missing; nasctl cmd alone lists the modules and their commands");
    }
    return runCommand(session, *args.module, *args.command, args.value);
}

void Grammar::defineCommands()
{
    CLI::App *msg =
        leaf(&app_, "msg", "Send a message to a module and print its answer", [this](const Session &session) {
            return sendMessage(session, *args_.module, *args_.opcode, args_.hex.value_or(""));
        });
    addText(msg, "--module", args_.module, "Module id", "M")->required();
    addText(msg, "--opcode", args_.opcode, "Opcode", "C")->required();
    addText(msg, "HEX", args_.hex, "Payload in hex, - to read it from standard input", "");
    CLI::App *cmd = leaf(&app_, "cmd", "Run a debug command; list them all when none is named",
                         [this](const Session &session) { return listOrRun(session, args_); });
    addText(cmd, "-m,--module", args_.module, "Module", "MODULE");
    addText(cmd, "-c,--command", args_.command, "Command", "COMMAND");
    addText(cmd, "-v,--value", args_.value, "Its argument", "VALUE");
}

void Grammar::defineLog()
{
    CLI::App *log = family("log", "The node's log: level");
    CLI::App *level = leaf(log, "level", "Print the levels, or set one", [this](const Session &session) {
        return args_.level ? setLogLevel(session, *args_.level, args_.logClass)
                           : showLogLevels(session, args_.logClass);
    });
    addText(level, "LEVEL", args_.level, "New level, 0 to 7", "");
    addText(level, "--class", args_.logClass, "Of this class, 0 to 3, instead of the threshold", "N");
}

void Grammar::defineStorage()
{
    CLI::App *storage = family("storage", "The storage-side service: status, fault");
    leaf(storage, "status", "What it was asked, and the faults it was told to have", showStorage);
    CLI::App *fault = leaf(storage, "fault", "Tell it how to answer questions of a type, or of all",
                           [this](const Session &session) { return setStorageFault(session, args_.words); });
    collectWords(fault, "[TYPE|all] none|slow MS|timeout|short BYTES|fail CODE",
                 "An answer as it should be, late, none, cut, or an error", args_.words, true);
}

void Grammar::defineClients()
{
    leaf(&app_, "view", "The view of the parallel clients, and who is the master", showView);
    leaf(&app_, "master", "The cluster's master", showMaster);
    CLI::App *dpc = family("dpc", "Parallel clients: ls, show, join, leave, kill, fault");
    leaf(dpc, "ls", "List them", listClients);
    const auto ofLs = [&](const char *name, const char *text, Action action) {
        CLI::App *command = leaf(dpc, name, text, std::move(action));
        addText(command, "LS", args_.id, "LS id of the client", "")->required();
        return command;
    };
    ofLs("show", "One of them", [this](const Session &session) { return showClient(session, *args_.id); });
    CLI::App *join =
        ofLs("join", "Be a client: live until Ctrl-C, which leaves; kill -9 is a heart break",
             [this](const Session &session) { return joinCluster(session, *args_.id, args_.time, args_.words); });
    addText(join, "--ttl", args_.time, "Seconds that its lease lasts without a heart beat [3]", "SECONDS");
    collectWords(join, "--attribute", "That other nodes shall see of it", args_.words, false)->type_name("NAME=VALUE");
    ofLs("leave", "Take a client out of the view",
         [this](const Session &session) { return leaveCluster(session, *args_.id); });
    ofLs("kill", "Report that a client's process died",
         [this](const Session &session) { return killClient(session, *args_.id); });
    CLI::App *fault = ofLs("fault", "Report a client faulty and leave its process alone",
                           [this](const Session &session) { return faultClient(session, *args_.id, args_.value); });
    addText(fault, "--reason", args_.value, "2 process fault, 3 heart break, or another number [2]", "N");
}

void Grammar::defineEvents()
{
    CLI::App *events = leaf(&app_, "events", "What the modules were told and what the node saw, one line each",
                            [this](const Session &session) { return showEvents(session, args_.after, args_.follow); });
    addText(events, "--after", args_.after, "Only what came after the event of this number [all that is kept]", "N");
    events->add_flag("--follow", args_.follow, "Go on with what happens until Ctrl-C")->disable_flag_override();
}

void Grammar::defineLocks()
{
    CLI::App *locks = family("locks", "The clients' file locks: ls, take, release");
    leaf(locks, "ls", "List the locks", listLocks);
    CLI::App *take = leaf(locks, "take", "Take a lock for a client", [this](const Session &session) {
        return takeLock(session, *args_.lsId, args_.words, args_.shared);
    });
    take->add_flag("--shared", args_.shared, "Others may share it; without it nobody may")->disable_flag_override();
    collectWords(take, "FILE START LEN", "The file, the first byte, and the length, 0 for up to the end", args_.words,
                 true);
    CLI::App *release =
        leaf(locks, "release", "Release a client's locks on a range, or all of them",
             [this](const Session &session) { return releaseLocks(session, *args_.lsId, args_.words); });
    collectWords(release, "FILE START LEN", "The file, the first byte, and the length, 0 for up to the end",
                 args_.words, false);
    for (CLI::App *command : {take, release}) {
        addText(command, "--ls", args_.lsId, "LS id of the client", "ID")->required();
    }
}

void Grammar::defineNames()
{
    CLI::App *ns = family("ns", "The version record in the cluster's name service: show, create, read, publish");
    leaf(ns, "show", "The node's copy of it, without asking the cluster store", showName);
    leaf(ns, "create", "Create it, unless it is there", createName);
    leaf(ns, "read", "Read it anew", readName);
    CLI::App *publish = leaf(ns, "publish", "Publish a new FL",
                             [this](const Session &session) { return publishName(session, *args_.value); });
    addText(publish, "FL", args_.value, "0 to 4294967295", "")->required();
    CLI::App *version = family("version", "Compatible-version texts: parse");
    CLI::App *parse = leaf(version, "parse", "The versions that a text such as [1],[3-5] stands for",
                           [this](const Session &session) { return parseVersions(session, *args_.value); });
    addText(parse, "TEXT", args_.value, "The text", "")->required();
}

void Grammar::defineShards()
{
    CLI::App *shard = family("shard", "The storage shards and the FSPs on them: ls, fsp, show, migrate, failback, "
                                      "move-fsp, policy");
    leaf(shard, "ls", "List the shards, the LS of each, and where the FSPs of a faulty one went", listShards);
    CLI::App *fsp = leaf(shard, "fsp", "Where an FSP is",
                         [this](const Session &session) { return showFsp(session, *args_.id, args_.place); });
    addText(fsp, "FSP", args_.id, "Its id", "")->required();
    fsp->add_flag("--place", args_.place, "Put it into the index, as its first look-up does")->disable_flag_override();
    leaf(shard, "show", "List the index of FSPs", showShardIndex);
    defineShardMoves(shard);
    CLI::App *policy =
        leaf(shard, "policy", "Show, or set, whether FSPs leave faulty LSs by themselves",
             [this](const Session &session) { return shardPolicy(session, args_.state, args_.steady, args_.dryRun); });
    addText(policy, "on|off", args_.state, "Switch it", "");
    addText(policy, "--steady", args_.steady, "How long an LS runs before its FSPs go back, 1 to 86400 [60]",
            "SECONDS");
    policy->add_flag("--dry-run", args_.dryRun, "Show what would move and why, without moving")
        ->disable_flag_override();
}

void Grammar::defineShardMoves(CLI::App *shard)
{
    CLI::App *migrate = leaf(shard, "migrate", "Move all FSPs of a faulty LS to another",
                             [this](const Session &session) { return migrateShard(session, *args_.lsId, args_.to); });
    addText(migrate, "LS", args_.lsId, "Its id", "")->required();
    addText(migrate, "--to", args_.to, "Where to [the next LS]", "LS");
    CLI::App *failback = leaf(shard, "failback", "Move the FSPs of an LS back from where they went",
                              [this](const Session &session) { return failShardBack(session, *args_.lsId); });
    addText(failback, "LS", args_.lsId, "Its id", "")->required();
    CLI::App *move = leaf(shard, "move-fsp", "Move one FSP",
                          [this](const Session &session) { return moveFsp(session, *args_.id, *args_.to); });
    addText(move, "FSP", args_.id, "Its id", "")->required();
    addText(move, "--to", args_.to, "Where to", "LS")->required();
}

constexpr NamedCommand kFmmEvents[] = {
    {"shard-change", "Shards changed owner: FMM is told"},
    {"vnode-move-in", "A vnode moves in: DLG and then FMM are told"},
    {"vnode-move-out", "A vnode moves out: DLG and then FMM are told"},
};

constexpr NamedCommand kFmmLsEvents[] = {
    {"node-fault", "The storage node of an LS failed: FMM is told, and the shard policy"},
    {"node-recover", "It is back: FMM is told, its process reverted, and the shard policy told"},
};

void Grammar::defineFmm()
{
    CLI::App *fmm = family("fmm", "Events of the FMM side by hand: status, shard-change, node-fault, node-recover, "
                                  "vnode-move-in, vnode-move-out");
    leaf(fmm, "status", "What was announced, and the processes that are faulty", showFmm);
    for (const NamedCommand &row : kFmmEvents) {
        leaf(fmm, row.name, row.text,
             [&row](const Session &session) { return sendFmmEvent(session, row.name, std::nullopt); });
    }
    for (const NamedCommand &row : kFmmLsEvents) {
        CLI::App *command = leaf(fmm, row.name, row.text, [this, &row](const Session &session) {
            return sendFmmEvent(session, row.name, args_.lsId);
        });
        addText(command, "LS", args_.lsId, "Its id", "")->required();
    }
}

const CLI::App *Grammar::recognised() const
{
    const CLI::App *command = &app_;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
    }
    return command;
}

std::string Grammar::commandName() const
{
    std::string name;
    for (const CLI::App *command = recognised(); command != &app_; command = command->get_parent()) {
        name.insert(0, name.empty() ? command->get_name() : command->get_name() + " ");
    }
    return name;
}

Words subcommandNames(const CLI::App *command)
{
    Words names;
    for (const CLI::App *sub : command->get_subcommands([](const CLI::App *) { return true; })) {
        names.push_back(sub->get_name());
    }
    return names;
}

Words optionNames(const CLI::App *command)
{
    Words names;
    for (; command != nullptr; command = command->get_parent()) {
        for (const CLI::Option *option : command->get_options()) {
            for (const std::string &name : option->get_lnames()) {
                names.push_back("--" + name);
            }
        }
    }
    return names;
}

std::string joined(const Words &words)
{
    std::string text;
    for (const std::string &word : words) {
        text += (text.empty() ? "" : ", ") + word;
    }
    return text;
}

std::string Grammar::helpHint() const
{
    const std::string name = commandName();
    return "nasctl " + name + (name.empty() ? "" : " ") + "--help tells the form";
}

void Grammar::checkWords() const
{
    const CLI::App *command = recognised();
    const Words commands = subcommandNames(command);
    const Words unknown = app_.remaining(true);
    if (unknown.empty()) {
        if (!commands.empty()) {
            throw UsageFailure("which command? choose from " + joined(commands));
        }
        return;
    }
    const std::string word = unknown.front().substr(0, unknown.front().find('='));
    if (word.size() > 1 && word.front() == '-') {
        const std::string meant = common::suggestion(word, optionNames(command));
        throw UsageFailure(word + ": no such option" + (meant.empty() ? "; " + helpHint() : meant));
    }
    if (commands.empty()) {
        throw UsageFailure(nameable(unknown.front()) + ": one argument too many; " + helpHint());
    }
    const std::string meant = common::suggestion(word, commands);
    throw UsageFailure(nameable(word) + ": no such command" +
                       (meant.empty() ? "; there are " + joined(commands) : meant));
}

void Grammar::fill(Session &session) const
{
    session.json = args_.json;
    if (args_.root) {
        session.adminSocket = *args_.root + "/run/admin.sock";
        session.messageSocket = *args_.root + "/run/message.sock";
    }
    session.adminSocket = args_.adminSocket.value_or(session.adminSocket);
    session.messageSocket = args_.messageSocket.value_or(session.messageSocket);
    for (const auto *path : {&args_.root, &args_.adminSocket, &args_.messageSocket}) {
        if (*path && (*path)->empty()) {
            throw UsageFailure("--root and the sockets' options need a path, an empty one was given");
        }
    }
    if (args_.timeout) {
        session.timeout = std::chrono::milliseconds(parseNumber("--timeout-ms", *args_.timeout, 1, kMaxTimeoutMs));
    }
}

void Grammar::parse(int argc, char **argv, Invocation &invocation)
{
    try {
        app_.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        invocation.text = app_.help();
        return;
    } catch (const CLI::CallForVersion &) {
        invocation.text = app_.version() + "\n";
        return;
    } catch (const CLI::RequiredError &error) {
        invocation.session.command = commandName();
        // A misspelt option is the better explanation for an argument that is not there.
        checkWords();
        throw UsageFailure(std::string(error.what()) + "; " + helpHint());
    } catch (const CLI::ParseError &error) {
        invocation.session.command = commandName();
        throw UsageFailure(common::misuse(error.what()));
    }
    invocation.session.command = commandName();
    checkWords();
    fill(invocation.session);
    invocation.action = action_;
}

} // namespace

void parseCommandLine(int argc, char **argv, Invocation &invocation)
{
    // The action refers to the grammar's arguments, so it keeps the grammar.
    const auto grammar = std::make_shared<Grammar>();
    grammar->parse(argc, argv, invocation);
    if (invocation.action) {
        invocation.action = [grammar, action = invocation.action](const Session &session) { return action(session); };
    }
}

} // namespace ctl
