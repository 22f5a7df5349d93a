// A change builds the file's new ranges beside the old ones and puts them in their place at the end, so that one which
// is refused, or runs out of memory, leaves the table as it was.

#include "nlm/lock_table.h"

#include <algorithm>
#include <tuple>

namespace host {
namespace {

bool overlap(const ByteRange &a, const ByteRange &b)
{
    return a.first <= b.last && b.first <= a.last;
}

// Whether one ends where the other begins.
bool touch(const ByteRange &a, const ByteRange &b)
{
    return (a.last != UINT64_MAX && a.last + 1 == b.first) || (b.last != UINT64_MAX && b.last + 1 == a.first);
}

// Of all ranges those that stay when the LS gives up `gone`.
template <typename Ranges>
Ranges without(const Ranges &ranges, uint32_t lsId, const ByteRange &gone)
{
    Ranges rest;
    for (const auto &held : ranges) {
        if (held.lsId != lsId || !overlap(held.range, gone)) {
            rest.push_back(held);
            continue;
        }
        if (held.range.first < gone.first) {
            rest.push_back({{held.range.first, gone.first - 1}, held.lsId, held.shared});
        }
        if (held.range.last > gone.last) {
            rest.push_back({{gone.last + 1, held.range.last}, held.lsId, held.shared});
        }
    }
    return rest;
}

// Adds a range that overlaps none of its owner's, as one with those of its kind that it touches.
template <typename Ranges, typename Held>
void addMerged(Ranges &ranges, Held fresh)
{
    const ByteRange added = fresh.range;
    std::erase_if(ranges, [&](const Held &held) {
        const bool joins = held.lsId == fresh.lsId && held.shared == fresh.shared && touch(held.range, added);
        if (joins) {
            fresh.range.first = std::min(fresh.range.first, held.range.first);
            fresh.range.last = std::max(fresh.range.last, held.range.last);
        }
        return joins;
    });
    ranges.push_back(fresh);
}

} // namespace

std::optional<ByteRange> byteRange(uint64_t start, uint64_t length)
{
    if (length == 0) {
        return ByteRange{start, UINT64_MAX};
    }
    if (length - 1 > UINT64_MAX - start) {
        return std::nullopt;
    }
    return ByteRange{start, start + (length - 1)};
}

LockTable::Result LockTable::replace(const std::string &file, Ranges ranges)
{
    std::ranges::sort(ranges, {}, [](const Held &held) { return std::tuple(held.range.first, held.lsId); });
    const auto found = files_.find(file);
    const size_t before = found == files_.end() ? 0 : found->second.size();
    const size_t after = size_ - before + ranges.size();
    if (after > maxLocks_ && ranges.size() > before) {
        return Result::full;
    }
    if (!ranges.empty()) {
        files_[file] = std::move(ranges);
    } else if (found != files_.end()) {
        files_.erase(found);
    }
    size_ = after;
    return Result::done;
}

LockTable::Result LockTable::take(const FileLock &lock, FileLock *holder)
{
    const auto found = files_.find(lock.file);
    const Ranges ranges = found == files_.end() ? Ranges{} : found->second;
    const auto inTheWay = std::ranges::find_if(ranges, [&lock](const Held &held) {
        return held.lsId != lock.lsId && overlap(held.range, lock.range) && !(held.shared && lock.shared);
    });
    if (inTheWay != ranges.end()) {
        if (holder != nullptr) {
            *holder = {lock.file, inTheWay->lsId, inTheWay->range, inTheWay->shared};
        }
        return Result::conflict;
    }
    Ranges after = without(ranges, lock.lsId, lock.range);
    addMerged(after, Held{lock.range, lock.lsId, lock.shared});
    return replace(lock.file, std::move(after));
}

LockTable::Result LockTable::release(const std::string &file, uint32_t lsId, const ByteRange &range)
{
    const auto found = files_.find(file);
    return found == files_.end() ? Result::done : replace(file, without(found->second, lsId, range));
}

size_t LockTable::releaseAll(uint32_t lsId)
{
    size_t released = 0;
    for (auto &[file, ranges] : files_) {
        released += std::erase_if(ranges, [lsId](const Held &held) { return held.lsId == lsId; });
    }
    std::erase_if(files_, [](const auto &entry) { return entry.second.empty(); });
    size_ -= released;
    return released;
}

std::vector<FileLock> LockTable::list() const
{
    std::vector<FileLock> locks;
    locks.reserve(size_);
    for (const auto &[file, ranges] : files_) {
        for (const Held &held : ranges) {
            locks.push_back({file, held.lsId, held.range, held.shared});
        }
    }
    return locks;
}

} // namespace host
