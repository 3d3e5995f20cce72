// The compression handle: opening and closing it, and the three operations,
// which check their arguments once here and then call through the handle.
#include <zel/compress.h>

#include "message/compress_handle.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"

using zel::codec::fail;
using zel::codec::Handle;
using zel::codec::succeed;
using zel::codec::TransformOp;

namespace {

bool is_codec(const int *type)
{
    return type && (*type == ZEL_COMPRESS_LZMA || *type == ZEL_COMPRESS_BLOCK);
}

bool install_codec(Handle *h, int type, int *err)
{
    h->type = type;
    if (type == ZEL_COMPRESS_LZMA)
        return zel::codec::install_lzma(h, err);
    zel::codec::install_block(h);
    return true;
}

bool has_source(const scratchcb *src, int *err)
{
    if (src && src->data && src->len > 0)
        return true;
    *err = 3;
    return false;
}

// Compress and decompress share their checks; `op` picks the operation.
int transform(void *handle, TransformOp Handle::*op, scratchcb *src, scratchcb *dst, int *err)
{
    auto *h = static_cast<Handle *>(handle);
    if (!h)
        return fail(err, 2);
    if (!has_source(src, err))
        return 0;
    if (!dst)
        return fail(err, 2);
    return (h->*op)(h, src, dst, err);
}

} // namespace

extern "C" {

int zel_compress_open(void **handle, int *type, int *err)
{
    err = zel::detail_slot(err);
    if (!handle || *handle)
        return fail(err, 2);
    if (!is_codec(type))
        return fail(err, 3);
    Handle *h = nullptr;
    if (!zel::mem_alloc(&h, sizeof(Handle), err))
        return fail(err, 5);
    if (!install_codec(h, *type, err)) {
        int ignored;
        zel::mem_free(&h, &ignored);
        return 0;
    }
    *handle = h;
    return succeed(err);
}

int zel_compress_close(void **handle, int *err)
{
    err = zel::detail_slot(err);
    auto *h = handle ? static_cast<Handle *>(*handle) : nullptr;
    if (!h)
        return fail(err, 2);
    if (h->type == ZEL_COMPRESS_LZMA)
        zel::codec::release_lzma(h);
    if (!zel::mem_free(&h, err))
        return fail(err, -1);
    *handle = nullptr;
    return succeed(err);
}

int zel_compress(void *handle, scratchcb *src, scratchcb *dst, int *err)
{
    err = zel::detail_slot(err);
    return transform(handle, &Handle::compress, src, dst, err);
}

int zel_decompress(void *handle, scratchcb *src, scratchcb *dst, int *err)
{
    err = zel::detail_slot(err);
    return transform(handle, &Handle::decompress, src, dst, err);
}

int zel_compressed_size(void *handle, scratchcb *src, unsigned long long *size, int *err)
{
    err = zel::detail_slot(err);
    auto *h = static_cast<Handle *>(handle);
    if (!h || !h->size_of || !size)
        return fail(err, 2);
    if (!has_source(src, err))
        return 0;
    return h->size_of(h, src, size, err);
}

} // extern "C"
