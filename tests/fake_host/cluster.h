/*
 * The fake host's cluster manager and name service.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fake {

// ---- asynchronous answers: of ns_getAsyn and CM_reportDsBusinessStatusAsyn
//
// Each is recorded as "ns_get_cb()" or "cm_report_cb()" when it is given, and scripted under that name:
// answer("ns_get_cb", {5}) ends the next read with error 5.

enum class Callbacks {
    hold,   // keep it; the test gives it with runCallback (the default)
    atOnce, // give it before the call returns
    real,   // give it on a thread of its own; joinCallbacks waits for all of them
};
void setCallbacks(Callbacks mode);
size_t heldCallbacks();
// Gives the answer that is held longest; says whether there was one.
bool runCallback();
void joinCallbacks();

// ---- the cluster manager
//
// CM_getLsFaultReason is recorded as "CM_getLsFaultReason(lsId)", getLocalCtrlLsId as "getLocalCtrlLsId()"; both answer
// as scripted, 0 unless told.

// The reports that were made, refused ones too; recorded as "CM_reportDsBusinessStatusAsyn(client, count)".
struct Report {
    uint32_t clientId;
    std::string records; // all bytes
    void *context;
};
std::vector<Report> reports();

// ---- the name service: holds one name
//
// Recorded as "ns_create(handle, "name", zero, length)", "ns_getAsyn(handle, "name")" and
// "ns_set(handle, "name", length, expected version)". A scripted answer other than 0 leaves the name alone.

constexpr int32_t kNoSuchName = 3;
constexpr int32_t kVersionDiffers = 4;

struct Stored {
    int64_t version = 0; // 0 = there is no such name
    std::optional<std::string> value;
};
void store(int64_t version, const std::optional<std::string> &value);
Stored stored();
// Every value that reached ns_create or ns_set.
std::vector<std::string> sentValues();
// The first two words of the state that a write leaves behind.
void setStateWords(uint64_t word0, uint64_t word1);

} // namespace fake
