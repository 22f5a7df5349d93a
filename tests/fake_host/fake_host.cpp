#include "fake_host.h"

#include "recorder.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/config.h>
#include <nasctrl/host/log.h>
#include <nasctrl/host/lwt.h>
#include <nasctrl/host/memory.h>
#include <nasctrl/host/notify.h>
#include <optional>
#include <thread>
#include <utility>

namespace {

constexpr uint32_t kClassLevelBase = 1000;
constexpr const char *kDpcConf = "dpc.conf";
constexpr int kUncleared = 0xA5; // what every byte of a block holds that nobody asked to be cleared

struct HeldThread {
    void *(*body)(void *);
    void *arg;
};

struct UpcallAnswer {
    int32_t result = 0;
    bool hasResponse = false;
    std::string bytes;
};

struct State {
    std::mutex mutex;
    std::vector<fake::LogLine> logLines;
    std::vector<std::string> calls;
    std::vector<std::string> underSpin;
    std::map<std::string, std::deque<int64_t>> answers;
    std::map<std::string, int64_t> defaults;
    std::map<std::string, std::function<void()>> actions;
    std::function<void(const std::string &)> lockAction;
    uint64_t failAllocation = 0;
    uint64_t failCall = 0;
    uint64_t failableCalls = 0;
    std::map<void *, std::string> blocks;
    std::vector<fake::FreedBlock> freed;
    uint64_t clock = 0;
    uint64_t time = 0;
    bool timeFollowsClock = true;
    fake::Threads threadMode = fake::Threads::hold;
    std::vector<HeldThread> held;
    std::vector<std::thread> running;
    std::map<std::string, std::string> config;
    std::map<uint32_t, uint32_t (*)(svr_msg_t *)> handlers;
    std::string lastReply;
    size_t replies = 0;
    UpcallAnswer upcallAnswer;
    std::vector<fake::Upcall> upcalls;
    std::vector<fake::Address> nodeIps;
    bool nodeIpsNull = false;
    int32_t nodeIpsListResult = 0;
    std::vector<tenant_change> tenants;
    const char *localDataAddr = "10.0.0.9";
    uint32_t masterLsId = 1;
    uint32_t clientId = 77;
    std::vector<uint32_t> cfgLsIds;
    std::optional<uint32_t> cfgLsCount;
    std::map<std::string, uint32_t> ctrlIpLsIds;
};

// Not freed at the end of the program, so that blocks which the library keeps on purpose stay reachable.
State *g_state = new State;
std::atomic<int> g_locksHeld{0};
std::atomic<kvos_spinlock_t *> g_lastSpinLock{nullptr};
std::atomic<bool> g_watchesLocks{false};
thread_local int t_spinDepth = 0;

std::string join(const std::vector<std::string> &arguments)
{
    std::string text;
    for (const auto &argument : arguments) {
        text += (text.empty() ? "" : ", ") + argument;
    }
    return text;
}

// Counts a call that can fail; says whether this one is to.
bool failsNow()
{
    ++g_state->failableCalls;
    return g_state->failCall != 0 && g_state->failCall == g_state->failableCalls;
}

int64_t nextAnswer(const std::string &name)
{
    auto &queue = g_state->answers[name];
    if (!queue.empty()) {
        const int64_t result = queue.front();
        queue.pop_front();
        return result;
    }
    const auto standing = g_state->defaults.find(name);
    return standing == g_state->defaults.end() ? 0 : standing->second;
}

void runAction(const std::string &name)
{
    std::function<void()> action;
    {
        const std::lock_guard guard(g_state->mutex);
        const auto found = g_state->actions.find(name);
        if (found == g_state->actions.end()) {
            return;
        }
        action = found->second;
    }
    action();
}

// Takes the state's mutex only where a test looks: it would order threads that the library's own locks do not.
void runLockAction(const char *func)
{
    if (!g_watchesLocks.load(std::memory_order_relaxed)) {
        return;
    }
    std::function<void(const std::string &)> action;
    {
        const std::lock_guard guard(g_state->mutex);
        action = g_state->lockAction;
    }
    action(func);
}

void *allocate(size_t size, const char *func, int fill)
{
    const std::lock_guard guard(g_state->mutex);
    if (t_spinDepth > 0) {
        g_state->underSpin.emplace_back("nas_mem_comm_alloc");
    }
    const bool fails = failsNow();
    if (fails || (g_state->failAllocation != 0 && --g_state->failAllocation == 0)) {
        return nullptr;
    }
    const size_t room = size == 0 ? 1 : size;
    void *block = std::calloc(1, room);
    if (fill != 0) {
        std::memset(block, fill, room);
    }
    g_state->blocks[block] = func;
    return block;
}

void moveClock(uint64_t ms)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->clock += ms;
}

