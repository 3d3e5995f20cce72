// Appending to scratch buffers that grow by doubling.
#include <climits>
#include <cstddef>
#include <cstring>

#include "message/append.h"

namespace zel::msg {

bool reserve_append(scratchcb *out, int64_t extra, int *err)
{
    int64_t needed = int64_t(out->len) + extra;
    if (needed <= out->alloc)
        return true;
    int64_t grown = needed < INT32_MAX / 2 ? 2 * needed : needed;
    if (grown > INT32_MAX || !pset_buffer_size(out, int(grown), err)) {
        *err = 4;
        return false;
    }
    return true;
}

bool append_bytes(scratchcb *out, const char *text, int64_t len, int *err)
{
    std::ptrdiff_t offset = out->data ? text - out->data : 0;
    bool inside = out->data && text >= out->data && text < out->data + out->alloc;
    if (!reserve_append(out, len, err))
        return false;
    if (len > 0)
        std::memmove(out->data + out->len, inside ? out->data + offset : text, size_t(len));
    out->len += int32_t(len);
    return true;
}

} // namespace zel::msg
