// The hub's wire framing: every frame is a 4-byte length in host byte order
// (little-endian) followed by that many bytes of one message. Shared by the
// hub worker and the hub server. Single-threaded; no lock.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

#include "message/wire.h"

namespace zel::hub {

constexpr int frame_header_size = 4;
// A length at or above this (or negative) means the stream is broken.
constexpr int64_t broken_frame_length = 0x40000000;

inline void put_frame_length(char *at, uint32_t length)
{
    std::memcpy(at, &length, frame_header_size);
}

inline int32_t frame_length(const char *at)
{
    int32_t length;
    std::memcpy(&length, at, frame_header_size);
    return length;
}

// The result of cutting the complete frames off the front of some bytes.
struct Cut {
    int64_t consumed; // bytes of whole frames, headers included
    int64_t frames;
    bool broken;      // a length was negative or too large: drop the stream
    int64_t needed;   // bytes the next frame needs in all (header included), 0 if unknown
};

// Calls `on_frame(const char *message, int32_t length)` for each complete
// frame at the start of `bytes`, in order, and tells how far it got.
template <typename OnFrame>
Cut cut_frames(const char *bytes, int64_t size, OnFrame &&on_frame)
{
    Cut cut{0, 0, false, 0};
    while (size - cut.consumed >= frame_header_size) {
        int32_t length = frame_length(bytes + cut.consumed);
        if (length < 0 || length >= broken_frame_length) {
            cut.broken = true;
            return cut;
        }
        int64_t whole = frame_header_size + int64_t(length);
        if (size - cut.consumed < whole) {
            cut.needed = whole;
            return cut;
        }
        on_frame(bytes + cut.consumed + frame_header_size, length);
        cut.consumed += whole;
        ++cut.frames;
    }
    return cut;
}

// One whole frame holding a message of the given fields, for the few fixed
// messages the hub's peers exchange (announce, heartbeat).
inline std::string make_frame(std::initializer_list<std::pair<uint16_t, std::string_view>> fields)
{
    size_t size = frame_header_size + ZEL_MSG_HEADER_SIZE;
    for (const auto &field : fields)
        size += ZEL_ITEM_HEADER_SIZE + field.second.size();
    std::string frame(size, '\0');
    put_frame_length(frame.data(), uint32_t(size - frame_header_size));
    char *at = frame.data() + frame_header_size;
    wire::store_message_header(at, uint32_t(fields.size()));
    at += ZEL_MSG_HEADER_SIZE;
    for (const auto &[tag, value] : fields) {
        wire::store_item(at, tag, value.data(), int32_t(value.size()));
        at += ZEL_ITEM_HEADER_SIZE + value.size();
    }
    return frame;
}

} // namespace zel::hub