uint64_t *wordOf(kvos_rwlock_t *lock)
{
    return &lock->word;
}

std::vector<void (*)()> &clearers()
{
    static std::vector<void (*)()> list;
    return list;
}

} // namespace

// ------------------------------------------------------------------ what the files of the fake host share

namespace fake {

std::string quoted(const char *text)
{
    return text != nullptr ? "\"" + std::string(text) + "\"" : "null";
}
std::string number(uint64_t value)
{
    return std::to_string(value);
}
std::string number(uint32_t value)
{
    return std::to_string(value);
}

void record(const std::string &name, const std::vector<std::string> &arguments)
{
    {
        const std::lock_guard guard(g_state->mutex);
        g_state->calls.push_back(name + "(" + join(arguments) + ")");
        if (t_spinDepth > 0) {
            g_state->underSpin.push_back(name);
        }
    }
    runAction(name);
}

// A call without a way to fail: recorded and answered.
int64_t called(const std::string &name, const std::vector<std::string> &arguments)
{
    record(name, arguments);
    const std::lock_guard guard(g_state->mutex);
    return nextAnswer(name);
}

// A call whose non-zero result is a failure.
int64_t calledFailable(const std::string &name, const std::vector<std::string> &arguments)
{
    record(name, arguments);
    const std::lock_guard guard(g_state->mutex);
    const bool fails = failsNow();
    const int64_t answer = nextAnswer(name);
    return fails && answer == 0 ? 1 : answer;
}

AtReset::AtReset(void (*clear)())
{
    clearers().push_back(clear);
}

} // namespace fake

using fake::called;
using fake::calledFailable;
using fake::number;
using fake::quoted;
using fake::record;

namespace {

int32_t readConfig(const std::string &name, const std::string &file, const char *section, const char *key, char *buffer,
                   uint32_t size)
{
    const int64_t answer = calledFailable(name, {quoted(section), quoted(key), number(size)});
    const std::lock_guard guard(g_state->mutex);
    const auto found = g_state->config.find(file + "|" + section + "|" + key);
    if (answer != 0) {
        return static_cast<int32_t>(answer);
    }
    if (found == g_state->config.end() || found->second.size() >= size) {
        return -2;
    }
    std::memcpy(buffer, found->second.c_str(), found->second.size() + 1);
    return 0;
}

} // namespace

// ------------------------------------------------------------------ the test's side

namespace fake {

void reset()
{
    joinThreads();
    for (const auto &[block, func] : g_state->blocks) {
        std::free(block);
    }
    delete g_state;
    g_state = new State;
    g_locksHeld = 0;
    g_lastSpinLock = nullptr;
    g_watchesLocks = false;
    t_spinDepth = 0;
    for (const auto clear : clearers()) {
        clear();
    }
}

std::vector<LogLine> logLines()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->logLines;
}

std::vector<std::string> log()
{
    std::vector<std::string> texts;
    for (const auto &line : logLines()) {
        texts.push_back(line.level + " " + line.text);
    }
    return texts;
}

std::vector<std::string> logFuncs()
{
    std::vector<std::string> funcs;
    for (const auto &line : logLines()) {
        funcs.push_back(line.func);
    }
    return funcs;
}

std::vector<std::string> calls()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->calls;
}

std::vector<std::string> calls(const std::string &name)
{
    std::vector<std::string> matching = calls();
    std::erase_if(matching, [&](const std::string &call) { return call.substr(0, call.find('(')) != name; });
    return matching;
}

void answer(const std::string &name, std::initializer_list<int64_t> results)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->answers[name].assign(results);
}

void answerAlways(const std::string &name, int64_t result)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->defaults[name] = result;
}

