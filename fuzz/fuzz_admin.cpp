// Reads arbitrary admin text into a message, and checks that writing the
// message as admin text and reading that back is stable.
#include <string>
#include <string_view>
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
            sPChar v{};
            last_empty = !zel_get_data(m, tag, i, &v, &err);
            if (std::string_view(v.data, size_t(v.len)).find_first_of({"\t\n\r\0", 4}) != std::string_view::npos)
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
    return varto_to_admin(m, text, &err) ? std::string(text->data, size_t(text->len)) : std::string();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    OwnedScratch wire, text;
    vartocb *m = shared_vartocb();
    if (read_admin(m, std::string(reinterpret_cast<const char *>(data), size), wire.s) && round_trips(m)) {
        std::string first = write_admin(m, text.s);
        bool again = read_admin(m, first, wire.s) && write_admin(m, text.s) == first;
        require(again, "admin text did not round-trip: [%s]\n", first.c_str());
    }
    return 0;
}
