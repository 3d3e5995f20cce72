// Record framing shared by the file and socket descriptors: a record travels
// as its length (4 bytes, native order) followed by its bytes.
#pragma once

#include <zel/types.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace zel {

constexpr uint32_t record_prefix_size = 4;

// Longest record a descriptor writes or accepts; a longer length read from a
// file or a peer means a corrupt stream, not a record worth allocating for.
constexpr uint32_t max_record_length = 64u << 20;

inline uint32_t load_record_length(const char *prefix)
{
    uint32_t length;
    std::memcpy(&length, prefix, sizeof length);
    return length;
}

// Makes `s` hold at least `needed` bytes, with headroom of 1024 bytes or a
// doubling, whichever is larger, so that growing by small steps stays cheap.
// False when `needed` does not fit a scratch buffer or memory ran out; the
// buffer is then as it was. Any thread that owns `s`.
inline bool ensure_capacity(scratchcb *s, int64_t needed)
{
    if (needed <= s->alloc)
        return true;
    if (needed > INT32_MAX)
        return false;
    const int64_t target = std::max(needed + 1024, int64_t(s->alloc) * 2);
    int err;
    return pset_buffer_size(s, int(std::min<int64_t>(target, INT32_MAX)), &err) != 0;
}

} // namespace zel
