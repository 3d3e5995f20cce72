// Filtered parses of an arbitrary buffer. The first byte chooses how many
// tags the filter lists (taken from the next bytes); the rest is the message.
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    int ntags = data[0] % 8;
    if (size < 1 + 2 * size_t(ntags))
        return 0;
    int tags[8];
    for (int i = 0; i < ntags; ++i)
        tags[i] = data[1 + 2 * i] | (data[2 + 2 * i] << 8);
    size_t skip = 1 + 2 * size_t(ntags);
    ExactScratch in(data + skip, size - skip);

    OwnedScratch out(8);
    int err;
    vartocb *m = shared_vartocb();

    zel_start_msg(m, out.s, &err);
    if (zel_parse_interested_field_in_msg(m, &in.s, tags, ntags, &err))
        read_every_field(m);
    out.s->len = 0;
    zel_start_msg(m, out.s, &err);
    if (zel_parse_uninterested_field_in_msg(m, &in.s, tags, ntags, &err))
        read_every_field(m);
    return 0;
}
