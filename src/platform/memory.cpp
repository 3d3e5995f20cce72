// The allocator every family of the library draws from: zero-filled blocks,
// and a realloc that reports failure by nulling the caller's pointer.
#include <zel/platform.h>

#include <cstdlib>
#include <cstring>

#include "platform/detail_slot.h"

extern "C" {

uint64_t sys_init(uint32_t, uint64_t, uint64_t, uint32_t, uint64_t, uint32_t *err)
{
    err = zel::detail_slot(err);
    *err = 0;
    return 1;
}

uint64_t sys_uninit(uint32_t *err)
{
    err = zel::detail_slot(err);
    *err = 0;
    return 1;
}

uint64_t zel_mem_open(uint64_t, uint64_t, uint32_t *err)
{
    err = zel::detail_slot(err);
    *err = 0;
    return 1;
}

uint64_t mem_close(uint64_t, uint32_t *err)
{
    err = zel::detail_slot(err);
    *err = 0;
    return 1;
}

uint64_t sys_mem_alloc(uint64_t, void **block, uint32_t *size, int32_t count, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (count <= 0 || !block) {
        *err = 5;
        return 0;
    }
    *block = std::calloc(1, static_cast<size_t>(count));
    if (!*block) {
        *err = 1;
        return 0;
    }
    if (size)
        *size = static_cast<uint32_t>(count);
    *err = 0;
    return 1;
}

uint64_t sys_mem_realloc(uint64_t, void **block, uint32_t *size, int32_t new_size, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!block || !*block || new_size <= 0) {
        *err = 5;
        return 0;
    }
    // Stored before it is tested: a failed resize leaves the caller's
    // pointer null, and callers that must survive keep their own copy.
    *block = std::realloc(*block, static_cast<size_t>(new_size));
    if (!*block) {
        *err = 1;
        return 0;
    }
    if (size)
        *size = static_cast<uint32_t>(new_size);
    *err = 0;
    return 1;
}

uint64_t sys_mem_free(uint64_t, void **block, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!block || !*block) {
        *err = 5;
        return 0;
    }
    std::free(*block);
    *block = nullptr;
    *err = 0;
    return 1;
}

} // extern "C"
