/*
 * Memory of the host's pool, tagged with the function and line that ask for it and give it back.
 */
#ifndef NASCTRL_INTERNAL_POOL_H
#define NASCTRL_INTERNAL_POOL_H

#include <memory>
#include <nasctrl/host/memory.h>

#define POOL_ALLOC(size) nas_mem_comm_alloc((size), __func__, __LINE__)
#define POOL_ZALLOC(size) nas_mem_comm_zalloc((size), __func__, __LINE__)
#define POOL_NEW(type) nas::poolNew<type>(__func__, __LINE__)
#define POOL_FREE(pointer) nas_mem_comm_free((pointer), __func__, __LINE__)

/* Owns a pool block until the end of the scope, and frees it in the name of the function it stands in. */
#define POOL_OWNER(pointer) nas::poolOwner((pointer), __func__, __LINE__)

namespace nas {

/* A cleared record, or null without memory. */
template <typename T>
T *poolNew(const char *func, uint32_t line)
{
    return static_cast<T *>(nas_mem_comm_zalloc(sizeof(T), func, line));
}

struct PoolFree {
    const char *func;
    uint32_t line;
    void operator()(void *block) const { nas_mem_comm_free(block, func, line); }
};

template <typename T>
using PoolPtr = std::unique_ptr<T, PoolFree>;

template <typename T>
PoolPtr<T> poolOwner(T *block, const char *func, uint32_t line)
{
    return PoolPtr<T>(block, PoolFree{func, line});
}

} // namespace nas

#endif
