// The admin text form of a message: writing it, reading it back, and
// printing it.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "message/append.h"
#include "message/index.h"
#include "message/wire.h"
#include "platform/detail_slot.h"

using namespace zel;

namespace {

// Room the text of an item needs beyond its quoted value: tag digits, the
// count, quotes and blanks.
constexpr int64_t item_text_overhead = 16;

char *write_decimal(char *at, unsigned value)
{
    char digits[10];
    int n = 0;
    do {
        digits[n++] = char('0' + value % 10);
        value /= 10;
    } while (value);
    while (n)
        *at++ = digits[--n];
    return at;
}

// Appends one item as "tag 0 " (empty) or "tag 1 value ", quoting a value
// that holds a blank or a quote and doubling its quotes.
bool append_item_text(scratchcb *out, int tag, const char *value, int32_t len, int *err)
{
    bool quote = false;
    int32_t quotes = 0;
    for (int32_t i = 0; i < len; ++i) {
        quote |= value[i] == ' ';
        quotes += value[i] == '\'';
    }
    quote |= quotes > 0;
    if (!msg::reserve_append(out, item_text_overhead + len + quotes, err))
        return false;
    char *at = write_decimal(out->data + out->len, unsigned(tag));
    if (len == 0) {
        std::memcpy(at, " 0 ", 3);
        at += 3;
    } else {
        std::memcpy(at, " 1 ", 3);
        at += 3;
        if (!quote) {
            std::memcpy(at, value, size_t(len));
            at += len;
        } else {
            *at++ = '\'';
            for (int32_t i = 0; i < len; ++i) {
                if (value[i] == '\'')
                    *at++ = '\'';
                *at++ = value[i];
            }
            *at++ = '\'';
        }
        *at++ = ' ';
    }
    out->len = int32_t(at - out->data);
    return true;
}

// Checks the arguments and the header of the message in the build buffer, and
// sizes `out` for its text the way the writers always have: the message's
// bytes plus four per item plus `slack`. The text may not be written into the
// buffer it is read from.
bool prepare_text(vartocb *m, scratchcb *out, int64_t slack, int unreadable, int *err)
{
    if (!m) {
        *err = 1;
        return false;
    }
    if (!out || out == m->build) {
        *err = 2;
        return false;
    }
    scratchcb *b = m->build;
    int64_t pos = m->header_offset;
    uint32_t count = 0;
    if (!b || !b->data || pos < 0 || b->len - pos < ZEL_MSG_HEADER_SIZE) {
        *err = unreadable;
        return false;
    }
    if ((*err = wire::read_header(b->data, b->len, pos, count)))
        return false;
    int64_t estimate = (b->len - m->header_offset) + 4 * int64_t(m->item_count) + slack;
    if (estimate > out->alloc && (estimate > INT32_MAX || !pset_buffer_size(out, int(estimate), err))) {
        *err = 4;
        return false;
    }
    return true;
}

// Adds `count` values of `tag` from `values` to the message, or one empty
// item when `count` is 0.
bool add_text_values(vartocb *m, int tag, int count, sPChar *values, int *err)
{
    sPChar empty{nullptr, 0};
    return count == 0 ? msg::add_items(m, tag, 1, &empty, err) : msg::add_items(m, tag, count, values, err);
}

bool write_message_file(const std::string &path, const scratchcb *text)
{
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (fd < 0)
        return false;
    const char *at = text->data;
    size_t left = size_t(text->len);
    while (left > 0) {
        ssize_t n = ::write(fd, at, left);
        if (n <= 0) {
            ::close(fd);
            return false;
        }
        at += n;
        left -= size_t(n);
    }
    return ::close(fd) == 0;
}

} // namespace

