// Compressed message bodies. A connection's compression mode decides how the
// bodies it publishes are packed: mode 0 sends the message as it is
// ("zel"); mode 1 sends an LZMA frame and mode 2 the original length (4 bytes,
// little-endian) followed by a block-codec block, both marked "zelz". A "zelz"
// body that arrives is expanded with the receiving connection's own codec
// (LZMA unless its mode is 2). Used by the worker thread only.
#pragma once

#include <zel/types.h>

#include <cstdint>
#include <string_view>

namespace zel::amqp {

constexpr std::string_view plain_content = "zel";
constexpr std::string_view compressed_content = "zelz";

class BodyCodec {
public:
    explicit BodyCodec(int mode);
    ~BodyCodec();
    BodyCodec(const BodyCodec &) = delete;
    BodyCodec &operator=(const BodyCodec &) = delete;

    bool compresses() const { return mode_ == 1 || mode_ == 2; }
    // The content type of the data messages this connection publishes.
    std::string_view content_type() const { return compresses() ? compressed_content : plain_content; }

    // The body to publish for `len` message bytes: the message itself, or
    // its packed form. Null when it cannot be packed (the alert is raised).
    // Valid until the next call.
    const scratchcb *pack(const char *message, int32_t len);
    // The message in a "zelz" body; null when the body does not expand to
    // what it declares. Valid until the next call.
    const scratchcb *unpack(const char *body, size_t len);

private:
    bool ensure_room(scratchcb *buffer, int64_t bytes);

    int mode_;
    void *lzma_ = nullptr;  // mode 0 and 1 expand with LZMA, mode 1 also packs
    void *block_ = nullptr; // mode 2
    scratchcb source_{};
    scratchcb out_{};
};

} // namespace zel::amqp
