// The compression handle and the contract between it and its codecs. A handle
// is used by one thread at a time; no lock.
#pragma once

#include <zel/compress.h>

#include <cstdint>

namespace zel::codec {

struct Handle;

// Operations see arguments that the dispatch has already checked: a non-null
// handle, a source with data and a positive `len`, a non-null destination or
// size pointer.
using TransformOp = int (*)(Handle *h, scratchcb *src, scratchcb *dst, int *err);
using SizeOp = int (*)(Handle *h, scratchcb *src, unsigned long long *size, int *err);

// What an open handle points at: the codec type, the LZMA encoder (null for
// the block codec), and the operations in the order compress, decompress,
// size-of; a codec that cannot tell the expanded size leaves size-of null.
struct Handle {
    int32_t type;
    void *encoder;
    TransformOp compress;
    TransformOp decompress;
    SizeOp size_of;
};

// Creates the encoder with the SDK's default properties and installs the
// LZMA operations. False (detail 5) leaves nothing allocated.
bool install_lzma(Handle *h, int *err);

// Destroys the encoder that install_lzma made.
void release_lzma(Handle *h);

void install_block(Handle *h);

// The LZMA frame of `src` in `dst`, however little the message shrinks: the
// stream may take all of `dst` after the header. For carrying a message whose
// receiver expects a frame whatever its size. `h` must hold the LZMA codec.
int lzma_frame(Handle *h, scratchcb *src, scratchcb *dst, int *err);

inline int fail(int *err, int detail)
{
    *err = detail;
    return 0;
}

inline int succeed(int *err)
{
    *err = 0;
    return 1;
}

} // namespace zel::codec
