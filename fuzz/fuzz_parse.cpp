// Walks every message of an arbitrary buffer, in place and into a copy, and
// reads and renders each one.
#include "fuzz_util.h"

namespace {

void walk(vartocb *m, scratchcb *in, scratchcb *copy, scratchcb *text)
{
    int err;
    for (int ok = zel_parse_first_msg(m, copy, in, &err); ok; ok = zel_parse_next_msg(m, copy, &err)) {
        read_every_field(m);
        sPChar whole;
        zel_get_parsed_msg(m, &whole, &err);
        text->len = 0;
        varto_to_admin(m, text, &err);
        varto_to_printable_admin(m, text, 0, &err);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ExactScratch in(data, size);
    OwnedScratch copy, text, rebuilt;
    int err;
    vartocb *m = shared_vartocb();

    walk(m, &in.s, nullptr, text.s);
    walk(m, &in.s, copy.s, text.s);

    // The first message, parsed in place, copied out again.
    if (zel_parse_msg(m, &in.s, &err)) {
        if (!zel_build_msg(m, rebuilt.s, &err))
            zel_build_msg(m, rebuilt.s, &err);
        vartocb *again = shared_vartocb(1);
        if (zel_parse_msg(again, rebuilt.s, &err))
            read_every_field(again);
    }
    return 0;
}
