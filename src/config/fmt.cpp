// Format files: the columns of a cfg table, one "name:default" line each.
#include <zel/config.h>

#include <memory>

#include "config/text_lists.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

struct FmtListReleaser {
    void operator()(sCfgItemList *list) const
    {
        uint32_t ignored;
        cfg_unload_fmt(&list, &ignored);
    }
};
using OwnedFmtList = std::unique_ptr<sCfgItemList, FmtListReleaser>;

bool make_fmt_list(OwnedFmtList *list, uint32_t *err)
{
    sCfgItemList *made = nullptr;
    int detail = 0;
    if (!zel::mem_alloc(&made, sizeof(sCfgItemList), &detail)) {
        *err = uint32_t(detail);
        return false;
    }
    list->reset(made);
    return zel::cfg::make_items(&made->items, err);
}

} // namespace

namespace zel::cfg {

bool parse_fmt_text(scratchcb *text, sCfgItemList **out, uint32_t *err)
{
    OwnedFmtList list;
    if (!make_fmt_list(&list, err))
        return false;
    sPChar line{};
    int32_t pos = 0;
    while (get_single_fmt_ini_msg(text, &line, &pos))
        if (!append_line_item(list.get(), &line, ":", err))
            return false;
    *out = list.release();
    *err = 0;
    return true;
}

} // namespace zel::cfg

extern "C" {

uint64_t cfg_load_fmt(sCfgHandle *handle, sPChar *path, uint32_t *err)
{
    err = zel::detail_slot(err);
    return zel::cfg::load_text_config(handle, &sCfgHandle::fmt, path, zel::cfg::parse_fmt_text, err);
}

uint64_t cfg_unload_fmt(sCfgItemList **list, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!list || !*list)
        return sys_fail(err, 2);
    sCfgItemList *l = *list;
    int ignored;
    if (l->items) {
        zel::cfg::release_items(l->items, l->count);
        zel::mem_free(&l->items, &ignored);
    }
    zel::mem_free(list, &ignored);
    return sys_succeed(err);
}

} // extern "C"