void failAllocation(uint64_t nth)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->failAllocation = nth;
}

void failCall(uint64_t nth)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->failCall = nth;
    g_state->failableCalls = 0;
}

uint64_t failableCalls()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->failableCalls;
}

void during(const std::string &name, std::function<void()> action)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->actions[name] = std::move(action);
}

bool runUntilStopped(const std::function<void()> &body)
{
    try {
        body();
        return false;
    } catch (const Stop &) {
        return true;
    }
}

size_t liveBlocks()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->blocks.size();
}

size_t liveBlocks(const std::string &func)
{
    const std::lock_guard guard(g_state->mutex);
    return static_cast<size_t>(std::count_if(g_state->blocks.begin(), g_state->blocks.end(),
                                             [&](const auto &block) { return block.second == func; }));
}

std::vector<FreedBlock> freedBlocks()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->freed;
}

int locksHeld()
{
    return g_locksHeld;
}

kvos_spinlock_t *lastSpinLock()
{
    return g_lastSpinLock;
}

void duringLocks(std::function<void(const std::string &func)> action)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->lockAction = std::move(action);
    g_watchesLocks = true;
}

std::vector<std::string> callsUnderSpinLock()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->underSpin;
}

void setClock(uint64_t ms)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->clock = ms;
}

void setTime(uint64_t time)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->time = time;
    g_state->timeFollowsClock = false;
}

void followClock()
{
    const std::lock_guard guard(g_state->mutex);
    g_state->timeFollowsClock = true;
}

void setThreads(Threads mode)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->threadMode = mode;
}

size_t heldThreads()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->held.size();
}

void *threadArgument(size_t index)
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->held.at(index).arg;
}

bool runThread(size_t index)
{
    HeldThread thread{};
    {
        const std::lock_guard guard(g_state->mutex);
        thread = g_state->held.at(index);
    }
    return runUntilStopped([&] { thread.body(thread.arg); });
}

void joinThreads()
{
    while (true) {
        std::vector<std::thread> running;
        {
            const std::lock_guard guard(g_state->mutex);
            running.swap(g_state->running);
        }
        if (running.empty()) {
            return;
        }
        for (auto &thread : running) {
            thread.join();
        }
    }
}

void setConfig(const std::string &file, const std::string &section, const std::string &key, const std::string &value)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->config[file + "|" + section + "|" + key] = value;
}

std::string lastReply()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->lastReply;
}

size_t replies()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->replies;
}

uint32_t (*handlerOf(uint32_t module))(svr_msg_t *)
{
    const std::lock_guard guard(g_state->mutex);
    const auto found = g_state->handlers.find(module);
    return found == g_state->handlers.end() ? nullptr : found->second;
}

void answerUpcall(int32_t result, const std::string &bytes)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->upcallAnswer = {result, true, bytes};
}

void answerUpcallWithoutResponse(int32_t result)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->upcallAnswer = {result, false, {}};
}

std::vector<Upcall> upcalls()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->upcalls;
}

node_ip_list *makeIpList(const std::vector<Address> &addresses, int32_t result)
{
    const size_t size = sizeof(node_ip_list) + addresses.size() * sizeof(node_ip_entry);
    auto *list = static_cast<node_ip_list *>(std::calloc(1, size));
    list->result = result;
    list->count = static_cast<uint32_t>(addresses.size());
    for (size_t i = 0; i < addresses.size(); ++i) {
        list->entries[i].proto_type = addresses[i].protoType;
        std::memcpy(list->entries[i].addr, addresses[i].addr.data(), std::min<size_t>(addresses[i].addr.size(), 64));
        list->entries[i].work_status = addresses[i].works ? 1 : 0;
    }
    const std::lock_guard guard(g_state->mutex);
    g_state->blocks[list] = "makeIpList";
    return list;
}

void setNodeIps(const std::vector<Address> &addresses, int32_t listResult, int32_t result)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->nodeIps = addresses;
    g_state->nodeIpsListResult = listResult;
    g_state->nodeIpsNull = false;
    g_state->defaults["GetCurNodeIpListAdapter"] = result;
}

void setNodeIpsNull(int32_t result)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->nodeIpsNull = true;
    g_state->defaults["GetCurNodeIpListAdapter"] = result;
}