extern "C" {

int varto_to_admin(vartocb *m, scratchcb *out, int *err)
{
    err = zel::detail_slot(err);
    if (!prepare_text(m, out, 256, 2, err))
        return 0;
    for (int32_t i = 0; i < m->tag_count; ++i) {
        int tag = m->tags[i];
        for (const sVartoItem *item = &m->slots[tag].first; item; item = item->next)
            if (!append_item_text(out, tag, item->data, item->len, err))
                return 0;
    }
    *err = 0;
    return 1;
}

int varto_to_printable_admin(vartocb *m, scratchcb *out, int, int *err)
{
    err = zel::detail_slot(err);
    if (!prepare_text(m, out, 512, 4, err))
        return 0;
    scratchcb *b = m->build;
    int64_t pos = m->header_offset;
    uint32_t count = 0;
    wire::read_header(b->data, b->len, pos, count);
    *err = wire::walk_items(b->data, b->len, pos, count, [out](uint16_t tag, char *value, int32_t len) {
        int detail = 0;
        return append_item_text(out, tag, value, len, &detail) ? 0 : detail;
    });
    if (*err || !msg::reserve_append(out, 1, err))
        return 0;
    out->data[out->len] = '\0';
    return 1;
}

int varto_from_admin(vartocb *m, int ntokens, sPChar *tokens, scratchcb *out, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !out) {
        *err = 1;
        return 0;
    }
    if (!tokens || ntokens == 1 || ntokens < 0) {
        *err = 2;
        return 0;
    }
    if (!zel_start_msg(m, out, err))
        return 0;
    int i = 0;
    while (i < ntokens) {
        int tag = 0, count = 0;
        if (i + 1 >= ntokens || !pchars_to_int(&tag, &tokens[i], err) ||
            !pchars_to_int(&count, &tokens[i + 1], err) || count < 0) {
            *err = 2;
            return 0;
        }
        // A triplet needs its values, and one with count 0 a token after it:
        // the reader has always required that.
        if (int64_t(i) + 1 + (count > 0 ? count : 1) >= ntokens) {
            *err = 2;
            return 0;
        }
        if (!add_text_values(m, tag, count, &tokens[i + 2], err))
            return 0;
        i += 2 + count;
    }
    *err = 0;
    return 1;
}

int read_mnm_couplets(void *pair, int argc, const char **argv, int *err)
{
    err = zel::detail_slot(err);
    if (!pair) {
        *err = 1;
        return 0;
    }
    vartocb *m = static_cast<vartocb **>(pair)[0];
    scratchcb *out = static_cast<scratchcb **>(pair)[1];
    if (!argv || argc < 0) {
        *err = 2;
        return 0;
    }
    if (!m || !out) {
        *err = 1;
        return 0;
    }
    out->len = 0;
    if (!zel_start_msg(m, out, err))
        return 0;
    enum { expect_tag, expect_count, expect_values } state = expect_tag;
    int tag = 0, values_left = 0;
    for (int k = 0; k < argc; ++k) {
        const char *arg = argv[k];
        if (!arg) {
            *err = 2;
            return 0;
        }
        if (state != expect_values && !isstrnum(arg))
            return 0; // the detail is not written here, as callers have always seen
        if (state == expect_tag) {
            tag = std::atoi(arg);
            state = expect_count;
        } else if (state == expect_count) {
            values_left = std::atoi(arg);
            if (values_left < 0) {
                *err = 2;
                return 0;
            }
            if (values_left == 0 && !add_text_values(m, tag, 0, nullptr, err))
                return 0;
            state = values_left == 0 ? expect_tag : expect_values;
        } else {
            sPChar value{const_cast<char *>(arg), int32_t(std::strlen(arg))};
            if (!msg::add_items(m, tag, 1, &value, err))
                return 0;
            if (--values_left == 0)
                state = expect_tag;
        }
    }
    if (state != expect_tag) {
        *err = 2;
        return 0;
    }
    *err = 0;
    return 1;
}

int zel_parse_print_msg(vartocb *m, sPChar *dest, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!dest || !dest->data || dest->len <= 0) {
        *err = 2;
        return 0;
    }
    scratchcb *text = nullptr;
    if (!zel_open_scratch(&text, 4096, err))
        return 0;
    bool ok = varto_to_admin(m, text, err) && msg::append_bytes(text, "\n", 1, err);
    std::string target(dest->data, size_t(dest->len));
    if (ok && target == "stdout") {
        std::printf("%.*s", int(text->len), text->data);
        std::fflush(stdout);
    } else if (ok && !write_message_file(target, text)) {
        *err = 2;
        ok = false;
    }
    int ignored;
    zel_close_scratch(&text, &ignored);
    if (ok)
        *err = 0;
    return ok;
}

} // extern "C"
