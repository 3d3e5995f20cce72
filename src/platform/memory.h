// Typed wrappers over sys_mem_* for the library's own families, which report
// detail codes as `int`. Any thread; no lock.
#pragma once

#include <zel/platform.h>

namespace zel {

template <typename T>
bool mem_alloc(T **block, int count, int *err)
{
    uint32_t detail = 0;
    void *p = nullptr;
    bool ok = sys_mem_alloc(0, &p, nullptr, count, &detail);
    *err = static_cast<int>(detail);
    if (ok)
        *block = static_cast<T *>(p);
    return ok;
}

// Resizes without ever losing the old block: on failure `*block` is unchanged.
template <typename T>
bool mem_resize(T **block, int new_size, int *err)
{
    uint32_t detail = 0;
    void *p = *block;
    bool ok = sys_mem_realloc(0, &p, nullptr, new_size, &detail);
    *err = static_cast<int>(detail);
    if (ok)
        *block = static_cast<T *>(p);
    return ok;
}

template <typename T>
bool mem_free(T **block, int *err)
{
    uint32_t detail = 0;
    void *p = *block;
    bool ok = sys_mem_free(0, &p, &detail);
    *err = static_cast<int>(detail);
    if (ok)
        *block = nullptr;
    return ok;
}

} // namespace zel
