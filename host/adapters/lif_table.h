/*
 * The library's table of LIF ports as the host reads it: bucket by bucket, each under its own lock, and without waiting
 * long for any. A hold that somebody never gives back costs the ports of its bucket and nothing else.
 *
 * From any thread but one that holds a lock of the table.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace host {

// A LIF port as the library's table knows it.
struct LifPort {
    uint64_t id;
    uint64_t time;
    uint32_t index;
    std::string name;
    std::string ip;
};

struct LifTable {
    std::vector<LifPort> ports;        // by index
    std::vector<uint32_t> busyBuckets; // could not be read in time
};

// Empty before the table is built.
LifTable readLifTable();

bool lifTableIsBuilt();
// The slot is the id's own, as an index that was looked up need not be.
bool ownsSlot(uint64_t id, uint32_t index);

// Whether the buckets' locks can be had now, by a reader of id's bucket, by a writer of it, and by a writer of all.
bool canRead(uint64_t id);
bool canWrite(uint64_t id);
bool canWriteAll();

} // namespace host
