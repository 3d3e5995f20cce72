// The platform layer's result convention: 1 for success, 0 for failure, and a
// detail code written through the caller's last argument.
#pragma once

#include <cstdint>

namespace zel {

inline uint64_t sys_fail(uint32_t *err, uint32_t detail)
{
    *err = detail;
    return 0;
}

inline uint64_t sys_succeed(uint32_t *err)
{
    *err = 0;
    return 1;
}

} // namespace zel
