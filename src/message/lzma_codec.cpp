// The LZMA codec: the SDK's stream inside the classic stand-alone frame
// (5 property bytes, 8-byte little-endian length, stream without end marker),
// decoded in 64 KiB steps. The encoder lives in the handle, which one thread
// uses at a time; decoding keeps all its state on the call.
#include <LzmaDec.h>
#include <LzmaEnc.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "message/compress_handle.h"
#include "platform/memory.h"

using zel::codec::fail;
using zel::codec::Handle;
using zel::codec::succeed;

namespace {

constexpr int kPropsSize = ZEL_LZMA_PROPS_SIZE;
constexpr int kHeaderSize = ZEL_LZMA_HEADER_SIZE;
constexpr size_t kChunk = ZEL_LZMA_CHUNK;
// What the SDK takes for "size not known": its default.
constexpr UInt32 kUnknownSize = UInt32(-1);

// The SDK draws its working memory from the platform allocator like the rest
// of the library. That allocator counts in int32, so a larger request is
// refused as a failed allocation would be.
void *sdk_alloc(void *, size_t size)
{
    void *block = nullptr;
    int detail;
    if (size > size_t(INT32_MAX) || !zel::mem_alloc(&block, int(std::max<size_t>(size, 1)), &detail))
        return nullptr;
    return block;
}

void sdk_free(void *, void *block)
{
    int detail;
    if (block)
        zel::mem_free(&block, &detail);
}

ISzAlloc platform_alloc = {sdk_alloc, sdk_free};

Byte *bytes(char *p)
{
    return reinterpret_cast<Byte *>(p);
}

// The frame's numbers are little-endian whatever the host: the length takes
// 8 bytes, the dictionary size inside the properties 4.
void store_le(char *p, uint64_t v, int n)
{
    for (int i = 0; i < n; ++i)
        p[i] = char(v >> (8 * i));
}

uint64_t load_le(const char *p, int n)
{
    uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i)
        v = v << 8 | uint8_t(p[i]);
    return v;
}

// The SDK's default properties, with the dictionary fitted to a message of
// `expected` bytes: a window larger than the message is never used, yet the
// encoder would allocate and clear match tables for it on every call.
SRes set_properties(CLzmaEncHandle encoder, UInt32 expected)
{
    CLzmaEncProps props;
    LzmaEncProps_Init(&props);
    props.reduceSize = expected;
    return LzmaEnc_SetProps(encoder, &props);
}

// Writes the frame of `src` into `dst`, the stream taking at most `room`
// bytes after the header.
int encode_frame(Handle *h, scratchcb *src, scratchcb *dst, int64_t room, int *err)
{
    dst->len = 0;
    if (room <= 0)
        return fail(err, 4);
    SizeT props_size = kPropsSize;
    if (set_properties(h->encoder, UInt32(src->len)) != SZ_OK ||
        LzmaEnc_WriteProperties(h->encoder, bytes(dst->data), &props_size) != SZ_OK)
        return fail(err, 4);
    store_le(dst->data + kPropsSize, uint64_t(src->len), 8);
    SizeT written = SizeT(room);
    SRes res = LzmaEnc_MemEncode(h->encoder, bytes(dst->data) + kHeaderSize, &written, bytes(src->data),
                                 SizeT(src->len), 0, nullptr, &platform_alloc, &platform_alloc);
    dst->len = int32_t(written);
    if (res != SZ_OK)
        return fail(err, res == SZ_ERROR_MEM ? 1 : 4);
    dst->len += kHeaderSize;
    return succeed(err);
}

int lzma_compress(Handle *h, scratchcb *src, scratchcb *dst, int *err)
{
    // The stream must fit after the header both within the source's length
    // (compressing must pay for the header) and within the destination.
    return encode_frame(h, src, dst, int64_t(std::min(src->len, dst->alloc)) - kHeaderSize, err);
}

// Appends one decoded step to `dst`, growing it to exactly the new length;
// false when it cannot grow. The declared length is at most INT32_MAX, so the
// sum cannot overflow.
bool append_step(scratchcb *dst, const Byte *step, size_t n)
{
    int32_t end = dst->len + int32_t(n);
    int detail = 0;
    if (end > dst->alloc && !pset_buffer_size(dst, end, &detail))
        return false;
    std::memcpy(dst->data + dst->len, step, n);
    dst->len = end;
    return true;
}

