/*
 * The view of the distributed parallel clients (DPC) as the cluster store holds it, and as records of the library.
 */
#pragma once

#include <cstdint>
#include <nasctrl/dpc.h>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace host {

constexpr size_t kMaxDpcClients = 5000;
constexpr size_t kMaxDpcAttributes = 8;
constexpr size_t kMaxDpcAttributeName = 31;
constexpr size_t kMaxDpcAttributeValue = 255;

constexpr int32_t kRunning = 0;
constexpr int32_t kFaulty = 1;

constexpr int32_t kNoFault = 0;
constexpr int32_t kProcessFault = 2;
constexpr int32_t kHeartBreak = 3;

// One client: a logical server (LS) and the process that it stands for.
struct DpcClient {
    uint32_t lsId = 0;
    uint64_t session = 0; // of its process; a new one each time it joins
    int32_t runState = kRunning;
    int32_t faultReason = kNoFault; // of the last fault; stays after the recovery
    uint64_t faults = 0;            // how often it failed: tells of a fault that came and went unseen
    uint32_t node = 0;              // the node by which it joined
    std::vector<std::pair<std::string, std::string>> attributes;

    bool operator==(const DpcClient &) const = default;
};

struct DpcView {
    uint64_t version = 0;           // counts the changes; 0 = nobody ever joined
    std::string writer;             // a word of the change's own, so that its writer knows it again
    std::vector<DpcClient> clients; // by LS id, ascending, each id once

    const DpcClient *find(uint32_t lsId) const;
    DpcClient *find(uint32_t lsId);
    // Adds a client, or takes the place of the one with its id.
    void put(DpcClient client);
    void erase(uint32_t lsId);

    bool operator==(const DpcView &) const = default;
};

// As text, and back. parseDpcView throws std::runtime_error with one line when the text is no view.
std::string toText(const DpcView &view);
DpcView parseDpcView(const std::string &text);

// The library's record of a client; what the cluster manager keeps in it beyond the library's fields is read by
// faultReasonOf.
cm_ls_entry entryOf(const DpcClient &client);
int32_t faultReasonOf(const cm_ls_entry &entry);

} // namespace host
