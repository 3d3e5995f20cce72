/*
 * Configuration loader: tables of text cells, compiled from two text files.
 *
 * Three kinds of file share one handle:
 *   format file (fmt)  one column definition per line: a name, and after a
 *                      ':' an optional default value ("price:0");
 *   ini file           sections, each opened by a header line that begins
 *                      with '/' ("/apple"), holding "key = value" lines;
 *   cfg file           the compiled binary table: records, each preceded by
 *                      its 4-byte native-order length, made of a 4-byte row
 *                      index and then cells of a 4-byte column index, a
 *                      4-byte text length L and L bytes of text.
 * cfg_build_file_data compiles every ini section into one record: the
 * section's position is the row, the position of a format column is the
 * column. Write the compiled bytes to a file as they are and cfg_load_cfg
 * reads them back into a table of at most CFG_MAX_ROWS x CFG_MAX_COLUMNS.
 *
 * Text files: a line runs to a line feed or carriage return. Blank lines and
 * leading whitespace are skipped. A line that begins with two slashes, or
 * with a slash and an asterisk, is a comment, and so is the rest of a line
 * after either pair (the asterisk form never opens a block: it ends with its
 * line). Reading stops at the first line that is empty once
 * its comment is cut off: two comment lines in a row end the file there, and
 * everything after them is ignored. Keys and values lose blanks, tabs and
 * apostrophes at both ends ("name = 'a b'" gives "a b"). A line splits at
 * its first delimiter; later delimiters stay in the value. A line may be at
 * most CFG_MAX_LINE bytes.
 *
 * Every function that takes a detail pointer answers 1 for success and 0 for
 * failure and writes a detail code through its last argument:
 *   0  success
 *   1  the file could not be opened (missing, no permission), or a record of
 *      a cfg file ends before its length says
 *   2  a null handle; nothing to compile; unload of an absent list
 *   3  cfg_open into a handle variable that is not null; loading into a
 *      handle that already holds that kind of file (close it first)
 *   4  a text file's buffer could not be opened, or the file is empty or
 *      could not be read
 *   5  a null or empty path; a null output or argument; a bad cfg record; a
 *      row or column out of range; more than the limits below allow; an ini
 *      file whose first line is not a section header
 *   6  the requested cell is empty
 *   other  passed through from the allocator and the file layer
 * A null detail pointer is allowed: the call then does not report its detail.
 * Inputs beyond a limit are refused with detail 5 and nothing is written:
 * more than CFG_MAX_ITEMS lines in a format file or in one ini section, more
 * than CFG_MAX_SECTIONS sections, a cfg file with more than CFG_MAX_ROWS
 * records or a record with more than CFG_MAX_COLUMNS cells, a row index of
 * CFG_MAX_ROWS or more, a column index of CFG_MAX_COLUMNS or more, a cell
 * that runs past the end of its record, a line longer than CFG_MAX_LINE.
 *
 * Threading: nothing here locks. A handle and the lists in it belong to one
 * thread at a time. get_single_fmt_ini_msg, load_delim_msg_to_hndl and
 * zel_trim_str_spaces touch only their arguments and may run on any thread.
 */
#ifndef ZEL_CONFIG_H
#define ZEL_CONFIG_H

#include <stdint.h>
#include "types.h"

