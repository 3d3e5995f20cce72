// The block codec: bare LZ4 blocks, no frame, so the receiver sizes the
// destination. It keeps no state in the handle.
#include <lz4.h>

#include "message/compress_handle.h"

using zel::codec::fail;
using zel::codec::Handle;
using zel::codec::succeed;

namespace {

// The codec answers the output length, 0 or less when it produced nothing
// usable; a failed call never leaves a negative length behind.
int settle(scratchcb *dst, int produced, int *err)
{
    dst->len = produced > 0 ? produced : 0;
    return produced > 0 ? succeed(err) : fail(err, 4);
}

int block_compress(Handle *, scratchcb *src, scratchcb *dst, int *err)
{
    return settle(dst, LZ4_compress_default(src->data, dst->data, src->len, dst->alloc), err);
}

int block_decompress(Handle *, scratchcb *src, scratchcb *dst, int *err)
{
    return settle(dst, LZ4_decompress_safe(src->data, dst->data, src->len, dst->alloc), err);
}

} // namespace

namespace zel::codec {

void install_block(Handle *h)
{
    h->encoder = nullptr;
    h->compress = block_compress;
    h->decompress = block_decompress;
    h->size_of = nullptr;
}

} // namespace zel::codec