std::vector<tenant_change> notifiedTable()
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->tenants;
}

std::map<uint32_t, uint32_t> notifiedTenants()
{
    std::map<uint32_t, uint32_t> notified;
    uint32_t id = 0;
    for (const tenant_change &tenant : notifiedTable()) {
        if (tenant.changed != 0) {
            notified[id] = tenant.event_type;
        }
        ++id;
    }
    return notified;
}

void setLocalDataAddr(const char *addr)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->localDataAddr = addr;
}

void setMasterLsId(uint32_t id)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->masterLsId = id;
}

void setClientId(uint32_t id)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->clientId = id;
}

void setCfgLsIds(const std::vector<uint32_t> &ids)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->cfgLsIds = ids;
}

void setCfgLsCount(uint32_t count)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->cfgLsCount = count;
}

void setCtrlIpLsId(const std::string &ip, uint32_t lsId)
{
    const std::lock_guard guard(g_state->mutex);
    g_state->ctrlIpLsIds[ip] = lsId;
}

} // namespace fake

// ------------------------------------------------------------------ the library's side

extern "C" {

void kvlog(uint32_t module, uint32_t level, const char *file, uint32_t line, const char *func, uint32_t zero,
           const char *format, ...)
{
    char text[4096];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::string shown = level >= kClassLevelBase ? "class " + number(level - kClassLevelBase) : number(level);
    if (module != NASCTRL_LOG_MODULE || zero != 0) {
        shown = "module " + number(module) + " zero " + number(zero) + " " + shown;
    }
    {
        const std::lock_guard guard(g_state->mutex);
        g_state->logLines.push_back({shown, func, file, line, text});
    }
    runAction("kvlog");
}

uint32_t nas_log_map_get(uint32_t log_class)
{
    return kClassLevelBase + log_class;
}

int32_t kvos_thrd_create(void *(*body)(void *), void *arg, unsigned long *thread_id)
{
    const int64_t answer = calledFailable("kvos_thrd_create", {});
    if (answer != 0) {
        return static_cast<int32_t>(answer);
    }
    const std::lock_guard guard(g_state->mutex);
    g_state->held.push_back({body, arg});
    *thread_id = g_state->held.size();
    if (g_state->threadMode == fake::Threads::real) {
        g_state->running.emplace_back([=] { fake::runUntilStopped([=] { body(arg); }); });
    }
    return 0;
}

void kvos_msleep(uint32_t ms)
{
    moveClock(ms);
    record("kvos_msleep", {number(ms)});
}

void kvos_10msleep(uint32_t units_of_10_ms)
{
    moveClock(uint64_t{units_of_10_ms} * 10);
    record("kvos_10msleep", {number(units_of_10_ms)});
}

uint64_t kvos_time_getmillisec(void)
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->clock;
}

uint64_t kvos_time_gettime(void)
{
    const std::lock_guard guard(g_state->mutex);
    return g_state->timeFollowsClock ? g_state->clock : g_state->time;
}

void do_kvos_spinlock_lock(kvos_spinlock_t *lock)
{
    while (__atomic_exchange_n(&lock->lock, 1, __ATOMIC_ACQUIRE) != 0) {
        std::this_thread::yield();
    }
    g_lastSpinLock = lock;
    ++g_locksHeld;
    ++t_spinDepth;
    runLockAction("do_kvos_spinlock_lock");
}

void do_kvos_spinlock_unlock(kvos_spinlock_t *lock)
{
    runLockAction("do_kvos_spinlock_unlock");
    --t_spinDepth;
    --g_locksHeld;
    __atomic_store_n(&lock->lock, 0, __ATOMIC_RELEASE);
}

