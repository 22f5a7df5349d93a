/*
 * What an operator can choose: command line flags, and the same names in an option file.
 */
#pragma once

#include "adapters/adapters.h"
#include "cluster/store.h"
#include "lwt/lwt.h"
#include "message/message_service.h"
#include "modules/modules.h"
#include "platform/log.h"

#include <common/command_line.h>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace host {

struct NodeOptions {
    std::string root; // absolute; empty = the machine's own /opt
    uint32_t nodeId = 1;
    std::vector<ModuleConfig> modules;
    MessageSettings messages;
    bool embedsStorage = true; // the storage-side service is not a process of its own
    std::string storageData;   // the embedded service's data file; empty = none
    std::string adminSocket;
    StoreSettings store; // of the cluster
    LogSettings log;
    LwtBackend lwtBackend = kDefaultLwtBackend;
    unsigned lwtWorkers = 2;
    std::chrono::seconds lease{5}; // how long the cluster takes a silent node for alive
    AdapterSettings adapters;
    std::optional<unsigned> period; // seconds between address queries; nothing = the library's own
    std::optional<int> readyFd;     // told, and closed, when the node is ready
};

using common::UsageError;

// Reads the command line (without the program's name) and the option file it names; what is on the command line wins.
// Nothing when help or version was asked for and written to out. Throws UsageError.
std::optional<NodeOptions> parseOptions(const std::vector<std::string> &arguments, const std::string &version,
                                        std::ostream &out);

} // namespace host
