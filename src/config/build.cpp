// Compiling ini sections into cfg records, laid out by a format list.
#include <zel/config.h>

#include <cstring>

#include "config/owned.h"
#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr int row_buffer_size = 4096;
constexpr int64_t number_size = 4;
// Buffers grow with this much room beyond what the next append needs.
constexpr int64_t growth_headroom = 1024;
// Room kept free in the output beyond a record: its length prefix and spare.
constexpr int64_t record_slack = 16;

bool fail(uint32_t *err, uint32_t detail)
{
    *err = detail;
    return false;
}

// Makes `s` hold at least `needed` bytes. Beyond 2 GiB: detail 5.
bool ensure_capacity(scratchcb *s, int64_t needed, uint32_t *err)
{
    if (needed <= s->alloc)
        return true;
    if (needed + growth_headroom > INT32_MAX)
        return fail(err, 5);
    int detail = 0;
    if (!pset_buffer_size(s, int(needed + growth_headroom), &detail))
        return fail(err, uint32_t(detail));
    return true;
}

// Appends to a buffer that already has room.
void put_number(scratchcb *s, uint32_t value)
{
    int ignored;
    pput_four_byte_num(value, s->data, &s->len, &ignored);
}

void put_bytes(scratchcb *s, const char *bytes, int32_t length)
{
    if (length > 0)
        std::memcpy(s->data + s->len, bytes, size_t(length));
    s->len += length;
}

bool is_text(const sPChar &text)
{
    return text.len == 0 || (text.len > 0 && text.data);
}

bool append_cell(scratchcb *row, uint32_t column, const sPChar &text, uint32_t *err)
{
    if (!is_text(text))
        return fail(err, 5);
    if (!ensure_capacity(row, row->len + 2 * number_size + text.len, err))
        return false;
    put_number(row, column);
    put_number(row, uint32_t(text.len));
    put_bytes(row, text.data, text.len);
    return true;
}

bool append_record(scratchcb *out, const scratchcb *record, uint32_t *err)
{
    if (!ensure_capacity(out, int64_t(out->len) + record->len + record_slack, err))
        return false;
    put_number(out, uint32_t(record->len));
    put_bytes(out, record->data, record->len);
    return true;
}

bool same_text(const sPChar &a, const sPChar &b)
{
    return a.len == b.len && (a.len <= 0 || std::memcmp(a.data, b.data, size_t(a.len)) == 0);
}

// The value a section gives a column: its first item of the column's name,
// else the column's default, else none.
const sPChar *value_for(const sCfgItem &column, const sCfgItemList &section)
{
    for (uint32_t i = 0; i < section.count; ++i)
        if (same_text(section.items[i].key, column.key))
            return &section.items[i].value;
    return column.value.data ? &column.value : nullptr;
}

bool is_within_limits(const sCfgItemList &list)
{
    return list.count <= CFG_MAX_ITEMS && (list.items || list.count == 0);
}

} // namespace

extern "C" {

uint64_t cfg_build_row_data(scratchcb *row, sCfgItemList *fmt, sCfgSection *section, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!row)
        return sys_fail(err, 5);
    if (!fmt || !section)
        return sys_fail(err, 2);
    if (!is_within_limits(*fmt) || !is_within_limits(section->list) || section->index >= CFG_MAX_ROWS)
        return sys_fail(err, 5);
    row->len = 0;
    if (!ensure_capacity(row, number_size, err))
        return 0;
    put_number(row, section->index);
    for (uint32_t j = 0; j < fmt->count; ++j) {
        const sPChar *value = value_for(fmt->items[j], section->list);
        if (value && !append_cell(row, j, *value, err))
            return 0;
    }
    return sys_succeed(err);
}

uint64_t cfg_build_file_data(scratchcb *out, sCfgHandle *fmt_handle, sCfgHandle *ini_handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!fmt_handle || !fmt_handle->fmt || !ini_handle || !ini_handle->ini)
        return sys_fail(err, 2);
    if (!out)
        return sys_fail(err, 5);
    const sCfgSectionList *ini = ini_handle->ini;
    if (ini->count > CFG_MAX_SECTIONS || (!ini->sections && ini->count > 0))
        return sys_fail(err, 5);
    out->len = 0;
    zel::cfg::OwnedScratch row = zel::cfg::open_scratch(row_buffer_size, err);
    if (!row)
        return 0;
    for (uint32_t s = 0; s < ini->count; ++s)
        if (!cfg_build_row_data(row.get(), fmt_handle->fmt, &ini->sections[s], err) ||
            !append_record(out, row.get(), err))
            return 0;
    return sys_succeed(err);
}

} // extern "C"
