/*
 * The node's file locks: one lock table for all its clients, and what happens to it when a client is lost.
 */
#pragma once

#include "nlm/lock_table.h"

namespace host {

// The node's table, from any thread; see LockTable for each.
LockTable::Result takeFileLock(const FileLock &lock, FileLock *holder);
LockTable::Result releaseFileLock(const std::string &file, uint32_t lsId, const ByteRange &range);
// How many ranges were released; for a client that gives its locks up itself.
size_t releaseFileLocks(uint32_t lsId);
std::vector<FileLock> fileLocks();
size_t fileLockCount();

// Since the start of the process, from any thread: clients that were lost, and the ranges that this released.
uint64_t lostClients();
uint64_t locksReleasedByFaults();

} // namespace host