// The word counts the readers; all ones is a writer.
void kvos_rwlock_read_lock(kvos_rwlock_t *lock)
{
    uint64_t readers = __atomic_load_n(wordOf(lock), __ATOMIC_RELAXED);
    while (readers == ~uint64_t{0} || !__atomic_compare_exchange_n(wordOf(lock), &readers, readers + 1, true,
                                                                   __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        std::this_thread::yield();
        readers = __atomic_load_n(wordOf(lock), __ATOMIC_RELAXED);
    }
    ++g_locksHeld;
    runLockAction("kvos_rwlock_read_lock");
}

void kvos_rwlock_read_unlock(kvos_rwlock_t *lock)
{
    runLockAction("kvos_rwlock_read_unlock");
    --g_locksHeld;
    __atomic_fetch_sub(wordOf(lock), 1, __ATOMIC_RELEASE);
}

void kvos_rwlock_write_lock(kvos_rwlock_t *lock)
{
    uint64_t free = 0;
    while (!__atomic_compare_exchange_n(wordOf(lock), &free, ~uint64_t{0}, true, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
        std::this_thread::yield();
        free = 0;
    }
    ++g_locksHeld;
    runLockAction("kvos_rwlock_write_lock");
}

void kvos_rwlock_write_unlock(kvos_rwlock_t *lock)
{
    runLockAction("kvos_rwlock_write_unlock");
    --g_locksHeld;
    __atomic_store_n(wordOf(lock), 0, __ATOMIC_RELEASE);
}

uint64_t kvos_str_tou64(const char *text)
{
    return std::strtoull(text, nullptr, 10);
}

void *nas_mem_comm_alloc(size_t size, const char *func, uint32_t)
{
    return allocate(size, func, kUncleared);
}
void *nas_mem_comm_zalloc(size_t size, const char *func, uint32_t)
{
    return allocate(size, func, 0);
}

void nas_mem_comm_free(void *ptr, const char *, uint32_t)
{
    const std::lock_guard guard(g_state->mutex);
    if (ptr == nullptr) {
        return;
    }
    const auto found = g_state->blocks.find(ptr);
    if (found == g_state->blocks.end()) {
        std::abort(); // a block that is not the pool's, or freed twice
    }
    g_state->freed.push_back({ptr, found->second});
    g_state->blocks.erase(found);
    std::free(ptr);
}

int32_t kvos_cfg_init(const char *path)
{
    return static_cast<int32_t>(calledFailable("kvos_cfg_init", {quoted(path)}));
}

int32_t kvos_cfg_getItemValue(const char *section, const char *key, char *buffer, uint32_t size)
{
    return readConfig("kvos_cfg_getItemValue", kDpcConf, section, key, buffer, size);
}

int32_t ProtoCfgLoadFile(const char *path)
{
    return static_cast<int32_t>(calledFailable("ProtoCfgLoadFile", {quoted(path)}));
}

int32_t ProtoCfgGetStringValue(const char *file, const char *section, const char *key, char *buffer, uint32_t size)
{
    return readConfig("ProtoCfgGetStringValue", file, section, key, buffer, size);
}

int32_t lwt_create_default(void **handle, void (*body)(void *), void *arg, uint32_t one, uint32_t all_ones)
{
    const int64_t answer = calledFailable("lwt_create_default", {number(one), number(all_ones)});
    if (answer != 0) {
        return static_cast<int32_t>(answer);
    }
    const std::lock_guard guard(g_state->mutex);
    // Light-weight bodies share the list of threads; this cast back and forth keeps one list for both.
    g_state->held.push_back({reinterpret_cast<void *(*)(void *)>(reinterpret_cast<void *>(body)), arg});
    *handle = g_state;
    return 0;
}

void kvlwt_task_sleep(uint32_t ms, uint32_t module, const char *func, uint32_t line)
{
    moveClock(ms);
    record("kvlwt_task_sleep", {number(ms), number(module), quoted(func), number(line)});
}

int32_t svr_regist_module(const svr_module_reg_t *registration)
{
    const int64_t answer =
        calledFailable("svr_regist_module", {number(registration->module), number(uint32_t{registration->flag})});
    const std::lock_guard guard(g_state->mutex);
    if (answer == 0) {
        g_state->handlers[registration->module] = registration->handler;
    }
    return static_cast<int32_t>(answer);
}

uint32_t SvrSendResponse(svr_msg_t *message, const void *reply, uint32_t length)
{
    const int64_t answer = calledFailable("SvrSendResponse", {number(message->sequence), number(length)});
    const std::lock_guard guard(g_state->mutex);
    g_state->lastReply.assign(static_cast<const char *>(reply), length);
    ++g_state->replies;
    return static_cast<uint32_t>(answer);
}

int32_t svr_upcall_sync(const svr_call_t *call, void **response, uint32_t *response_length)
{
    const int64_t scripted =
        calledFailable("svr_upcall_sync", {number(call->type), number(call->length), number(call->sid)});
    const std::lock_guard guard(g_state->mutex);
    g_state->upcalls.push_back({*call, std::string(static_cast<const char *>(call->request), call->length)});
    const UpcallAnswer &answer = g_state->upcallAnswer;
    if (answer.hasResponse && scripted == 0) {
        void *block = std::malloc(answer.bytes.empty() ? 1 : answer.bytes.size());
        std::memcpy(block, answer.bytes.data(), answer.bytes.size());
        g_state->blocks[block] = "svr_upcall_sync";
        *response = block;
        *response_length = static_cast<uint32_t>(answer.bytes.size());
    }
    return static_cast<int32_t>(scripted != 0 ? scripted : answer.result);
}

uint32_t IpcGetLocalNid(void)
{
    return static_cast<uint32_t>(called("IpcGetLocalNid", {}));
}

int32_t CM_getEventInfo(const void *, uint32_t what, uint32_t *client_id)
{
    const int64_t answer = calledFailable("CM_getEventInfo", {number(what)});
    const std::lock_guard guard(g_state->mutex);
    if (answer == 0) {
        *client_id = g_state->clientId;
    }
    return static_cast<int32_t>(answer);
}

int32_t getGlbMasterLsId(uint32_t *ls_id)
{
    const int64_t answer = calledFailable("getGlbMasterLsId", {});
    const std::lock_guard guard(g_state->mutex);
    if (answer == 0) {
        *ls_id = g_state->masterLsId;
    }
    return static_cast<int32_t>(answer);
}

void RegisterSysCtrlCmd(void)
{
    called("RegisterSysCtrlCmd", {});
}

int32_t statis_int_handle_register(uint32_t kind, uint32_t (*)(uint64_t id))
{
    return static_cast<int32_t>(calledFailable("statis_int_handle_register", {number(kind)}));
}

int32_t statis_string_handle_register(uint32_t kind, uint32_t (*)(uint64_t id, char *buf, uint32_t len))
{
    return static_cast<int32_t>(calledFailable("statis_string_handle_register", {number(kind)}));
}

uint32_t NasCtrlInitAdpater(void)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlInitAdpater", {}));
}

uint32_t NasCtrlAppdataClusterInitAdapter(void)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlAppdataClusterInitAdapter", {}));
}

