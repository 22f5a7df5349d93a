/*
 * Byte-range locks on files, as POSIX has them, by the LS id of the client that holds them. A plain table: it waits for
 * nothing, knows no files, and its caller keeps it to one thread at a time.
 *
 * Within an owner a new lock takes the place of what it covers and ranges of one kind that touch become one; of
 * different owners, shared locks may overlap each other, exclusive ones nothing.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace host {

constexpr size_t kMaxLocks = 65536; // ranges held, of all owners together
constexpr size_t kMaxLockedFile = 1024;

// Bytes first to last, both among them; the last byte there can be stands for "to the end", however long the file
// grows.
struct ByteRange {
    uint64_t first = 0;
    uint64_t last = UINT64_MAX;
    bool operator==(const ByteRange &) const = default;
};

// Length 0 = to the end. Nothing when the range passes the last byte that a number can name.
std::optional<ByteRange> byteRange(uint64_t start, uint64_t length);

struct FileLock {
    std::string file;
    uint32_t lsId = 0;
    ByteRange range;
    bool shared = false;
    bool operator==(const FileLock &) const = default;
};

class LockTable {
public:
    explicit LockTable(size_t maxLocks = kMaxLocks) : maxLocks_(maxLocks) {}

    enum class Result : uint8_t { done, conflict, full };

    // Takes the lock as a whole or not at all. On a conflict, holder is the first lock in its way, if it is not null.
    Result take(const FileLock &lock, FileLock *holder);
    // Releases what the LS holds of the range; what it holds around it stays. Full when a lock would have to be cut in
    // two and there is no room. Bytes that it does not hold are no error.
    Result release(const std::string &file, uint32_t lsId, const ByteRange &range);
    // Releases all that the LS holds, and tells how many ranges that were.
    size_t releaseAll(uint32_t lsId);

    // By file, first byte and LS id.
    std::vector<FileLock> list() const;
    size_t size() const { return size_; }

private:
    struct Held {
        ByteRange range;
        uint32_t lsId;
        bool shared;
    };
    using Ranges = std::vector<Held>; // of a file, by first byte and LS id

    Result replace(const std::string &file, Ranges ranges);

    std::map<std::string, Ranges> files_;
    size_t size_ = 0;
    const size_t maxLocks_;
};

} // namespace host
