/*
 * The control requests: JSON texts in and out. Knows nothing of sockets.
 */
#pragma once

#include "faults.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace storage {

// How one type of question stands.
struct QuestionState {
    uint32_t type;
    const char *name;
    Fault fault;
    uint64_t requests = 0;
};

struct ServiceState {
    std::string dataFile; // empty = none
    std::string error;    // of the last reload; empty when it was taken
    std::vector<QuestionState> questions;
};

std::string statusText(const ServiceState &state);

struct FaultRequest {
    std::optional<uint32_t> type; // nothing = every type
    Fault fault;
};

// {"type": 3, "fault": "slow", "value": 100}. Throws std::runtime_error with one line that begins with the field.
FaultRequest parseFaultRequest(const std::string &text);

std::string errorText(const std::string &line);

} // namespace storage
