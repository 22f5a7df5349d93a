#include "faults.h"

#include <algorithm>
#include <iterator>

namespace storage {

namespace {

constexpr uint32_t kMaxSlowMs = 3600000;
constexpr uint32_t kMaxErrno = 4095;

// In the order of FaultKind.
constexpr FaultRow kRows[] = {
    {"none", 0, 0, FaultKind::none, false},        {"slow", 0, kMaxSlowMs, FaultKind::slow, true},
    {"timeout", 0, 0, FaultKind::timeout, false},  {"short", 0, host::kMaxPayload, FaultKind::shortAnswer, true},
    {"fail", 1, kMaxErrno, FaultKind::fail, true},
};

} // namespace

const FaultRow &rowOf(FaultKind kind)
{
    return kRows[static_cast<size_t>(kind)];
}

const FaultRow *findFault(const std::string &name)
{
    const auto *row = std::ranges::find_if(kRows, [&](const FaultRow &each) { return name == each.name; });
    return row == std::end(kRows) ? nullptr : row;
}

std::string faultNames()
{
    std::string names;
    for (const FaultRow &row : kRows) {
        names += (names.empty() ? "" : ", ") + std::string(row.name);
    }
    return names;
}

} // namespace storage
