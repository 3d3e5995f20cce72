// Parsing messages (in place, into a copy, filtered) and reading fields.
#include <bitset>

#include "message/index.h"
#include "message/sort.h"
#include "message/wire.h"
#include "platform/detail_slot.h"

using namespace zel;

namespace {

// Clears what describes the previous message, as every parse does.
void forget_message(vartocb *m)
{
    msg::clear_index(m);
    m->item_count = 0;
    m->msg_start = m->msg_end = 0;
}

// Prepares `copy` to receive a compacted copy: an empty message at offset 0.
bool start_copy(vartocb *m, scratchcb *copy, int *err)
{
    copy->len = 0;
    m->build = copy;
    return zel_start_msg(m, copy, err);
}

int index_in_place(vartocb *m, scratchcb *in, int64_t &pos, uint32_t count)
{
    m->item_count = int32_t(count);
    return wire::walk_items(in->data, in->len, pos, count, [m](uint16_t tag, char *value, int32_t len) {
        int detail = 0;
        if (tag != ZEL_DELETED_TAG && !msg::index_item(m, tag, value, len, &detail))
            return detail;
        return 0;
    });
}

// Adds the items that `wanted` accepts to the message being built; counts
// them in `added`.
template <typename Wanted>
int copy_items(vartocb *m, scratchcb *in, int64_t &pos, uint32_t count, int &added, Wanted wanted)
{
    return wire::walk_items(in->data, in->len, pos, count, [&](uint16_t tag, char *value, int32_t len) {
        if (tag == ZEL_DELETED_TAG || !wanted(tag))
            return 0;
        sPChar item{len > 0 ? value : nullptr, len};
        int detail = 0;
        if (!msg::add_items(m, tag, 1, &item, &detail))
            return detail;
        ++added;
        return 0;
    });
}

int parse_next(vartocb *m, scratchcb *copy, int *err)
{
    scratchcb *in = m->input;
    if (!in || !in->data || in->len <= 0) {
        *err = 2;
        return 0;
    }
    int64_t pos = m->next_offset;
    if (pos >= in->len) {
        *err = 6;
        return 0;
    }
    m->parsed = 0;
    bool copy_mode = copy && copy != in;
    if (copy_mode) {
        if (!start_copy(m, copy, err))
            return 0;
    } else {
        m->build = in;
        forget_message(m);
        m->header_offset = m->msg_start = int32_t(pos);
        m->count_offset = int32_t(pos + 2);
    }
    uint32_t count = 0;
    if ((*err = wire::read_header(in->data, in->len, pos, count)))
        return 0;
    int added = 0;
    *err = copy_mode ? copy_items(m, in, pos, count, added, [](uint16_t) { return true; })
                     : index_in_place(m, in, pos, count);
    if (*err)
        return 0;
    int32_t previous = m->next_offset;
    m->next_offset = int32_t(pos);
    // After a copy the extent still describes the input from its start, with
    // the length of the current message; callers have always relied on it.
    m->msg_end = copy_mode ? int32_t(pos) - previous : int32_t(pos);
    m->parsed = 1;
    return 1;
}

enum class Keep { flagged, unflagged };

int parse_filtered(vartocb *m, scratchcb *in, const int *tags, int ntags, Keep keep, int *err)
{
    if (!m) {
        *err = 1;
        return 0;
    }
    scratchcb *b = m->build;
    if (!in || !in->data || !b || !b->data || b == in || ntags < 0 || (ntags > 0 && !tags)) {
        *err = 2;
        return 0;
    }
    std::bitset<ZEL_TAG_SLOTS> flags;
    for (int i = 0; i < ntags; ++i)
        if (msg::valid_tag(tags[i]))
            flags.set(size_t(tags[i]));
    m->next_offset = m->parsed = m->msg_start = m->msg_end = 0;
    m->input = in;
    if (b->len < ZEL_MSG_HEADER_SIZE || wire::load_u16(b->data) != ZEL_MSG_MAGIC) {
        *err = 2;
        return 0;
    }
    int64_t pos = 0;
    uint32_t count = 0;
    if ((*err = wire::read_header(in->data, in->len, pos, count)))
        return 0;
    if (count == 0) {
        *err = 6;
        return 0;
    }
    int added = 0;
    bool want_flagged = keep == Keep::flagged;
    *err = copy_items(m, in, pos, count, added,
                      [&](uint16_t tag) { return flags.test(tag) == want_flagged; });
    if (*err)
        return 0;
    m->msg_end = b->len;
    if (added == 0) {
        *err = 6;
        return 0;
    }
    return 1;
}

// One step of the field iteration from the iterator position.
int field_at_iterator(vartocb *m, int *tag, int *count, int *err)
{
    if (m->tag_iter >= m->tag_count) {
        m->tag_iter = 0;
        *err = 6;
        return 0;
    }
    int t = m->tags[m->tag_iter];
    *tag = t;
    // Tag 65534 leaves the caller's count as it was: long-standing behaviour.
    if (t < ZEL_TAG_SLOTS - 1) {
        if (m->slots[t].count == 0) {
            *err = 6;
            return 0;
        }
        *count = m->slots[t].count;
    }
    if (*count == 0) {
        *err = 6;
        return 0;
    }
    ++m->tag_iter;
    *err = 0;
    return 1;
}

} // namespace

