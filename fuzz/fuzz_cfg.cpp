// Reads arbitrary bytes as the records of a cfg file, checks the table's
// counters against its bounds, reads cells at and beyond its edges, and
// empties it again.
#include "config_fuzz_util.h"

namespace {

bool counters_within_bounds(const sCfgTable *t)
{
    return t->rows >= 0 && t->rows <= CFG_MAX_ROWS && t->widest >= 0 && t->widest <= CFG_MAX_COLUMNS &&
           t->highest_row >= 0 && t->highest_row < CFG_MAX_ROWS && t->highest_column >= 0 &&
           t->highest_column < CFG_MAX_COLUMNS && t->cells >= 0;
}

// Reads every cell at the corners and just past the edges of what was loaded.
void read_edges(sCfgTable *table)
{
    sCfgHandle handle{table, nullptr, nullptr};
    const int32_t rows[] = {-1, 0, table->rows, table->rows + 1, table->highest_row, CFG_MAX_ROWS};
    const int32_t columns[] = {-1, 0, table->highest_column, CFG_MAX_COLUMNS - 1, CFG_MAX_COLUMNS};
    for (int32_t row : rows)
        for (int32_t column : columns) {
            sPChar cell{};
            uint32_t err;
            if (cfg_get_item(&handle, row, column, &cell, &err) && cell.len > 0)
                (void)*(volatile char *)&cell.data[cell.len - 1];
        }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    sCfgTable *table = shared_table();
    add_framed_records(table, reinterpret_cast<const char *>(data), size);
    require(counters_within_bounds(table), "table counters out of bounds: %d rows, %d widest, %d/%d highest\n",
            table->rows, table->widest, table->highest_row, table->highest_column);
    read_edges(table);
    zel::cfg::empty_table(table);
    return 0;
}
