/*
 * The commands of nasctl, a file per family. Each asks the node, prints what it got and returns the exit code; what
 * makes the whole command fail is thrown as a Failure. Arguments come as they were typed.
 */
#pragma once

#include "session.h"
#include <optional>
#include <string>
#include <vector>

namespace ctl {

using Words = std::vector<std::string>;

int showStatus(const Session &session);

int listAddresses(const Session &session);
// The addresses are announced one after the other; one that is refused does not keep back those behind it.
int addAddresses(const Session &session, const Words &addresses);
int deleteAddresses(const Session &session, const Words &addresses);

// After setting it, when there is one.
int showMonitor(const Session &session, const std::optional<std::string> &period);
int explainAddress(const Session &session, const std::string &address);

int listPorts(const Session &session);
// port: id, name, address.
int addPort(const Session &session, const Words &port, const std::optional<std::string> &time);
// The first port with that address, unless it was added after time.
int deletePort(const Session &session, const std::string &address, const std::optional<std::string> &time);
int findPort(const Session &session, const std::string &id);
int namePort(const Session &session, const std::string &id);

int listVpcs(const Session &session);
// record: id, network.
int addVpc(const Session &session, const Words &record);
int lookUpVpc(const Session &session, const std::string &address);
int checkVpc(const Session &session, const std::string &id);
int clearVpcs(const Session &session);
int saveVpcs(const Session &session);
int reloadVpcs(const Session &session);

struct ZoneWords {
    std::string fsId, tenantId, subnet;
};

// Questions that the node passes on to the storage-side service, by the names that docs/admin-api.md gives them.
int askStorage(const Session &session, const std::string &question);
int askAboutAddress(const Session &session, const std::string &question, const std::string &address);
int askAboutZone(const Session &session, const std::string &question, const ZoneWords &zone);
int askAboutNeighbours(const Session &session, const std::string &lsId);
int showControlIps(const Session &session, const Words &addresses);

// The events after a number; all that the node keeps when it is not given. Followed until Ctrl-C ends the program.
int showEvents(const Session &session, const std::optional<std::string> &after, bool follow);

int listLocks(const Session &session);
// range: FILE, START, LEN.
int takeLock(const Session &session, const std::string &lsId, const Words &range, bool shared);
// Everything that the LS holds when there is no range.
int releaseLocks(const Session &session, const std::string &lsId, const Words &range);

int listShards(const Session &session);
int showShardIndex(const Session &session);
// Where an FSP is; with place, it gets into the index if it is not there yet.
int showFsp(const Session &session, const std::string &fsp, bool place);
// To the next LS when there is no to.
int migrateShard(const Session &session, const std::string &ls, const std::optional<std::string> &to);
int failShardBack(const Session &session, const std::string &ls);
int moveFsp(const Session &session, const std::string &fsp, const std::string &to);
// After setting what is given: state is on or off.
int shardPolicy(const Session &session, const std::optional<std::string> &state,
                const std::optional<std::string> &steady, bool dryRun);

int showFmm(const Session &session);
// event: as docs/admin-api.md names it.
int sendFmmEvent(const Session &session, const std::string &event, const std::optional<std::string> &ls);

int showPower(const Session &session);
int switchPower(const Session &session, const std::string &action);

int listClusters(const Session &session);
// Up to the first id that is refused; the list after the last change is printed.
int addClusters(const Session &session, const Words &ids);
int removeClusters(const Session &session, const Words &ids);

// The named getters in the order of their names here; all when there is no name.
int showConfig(const Session &session, const Words &names);

int sendMessage(const Session &session, const std::string &module, const std::string &opcode, const std::string &hex);

int listCommands(const Session &session);
int runCommand(const Session &session, const std::string &module, const std::string &command,
               const std::optional<std::string> &value);

// All levels, or those of a class alone.
int showLogLevels(const Session &session, const std::optional<std::string> &logClass);
// The threshold, or the level of a class.
int setLogLevel(const Session &session, const std::string &level, const std::optional<std::string> &logClass);

// Accounts with live blocks, or all that ever had one.
int showMemory(const Session &session, bool all);

int showView(const Session &session);
int showMaster(const Session &session);
int listClients(const Session &session);
int showClient(const Session &session, const std::string &lsId);
// Is the client's process: stays until a signal ends it or its lease is gone.
int joinCluster(const Session &session, const std::string &lsId, const std::optional<std::string> &ttl,
                const Words &attributes);
int leaveCluster(const Session &session, const std::string &lsId);
int killClient(const Session &session, const std::string &lsId);
int faultClient(const Session &session, const std::string &lsId, const std::optional<std::string> &reason);

// The version record in the cluster's name service: the node's copy, or after a creation, a read or a publication.
int showName(const Session &session);
int createName(const Session &session);
int readName(const Session &session);
int publishName(const Session &session, const std::string &fl);
// Reads a compatible-version text as the node does.
int parseVersions(const Session &session, const std::string &text);

int showStorage(const Session &session);
// [TYPE|all] FAULT [VALUE]
int setStorageFault(const Session &session, const Words &words);

} // namespace ctl
