/*
 * The clients' file locks. The table's lock is held for the work of one call alone, so reading it cannot wait for work.
 */
#include "nlm/file_locks.h"

#include "admin/answer.h"
#include "admin/calls.h"
#include "admin/fields.h"
#include <nlohmann/json.hpp>

namespace host::admin {

namespace {

// 0 = to the end, as in a request.
uint64_t lengthOf(const ByteRange &range)
{
    return range.last == UINT64_MAX ? 0 : range.last - range.first + 1;
}

Json rowOf(const FileLock &lock)
{
    return {{"ls_id", lock.lsId},
            {"file", lock.file},
            {"start", std::to_string(lock.range.first)},
            {"length", std::to_string(lengthOf(lock.range))},
            {"shared", lock.shared}};
}

Json locksOf(uint32_t lsId)
{
    Json rows = Json::array();
    for (const FileLock &lock : fileLocks()) {
        if (lock.lsId == lsId) {
            rows.push_back(rowOf(lock));
        }
    }
    return {{"locks", std::move(rows)}};
}

uint32_t lsIdField(const Json &fields)
{
    const uint32_t lsId = numberField(fields, "ls_id", UINT32_MAX);
    if (lsId == 0) {
        refuse("ls_id", "must not be 0");
    }
    return lsId;
}

std::string fileField(const Json &fields)
{
    std::string file = textField(fields, "file");
    if (file.empty() || file.size() > kMaxLockedFile) {
        refuse("file", "must be a text of 1 to " + std::to_string(kMaxLockedFile) + " bytes");
    }
    return file;
}

ByteRange rangeFields(const Json &fields)
{
    const auto range = byteRange(bigNumberField(fields, "start"), bigNumberField(fields, "length"));
    if (!range) {
        refuse("length", "passes the last byte that there can be");
    }
    return *range;
}

std::string kindOf(const FileLock &lock)
{
    return lock.shared ? "shared" : "exclusive";
}

std::string wordsFor(const ByteRange &range)
{
    return "bytes " + std::to_string(range.first) + " to " +
           (range.last == UINT64_MAX ? "the end" : std::to_string(range.last));
}

void requireRoom(LockTable::Result result)
{
    if (result == LockTable::Result::full) {
        throw CallError(kBusy, "the table is full with " + std::to_string(fileLockCount()) + " locks");
    }
}

} // namespace

Json getFileLocks(const CallInput & /*input*/)
{
    Json rows = Json::array();
    for (const FileLock &lock : fileLocks()) {
        rows.push_back(rowOf(lock));
    }
    return {{"locks", std::move(rows)}};
}

Json postFileLock(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"ls_id", "file", "start", "length", "shared"});
    const FileLock lock{fileField(fields), lsIdField(fields), rangeFields(fields), flagField(fields, "shared")};
    FileLock holder;
    const LockTable::Result result = takeFileLock(lock, &holder);
    requireRoom(result);
    if (result == LockTable::Result::conflict) {
        throw CallError(kConflict, "LS " + std::to_string(holder.lsId) + " holds " + kindOf(holder) + " " +
                                       wordsFor(holder.range));
    }
    return locksOf(lock.lsId);
}

Json deleteFileLock(const CallInput &input)
{
    const Json fields = parseFields(input.body, {"ls_id", "file", "start", "length"});
    const uint32_t lsId = lsIdField(fields);
    if (fields.size() == 1) {
        releaseFileLocks(lsId);
    } else {
        const std::string file = fileField(fields);
        requireRoom(releaseFileLock(file, lsId, rangeFields(fields)));
    }
    return locksOf(lsId);
}

} // namespace host::admin
