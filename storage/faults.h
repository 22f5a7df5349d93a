/*
 * The faults that an operator or a test wants the service to have, by type of question.
 */
#pragma once

#include "records.h"

#include <cstdint>
#include <map>
#include <stdexcept>
#include <string>

namespace storage {

enum class FaultKind { none, slow, timeout, shortAnswer, fail };

struct Fault {
    FaultKind kind = FaultKind::none;
    uint32_t value = 0; // slow: milliseconds; shortAnswer: bytes; fail: an errno

    bool operator==(const Fault &) const = default;
};

// A fault as it is written in a control request, and the values that it takes.
struct FaultRow {
    const char *name;
    uint32_t least;
    uint32_t most;
    FaultKind kind;
    bool hasValue;
};

const FaultRow &rowOf(FaultKind kind);
// Null when there is no such fault.
const FaultRow *findFault(const std::string &name);
// "none, slow, timeout, short, fail".
std::string faultNames();

} // namespace storage
