#include "failing_new.h"

#include <cstdlib>
#include <new>

thread_local size_t failing::countdown = 0;

void *operator new(size_t size)
{
    if (failing::countdown > 0 && --failing::countdown == 0) {
        throw std::bad_alloc();
    }
    void *block = malloc(size == 0 ? 1 : size);
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    return block;
}

void operator delete(void *block) noexcept
{
    free(block);
}

void operator delete(void *block, size_t) noexcept
{
    free(block);
}
