#include "cluster.h"

#include "fake_host.h"
#include "recorder.h"

#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <nasctrl/host/cluster.h>
#include <nasctrl/host/name_service.h>
#include <thread>

namespace {

using Callback = std::function<void()>;

struct Cluster {
    std::mutex mutex;
    fake::Callbacks mode = fake::Callbacks::hold;
    std::deque<Callback> held;
    std::vector<std::thread> running;
    std::vector<fake::Report> reports;
    fake::Stored stored;
    std::vector<std::string> sent;
    uint64_t word0 = 0;
    uint64_t word1 = 0;
};

Cluster *g_cluster = new Cluster;

void clear()
{
    fake::joinCallbacks();
    delete g_cluster;
    g_cluster = new Cluster;
}

const fake::AtReset g_atReset(clear);

void deliver(Callback callback)
{
    std::unique_lock guard(g_cluster->mutex);
    switch (g_cluster->mode) {
    case fake::Callbacks::hold:
        g_cluster->held.push_back(std::move(callback));
        break;
    case fake::Callbacks::atOnce:
        guard.unlock();
        callback();
        break;
    case fake::Callbacks::real:
        g_cluster->running.emplace_back(std::move(callback));
        break;
    }
}

// The value is a copy of exactly its length, so that a sanitizer sees a step outside.
void answerRead(ns_get_cb callback, void *context)
{
    const auto ret = static_cast<int32_t>(fake::calledFailable("ns_get_cb", {}));
    if (ret != 0) {
        callback(ret, nullptr, context);
        return;
    }
    const fake::Stored found = fake::stored();
    ns_info_t info = {found.version, nullptr, 0, 0};
    std::unique_ptr<char[]> bytes;
    if (found.value && !found.value->empty()) {
        bytes = std::make_unique<char[]>(found.value->size());
        std::memcpy(bytes.get(), found.value->data(), found.value->size());
        info.value = bytes.get();
        info.length = static_cast<uint32_t>(found.value->size());
    }
    callback(0, &info, context);
}

std::string sendValue(const void *value, uint32_t length)
{
    std::string bytes(static_cast<const char *>(value), length);
    const std::lock_guard guard(g_cluster->mutex);
    g_cluster->sent.push_back(bytes);
    return bytes;
}

} // namespace

namespace fake {

void setCallbacks(Callbacks mode)
{
    const std::lock_guard guard(g_cluster->mutex);
    g_cluster->mode = mode;
}

size_t heldCallbacks()
{
    const std::lock_guard guard(g_cluster->mutex);
    return g_cluster->held.size();
}

bool runCallback()
{
    Callback callback;
    {
        const std::lock_guard guard(g_cluster->mutex);
        if (g_cluster->held.empty()) {
            return false;
        }
        callback = std::move(g_cluster->held.front());
        g_cluster->held.pop_front();
    }
    callback();
    return true;
}

void joinCallbacks()
{
    while (true) {
        std::vector<std::thread> running;
        {
            const std::lock_guard guard(g_cluster->mutex);
            running.swap(g_cluster->running);
        }
        if (running.empty()) {
            return;
        }
        for (auto &thread : running) {
            thread.join();
        }
    }
}

std::vector<Report> reports()
{
    const std::lock_guard guard(g_cluster->mutex);
    return g_cluster->reports;
}

void store(int64_t version, const std::optional<std::string> &value)
{
    const std::lock_guard guard(g_cluster->mutex);
    g_cluster->stored = {version, value};
}

Stored stored()
{
    const std::lock_guard guard(g_cluster->mutex);
    return g_cluster->stored;
}

std::vector<std::string> sentValues()
{
    const std::lock_guard guard(g_cluster->mutex);
    return g_cluster->sent;
}

void setStateWords(uint64_t word0, uint64_t word1)
{
    const std::lock_guard guard(g_cluster->mutex);
    g_cluster->word0 = word0;
    g_cluster->word1 = word1;
}

} // namespace fake

extern "C" {

int32_t CM_getLsFaultReason(const void *ls_entry)
{
    uint32_t lsId = 0;
    std::memcpy(&lsId, ls_entry, sizeof lsId);
    return static_cast<int32_t>(fake::called("CM_getLsFaultReason", {fake::number(lsId)}));
}

int32_t CM_reportDsBusinessStatusAsyn(uint32_t client_id, const void *records, uint32_t count, cm_report_cb callback,
                                      void *context)
{
    {
        const std::lock_guard guard(g_cluster->mutex);
        const std::string bytes(static_cast<const char *>(records), count * sizeof(cm_attr));
        g_cluster->reports.push_back({client_id, bytes, context});
    }
    const int64_t answer =
        fake::calledFailable("CM_reportDsBusinessStatusAsyn", {fake::number(client_id), fake::number(count)});
    if (answer == 0) {
        deliver([=] { callback(context, static_cast<int32_t>(fake::calledFailable("cm_report_cb", {}))); });
    }
    return static_cast<int32_t>(answer);
}

uint32_t getLocalCtrlLsId(void)
{
    return static_cast<uint32_t>(fake::called("getLocalCtrlLsId", {}));
}

int32_t ns_create(uint32_t handle, const char *name, uint32_t zero, const void *value, uint32_t length)
{
    const std::string bytes = sendValue(value, length);
    const int64_t answer = fake::calledFailable(
        "ns_create", {fake::number(handle), fake::quoted(name), fake::number(zero), fake::number(length)});
    const std::lock_guard guard(g_cluster->mutex);
    if (answer != 0) {
        return static_cast<int32_t>(answer);
    }
    if (g_cluster->stored.version != 0) {
        return 2;
    }
    g_cluster->stored = {1, bytes};
    return 0;
}

int32_t ns_getAsyn(uint32_t handle, const char *name, ns_get_cb callback, void *context)
{
    const int64_t answer = fake::calledFailable("ns_getAsyn", {fake::number(handle), fake::quoted(name)});
    if (answer == 0) {
        deliver([=] { answerRead(callback, context); });
    }
    return static_cast<int32_t>(answer);
}

int32_t ns_set(uint32_t handle, const char *name, const void *value, uint32_t length, uint64_t expected_version,
               ns_state_t *out_state)
{
    const std::string bytes = sendValue(value, length);
    const int64_t answer = fake::calledFailable(
        "ns_set", {fake::number(handle), fake::quoted(name), fake::number(length), fake::number(expected_version)});
    const std::lock_guard guard(g_cluster->mutex);
    fake::Stored &current = g_cluster->stored;
    if (answer != 0 || current.version == 0) {
        return answer != 0 ? static_cast<int32_t>(answer) : fake::kNoSuchName;
    }
    if (static_cast<uint64_t>(current.version) != expected_version) {
        return fake::kVersionDiffers;
    }
    current = {current.version + 1, bytes};
    *out_state = {g_cluster->word0, g_cluster->word1, static_cast<uint64_t>(current.version)};
    return 0;
}

} // extern "C"
