// Owning pointers to blocks of the platform allocator (sys_mem_alloc), for
// records that callers may free through sys_mem_free. Any thread; no lock.
#pragma once

#include <zel/platform.h>

#include <memory>

namespace zel {

struct SysBlockFree {
    void operator()(void *block) const
    {
        uint32_t ignored;
        sys_mem_free(0, &block, &ignored);
    }
};

template <typename T>
using SysBlock = std::unique_ptr<T, SysBlockFree>;

// A zero-filled T; null when out of memory.
template <typename T>
SysBlock<T> sys_block_new()
{
    void *block = nullptr;
    uint32_t ignored;
    sys_mem_alloc(0, &block, nullptr, sizeof(T), &ignored);
    return SysBlock<T>(static_cast<T *>(block));
}

} // namespace zel
