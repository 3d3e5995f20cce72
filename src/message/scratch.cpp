// Scratch buffers: heap byte buffers with a used length, grown on demand.
#include <zel/types.h>

#include <cstring>

#include "platform/detail_slot.h"
#include "platform/memory.h"

using zel::mem_alloc;
using zel::mem_free;
using zel::mem_resize;

namespace {

// Makes a heap control block with a buffer of `size` bytes; the shared body of
// zel_open_scratch and palloc_scratch.
bool make_scratch(scratchcb **made, scratchcb **handle, int size, int *err)
{
    if (!handle) {
        *err = 2;
        return false;
    }
    if (*handle) {
        *err = 4;
        return false;
    }
    if (size <= 0) {
        *err = 2;
        return false;
    }
    scratchcb *block = nullptr;
    if (!mem_alloc(&block, sizeof(scratchcb), err)) {
        *err = 1;
        return false;
    }
    if (!pset_buffer_size(block, size, err)) {
        int ignored;
        mem_free(&block, &ignored);
        return false;
    }
    *made = block;
    return true;
}

} // namespace

extern "C" {

int pset_buffer_size(scratchcb *s, int size, int *err)
{
    err = zel::detail_slot(err);
    if (!s) {
        *err = 1;
        return 0;
    }
    if (size < 1) {
        *err = 2;
        return 0;
    }
    if (size > s->alloc) {
        char *data = s->data;
        bool ok = data ? mem_resize(&data, size, err) : mem_alloc(&data, size, err);
        if (!ok) {
            *err = 1;
            return 0;
        }
        s->data = data;
        s->alloc = size;
    }
    s->size = size;
    *err = 0;
    return 1;
}

int punset_buffer_size(scratchcb *s, int *err)
{
    err = zel::detail_slot(err);
    if (!s) {
        *err = 3;
        return 0;
    }
    if (s->data && !mem_free(&s->data, err)) {
        *err = 1;
        return 0;
    }
    s->data = nullptr;
    s->len = s->size = s->alloc = 0;
    *err = 0;
    return 1;
}

int zel_open_scratch(scratchcb **handle, int size, int *err)
{
    err = zel::detail_slot(err);
    scratchcb *block = nullptr;
    if (!make_scratch(&block, handle, size, err))
        return 0;
    *handle = block;
    *err = 0;
    return 1;
}

int zel_open_scratchcb(scratchcb *s, int size, int *err)
{
    err = zel::detail_slot(err);
    if (size <= 0 || !s) {
        *err = 2;
        return 0;
    }
    s->data = nullptr;
    s->size = s->alloc = 0;
    if (pset_buffer_size(s, size, err))
        return 1;
    // Long-standing behaviour: the control block goes to the allocator's free
    // even though the caller owns it.
    int ignored;
    mem_free(&s, &ignored);
    return 0;
}

int zel_close_scratch(scratchcb **handle, int *err)
{
    err = zel::detail_slot(err);
    scratchcb *s = handle ? *handle : nullptr;
    if (!s) {
        *err = 1;
        return 0;
    }
    if (s->size != 0 && !mem_free(&s->data, err)) {
        *err = -1;
        return 0;
    }
    s->len = s->size = 0;
    // The caller's handle is left as it is; callers null it themselves.
    if (!mem_free(&s, err)) {
        *err = -1;
        return 0;
    }
    *err = 0;
    return 1;
}

int p_append_buf(scratchcb *dst, scratchcb *src, int *err)
{
    err = zel::detail_slot(err);
    if (!dst || !src || !dst->data || !src->data || src->len < 0) {
        *err = 2;
        return 0;
    }
    int64_t needed = int64_t(dst->len) + src->len;
    if (needed >= dst->alloc) {
        if (needed + 512 > INT32_MAX || !pset_buffer_size(dst, int(needed + 512), err)) {
            // Long-standing behaviour: the control block (not its buffer) goes
            // to the allocator's free.
            mem_free(&dst, err);
            return 0;
        }
    }
    std::memcpy(dst->data + dst->len, src->data, size_t(src->len));
    dst->len += src->len;
    *err = 0;
    return 1;
}

} // extern "C"

int palloc_scratch(scratchcb **handle, int size, int *err)
{
    err = zel::detail_slot(err);
    scratchcb *block = nullptr;
    if (!make_scratch(&block, handle, size, err))
        return 0;
    // The block is never handed out (callers use zel_open_scratch), so it is
    // released rather than leaked.
    int ignored;
    punset_buffer_size(block, &ignored);
    mem_free(&block, &ignored);
    *err = 0;
    return 1;
}