uint32_t NasCtrlInitEdsDSNameAdapter(void)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlInitEdsDSNameAdapter", {}));
}

uint32_t NasCtrInitClusterEdsViewAdapter(void)
{
    return static_cast<uint32_t>(calledFailable("NasCtrInitClusterEdsViewAdapter", {}));
}

uint32_t NasCrtlOpenCmClientAdapter(const char *cm_list, const char *local_ip, uint32_t *client_id)
{
    const int64_t answer = calledFailable("NasCrtlOpenCmClientAdapter", {quoted(cm_list), quoted(local_ip)});
    const std::lock_guard guard(g_state->mutex);
    *client_id = g_state->clientId;
    return static_cast<uint32_t>(answer);
}

uint32_t NasCtrlGetLifInfoAdapter(svr_msg_t *message)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlGetLifInfoAdapter", {number(message->sequence)}));
}

uint32_t NasCtrlGetControllerInfoAdapter(svr_msg_t *message)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlGetControllerInfoAdapter", {number(message->sequence)}));
}

uint32_t NasCtrlGetTenantNameByTenantID(svr_msg_t *message)
{
    return static_cast<uint32_t>(calledFailable("NasCtrlGetTenantNameByTenantID", {number(message->sequence)}));
}

uint32_t CgwGetInitLocalLsId(void)
{
    return static_cast<uint32_t>(called("CgwGetInitLocalLsId", {}));
}

uint32_t CgwGetClientLsIdByWwn(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    return static_cast<uint32_t>(
        called("CgwGetClientLsIdByWwn", {number(a), number(b), number(c), number(d), number(e), number(f)}));
}

