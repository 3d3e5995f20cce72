// The configuration handle, and the cfg table read from a file of
// length-prefixed records.
#include <zel/config.h>
#include <zel/descriptors.h>

#include "config/owned.h"
#include "config/table.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr int record_buffer_size = 4096;

// Reads records until the file layer delivers nothing: with detail 0 that is
// the end of the file, any other detail is a record cut short.
bool read_records(sFileDescriptor *file, scratchcb *record, sCfgTable *table, uint32_t *err)
{
    while (sys_fd_read(file, 0, record, err))
        if (!zel::cfg::add_record(table, record->data, record->len, err))
            return false;
    return *err == 0;
}

} // namespace

extern "C" {

uint64_t cfg_open(sCfgHandle **handle, uint64_t, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    int detail = 0;
    if (!zel::mem_alloc(handle, sizeof(sCfgHandle), &detail))
        return sys_fail(err, uint32_t(detail));
    return sys_succeed(err);
}

uint64_t cfg_close(sCfgHandle **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    sCfgHandle *h = *handle;
    zel::cfg::free_table(&h->table);
    uint32_t unloaded;
    if (h->fmt)
        cfg_unload_fmt(&h->fmt, &unloaded);
    if (h->ini)
        cfg_unload_ini(&h->ini, &unloaded);
    int ignored;
    zel::mem_free(handle, &ignored);
    return sys_succeed(err);
}

uint64_t cfg_load_cfg(sCfgHandle *handle, sPChar *path, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    if (!zel::cfg::is_usable_path(path))
        return sys_fail(err, 5);
    if (handle->table)
        return sys_fail(err, 3);
    sCfgTable *made = nullptr;
    if (!zel::cfg::make_table(&made, err))
        return 0;
    zel::cfg::OwnedTable table(made);
    zel::cfg::OwnedScratch record = zel::cfg::open_scratch(record_buffer_size, err);
    if (!record)
        return 0;
    zel::cfg::OwnedFile file = zel::cfg::open_for_reading(path, SYS_FD_RECORDS, err);
    if (!file || !read_records(file.get(), record.get(), table.get(), err))
        return 0;
    handle->table = table.release();
    return sys_succeed(err);
}

uint64_t cfg_get_item(sCfgHandle *handle, int32_t row, int32_t column, sPChar *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !handle->table)
        return sys_fail(err, 2);
    if (!out)
        return sys_fail(err, 5);
    const sCfgTable *table = handle->table;
    // Rows are checked against the number of records read, not against the
    // highest row index, so a row equal to that number passes: kept. The
    // table's own bounds are checked as well, for rows and columns alike.
    if (row < 0 || row > table->rows || row >= CFG_MAX_ROWS || column < 0 || column >= CFG_MAX_COLUMNS)
        return sys_fail(err, 5);
    const sPChar &cell = table->cell[row][column];
    if (cell.len < 0)
        return sys_fail(err, 6);
    *out = cell;
    return sys_succeed(err);
}

uint64_t cfg_get_size(sCfgHandle *handle, int32_t *rows, int32_t *columns, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !handle->table)
        return sys_fail(err, 2);
    if (!rows || !columns)
        return sys_fail(err, 5);
    *rows = handle->table->rows;
    *columns = handle->table->widest;
    return sys_succeed(err);
}

} // extern "C"
