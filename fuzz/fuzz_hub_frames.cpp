// A hub byte stream as a worker reads it: the input arrives in two reads
// (the first byte says where it is split), complete frames are cut off the
// front after each read, and every frame's message is parsed and read.
#include <vector>

#include "fuzz_util.h"
#include "transport/hub/framing.h"

namespace {

void parse_frame(const char *message, int32_t length)
{
    ExactScratch in(reinterpret_cast<const uint8_t *>(message), size_t(length));
    int err;
    vartocb *m = shared_vartocb();
    if (zel_parse_msg(m, &in.s, &err))
        read_every_field(m);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    size_t split = 1 + (size_t(data[0]) * (size - 1)) / 255;
    std::vector<char> received;
    for (auto [from, to] : {std::pair{size_t(1), split}, std::pair{split, size}}) {
        received.insert(received.end(), data + from, data + to);
        zel::hub::Cut cut = zel::hub::cut_frames(received.data(), int64_t(received.size()), parse_frame);
        if (cut.broken)
            return 0;
        received.erase(received.begin(), received.begin() + cut.consumed);
    }
    return 0;
}
