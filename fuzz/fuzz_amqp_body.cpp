// A delivery body as a broker hands it over, marked compressed: the first
// byte picks the receiving connection's mode (0 and 1 expand with LZMA, 2
// with the block codec), the rest is the body. Whatever the body claims, it
// expands to exactly what it declares or is refused.
#include "fuzz_util.h"
#include "message/wire.h"
#include "transport/amqp/body_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    static zel::amqp::BodyCodec codecs[3] = {zel::amqp::BodyCodec(0), zel::amqp::BodyCodec(1),
                                             zel::amqp::BodyCodec(2)};
    zel::amqp::BodyCodec &codec = codecs[data[0] % 3];
    const char *body = reinterpret_cast<const char *>(data + 1);
    const scratchcb *message = codec.unpack(body, size - 1);
    if (message && (message->len < 0 || message->len > message->alloc))
        __builtin_trap();
    if (message && data[0] % 3 == 2 && size >= 5 && uint32_t(message->len) != zel::wire::load_u32(body))
        __builtin_trap();
    return 0;
}
