// Message-level copies: all fields but the transport's, a merge of changed
// fields, and the whole build buffer.
#include <cstdarg>
#include <cstring>
#include <vector>

#include "message/append.h"
#include "message/index.h"
#include "message/wire.h"
#include "platform/detail_slot.h"

using namespace zel;

namespace {

struct Change {
    int tag;
    sPChar value;
    bool done;
};

// The caller's lists of varto_copy_changed_fields; each is appended at its
// own count, and a null list is not kept.
struct MergeLists {
    int *all_tags, *n_all_tags;
    sPChar *all_values;
    int *n_all_values;
    int *kept_tags, *n_kept_tags;

    void seen(int tag, sPChar value) const
    {
        if (all_tags && n_all_tags)
            all_tags[(*n_all_tags)++] = tag;
        if (all_values && n_all_values)
            all_values[(*n_all_values)++] = value;
    }
    void kept(int tag) const
    {
        if (kept_tags && n_kept_tags)
            kept_tags[(*n_kept_tags)++] = tag;
    }
};

sPChar first_value(vartocb *m, int tag, int *detail)
{
    sPChar value{nullptr, 0};
    zel_get_data(m, tag, 0, &value, detail);
    return value;
}

bool same_bytes(const sPChar &a, const sPChar &b)
{
    return a.len == b.len && (a.len == 0 || std::memcmp(a.data, b.data, size_t(a.len)) == 0);
}

// Replaces the value of the item at `pos` (header included) by `value`,
// moving the rest of the buffer when the length changes.
bool rewrite_value(scratchcb *b, int64_t pos, const sPChar &value, int *err)
{
    int64_t old_len = wire::load_u32(b->data + pos + 2);
    int64_t delta = value.len - old_len;
    if (b->len + delta > b->alloc) {
        if (b->len + delta + 1024 > INT32_MAX || !pset_buffer_size(b, int(b->len + delta + 1024), err)) {
            *err = 4;
            return false;
        }
    }
    char *at = b->data + pos + ZEL_ITEM_HEADER_SIZE;
    std::memmove(at + value.len, at + old_len, size_t(b->len - (pos + ZEL_ITEM_HEADER_SIZE + old_len)));
    wire::store_u32(b->data + pos + 2, uint32_t(value.len));
    if (value.len > 0)
        std::memcpy(at, value.data, size_t(value.len));
    b->len += int32_t(delta);
    return true;
}

// Rewrites, in buffer order, the first item of every changed tag, then
// indexes the message again.
bool apply_changes(vartocb *m, std::vector<Change> &changes, int *err)
{
    scratchcb *b = m->build;
    int64_t pos = m->header_offset;
    uint32_t count = 0;
    if ((*err = wire::read_header(b->data, b->len, pos, count)))
        return false;
    size_t left = changes.size();
    for (uint32_t k = 0; k < count && left > 0; ++k) {
        if (b->len - pos < ZEL_ITEM_HEADER_SIZE ||
            uint64_t(b->len - pos - ZEL_ITEM_HEADER_SIZE) < wire::load_u32(b->data + pos + 2)) {
            *err = 2;
            return false;
        }
        int tag = wire::load_u16(b->data + pos);
        for (Change &c : changes) {
            if (c.tag == tag && !c.done) {
                if (!rewrite_value(b, pos, c.value, err))
                    return false;
                c.done = true;
                --left;
                break;
            }
        }
        pos += ZEL_ITEM_HEADER_SIZE + int64_t(wire::load_u32(b->data + pos + 2));
    }
    return msg::rebuild_index(m, err);
}

int merge_changed_fields(vartocb *src, vartocb *dst, const MergeLists &lists, int *err)
{
    if (!src || !dst) {
        *err = 1;
        return 0;
    }
    if (!dst->build) {
        *err = 2;
        return 0;
    }
    std::vector<Change> changes;
    for (int32_t i = 0; i < src->tag_count; ++i) {
        int tag = src->tags[i];
        if (msg::is_transport_tag(tag))
            continue;
        int ignored, found;
        sPChar value = first_value(src, tag, &ignored);
        lists.seen(tag, value);
        sPChar current = first_value(dst, tag, &found);
        if (found == 6 && value.len == 0)
            continue;
        if (found == 2) {
            if (!msg::add_items(dst, tag, 1, &value, err))
                return 0;
        } else if (found == 6 || !same_bytes(value, current)) {
            changes.push_back(Change{tag, value, false});
        }
        lists.kept(tag);
    }
    if (!changes.empty() && !apply_changes(dst, changes, err))
        return 0;
    *err = 0;
    return 1;
}

} // namespace

extern "C" {

int varto_copy_msg_recieve(vartocb *src, vartocb *dst, int *err)
{
    err = zel::detail_slot(err);
    if (!src || !dst) {
        *err = 1;
        return 0;
    }
    for (int32_t i = 0; i < src->tag_count; ++i) {
        int tag = src->tags[i];
        if (!msg::is_transport_tag(tag) && !zel_copy_field_as(dst, src, tag, tag, err))
            return 0;
    }
    *err = 0;
    return 1;
}

int varto_copy_changed_fields(vartocb *src, vartocb *dst, ...)
{
    va_list args;
    va_start(args, dst);
    MergeLists lists;
    lists.all_tags = va_arg(args, int *);
    lists.n_all_tags = va_arg(args, int *);
    lists.all_values = va_arg(args, sPChar *);
    lists.n_all_values = va_arg(args, int *);
    lists.kept_tags = va_arg(args, int *);
    lists.n_kept_tags = va_arg(args, int *);
    int *err = va_arg(args, int *);
    va_end(args);
    return merge_changed_fields(src, dst, lists, err);
}

int varto_to_scratch(vartocb *m, scratchcb *out, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!out || !m->build) {
        *err = 2;
        return 0;
    }
    scratchcb *b = m->build;
    if (b->len > out->alloc && !pset_buffer_size(out, b->len, err)) {
        *err = 4;
        return 0;
    }
    if (!msg::append_bytes(out, b->data, b->len, err))
        return 0;
    *err = 0;
    return 1;
}

int varto_scratch_comp(vartocb *m, scratchcb *s, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (m->tag_count == 0 || !s || m->input != s || m->build != s) {
        *err = 2;
        return 0;
    }
    *err = 0;
    return 1;
}

} // extern "C"