// The decoder state and the 64 KiB output step of one decompress call,
// released together however the call ends.
class FrameDecoder {
public:
    FrameDecoder() { LzmaDec_Construct(&state_); }
    ~FrameDecoder()
    {
        LzmaDec_Free(&state_, &platform_alloc);
        sdk_free(nullptr, step_);
    }
    FrameDecoder(const FrameDecoder &) = delete;
    FrameDecoder &operator=(const FrameDecoder &) = delete;

    // Allocates the state for the frame's properties. Returns a detail code.
    int open(const char *frame, uint64_t declared)
    {
        char props[kPropsSize];
        std::memcpy(props, frame, kPropsSize);
        cap_window(props, declared);
        SRes res = LzmaDec_Allocate(&state_, bytes(props), kPropsSize, &platform_alloc);
        if (res != SZ_OK)
            return res == SZ_ERROR_UNSUPPORTED ? 6 : 1;
        step_ = static_cast<Byte *>(sdk_alloc(nullptr, kChunk));
        if (!step_)
            return 1;
        LzmaDec_Init(&state_);
        return 0;
    }

    // Decodes `in` into `dst` until `declared` bytes are restored, feeding
    // the decoder at most 64 KiB of input per step. Returns a detail code.
    int restore(const Byte *in, size_t in_left, uint64_t declared, scratchcb *dst)
    {
        uint64_t remaining = declared;
        for (;;) {
            SizeT in_len = std::min(in_left, kChunk);
            SizeT out_len = SizeT(std::min<uint64_t>(remaining, kChunk));
            // Once the rest of the message fits this step, the stream must end with it.
            ELzmaFinishMode mode = remaining <= kChunk ? LZMA_FINISH_END : LZMA_FINISH_ANY;
            ELzmaStatus status;
            SRes res = LzmaDec_DecodeToBuf(&state_, step_, &out_len, in, &in_len, mode, &status);
            in += in_len;
            in_left -= in_len;
            remaining -= out_len;
            if (out_len && !append_step(dst, step_, out_len))
                return 1;
            if (res != SZ_OK) // stepping through a stream fails only on bad data
                return 7;
            if (remaining == 0)
                return ended_cleanly(status) && in_left == 0 ? 0 : 7;
            if (in_len == 0 && out_len == 0)
                return 8;
        }
    }

private:
    // A window longer than the message is never reached, so a frame that
    // names a huge dictionary for a small message costs no more memory than
    // the message itself (the SDK raises it to its 4 KiB minimum).
    static void cap_window(char *props, uint64_t declared)
    {
        if (load_le(props + 1, 4) > declared)
            store_le(props + 1, declared, 4);
    }

    static bool ended_cleanly(ELzmaStatus status)
    {
        return status == LZMA_STATUS_MAYBE_FINISHED_WITHOUT_MARK || status == LZMA_STATUS_FINISHED_WITH_MARK;
    }

    CLzmaDec state_;
    Byte *step_ = nullptr;
};

int lzma_decompress(Handle *, scratchcb *src, scratchcb *dst, int *err)
{
    dst->len = 0;
    if (src->len < kHeaderSize)
        return fail(err, 8);
    uint64_t declared = load_le(src->data + kPropsSize, 8);
    if (declared > uint64_t(INT32_MAX))
        return fail(err, 7);
    FrameDecoder decoder;
    int detail = decoder.open(src->data, declared);
    if (detail == 0)
        detail = decoder.restore(bytes(src->data) + kHeaderSize, size_t(src->len - kHeaderSize), declared, dst);
    return detail == 0 ? succeed(err) : fail(err, detail);
}

int lzma_size_of(Handle *, scratchcb *src, unsigned long long *size, int *err)
{
    if (src->len < kHeaderSize)
        return fail(err, 8);
    *size = load_le(src->data + kPropsSize, 8);
    return succeed(err);
}

} // namespace

namespace zel::codec {

bool install_lzma(Handle *h, int *err)
{
    h->encoder = LzmaEnc_Create(&platform_alloc);
    if (!h->encoder || set_properties(h->encoder, kUnknownSize) != SZ_OK) {
        release_lzma(h);
        *err = 5;
        return false;
    }
    h->compress = lzma_compress;
    h->decompress = lzma_decompress;
    h->size_of = lzma_size_of;
    return true;
}

int lzma_frame(Handle *h, scratchcb *src, scratchcb *dst, int *err)
{
    return encode_frame(h, src, dst, int64_t(dst->alloc) - kHeaderSize, err);
}

void release_lzma(Handle *h)
{
    if (h->encoder)
        LzmaEnc_Destroy(h->encoder, &platform_alloc, &platform_alloc);
    h->encoder = nullptr;
}

} // namespace zel::codec
