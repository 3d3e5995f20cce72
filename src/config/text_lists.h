// Format and ini text made into item lists, and the release of their texts.
// These take text already in memory, so they also serve the fuzz targets.
// Single-threaded: a list belongs to one thread at a time.
#pragma once

#include <zel/config.h>

#include <cstdint>

#include "config/owned.h"
#include "platform/result.h"

namespace zel::cfg {

// Frees an owned text, if any, and leaves (null, 0).
void release_text(sPChar *text);

// Frees the key and value of `count` items.
void release_items(sCfgItem *items, uint32_t count);

// An item array with room for CFG_MAX_ITEMS, zeroed.
bool make_items(sCfgItem **items, uint32_t *err);

// Splits `line` at `delimiter` into the list's next item; a full list is
// detail 5.
bool append_line_item(sCfgItemList *list, sPChar *line, const char *delimiter, uint32_t *err);

// Reads a whole text file into `text`.
bool read_text_file(sPChar *path, OwnedScratch *text, uint32_t *err);

// Makes a format list of every line of `text`, split at ':'.
bool parse_fmt_text(scratchcb *text, sCfgItemList **out, uint32_t *err);

// Makes a section list of every line of `text`, split at '='. The leading '/'
// of each header line in `text` is overwritten with a blank.
bool parse_ini_text(scratchcb *text, sCfgSectionList **out, uint32_t *err);

// Loads a text configuration file into `*slot` of a handle with `parse`;
// the one body of cfg_load_fmt and cfg_load_ini. @locality caller's thread
template <typename List>
uint64_t load_text_config(sCfgHandle *handle, List *sCfgHandle::*slot, sPChar *path,
                          bool (*parse)(scratchcb *, List **, uint32_t *), uint32_t *err)
{
    if (!handle)
        return sys_fail(err, 2);
    if (!is_usable_path(path))
        return sys_fail(err, 5);
    if (handle->*slot)
        return sys_fail(err, 3);
    OwnedScratch text;
    if (!read_text_file(path, &text, err) || !parse(text.get(), &(handle->*slot), err))
        return 0;
    return sys_succeed(err);
}

// Frees every text of every section, the item arrays and the list, and nulls
// `*list`: what a failed load made must go entirely, unlike cfg_unload_ini.
void release_sections(sCfgSectionList **list);

} // namespace zel::cfg