const char *getLocalDataAddr(void)
{
    record("getLocalDataAddr", {});
    const std::lock_guard guard(g_state->mutex);
    return g_state->localDataAddr;
}

int32_t GetCfgLsList(uint32_t *ids, uint32_t max, uint32_t *count)
{
    const int64_t answer = calledFailable("GetCfgLsList", {number(max)});
    const std::lock_guard guard(g_state->mutex);
    const uint32_t stored = std::min(max, static_cast<uint32_t>(g_state->cfgLsIds.size()));
    std::copy_n(g_state->cfgLsIds.begin(), stored, ids);
    *count = g_state->cfgLsCount.value_or(stored);
    return static_cast<int32_t>(answer);
}

int32_t CTRL_GetEdsLsidByCtrlIp(const char *ip, uint32_t *ls_id)
{
    const int64_t answer = calledFailable("CTRL_GetEdsLsidByCtrlIp", {quoted(ip)});
    const std::lock_guard guard(g_state->mutex);
    const auto found = g_state->ctrlIpLsIds.find(ip);
    if (answer != 0 || found == g_state->ctrlIpLsIds.end()) {
        return answer != 0 ? static_cast<int32_t>(answer) : 1;
    }
    *ls_id = found->second;
    return 0;
}

uint32_t ModuleNeedInvokeAdapter(uint32_t module, uint32_t proto_type)
{
    record("ModuleNeedInvokeAdapter", {number(module), number(proto_type)});
    const std::lock_guard guard(g_state->mutex);
    return g_state->defaults.count("ModuleNeedInvokeAdapter") != 0 ||
                   !g_state->answers["ModuleNeedInvokeAdapter"].empty()
               ? static_cast<uint32_t>(nextAnswer("ModuleNeedInvokeAdapter"))
               : 1;
}

uint32_t LifIpEventAdpter(uint32_t event, const char *addr, uint32_t family)
{
    return static_cast<uint32_t>(calledFailable("LifIpEventAdpter", {number(event), quoted(addr), number(family)}));
}

int32_t GetCurNodeIpListAdapter(node_ip_list **list)
{
    const int64_t answer = calledFailable("GetCurNodeIpListAdapter", {});
    std::vector<fake::Address> addresses;
    int32_t listResult = 0;
    {
        const std::lock_guard guard(g_state->mutex);
        if (g_state->nodeIpsNull) {
            return static_cast<int32_t>(answer);
        }
        addresses = g_state->nodeIps;
        listResult = g_state->nodeIpsListResult;
    }
    *list = fake::makeIpList(addresses, listResult);
    return static_cast<int32_t>(answer);
}

uint32_t IsIpWork(const node_ip_entry *entry)
{
    const std::lock_guard guard(g_state->mutex);
    return entry->work_status != 0 ? entry->work_status : static_cast<uint32_t>(nextAnswer("IsIpWork"));
}
void SetDefaultIpWorkstatus(node_ip_entry *entry)
{
    entry->work_status = 1;
}

int32_t NasAuthAgentNsNotifyLifChange(uint32_t count, const tenant_change table[1025])
{
    const int64_t answer = called("NasAuthAgentNsNotifyLifChange", {number(count)});
    const std::lock_guard guard(g_state->mutex);
    g_state->tenants.assign(table, table + 1025);
    return static_cast<int32_t>(answer);
}

uint32_t CheckLifPortSupportPerf(uint64_t id)
{
    return static_cast<uint32_t>(called("CheckLifPortSupportPerf", {number(id)}));
}

uint32_t regLifportAdpter(uint64_t id, uint32_t on)
{
    return static_cast<uint32_t>(calledFailable("regLifportAdpter", {number(id), number(on)}));
}

uint32_t getNasLifPortIdByIpAdpter(uintptr_t a, uintptr_t b, uintptr_t c, uintptr_t d, uintptr_t e, uintptr_t f)
{
    return static_cast<uint32_t>(
        called("getNasLifPortIdByIpAdpter", {number(a), number(b), number(c), number(d), number(e), number(f)}));
}

uint32_t NlmE_NodeFaultEvent(uint32_t ls_id)
{
    return static_cast<uint32_t>(calledFailable("NlmE_NodeFaultEvent", {number(ls_id)}));
}

} // extern "C"
