// Owns the table of look-ups. A slot is written once at start and read from any thread: atomic words, no lock.

#include "notify/statistics.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <nasctrl/host/notify.h>

namespace {

constexpr uint32_t kNameSize = 257; // of a LIF port's name, the longest there is

using IndexLookup = uint32_t (*)(uint64_t id);
using NameLookup = uint32_t (*)(uint64_t id, char *buf, uint32_t len);

std::array<std::atomic<IndexLookup>, host::kStatisticsKinds> s_index;
std::array<std::atomic<NameLookup>, host::kStatisticsKinds> s_name;

template <typename Table, typename Lookup>
int32_t store(Table &table, uint32_t kind, Lookup lookup)
{
    if (kind >= table.size() || lookup == nullptr) {
        return -EINVAL;
    }
    table[kind].store(lookup);
    return 0;
}

template <typename Table>
auto load(const Table &table, uint32_t kind)
{
    return kind < table.size() ? table[kind].load() : nullptr;
}

} // namespace

int32_t statis_int_handle_register(uint32_t kind, uint32_t (*find)(uint64_t id))
{
    return store(s_index, kind, find);
}

int32_t statis_string_handle_register(uint32_t kind, uint32_t (*name)(uint64_t id, char *buf, uint32_t len))
{
    return store(s_name, kind, name);
}

std::optional<uint32_t> host::statisticsIndex(uint32_t kind, uint64_t id)
{
    const IndexLookup lookup = load(s_index, kind);
    return lookup == nullptr ? std::nullopt : std::optional(lookup(id));
}

std::optional<std::string> host::statisticsName(uint32_t kind, uint64_t id)
{
    const NameLookup lookup = load(s_name, kind);
    std::array<char, kNameSize> name{};
    if (lookup == nullptr || lookup(id, name.data(), kNameSize) != 0) {
        return std::nullopt;
    }
    return name.data();
}
