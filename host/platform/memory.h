/*
 * The reference host's memory pool: malloc with an account per allocating function.
 */
#pragma once

#include <cstdint>
#include <nasctrl/host/memory.h>
#include <string>
#include <vector>

namespace host {

struct MemoryAccount {
    std::string func;
    uint64_t liveBlocks;
    uint64_t liveBytes;
    uint64_t totalBlocks; // ever allocated
};

// One row per function that ever allocated, by name. From any thread.
std::vector<MemoryAccount> memoryAccounts();

struct LiveMemory {
    std::string func;
    uint32_t line;
    uint64_t blocks;
    uint64_t bytes;
};

// One row per source line whose blocks are still live, by function and line. From any thread.
std::vector<LiveMemory> liveMemory();

// The size that a live block of the pool was asked for with.
size_t blockSize(const void *block);

} // namespace host
