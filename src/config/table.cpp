// Records of a cfg file read into the table's cells, and the cells released.
#include "config/table.h"

#include <algorithm>

#include "config/text_lists.h"
#include "platform/memory.h"

namespace zel::cfg {

namespace {

constexpr int32_t number_size = 4;
constexpr int32_t empty_cell = -1;

bool fail(uint32_t *err, uint32_t detail)
{
    *err = detail;
    return false;
}

// Reads a 4-byte number at `*pos`, only when the record still holds four bytes.
bool read_number(char *record, int32_t length, int32_t *pos, uint32_t *value)
{
    if (length - *pos < number_size)
        return false;
    int ignored;
    unsigned int number = 0;
    pget_four_byte_num(&number, record, pos, &ignored);
    *value = number;
    return true;
}

// A cell read twice keeps the later text; the earlier copy is released.
bool store_cell(sCfgTable *table, uint32_t row, uint32_t column, char *text, int32_t length, uint32_t *err)
{
    sPChar copy{nullptr, 0};
    sPChar source{text, length};
    int detail = 0;
    if (length > 0 && !pchar_replicate_mem(&copy, &source, &detail))
        return fail(err, uint32_t(detail));
    sPChar *cell = &table->cell[row][column];
    release_text(cell);
    *cell = copy;
    return true;
}

// Reads one cell at `*pos` and moves past it.
bool add_cell(sCfgTable *table, uint32_t row, char *record, int32_t length, int32_t *pos, uint32_t *err)
{
    uint32_t column = 0, text_length = 0;
    if (!read_number(record, length, pos, &column) || !read_number(record, length, pos, &text_length) ||
        column >= CFG_MAX_COLUMNS || text_length > uint32_t(length - *pos))
        return fail(err, 5);
    if (!store_cell(table, row, column, record + *pos, int32_t(text_length), err))
        return false;
    *pos += int32_t(text_length);
    table->highest_column = std::max(table->highest_column, int32_t(column));
    ++table->cells;
    return true;
}

} // namespace

bool make_table(sCfgTable **table, uint32_t *err)
{
    sCfgTable *made = nullptr;
    int detail = 0;
    if (!mem_alloc(&made, int(sizeof(sCfgTable)), &detail))
        return fail(err, uint32_t(detail));
    for (auto &row : made->cell)
        for (sPChar &cell : row)
            cell.len = empty_cell;
    *table = made;
    return true;
}

bool add_record(sCfgTable *table, char *record, int32_t length, uint32_t *err)
{
    int32_t pos = 0;
    uint32_t row = 0;
    if (table->rows >= CFG_MAX_ROWS || !read_number(record, length, &pos, &row) || row >= CFG_MAX_ROWS)
        return fail(err, 5);
    table->highest_row = std::max(table->highest_row, int32_t(row));
    int32_t cells = 0;
    while (pos < length) {
        if (cells == CFG_MAX_COLUMNS)
            return fail(err, 5);
        if (!add_cell(table, row, record, length, &pos, err))
            return false;
        ++cells;
    }
    table->widest = std::max(table->widest, cells);
    ++table->rows;
    return true;
}

void empty_table(sCfgTable *table)
{
    // Every cell in use lies within the highest row and column seen; the walk
    // ends once as many cells are released as were read.
    int32_t released = 0;
    for (int32_t r = 0; r <= table->highest_row && released < table->cells; ++r)
        for (int32_t c = 0; c <= table->highest_column && released < table->cells; ++c) {
            sPChar *cell = &table->cell[r][c];
            if (cell->len == empty_cell)
                continue;
            release_text(cell);
            cell->len = empty_cell;
            ++released;
        }
    table->rows = table->widest = table->highest_row = table->highest_column = table->cells = 0;
}

void free_table(sCfgTable **table)
{
    if (!*table)
        return;
    empty_table(*table);
    int ignored;
    mem_free(table, &ignored);
}

} // namespace zel::cfg
