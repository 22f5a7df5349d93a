/*
 * A host made for tests: it defines every function that the library takes from its host, answers as the test scripts
 * it, records each call, and moves a clock instead of sleeping.
 *
 * reset() before each test puts everything back. All functions may be used from any thread.
 */
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <map>
#include <nasctrl/nasctrl.h>
#include <string>
#include <vector>

namespace fake {

void reset();

// ---- what was logged

struct LogLine {
    std::string level; // "3", "4", "6"; "class 1" where the level was asked of nas_log_map_get
    std::string func;
    std::string file;
    uint32_t line;
    std::string text;
};

std::vector<LogLine> logLines();
// Each line as "<level> <text>", for example "3 PROTOCOL: Arg is NULL.".
std::vector<std::string> log();
// The function names of the lines, in order.
std::vector<std::string> logFuncs();

// ---- what was called: "name(arguments)", every host function but logging, memory, locks and clock readings

std::vector<std::string> calls();
std::vector<std::string> calls(const std::string &name);

// ---- scripts

// The next calls of a function return these, in order; after them it answers its default again (0 unless told).
void answer(const std::string &name, std::initializer_list<int64_t> results);
// From now on the function's default answer.
void answerAlways(const std::string &name, int64_t result);

// The nth allocation from now on fails (1 = the next); 0 = none does.
void failAllocation(uint64_t nth);
// The nth call from now on, of any host function that can fail (allocations included), fails; 0 = none does.
void failCall(uint64_t nth);
// How many such calls there were since reset or the last failCall.
uint64_t failableCalls();

// Runs inside the function of that name, after the call was recorded: to do or to look at something just then.
// Throwing Stop from it ends the thread or runUntilStopped that called.
void during(const std::string &name, std::function<void()> action);

struct Stop {};
// Runs body until it returns or an action throws Stop; says whether it was stopped.
bool runUntilStopped(const std::function<void()> &body);

// ---- memory: nas_mem_comm_alloc fills its blocks with 0xA5, only nas_mem_comm_zalloc clears them

// Blocks of the pool that are not freed yet.
size_t liveBlocks();
// Of one allocating function.
size_t liveBlocks(const std::string &func);
// The blocks that were freed, in order: where each lay, and the function that had allocated it.
struct FreedBlock {
    const void *address;
    std::string func;
};
std::vector<FreedBlock> freedBlocks();

// ---- locks

// Host spin and reader-writer locks held at this moment, by anyone.
int locksHeld();
// The spin lock that was taken last, or null.
kvos_spinlock_t *lastSpinLock();
// Runs inside the host's lock functions with their name, always while the lock is held: when it was just taken, or is
// about to be released.
void duringLocks(std::function<void(const std::string &func)> action);
// Host calls made while the calling thread held a spin lock (logging excepted).
std::vector<std::string> callsUnderSpinLock();

// ---- time: all sleeps return at once and move the clock

void setClock(uint64_t ms);
// What kvos_time_gettime answers, unless set: the clock in milliseconds.
void setTime(uint64_t time);
void followClock();

// ---- threads

enum class Threads {
    hold, // keep the body; the test runs it with runThread (the default)
    real, // run it on a thread of its own; joinThreads waits for all of them
};
void setThreads(Threads mode);
size_t heldThreads();
// What the index-th body that was handed over is to be called with.
void *threadArgument(size_t index);
// Runs the body that was handed over as the index-th, on the calling thread; says whether it was stopped.
bool runThread(size_t index);
void joinThreads();

// ---- configuration: file is "dpc.conf" for the values of kvos_cfg_getItemValue, else the loaded path

void setConfig(const std::string &file, const std::string &section, const std::string &key, const std::string &value);

// ---- messages

// The reply that the handler sent last, and how many it sent.
std::string lastReply();
size_t replies();
// The registered handler of a module, or null.
uint32_t (*handlerOf(uint32_t module))(svr_msg_t *);
// What the storage-side service answers to the next calls: a copy of bytes, given out also when the result is not 0.
void answerUpcall(int32_t result, const std::string &bytes);
// The same without any response buffer.
void answerUpcallWithoutResponse(int32_t result);
// Every call that was made: the record, and a copy of its request.
struct Upcall {
    svr_call_t record;
    std::string request;
};
std::vector<Upcall> upcalls();

// ---- the node's addresses

struct Address {
    uint32_t protoType;
    std::string addr;
    bool works = true;
};
// A node IP list in a pool block, as the host hands it out.
node_ip_list *makeIpList(const std::vector<Address> &addresses, int32_t result = 0);
// What GetCurNodeIpListAdapter answers from now on.
void setNodeIps(const std::vector<Address> &addresses, int32_t listResult = 0, int32_t result = 0);
void setNodeIpsNull(int32_t result);

// IsIpWork answers the work status of an entry; after answerAlways("IsIpWork", 1) every entry works.

// The table of the last NasAuthAgentNsNotifyLifChange, and its tenants: id to event type, of those whose flag is set.
std::vector<tenant_change> notifiedTable();
std::map<uint32_t, uint32_t> notifiedTenants();

// ---- texts and ids that adapters answer

void setLocalDataAddr(const char *addr); // default "10.0.0.9"; null = none
void setMasterLsId(uint32_t id);         // default 1
void setClientId(uint32_t id);           // CM_getEventInfo and the opened client; default 77
void setCfgLsIds(const std::vector<uint32_t> &ids);
// The number that GetCfgLsList stores, whatever the number of its ids.
void setCfgLsCount(uint32_t count);
void setCtrlIpLsId(const std::string &ip, uint32_t lsId); // unknown addresses answer 1

} // namespace fake
