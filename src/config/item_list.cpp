// Item lists of the format and ini files: one item per line, each an owned
// key and value.
#include <zel/config.h>

#include "config/text_lists.h"
#include "platform/memory.h"

namespace zel::cfg {

void release_text(sPChar *text)
{
    int ignored;
    if (text->data)
        mem_free(&text->data, &ignored);
    *text = sPChar{nullptr, 0};
}

void release_items(sCfgItem *items, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        release_text(&items[i].key);
        release_text(&items[i].value);
    }
}

bool make_items(sCfgItem **items, uint32_t *err)
{
    int detail = 0;
    bool made = mem_alloc(items, int(sizeof(sCfgItem) * CFG_MAX_ITEMS), &detail);
    *err = uint32_t(detail);
    return made;
}

bool append_line_item(sCfgItemList *list, sPChar *line, const char *delimiter, uint32_t *err)
{
    if (list->count >= CFG_MAX_ITEMS) {
        *err = 5;
        return false;
    }
    if (!load_delim_msg_to_hndl(&list->items[list->count], line, delimiter, err))
        return false;
    ++list->count;
    return true;
}

} // namespace zel::cfg
