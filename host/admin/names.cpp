/*
 * The version record that the cluster's nodes agree on in the name service, and the texts in which a node states the
 * versions that it is compatible with.
 *
 * Showing the node's own copy asks nobody. The other calls wait for the cluster store, so each looks first whether it
 * answers: the library's own rounds would take minutes to find out that it does not.
 */
#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include "cluster/name_service.h"
#include "platform/log.h"
#include <cstdlib>
#include <nasctrl/version_ns.h>
#include <nlohmann/json.hpp>
#include <system_error>

namespace host::admin {

namespace {

constexpr int32_t kCreated = 0;

class SpinHold {
public:
    explicit SpinHold(kvos_spinlock_t &lock) : lock_(lock) { do_kvos_spinlock_lock(&lock_); }
    ~SpinHold() { do_kvos_spinlock_unlock(&lock_); }
    SpinHold(const SpinHold &) = delete;
    SpinHold &operator=(const SpinHold &) = delete;

private:
    kvos_spinlock_t &lock_;
};

// A read or publication of the library's, with what it points to.
class Round {
public:
    Round() { sem_init(&sem_, 0, 0); }
    ~Round() { sem_destroy(&sem_); }
    Round(const Round &) = delete;
    Round &operator=(const Round &) = delete;
    ns_request *request() { return &request_; }
    ns_value &value() { return value_; }

private:
    sem_t sem_{};
    ns_value value_{};
    ns_request request_{&sem_, &value_, 0};
};

// Under a spin lock only the numbers are copied: whoever waits for it burns a processor.
Json localPart()
{
    int64_t version = 0;
    uint32_t level = 0;
    uint64_t seq = 0;
    {
        const SpinHold hold(s_clusterVerinfo.lock);
        version = s_clusterVerinfo.version;
        level = s_clusterVerinfo.FL;
        seq = s_clusterVerinfo.seq;
    }
    return {{"version", version}, {"fl", level}, {"seq", seq}};
}

// Refuses the call unless the store answers. Whether the name is there.
bool nameIsThere()
{
    const auto store = clusterStore();
    if (!store) {
        throw CallError(kBusy, "the node has no cluster store");
    }
    const StoreRead found = store->read(keyOfName(s_nasctrlDpcNsHdl, GetNasCtrlClusterNsName()));
    if (found.result == StoreResult::unknown) {
        throw CallError(kBusy, store->status().error);
    }
    return found.result == StoreResult::done;
}

void checkName()
{
    if (!nameIsThere()) {
        throw CallError(kNotFound, std::string("the name ") + GetNasCtrlClusterNsName() + " is not created");
    }
}

} // namespace

Json storePart()
{
    const auto store = clusterStore();
    if (!store) {
        return nullptr;
    }
    const StoreStatus status = store->status();
    return {{"place", status.place},
            {"reachable", status.reachable},
            {"error", status.error.empty() ? Json() : Json(status.error)}};
}

Json getName(const CallInput & /*input*/)
{
    uint64_t version = 0;
    uint64_t published = 0;
    {
        const SpinHold hold(s_dpcNsLock);
        version = s_nasctrlDpcNsStat.version;
        published = g_nsPubSeq;
    }
    return {{"name", GetNasCtrlClusterNsName()},
            {"store", storePart()},
            {"version", version},
            {"local", localPart()},
            {"published", published}};
}

Json postName(const CallInput & /*input*/)
{
    nameIsThere();
    const int32_t code = NasCtrlDpcCreateNs();
    if (code != kCreated && code != kNameExists) {
        throw CallError(kInternalError, "the creation failed with " + std::to_string(code) + " (" +
                                            std::generic_category().message(std::abs(code)) + ")");
    }
    return {{"name", GetNasCtrlClusterNsName()}, {"created", code == kCreated}};
}

Json readName(const CallInput &input)
{
    checkName();
    Round round;
    const int32_t code = NasCtrlDpcNsGetAsycAdapter(round.request());
    if (code != 0) {
        throw CallError(kInternalError, "the read failed with " + std::to_string(code));
    }
    return getName(input);
}

Json publishName(const CallInput &input)
{
    Round round;
    round.value().FL = numberField(parseFields(input.body, {"fl"}), "fl", UINT32_MAX);
    checkName();
    MarkNsPubSeq(&round.value());
    const int32_t code = SetNasCtrlDpcNsWithRetry(round.request());
    if (code != 0) {
        throw CallError(kInternalError, "the publication failed in all its rounds (" + std::to_string(code) +
                                            "), the node's log tells why");
    }
    Json answer = getName(input);
    answer["sent"] = {{"fl", round.value().FL}, {"seq", round.value().seq}};
    return answer;
}

Json parseVersions(const CallInput &input)
{
    const std::string text = textField(parseFields(input.body, {"text"}), "text");
    version_array found{};
    const OwnLogLines lines;
    const auto result = static_cast<int32_t>(ParseCompaVersListFromStr(text.c_str(), &found));
    Json versions = Json::array();
    for (int32_t i = 0; i < found.count; ++i) {
        versions.push_back(found.vers[i]);
    }
    const std::string last = lines.last();
    return {{"result", result}, {"versions", std::move(versions)}, {"explanation", last.empty() ? Json() : Json(last)}};
}

} // namespace host::admin
