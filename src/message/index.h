// The field index of a vartocb, and the item writer that keeps it in step
// with the build buffer. Callers own the vartocb (one thread at a time).
#pragma once

#include <zel/message.h>

#include <cstddef>

namespace zel::msg {

inline bool valid_tag(int tag)
{
    return tag >= 0 && tag < ZEL_TAG_SLOTS;
}

inline bool is_transport_tag(int tag)
{
    return tag >= ZEL_TRANSPORT_TAG_FIRST && tag <= ZEL_TRANSPORT_TAG_LAST;
}

// Forgets every indexed item; costs in proportion to the fields present.
void clear_index(vartocb *m);

// Slow paths of index_item: more room in the tag list, a record for a
// further item of a tag.
bool grow_tag_list(vartocb *m, int *err);
sVartoItem *take_item(vartocb *m, int *err);

// Appends one item to the slot of `tag` (and the tag to the tag list when
// the slot was empty). Fails only when memory runs out. Inline: every parsed
// item passes through here.
inline bool index_item(vartocb *m, int tag, char *value, int32_t len, int *err)
{
    sVartoSlot &slot = m->slots[tag];
    if (slot.count == 0) {
        if (m->tag_count == m->tag_capacity && !grow_tag_list(m, err))
            return false;
        m->tags[m->tag_count++] = tag;
        slot.first = sVartoItem{value, len, nullptr};
        slot.last = &slot.first;
    } else {
        sVartoItem *item = take_item(m, err);
        if (!item)
            return false;
        *item = sVartoItem{value, len, nullptr};
        slot.last->next = item;
        slot.last = item;
    }
    ++slot.count;
    return true;
}

// Drops one item record of a slot's chain (not the embedded first one).
void release_item(vartocb *m, sVartoItem *item);

// Removes `tag` from the tag list, keeping the order of the others.
void remove_tag(vartocb *m, int tag);

// Clears the index and indexes the message at the header offset of the build
// buffer again, as an in-place parse does.
bool rebuild_index(vartocb *m, int *err);

// Makes the build buffer hold `needed` bytes, doubling it, and rebuilds the
// index when the buffer moved. `moved` (optional) receives the distance the
// bytes moved by, for callers holding pointers into the buffer.
bool reserve_build(vartocb *m, int64_t needed, int *err, std::ptrdiff_t *moved = nullptr);

// Appends `count` items of `tag` to the message being built: checks each
// value, writes it, indexes it and rewrites the header's item count.
bool add_items(vartocb *m, int tag, int count, const sPChar *items, int *err);

} // namespace zel::msg
