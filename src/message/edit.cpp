// Editing an indexed message (replace, delete) and copying fields between
// messages.
#include <vector>

#include "message/index.h"
#include "message/wire.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"

using namespace zel;

namespace {

// Overwrites the tag of the item whose value `item` indexes with the deleted
// mark; the item's bytes stay where they are.
void mark_deleted(const sVartoItem &item)
{
    wire::store_u16(item.data - ZEL_ITEM_HEADER_SIZE, ZEL_DELETED_TAG);
}

void empty_slot(vartocb *m, int tag)
{
    sVartoSlot &slot = m->slots[tag];
    for (sVartoItem *item = slot.first.next; item;) {
        sVartoItem *next = item->next;
        msg::release_item(m, item);
        item = next;
    }
    slot = sVartoSlot{};
    msg::remove_tag(m, tag);
}

void unlink_item(vartocb *m, sVartoSlot &slot, int index)
{
    if (index == 0) {
        sVartoItem *second = slot.first.next;
        slot.first = *second;
        if (slot.last == second)
            slot.last = &slot.first;
        msg::release_item(m, second);
        return;
    }
    sVartoItem *prev = &slot.first;
    for (int i = 1; i < index; ++i)
        prev = prev->next;
    sVartoItem *item = prev->next;
    prev->next = item->next;
    if (slot.last == item)
        slot.last = prev;
    msg::release_item(m, item);
}

// The bytes that re-adding a field's items, with item `index` replaced by
// `value`, will append to the build buffer.
int64_t replaced_field_size(const sVartoSlot &slot, int index, const sPChar &value)
{
    int64_t size = 0;
    int i = 0;
    for (const sVartoItem *item = &slot.first; item; item = item->next, ++i)
        size += ZEL_ITEM_HEADER_SIZE + (i == index ? value.len : item->len);
    return size;
}

} // namespace

extern "C" {

int zel_replace_data_item(vartocb *m, int tag, int index, sPChar *value, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (index < 0 || !msg::valid_tag(tag) || index >= m->slots[tag].count || !value || value->len < 0 ||
        (!value->data && value->len > 0) || !m->build) {
        *err = 2;
        return 0;
    }
    sVartoSlot &slot = m->slots[tag];
    // Grow first, so the values collected below stay valid while they are
    // written again; the new value may itself point into the message.
    scratchcb *b = m->build;
    const char *old_base = b->data;
    int64_t old_len = b->len;
    bool value_inside = value->data >= old_base && value->data < old_base + old_len;
    std::ptrdiff_t moved = 0;
    if (!msg::reserve_build(m, b->len + replaced_field_size(slot, index, *value), err, &moved))
        return 0;
    sPChar replacement{value_inside ? value->data + moved : value->data, value->len};

    std::vector<sPChar> items;
    items.reserve(size_t(slot.count));
    for (const sVartoItem *item = &slot.first; item; item = item->next) {
        const sPChar &v = items.size() == size_t(index) ? replacement : sPChar{item->data, item->len};
        items.push_back(v.len > 0 ? v : sPChar{nullptr, 0});
    }
    zel_delete_field(m, tag, err);
    return zel_add_data(m, tag, int(items.size()), items.data(), err);
}

int zel_delete_data_item(vartocb *m, int tag, int index, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (index < 0 || !msg::valid_tag(tag)) {
        *err = 2;
        return 0;
    }
    sVartoSlot &slot = m->slots[tag];
    if (slot.count == 0) {
        *err = 6;
        return 0;
    }
    if (index >= slot.count) {
        *err = 2;
        return 0;
    }
    const sVartoItem *item = &slot.first;
    for (int i = 0; i < index; ++i)
        item = item->next;
    mark_deleted(*item);
    // The header's item count still counts the deleted item.
    if (slot.count == 1) {
        empty_slot(m, tag);
    } else {
        unlink_item(m, slot, index);
        --slot.count;
    }
    *err = 0;
    return 1;
}

int zel_delete_field(vartocb *m, int tag, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    if (!msg::valid_tag(tag)) {
        *err = 2;
        return 0;
    }
    if (m->slots[tag].count == 0) {
        *err = 6;
        return 0;
    }
    for (const sVartoItem *item = &m->slots[tag].first; item; item = item->next)
        mark_deleted(*item);
    empty_slot(m, tag);
    *err = 0;
    return 1;
}

int zel_delete_field_list(vartocb *m, int *tags, int ntags, int *err)
{
    err = zel::detail_slot(err);
    if (!m) {
        *err = 1;
        return 0;
    }
    int deleted = 0;
    for (int i = 0; tags && i < ntags; ++i)
        if (msg::valid_tag(tags[i]) && m->slots[tags[i]].count > 0 && zel_delete_field(m, tags[i], err))
            ++deleted;
    if (deleted == 0) {
        *err = 2;
        return 0;
    }
    *err = 0;
    return 1;
}

int zel_copy_field_as(vartocb *dst, vartocb *src, int dst_tag, int src_tag, int *err)
{
    err = zel::detail_slot(err);
    if (!dst || !src) {
        *err = 1;
        return 0;
    }
    int count = 0;
    if (!zel_get_field(src, src_tag, &count, err))
        return 0;
    for (int i = 0; i < count; ++i) {
        sPChar value;
        if (!zel_get_data(src, src_tag, i, &value, err) && *err != 6)
            return 0;
        if (!zel_add_data(dst, dst_tag, 1, &value, err))
            return 0;
    }
    *err = 0;
    return 1;
}

int zel_copy_field(vartocb *dst, vartocb *src, int tag, int *err)
{
    err = zel::detail_slot(err);
    return zel_copy_field_as(dst, src, tag, tag, err);
}

int zel_copy_msg(vartocb *dst, vartocb *src, int *err)
{
    err = zel::detail_slot(err);
    if (!dst || !src) {
        *err = 1;
        return 0;
    }
    int tag = 0, count = 0;
    for (int more = zel_get_first_field(src, &tag, &count, err); more;
         more = zel_get_next_field(src, &tag, &count, err)) {
        if (!zel_copy_field_as(dst, src, tag, tag, err))
            return 0;
    }
    return 1;
}

} // extern "C"
