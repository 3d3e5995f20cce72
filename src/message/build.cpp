// Building messages: the header, the item writer and its doubling growth.
#include <climits>
#include <cstring>

#include "message/append.h"
#include "message/index.h"
#include "message/wire.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"

namespace zel::msg {

namespace {

// Room reserved after a new header, so that the first items do not grow the
// buffer.
constexpr int header_reserve = 1024;

bool valid_value(const sPChar &v)
{
    return v.len >= 0 && (v.data == nullptr) == (v.len == 0);
}

// Translates a pointer into the old extent of a buffer that moved.
const char *follow_move(const char *p, const char *old_base, int64_t old_len, std::ptrdiff_t moved)
{
    if (moved && p >= old_base && p < old_base + old_len)
        return p + moved;
    return p;
}

void write_item(vartocb *m, int tag, const char *value, int32_t len)
{
    scratchcb *b = m->build;
    wire::store_item(b->data + b->len, uint16_t(tag), value, len);
    b->len += ZEL_ITEM_HEADER_SIZE + len;
}

} // namespace

bool reserve_build(vartocb *m, int64_t needed, int *err, std::ptrdiff_t *moved)
{
    scratchcb *b = m->build;
    if (moved)
        *moved = 0;
    if (needed <= b->alloc)
        return true;
    if (needed > INT32_MAX) {
        *err = 4;
        return false;
    }
    const char *old = b->data;
    int64_t doubled = 2 * needed;
    if (!pset_buffer_size(b, int(doubled > INT32_MAX ? INT32_MAX : doubled), err)) {
        *err = 4;
        return false;
    }
    if (old == b->data)
        return true;
    if (moved)
        *moved = b->data - old;
    return rebuild_index(m, err);
}

bool add_items(vartocb *m, int tag, int count, const sPChar *items, int *err)
{
    if (!m->build || !valid_tag(tag) || count < 1 || !items) {
        *err = 2;
        return false;
    }
    scratchcb *b = m->build;
    int64_t needed = b->len;
    for (int i = 0; i < count; ++i)
        needed += ZEL_ITEM_HEADER_SIZE + (items[i].len > 0 ? items[i].len : 0);
    const char *old_base = b->data;
    int64_t old_len = b->len;
    std::ptrdiff_t moved = 0;
    if (!reserve_build(m, needed, err, &moved))
        return false;
    for (int i = 0; i < count; ++i) {
        if (!valid_value(items[i])) {
            *err = 2;
            return false;
        }
        const char *value = follow_move(items[i].data, old_base, old_len, moved);
        char *stored = b->data + b->len + ZEL_ITEM_HEADER_SIZE;
        if (!index_item(m, tag, stored, items[i].len, err))
            return false;
        write_item(m, tag, value, items[i].len);
        ++m->item_count;
        wire::store_u32(b->data + m->count_offset, uint32_t(m->item_count));
    }
    *err = 0;
    return true;
}

} // namespace zel::msg

using namespace zel;

namespace {

// Finds the bytes of the current message: the whole build buffer for a built
// or copied message, the message at the header offset for an in-place parse.
bool current_message(vartocb *m, int64_t *offset, int64_t *len, int *err)
{
    scratchcb *b = m->build;
    if (b != m->input) {
        *offset = 0;
        *len = b->len;
        return true;
    }
    int64_t pos = m->header_offset;
    uint32_t count = 0;
    if (pos < 0 || b->len - pos < ZEL_MSG_HEADER_SIZE) {
        *err = 4;
        return false;
    }
    if ((*err = wire::read_header(b->data, b->len, pos, count)))
        return false;
    if ((*err = wire::walk_items(b->data, b->len, pos, count, [](uint16_t, char *, int32_t) { return 0; })))
        return false;
    *offset = m->header_offset;
    *len = pos - m->header_offset;
    return true;
}

} // namespace

extern "C" {

int zel_start_msg(vartocb *m, scratchcb *out, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!out || out->len < 0) {
        *err = 2;
        return 0;
    }
    if (int64_t(out->len) + ZEL_MSG_HEADER_SIZE > out->alloc &&
        !pset_buffer_size(out, out->len + ZEL_MSG_HEADER_SIZE + msg::header_reserve, err)) {
        *err = 4;
        return 0;
    }
    m->build = out;
    msg::clear_index(m);
    m->item_count = 0;
    m->header_offset = out->len;
    m->count_offset = out->len + 2;
    wire::store_message_header(out->data + out->len, 0);
    out->len += ZEL_MSG_HEADER_SIZE;
    m->parsed = 0;
    m->msg_start = m->msg_end = 0;
    *err = 0;
    return 1;
}

int zel_add_data(vartocb *m, int tag, int count, sPChar *items, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    return msg::add_items(m, tag, count, items, err);
}

int zel_add_data_pchar(sPChar *buf, int tag, sPChar *value, int *err)
{
    err = zel::detail_slot(err);
    if (!buf || buf->len < -1 || !value || value->len < 0 || (!value->data && value->len > 0) || !msg::valid_tag(tag)) {
        *err = 2;
        return 0;
    }
    int64_t grown = (buf->len == -1 ? 0 : int64_t(buf->len)) + value->len + ZEL_ITEM_HEADER_SIZE;
    if (grown > INT32_MAX) {
        *err = 2;
        return 0;
    }
    if (buf->len == -1) {
        // A length of -1 marks a string that has no bytes yet.
        if (!mem_alloc(&buf->data, int(grown), err))
            return 0;
        buf->len = 0;
    } else if (!mem_resize(&buf->data, int(grown), err)) {
        *err = -1;
        return 0;
    }
    wire::store_item(buf->data + buf->len, uint16_t(tag), value->data, value->len);
    buf->len = int32_t(grown);
    *err = 0;
    return 1;
}

int zel_build_msg(vartocb *m, scratchcb *dst, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!dst || !m->build) {
        *err = 2;
        return 0;
    }
    int64_t offset = 0, len = 0;
    if (!current_message(m, &offset, &len, err))
        return 0;
    // Long-standing rule: a message longer than the destination's whole
    // allocation only grows the destination, and the caller calls again.
    if (len > dst->alloc && len + 256 <= INT32_MAX && pset_buffer_size(dst, int(len + 256), err))
        return 0;
    int ignored = 0;
    if (!msg::reserve_append(dst, len, &ignored)) {
        *err = 4;
        return 0;
    }
    if (len > 0)
        std::memmove(dst->data + dst->len, m->build->data + offset, size_t(len));
    dst->len += int32_t(len);
    return 1;
}

} // extern "C"
