// Messages for tests: built from (tag, value) lists with the library, and
// shown as admin text.
#pragma once

#include <zel/message.h>

#include <string>
#include <utility>
#include <vector>

namespace zel::test {

using Fields = std::vector<std::pair<int, std::string>>;

// One message in wire form.
inline std::string build_message(const Fields &fields)
{
    int err = 0;
    vartocb *m = nullptr;
    scratchcb *out = nullptr;
    zel_ctor_vartocb(&m, &err);
    zel_open_scratch(&out, 64, &err);
    zel_start_msg(m, out, &err);
    for (const auto &[tag, value] : fields) {
        sPChar v{value.empty() ? nullptr : const_cast<char *>(value.data()), int32_t(value.size())};
        zel_add_data(m, tag, 1, &v, &err);
    }
    std::string bytes(out->data, size_t(out->len));
    zel_close_scratch(&out, &err);
    zel_dtor_vartocb(&m, &err);
    return bytes;
}

// `bytes` as a buffer for the library to read; the string stays its owner.
inline scratchcb scratch_of(const std::string &bytes)
{
    int32_t size = int32_t(bytes.size());
    return scratchcb{size, size, size, const_cast<char *>(bytes.data())};
}

// The admin text of a parsed message.
inline std::string admin_text(vartocb *m)
{
    int err = 0;
    scratchcb *text = nullptr;
    zel_open_scratch(&text, 256, &err);
    varto_to_admin(m, text, &err);
    std::string out(text->data, size_t(text->len));
    zel_close_scratch(&text, &err);
    return out;
}

// The admin text of a message in wire form.
inline std::string admin_text(const std::string &bytes)
{
    int err = 0;
    vartocb *m = nullptr;
    zel_ctor_vartocb(&m, &err);
    scratchcb in = scratch_of(bytes);
    std::string out = zel_parse_msg(m, &in, &err) ? admin_text(m) : "(unparsable)";
    zel_dtor_vartocb(&m, &err);
    return out;
}

} // namespace zel::test
