// The cfg table: filled one record at a time, emptied by walking the cells in
// use. The loader fills tables through these, and so does the fuzz target.
// Single-threaded: a table belongs to one thread at a time.
#pragma once

#include <zel/config.h>

#include <cstdint>
#include <memory>

namespace zel::cfg {

// A table whose cells are all empty and whose counters are 0.
bool make_table(sCfgTable **table, uint32_t *err);

// Reads one record (without its length prefix) into the table. A record that
// is shorter than its row index, whose row or column is beyond the table,
// that has more than CFG_MAX_COLUMNS cells or comes after CFG_MAX_ROWS
// records, or whose cell runs past its end is refused with detail 5; the
// cells read before the fault stay in the table.
bool add_record(sCfgTable *table, char *record, int32_t length, uint32_t *err);

// Releases every cell and zeroes the counters; the table can be filled again.
void empty_table(sCfgTable *table);

// Empties and frees the table, and nulls `*table`.
void free_table(sCfgTable **table);

struct TableFreer {
    void operator()(sCfgTable *table) const { free_table(&table); }
};
using OwnedTable = std::unique_ptr<sCfgTable, TableFreer>;

} // namespace zel::cfg
