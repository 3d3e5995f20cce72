// Reads arbitrary bytes as a format file and as an ini file (the text before
// the first NUL byte is the format file, the text after it the ini file; with
// no NUL both read the whole input). When both load, compiles the sections,
// reads the records back into a table and checks that every cell holds what
// its section or its column's default gave.
#include <string_view>

#include "config/text_lists.h"
#include "config_fuzz_util.h"

namespace {

std::string_view text(const sPChar &s)
{
    return s.len > 0 ? std::string_view(s.data, size_t(s.len)) : std::string_view();
}

// What the compiled table must hold at (section, column): null for nothing.
const sPChar *expected_cell(const sCfgSection &section, const sCfgItem &column)
{
    for (uint32_t i = 0; i < section.list.count; ++i)
        if (text(section.list.items[i].key) == text(column.key))
            return &section.list.items[i].value;
    return column.value.data ? &column.value : nullptr;
}

bool cell_matches(sCfgHandle *compiled, uint32_t row, uint32_t column, const sPChar *expected)
{
    sPChar cell{};
    uint32_t err;
    bool present = cfg_get_item(compiled, int32_t(row), int32_t(column), &cell, &err);
    return expected ? present && text(cell) == text(*expected) : !present && err == 6;
}

void check_compiled(sCfgHandle *lists)
{
    scratchcb out{};
    uint32_t err;
    int ignored;
    const bool built = cfg_build_file_data(&out, lists, lists, &err);
    require(built, "compiling loaded lists failed with detail %u\n", err);
    ExactScratch compiled(reinterpret_cast<const uint8_t *>(out.data), size_t(out.len));
    punset_buffer_size(&out, &ignored);
    sCfgHandle table{shared_table(), nullptr, nullptr};
    const uint32_t taken = add_framed_records(table.table, compiled.s.data, size_t(compiled.s.len));
    require(taken == lists->ini->count, "a compiled record was refused\n");
    for (uint32_t s = 0; s < lists->ini->count; ++s)
        for (uint32_t j = 0; j < lists->fmt->count; ++j)
            require(cell_matches(&table, s, j, expected_cell(lists->ini->sections[s], lists->fmt->items[j])),
                    "cell (%u, %u) does not hold what its section gave\n", s, j);
    zel::cfg::empty_table(table.table);
}

// cfg_unload_ini leaves the texts of every item after a section's first.
void release_lists(sCfgHandle *lists)
{
    uint32_t err;
    if (lists->fmt)
        cfg_unload_fmt(&lists->fmt, &err);
    for (uint32_t s = 0; lists->ini && s < lists->ini->count; ++s) {
        sCfgItemList &section = lists->ini->sections[s].list;
        zel::cfg::release_items(section.items + 1, section.count - 1);
    }
    if (lists->ini)
        cfg_unload_ini(&lists->ini, &err);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const uint8_t *nul = static_cast<const uint8_t *>(std::memchr(data, 0, size));
    ExactScratch fmt_text(data, nul ? size_t(nul - data) : size);
    ExactScratch ini_text(nul ? nul + 1 : data, nul ? size - size_t(nul - data) - 1 : size);
    sCfgHandle lists{};
    uint32_t err;
    bool loaded = zel::cfg::parse_fmt_text(&fmt_text.s, &lists.fmt, &err);
    loaded = zel::cfg::parse_ini_text(&ini_text.s, &lists.ini, &err) && loaded;
    if (loaded)
        check_compiled(&lists);
    release_lists(&lists);
    return 0;
}
