/*
 * Statistics: the look-ups that the library hands over, by kind of object.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace host {

constexpr uint32_t kStatisticsKinds = 8;
constexpr uint32_t kLifPortKind = 0;

// The index of an object, and its name; nothing while nobody registered the look-up, or when it fails. Any thread.
std::optional<uint32_t> statisticsIndex(uint32_t kind, uint64_t id);
std::optional<std::string> statisticsName(uint32_t kind, uint64_t id);

} // namespace host