extern "C" {

int zel_parse_msg(vartocb *m, scratchcb *msg, int *err)
{
    err = zel::detail_slot(err);
    return zel_parse_first_msg(m, msg, msg, err);
}

int zel_parse_first_msg(vartocb *m, scratchcb *copy, scratchcb *in, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!in) {
        *err = 2;
        return 0;
    }
    m->next_offset = m->msg_start = m->msg_end = m->parsed = 0;
    m->input = in;
    return parse_next(m, copy, err);
}

int zel_parse_next_msg(vartocb *m, scratchcb *copy, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    return parse_next(m, copy, err);
}

int zel_parse_interested_field_in_msg(vartocb *m, scratchcb *in, int *tags, int ntags, int *err)
{
    err = zel::detail_slot(err);
    return parse_filtered(m, in, tags, ntags, ntags > 0 ? Keep::flagged : Keep::unflagged, err);
}

int zel_parse_uninterested_field_in_msg(vartocb *m, scratchcb *in, int *tags, int ntags, int *err)
{
    err = zel::detail_slot(err);
    if (m && (!tags || ntags <= 0)) {
        *err = 2;
        return 0;
    }
    return parse_filtered(m, in, tags, ntags, Keep::unflagged, err);
}

int zel_get_parsed_msg(vartocb *m, sPChar *out, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !out) {
        *err = 1;
        return 0;
    }
    if (!m->parsed) {
        *err = 6;
        return 0;
    }
    out->data = m->input->data + m->msg_start;
    out->len = m->msg_end - m->msg_start;
    *err = 0;
    return 1;
}

int zel_get_field(vartocb *m, int tag, int *count, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !count) {
        *err = 1;
        return 0;
    }
    if (!msg::valid_tag(tag)) {
        *err = 2;
        return 0;
    }
    *count = m->slots[tag].count;
    if (*count == 0) {
        *err = 6;
        return 0;
    }
    *err = 0;
    return 1;
}

int zel_get_data(vartocb *m, int tag, int index, sPChar *out, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !out) {
        *err = 1;
        return 0;
    }
    if (!msg::valid_tag(tag) || index < 0 || index >= m->slots[tag].count) {
        *err = 2;
        return 0;
    }
    const sVartoItem *item = &m->slots[tag].first;
    for (int i = 0; i < index; ++i)
        item = item->next;
    if (item->len == 0) {
        *out = sPChar{nullptr, 0};
        *err = 6;
        return 0;
    }
    *out = sPChar{item->data, item->len};
    *err = 0;
    return 1;
}

int zel_get_field_count(vartocb *m, int *nfields, int *err)
{
    err = zel::detail_slot(err);
    int ignored;
    return zel_get_count(m, nfields, &ignored, err);
}

int zel_get_count(vartocb *m, int *nfields, int *nitems, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !nfields || !nitems) {
        *err = 1;
        return 0;
    }
    int fields = 0, items = 0;
    for (int32_t i = 0; i < m->tag_count; ++i) {
        int count = m->slots[m->tags[i]].count;
        fields += count != 0;
        items += count;
    }
    *nfields = fields;
    *nitems = items;
    *err = 0;
    return 1;
}

int zel_get_first_field(vartocb *m, int *tag, int *count, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !tag || !count) {
        *err = 1;
        return 0;
    }
    m->tag_iter = 0;
    if (m->tag_count == 0) {
        *err = 6;
        return 0;
    }
    return field_at_iterator(m, tag, count, err);
}

int zel_get_next_field(vartocb *m, int *tag, int *count, int *err)
{
    err = zel::detail_slot(err);
    if (!m || !tag || !count) {
        *err = 1;
        return 0;
    }
    return field_at_iterator(m, tag, count, err);
}

int zel_get_first_field_sort(vartocb *m, int *tag, int *count, int *err)
{
    err = zel::detail_slot(err);
    if (m && m->tag_count > 1)
        quicksort(m->tags, m->tag_count, [](int32_t a, int32_t b) { return (a > b) - (a < b); });
    return zel_get_first_field(m, tag, count, err);
}

int zel_get_next_field_sort(vartocb *m, int *tag, int *count, int *err)
{
    err = zel::detail_slot(err);
    return zel_get_next_field(m, tag, count, err);
}

} // extern "C"