#ifdef __cplusplus
extern "C" {
#endif

enum {
    CFG_MAX_ITEMS = 1024,     /* items in a format list or in one ini section */
    CFG_MAX_SECTIONS = 1024,  /* sections in an ini file */
    CFG_MAX_ROWS = 1024,      /* rows of a cfg table, and records in a cfg file */
    CFG_MAX_COLUMNS = 1024,   /* columns of a cfg table, and cells in one record */
    CFG_MAX_LINE = 4095       /* bytes in one line of a text file */
};

/* A key and its value. An empty key or value is (null, 0). The texts are
 * owned by the list that holds the item. */
typedef struct sCfgItem {
    sPChar key;
    sPChar value;
} sCfgItem;

/* The lines of a format file, or of one ini section: `items` holds room for
 * CFG_MAX_ITEMS, of which `count` are in use. */
typedef struct sCfgItemList {
    sCfgItem *items;
    uint32_t count;
} sCfgItemList;

/* One ini section. Its item 0 is the header line: the key is the section's
 * name and there is no value. `index` is its position among the sections,
 * counted from 0; it becomes the section's row. */
typedef struct sCfgSection {
    sCfgItemList list;
    uint32_t index;
} sCfgSection;

/* The sections of an ini file: room for CFG_MAX_SECTIONS. */
typedef struct sCfgSectionList {
    sCfgSection *sections;
    uint32_t count;
} sCfgSectionList;

/* A loaded cfg file, in one allocation. A cell whose length is -1 is empty;
 * a cell of length 0 holds an empty text (null data). */
typedef struct sCfgTable {
    int32_t rows;           /* records read */
    int32_t widest;         /* most cells in one record */
    int32_t highest_row;    /* highest row index seen */
    int32_t highest_column; /* highest column index seen */
    int32_t cells;          /* cells read */
    sPChar cell[CFG_MAX_ROWS][CFG_MAX_COLUMNS];
} sCfgTable;

/* What cfg_open makes: each field is null until its kind of file is loaded. */
typedef struct sCfgHandle {
    sCfgTable *table;
    sCfgSectionList *ini;
    sCfgItemList *fmt;
} sCfgHandle;

/* ---- Handle ---------------------------------------------------------------- */

/* Makes an empty handle into `*handle`, which must be null (detail 3; a null
 * `handle` is detail 2). `ignored` is kept for the call shape. */
uint64_t cfg_open(sCfgHandle **handle, uint64_t ignored, uint32_t *err);

/* Releases the table's cells and the table, unloads the format and ini lists
 * (as cfg_unload_fmt and cfg_unload_ini do, so the ini list keeps its
 * unload rule), frees the handle and nulls `*handle`. Null: detail 2. */
uint64_t cfg_close(sCfgHandle **handle, uint32_t *err);

/* ---- Loading ---------------------------------------------------------------- */

/* Reads a cfg file into the handle's table. Null handle: 2; null or empty
 * path: 5; a table already loaded: 3; a record that is shorter than its row
 * index, or whose row, column or cell count is out of range, or whose cell
 * runs past its end: 5; a file that ends inside a record: the file layer's
 * detail. On failure the handle keeps no table. A zero length where a record
 * length is expected ends the file. */
uint64_t cfg_load_cfg(sCfgHandle *handle, sPChar *path, uint32_t *err);

/* Reads an ini file into the handle's ini list. Null handle: 2; null or empty
 * path: 5; a list already loaded: 3; a missing file: the file layer's detail
 * (1); empty or unreadable: 4; no section header first, too many sections or
 * lines, a line too long: 5. On failure the handle keeps no list. */
uint64_t cfg_load_ini(sCfgHandle *handle, sPChar *path, uint32_t *err);

/* Reads a format file into the handle's format list, one item per line split
 * at ':'. Details as cfg_load_ini, without the header rule. */
uint64_t cfg_load_fmt(sCfgHandle *handle, sPChar *path, uint32_t *err);

/* Releases an ini list and nulls `*list`; absent list: detail 2.
 * Only the texts of item 0 (the header) of each section are released; the
 * texts of the later items are NOT, and stay allocated. This is the
 * loader's long-standing rule and it is kept: release them yourself first
 * (pchar_destroy_mem on each key and value) if they must not outlive the
 * list. The item arrays, the sections and the list itself are released. */
uint64_t cfg_unload_ini(sCfgSectionList **list, uint32_t *err);

/* Releases a format list, every text of every item included, and nulls
 * `*list`; absent list: detail 2. */
uint64_t cfg_unload_fmt(sCfgItemList **list, uint32_t *err);

/* ---- Reading the table ------------------------------------------------------ */

/* Points `out` at the text of the cell (row, column); the text stays owned
 * by the table and is not terminated. Null handle or no table: 2; null
 * `out`: 5; a negative row, a row greater than the number of records read
 * (not the highest row index: a file whose rows are not 0, 1, 2... answers 5
 * for rows it holds), or a row or column beyond the table: 5; an empty
 * cell: 6. */
uint64_t cfg_get_item(sCfgHandle *handle, int32_t row, int32_t column, sPChar *out, uint32_t *err);

/* Writes the number of records read and the most cells in one record. Null
 * handle or no table: 2; a null output: 5. */
uint64_t cfg_get_size(sCfgHandle *handle, int32_t *rows, int32_t *columns, uint32_t *err);

/* ---- Compiling -------------------------------------------------------------- */

/* Replaces `out`'s content with the cfg form of every section of
 * `ini_handle`'s ini list, laid out by `fmt_handle`'s format list (the two
 * may be the same handle): for each section, a 4-byte length and the
 * section's record (see cfg_build_row_data). `out` may start empty (null
 * data); it grows as needed. No format or ini list: 2; null `out`: 5; a
 * result beyond 2 GiB: 5. On failure `out` holds the records built so far. */
uint64_t cfg_build_file_data(scratchcb *out, sCfgHandle *fmt_handle, sCfgHandle *ini_handle, uint32_t *err);

/* Replaces `row`'s content with the record of one section: its index, then,
 * for each format column j in order, the value of the section's first item
 * whose key equals the column's name (bytes and length), else the column's
 * default, else nothing. Null `row`: 5; null list or section: 2; a list or
 * section beyond the limits, or a section index of CFG_MAX_ROWS or more: 5. */
uint64_t cfg_build_row_data(scratchcb *row, sCfgItemList *fmt, sCfgSection *section, uint32_t *err);

/* ---- Lines of the text files ------------------------------------------------ */

/* Takes the next line of `text` (its first `len` bytes) from `*pos` on,
 * points `line` into `text` at it and moves `*pos` past it. Leading
 * whitespace and one comment line are skipped; an inline comment and the
 * blanks (not tabs) before it are cut off. Answers 1 for a line of non-zero
 * length, 0 at the end of the text and for an empty line (such as a second
 * comment line in a row). A null argument or a `*pos` outside the text
 * answers 0. */
uint64_t get_single_fmt_ini_msg(scratchcb *text, sPChar *line, int32_t *pos);

/* Splits `line` at the first character that is in `delimiter` into `item`:
 * the key is the first run of non-delimiter characters (leading delimiters
 * are skipped); when the line goes on past that run's length + 1 bytes from
 * its start, the value is the rest of the line from there, so later
 * delimiters stay in it. Both are trimmed with zel_trim_str_spaces and stored
 * as owned copies, (null, 0) when empty; a line without a key gives neither.
 * Null argument or a line longer than CFG_MAX_LINE: 5; a failed copy: the
 * allocator's detail. `item` is overwritten, not released. */
uint64_t load_delim_msg_to_hndl(sCfgItem *item, sPChar *line, const char *delimiter, uint32_t *err);

/* Removes blanks, tabs and apostrophes from both ends of the zero-terminated
 * `text`, in place (the text moves to its start). Null and empty texts are
 * left as they are. */
void zel_trim_str_spaces(char *text);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_CONFIG_H */
