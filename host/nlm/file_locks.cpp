// Owns the node's lock table and its lock. The lock is held for the work of one call alone, also on light-weight
// threads, and nothing is called under it.

#include "nlm/file_locks.h"

#include "notify/events.h"
#include "platform/log.h"
#include <atomic>
#include <common/counted.h>
#include <mutex>
#include <nasctrl/host/adapters.h>
#include <new>

namespace host {
namespace {

std::mutex s_lock;
LockTable s_table;
std::atomic<uint64_t> s_lostClients;
std::atomic<uint64_t> s_released;

// The release stands whether there is memory to tell of it or not.
void tellOfRelease(uint32_t lsId, size_t released)
{
    try {
        recordEvent({.module = "NLM",
                     .name = "LOCKS_RELEASED",
                     .data = lsId,
                     .text = common::counted(released, "file lock") + " released"});
    } catch (const std::bad_alloc &) {
        HOST_LOG(NASCTRL_LOG_ERROR, "locks: no memory for the event of LS %u", lsId);
    }
}

} // namespace

LockTable::Result takeFileLock(const FileLock &lock, FileLock *holder)
{
    const std::lock_guard hold(s_lock);
    return s_table.take(lock, holder);
}

LockTable::Result releaseFileLock(const std::string &file, uint32_t lsId, const ByteRange &range)
{
    const std::lock_guard hold(s_lock);
    return s_table.release(file, lsId, range);
}

size_t releaseFileLocks(uint32_t lsId)
{
    const std::lock_guard hold(s_lock);
    return s_table.releaseAll(lsId);
}

std::vector<FileLock> fileLocks()
{
    const std::lock_guard hold(s_lock);
    return s_table.list();
}

size_t fileLockCount()
{
    const std::lock_guard hold(s_lock);
    return s_table.size();
}

uint64_t lostClients()
{
    return s_lostClients.load();
}

uint64_t locksReleasedByFaults()
{
    return s_released.load();
}

} // namespace host

uint32_t NlmE_NodeFaultEvent(uint32_t ls_id)
{
    const size_t released = host::releaseFileLocks(ls_id);
    host::s_lostClients.fetch_add(1);
    host::s_released.fetch_add(released);
    HOST_LOG(NASCTRL_LOG_PROGRESS, "locks: client of LS %u lost, %zu file lock%s released", ls_id, released,
             released == 1 ? "" : "s");
    host::tellOfRelease(ls_id, released);
    return NAS_OK;
}
