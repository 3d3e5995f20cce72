// Ini files: sections opened by a "/name" header line, holding "key = value"
// lines.
#include <zel/config.h>

#include <algorithm>
#include <memory>

#include "config/text_lists.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

struct SectionsReleaser {
    void operator()(sCfgSectionList *list) const { zel::cfg::release_sections(&list); }
};
using OwnedSections = std::unique_ptr<sCfgSectionList, SectionsReleaser>;

bool make_section_list(OwnedSections *list, uint32_t *err)
{
    sCfgSectionList *made = nullptr;
    int detail = 0;
    bool ok = zel::mem_alloc(&made, sizeof(sCfgSectionList), &detail);
    list->reset(made);
    ok = ok && zel::mem_alloc(&made->sections, int(sizeof(sCfgSection) * CFG_MAX_SECTIONS), &detail);
    *err = uint32_t(detail);
    return ok;
}

bool begin_section(sCfgSectionList *list, uint32_t *err)
{
    if (list->count >= CFG_MAX_SECTIONS) {
        *err = 5;
        return false;
    }
    sCfgSection *section = &list->sections[list->count];
    if (!zel::cfg::make_items(&section->list.items, err))
        return false;
    section->index = list->count++;
    return true;
}

// A header line's slash turns into a blank, so the line itself becomes the
// section's item 0, keyed by the section's name.
bool add_ini_line(sCfgSectionList *list, sPChar *line, uint32_t *err)
{
    if (line->data[0] == '/') {
        if (!begin_section(list, err))
            return false;
        line->data[0] = ' ';
    }
    if (list->count == 0) {
        *err = 5;
        return false;
    }
    return zel::cfg::append_line_item(&list->sections[list->count - 1].list, line, "=", err);
}

enum class Texts { of_every_item, of_first_item_only };

void release_section_list(sCfgSectionList **list, Texts texts)
{
    sCfgSectionList *l = *list;
    int ignored;
    for (uint32_t s = 0; l->sections && s < l->count; ++s) {
        sCfgItemList *items = &l->sections[s].list;
        uint32_t released = texts == Texts::of_every_item ? items->count : std::min(items->count, 1u);
        zel::cfg::release_items(items->items, released);
        zel::mem_free(&items->items, &ignored);
    }
    if (l->sections)
        zel::mem_free(&l->sections, &ignored);
    zel::mem_free(list, &ignored);
}

} // namespace

namespace zel::cfg {

bool parse_ini_text(scratchcb *text, sCfgSectionList **out, uint32_t *err)
{
    OwnedSections list;
    if (!make_section_list(&list, err))
        return false;
    sPChar line{};
    int32_t pos = 0;
    while (get_single_fmt_ini_msg(text, &line, &pos))
        if (!add_ini_line(list.get(), &line, err))
            return false;
    *out = list.release();
    *err = 0;
    return true;
}

void release_sections(sCfgSectionList **list)
{
    if (*list)
        release_section_list(list, Texts::of_every_item);
}

} // namespace zel::cfg

extern "C" {

uint64_t cfg_load_ini(sCfgHandle *handle, sPChar *path, uint32_t *err)
{
    err = zel::detail_slot(err);
    return zel::cfg::load_text_config(handle, &sCfgHandle::ini, path, zel::cfg::parse_ini_text, err);
}

uint64_t cfg_unload_ini(sCfgSectionList **list, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!list || !*list)
        return sys_fail(err, 2);
    // The loader has always released the first item's texts once for every
    // item of the section, never moving on: the first item's texts go, the
    // later items' texts stay allocated. Kept; cfg_unload_fmt releases all.
    release_section_list(list, Texts::of_first_item_only);
    return sys_succeed(err);
}

} // extern "C"
