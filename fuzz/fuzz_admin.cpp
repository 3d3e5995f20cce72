// Reads arbitrary admin text into a message, and checks that writing the
// message as admin text and reading that back is stable.
#include <cstdio>
#include <string>
#include <vector>

#include "fuzz_util.h"

namespace {

// Admin text writes values with tabs, line breaks or NULs bare, so such a
// value does not read back as one token, and a text that ends in an empty
// value does not read back at all: only other messages must round-trip.
bool round_trips(vartocb *m)
{
    int err, tag = 0, count = 0;
    bool last_empty = false;
    for (int more = zel_get_first_field(m, &tag, &count, &err); more;
         more = zel_get_next_field(m, &tag, &count, &err)) {
        for (int i = 0; i < count; ++i) {
            sPChar v;
            last_empty = !zel_get_data(m, tag, i, &v, &err);
            if (!last_empty)
                for (int k = 0; k < v.len; ++k)
                    if (v.data[k] == '\t' || v.data[k] == '\n' || v.data[k] == '\r' || v.data[k] == '\0')
                        return false;
        }
    }
    return !last_empty;
}

// Tokenises `text` (a copy is modified) and builds a message from it.
bool read_admin(vartocb *m, std::string text, scratchcb *out)
{
    std::vector<sPChar> tokens(text.size() / 2 + 2);
    sPChar whole{text.data(), int32_t(text.size())};
    int ntokens = 0, err;
    zel_get_data_triplets(tokens.data(), &ntokens, &whole);
    out->len = 0;
    return varto_from_admin(m, ntokens, tokens.data(), out, &err);
}

std::string write_admin(vartocb *m, scratchcb *text)
{
    int err;
    text->len = 0;
    if (!varto_to_admin(m, text, &err))
        return {};
    return std::string(text->data, size_t(text->len));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    scratchcb *wire = nullptr, *text = nullptr;
    int err;
    zel_open_scratch(&wire, 16, &err);
    zel_open_scratch(&text, 16, &err);
    vartocb *m = shared_vartocb();

    if (read_admin(m, std::string(reinterpret_cast<const char *>(data), size), wire) && round_trips(m)) {
        std::string first = write_admin(m, text);
        if (!read_admin(m, first, wire) || write_admin(m, text) != first) {
            std::fprintf(stderr, "admin text did not round-trip: [%s]\n", first.c_str());
            std::abort();
        }
    }

    zel_close_scratch(&wire, &err);
    zel_close_scratch(&text, &err);
    return 0;
}
