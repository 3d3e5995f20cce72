// The message's byte layout: header and item readers shared by every parser,
// the builder and the text writers. Single-threaded; no lock.
#pragma once

#include <zel/message.h>

#include <cstdint>
#include <cstring>

namespace zel::wire {

inline uint16_t load_u16(const char *p)
{
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

inline uint32_t load_u32(const char *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline void store_u16(char *p, uint16_t v)
{
    std::memcpy(p, &v, 2);
}

inline void store_u32(char *p, uint32_t v)
{
    std::memcpy(p, &v, 4);
}

// Writes a message header announcing `count` items at `at`.
inline void store_message_header(char *at, uint32_t count)
{
    store_u16(at, ZEL_MSG_MAGIC);
    store_u32(at + 2, count);
}

// Writes one item (tag, length, value) at `at`, which has room for it.
inline void store_item(char *at, uint16_t tag, const char *value, int32_t len)
{
    store_u16(at, tag);
    store_u32(at + 2, uint32_t(len));
    if (len > 0)
        std::memcpy(at + ZEL_ITEM_HEADER_SIZE, value, size_t(len));
}

// Reads the message header at `pos` and steps past it. Detail 2 for a header
// that runs past `end` or carries another magic.
inline int read_header(const char *data, int64_t end, int64_t &pos, uint32_t &count)
{
    if (pos < 0 || end - pos < ZEL_MSG_HEADER_SIZE)
        return 2;
    if (load_u16(data + pos) != ZEL_MSG_MAGIC)
        return 2;
    count = load_u32(data + pos + 2);
    pos += ZEL_MSG_HEADER_SIZE;
    return 0;
}

// Calls `visit(tag, value, length)` for `count` items from `pos`, deleted
// ones included, and leaves `pos` after the last. An item whose header or
// value runs past `end` stops the walk with detail 2; a non-zero detail from
// `visit` stops it with that detail. The arithmetic is 64-bit, so no length
// near 2^32 can wrap a bound.
template <typename Visit>
int walk_items(char *data, int64_t end, int64_t &pos, uint32_t count, Visit &&visit)
{
    for (uint32_t k = 0; k < count; ++k) {
        if (end - pos < ZEL_ITEM_HEADER_SIZE)
            return 2;
        uint16_t tag = load_u16(data + pos);
        uint32_t len = load_u32(data + pos + 2);
        if (uint64_t(end - pos - ZEL_ITEM_HEADER_SIZE) < len)
            return 2;
        if (int detail = visit(tag, data + pos + ZEL_ITEM_HEADER_SIZE, int32_t(len)))
            return detail;
        pos += ZEL_ITEM_HEADER_SIZE + int64_t(len);
    }
    return 0;
}

// Whether `data` holds exactly one whole message: a header, every item it
// announces within `len`, and no byte after the last. A peer parses what is
// sent as such; anything else would break the stream for every message
// behind it.
inline bool holds_one_message(const char *data, int64_t len)
{
    int64_t pos = 0;
    uint32_t count = 0;
    if (!data || read_header(data, len, pos, count) != 0)
        return false;
    auto accept = [](uint16_t, char *, int32_t) { return 0; };
    return walk_items(const_cast<char *>(data), len, pos, count, accept) == 0 && pos == len;
}

} // namespace zel::wire
