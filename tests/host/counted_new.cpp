#include "counted_new.h"

#include <cstdlib>
#include <new>

constinit std::atomic<size_t> counted::largest{0};

void *operator new(size_t size)
{
    size_t seen = counted::largest.load();
    while (size > seen && !counted::largest.compare_exchange_weak(seen, size)) {
    }
    if (void *block = malloc(size)) {
        return block;
    }
    throw std::bad_alloc();
}

void *operator new[](size_t size)
{
    return operator new(size);
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}

void operator delete[](void *block) noexcept
{
    free(block);
}

void operator delete[](void *block, size_t) noexcept
{
    free(block);
}
