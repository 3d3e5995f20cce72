// Packing and expanding message bodies.
#include "transport/amqp/body_codec.h"

#include <zel/compress.h>

#include <lz4.h>

#include <cstring>

#include "api/alert.h"
#include "message/compress_handle.h"
#include "message/wire.h"

namespace zel::amqp {

namespace {

constexpr int length_prefix = 4;
constexpr uint64_t max_block_ratio = 255;
// The largest message a compressed body may expand to. A few hundred bytes
// of LZMA can claim, and really expand to, gigabytes: a delivery must not be
// able to take the process's memory.
constexpr uint64_t largest_message = 64 * 1024 * 1024;

void *open_codec(int type)
{
    void *handle = nullptr;
    int err = 0;
    if (!zel_compress_open(&handle, &type, &err))
        alert("Compression handle open failed: compressed bodies cannot be handled");
    return handle;
}

} // namespace

BodyCodec::BodyCodec(int mode) : mode_(mode)
{
    if (mode == 2)
        block_ = open_codec(ZEL_COMPRESS_BLOCK);
    else
        lzma_ = open_codec(ZEL_COMPRESS_LZMA);
}

BodyCodec::~BodyCodec()
{
    int err = 0;
    if (lzma_)
        zel_compress_close(&lzma_, &err);
    if (block_)
        zel_compress_close(&block_, &err);
    punset_buffer_size(&out_, &err);
}

bool BodyCodec::ensure_room(scratchcb *buffer, int64_t bytes)
{
    int err = 0;
    return bytes <= int64_t(largest_message) && (buffer->alloc >= bytes || pset_buffer_size(buffer, int(bytes), &err));
}

const scratchcb *BodyCodec::pack(const char *message, int32_t len)
{
    source_.data = const_cast<char *>(message);
    source_.len = source_.alloc = source_.size = len;
    if (!compresses())
        return &source_;
    int err = 0;
    bool packed = false;
    if (mode_ == 1 && lzma_) {
        // LZMA may grow a message that does not compress; the frame is sent
        // all the same, since the receiver expects one.
        packed = ensure_room(&out_, int64_t(len) + len / 2 + 4096) &&
                 codec::lzma_frame(static_cast<codec::Handle *>(lzma_), &source_, &out_, &err);
    } else if (mode_ == 2 && block_) {
        packed = ensure_room(&out_, length_prefix + int64_t(LZ4_compressBound(len)));
        if (packed) {
            scratchcb block{0, 0, out_.alloc - length_prefix, out_.data + length_prefix};
            packed = zel_compress(block_, &source_, &block, &err);
            wire::store_u32(out_.data, uint32_t(len));
            out_.len = length_prefix + block.len;
        }
    }
    if (!packed) {
        alert("Message body compression failed: the message is not sent");
        return nullptr;
    }
    return &out_;
}

const scratchcb *BodyCodec::unpack(const char *body, size_t len)
{
    if (len > largest_message)
        return nullptr;
    int err = 0;
    if (mode_ == 2) {
        if (!block_ || len < length_prefix)
            return nullptr;
        uint32_t declared = wire::load_u32(body);
        // A block expands at most 255 times: a larger claim is a lie, and
        // must not make us allocate it.
        if (declared > (len - length_prefix) * max_block_ratio + 16 || !ensure_room(&out_, declared))
            return nullptr;
        scratchcb block{int32_t(len - length_prefix), 0, int32_t(len - length_prefix),
                        const_cast<char *>(body) + length_prefix};
        scratchcb room{0, 0, int32_t(declared), out_.data};
        if (declared == 0 || !zel_decompress(block_, &block, &room, &err) || room.len != int32_t(declared))
            return nullptr;
        out_.len = room.len;
        return &out_;
    }
    source_.data = const_cast<char *>(body);
    source_.len = source_.alloc = source_.size = int32_t(len);
    unsigned long long declared = 0;
    if (!lzma_ || !zel_compressed_size(lzma_, &source_, &declared, &err) || declared > largest_message ||
        !zel_decompress(lzma_, &source_, &out_, &err) || uint64_t(out_.len) != declared)
        return nullptr;
    return &out_;
}

} // namespace zel::amqp
