// Life cycle and index of the parsed message record.
#include <cstring>

#include "message/index.h"
#include "message/wire.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"

namespace zel::msg {

namespace {

constexpr int32_t tag_list_step = 2048;

void free_spare_items(vartocb *m)
{
    int ignored;
    while (sVartoItem *item = m->spare_items) {
        m->spare_items = item->next;
        mem_free(&item, &ignored);
    }
}

} // namespace

bool grow_tag_list(vartocb *m, int *err)
{
    int32_t *tags = m->tags;
    if (!mem_resize(&tags, int((m->tag_capacity + tag_list_step) * sizeof(int32_t)), err))
        return false;
    m->tags = tags;
    m->tag_capacity += tag_list_step;
    return true;
}

sVartoItem *take_item(vartocb *m, int *err)
{
    sVartoItem *item = m->spare_items;
    if (item) {
        m->spare_items = item->next;
        return item;
    }
    mem_alloc(&item, sizeof(sVartoItem), err);
    return item;
}

void release_item(vartocb *m, sVartoItem *item)
{
    item->next = m->spare_items;
    m->spare_items = item;
}

void clear_index(vartocb *m)
{
    for (int32_t i = 0; i < m->tag_count; ++i) {
        sVartoSlot &slot = m->slots[m->tags[i]];
        for (sVartoItem *item = slot.first.next; item;) {
            sVartoItem *next = item->next;
            release_item(m, item);
            item = next;
        }
        slot = sVartoSlot{};
        m->tags[i] = 0;
    }
    m->tag_count = 0;
    m->tag_iter = 0;
}

void remove_tag(vartocb *m, int tag)
{
    for (int32_t i = 0; i < m->tag_count; ++i) {
        if (m->tags[i] == tag) {
            std::memmove(m->tags + i, m->tags + i + 1, size_t(m->tag_count - i - 1) * sizeof(int32_t));
            m->tags[--m->tag_count] = 0;
            return;
        }
    }
}

bool rebuild_index(vartocb *m, int *err)
{
    scratchcb *b = m->build;
    clear_index(m);
    int64_t pos = m->header_offset;
    uint32_t count = 0;
    if ((*err = wire::read_header(b->data, b->len, pos, count)))
        return false;
    m->item_count = int32_t(count);
    *err = wire::walk_items(b->data, b->len, pos, count, [m](uint16_t tag, char *value, int32_t len) {
        int detail = 0;
        if (tag != ZEL_DELETED_TAG && !index_item(m, tag, value, len, &detail))
            return detail;
        return 0;
    });
    if (*err)
        return false;
    m->msg_end = int32_t(pos);
    if (b == m->input)
        m->next_offset = int32_t(pos);
    return true;
}

} // namespace zel::msg

using namespace zel;

extern "C" {

int zel_ctor_vartocb(vartocb **handle, int *err)
{
    err = zel::detail_slot(err);
    if (!handle) {
        *err = 1;
        return 0;
    }
    if (*handle) {
        *err = 4;
        return 0;
    }
    vartocb *m = nullptr;
    if (!mem_alloc(&m, sizeof(vartocb), err))
        return 0;
    m->tag_capacity = 2048;
    if (!mem_alloc(&m->tags, int(m->tag_capacity * sizeof(int32_t)), err)) {
        int ignored;
        mem_free(&m, &ignored);
        return 0;
    }
    *handle = m;
    *err = 0;
    return 1;
}

int zel_dtor_vartocb(vartocb **handle, int *err)
{
    err = zel::detail_slot(err);
    vartocb *m = handle ? *handle : nullptr;
    if (!m) {
        *err = 1;
        return 0;
    }
    msg::clear_index(m);
    msg::free_spare_items(m);
    if (!mem_free(&m->tags, err) || !mem_free(&m, err)) {
        *err = -1;
        return 0;
    }
    *handle = nullptr;
    *err = 0;
    return 1;
}

int zel_clean_vartocb(vartocb **handle, int *err)
{
    err = zel::detail_slot(err);
    vartocb *m = handle ? *handle : nullptr;
    if (!m) {
        *err = 1;
        return 0;
    }
    msg::clear_index(m);
    *err = 0;
    return 1;
}

} // extern "C"
