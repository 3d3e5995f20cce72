/*
 * Message compression: a handle that picks one codec when it is opened and
 * then compresses, expands and sizes scratch buffers with it.
 *
 * Codecs:
 *   ZEL_COMPRESS_LZMA (2)   LZMA, framed as the classic stand-alone LZMA file:
 *     offset 0   5 bytes  properties (lc/lp/pb byte, 4-byte dictionary size)
 *     offset 5   8 bytes  uncompressed length, little-endian
 *     offset 13  ...      the LZMA stream, without end marker
 *     A compressed buffer's `len` counts the header. The frame says how long
 *     the message is, so zel_compressed_size can answer before expanding.
 *   ZEL_COMPRESS_BLOCK (3)  a raw block codec (LZ4 block format). A block
 *     carries no length: the receiver must size the destination for the
 *     expanded message itself (for example from a length sent beside it).
 *
 * Every function answers 1 for success and 0 for failure and writes a detail
 * code through its last argument:
 *   0  success
 *   1  out of memory: the destination could not grow, or the encoder's or
 *      decoder's working memory could not be allocated
 *   2  bad handle: a null handle or handle variable, a handle variable that
 *      is already open (zel_compress_open), a null destination or size
 *      pointer, or an operation the codec does not offer (zel_compressed_size
 *      on a block handle)
 *   3  nothing to work on: a null source or one with `len` <= 0; when
 *      opening, a null type or a type that is no codec (anything but 2 or 3)
 *   4  the codec failed: the compressed result does not fit (it must be at
 *      least 13 bytes shorter than the source for LZMA, and fit the
 *      destination's `alloc` for both codecs), or a block does not expand
 *      (corrupt, or larger than the destination's `alloc`)
 *   5  the LZMA encoder could not be set up (zel_compress_open)
 *   6  an LZMA frame with invalid properties
 *   7  a corrupt LZMA frame: the stream's data is invalid, the stream goes
 *      on past the length the frame declares, or the declared length is
 *      beyond what a buffer can hold (2^31 - 1 bytes; this includes frames
 *      of unknown length, which this library does not write)
 *   8  a truncated LZMA frame: shorter than its 13-byte header, or a stream
 *      that ends before it has produced the declared length
 *  -1  freeing the handle failed (zel_compress_close)
 * A null detail pointer is allowed: the call then does not report its detail.
 *
 * Source and destination are always two different buffers.
 *
 * On failure the destination's `len` counts what the codec had written
 * before it stopped (after the header when compressing LZMA, 0 for a block);
 * those bytes are not a usable result.
 *
 * Threading: a handle is used by one thread at a time (the LZMA encoder keeps
 * its working state in the handle). Separate handles are independent and may
 * be used on different threads at once.
 */
#ifndef ZEL_COMPRESS_H
#define ZEL_COMPRESS_H

#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    ZEL_COMPRESS_LZMA = 2,
    ZEL_COMPRESS_BLOCK = 3,
    ZEL_LZMA_PROPS_SIZE = 5,
    ZEL_LZMA_HEADER_SIZE = 13, /* properties + 8-byte length */
    ZEL_LZMA_CHUNK = 0x10000   /* the decoder's input and output step */
};

/* Opens a handle for the codec `*type` into `*handle`, which must be null
 * (detail 2). A null type, type 1 or any type but 2 and 3 gives detail 3 and
 * opens nothing. For LZMA the encoder is created with the LZMA SDK's default
 * properties (level 5); when that fails, nothing stays allocated (detail 5).
 * Close the handle with zel_compress_close. */
int zel_compress_open(void **handle, int *type, int *err);

/* Releases the handle and its encoder and sets `*handle` to null. A null
 * handle variable or handle: detail 2. */
int zel_compress_close(void **handle, int *err);

/* Compresses `src->len` bytes of `src` into `dst`, from offset 0, and sets
 * `dst->len` to the compressed length. The destination must already have
 * room: it is never grown, and a result larger than `dst->alloc` fails with
 * detail 4 without writing past the buffer.
 * LZMA: writes the 13-byte header, then the stream; the result must be at
 * least 13 bytes shorter than the source, else detail 4 (send such a message
 * uncompressed). The encoder's dictionary is fitted to each message (never
 * more than the SDK's default of 16 MiB), so a small message costs little
 * memory and time on both sides; the frame carries the size it used.
 * Block: the result must fit `dst->alloc`. */
int zel_compress(void *handle, scratchcb *src, scratchcb *dst, int *err);

/* Expands the compressed buffer `src` into `dst` from offset 0 and sets
 * `dst->len` to the expanded length.
 * LZMA: the frame must hold exactly one stream of the declared length
 * (details 6, 7, 8 for frames that do not). The destination grows as the
 * stream is decoded, to exactly the expanded length, so any scratch will do,
 * even one without a buffer. Decoding steps through the stream in 64 KiB
 * chunks, and the decoder's window never exceeds the declared length, so a
 * small message needs little memory whatever dictionary its frame names.
 * Block: the destination is not grown; its `alloc` must hold the expanded
 * message, else detail 4. */
int zel_decompress(void *handle, scratchcb *src, scratchcb *dst, int *err);

/* Reads the expanded length that an LZMA frame declares (bytes 5 to 12)
 * into `*size`, without checking the stream. A source shorter than the
 * header: detail 8. A block handle cannot answer: result 0, detail 2. */
int zel_compressed_size(void *handle, scratchcb *src, unsigned long long *size, int *err);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_COMPRESS_H */
