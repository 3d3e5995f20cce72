// Shared pieces of the configuration fuzz targets.
#pragma once

#include <cstring>
#include <vector>

#include "config/table.h"
#include "fuzz_util.h"

// One table for the whole run: it is large, and emptied after every input.
inline sCfgTable *shared_table()
{
    static sCfgTable *table;
    uint32_t err;
    if (!table && !zel::cfg::make_table(&table, &err))
        std::abort();
    return table;
}

// Feeds length-prefixed records to the table as the file layer delivers
// them: a zero length or a record cut short ends the bytes. Each record sits
// in a buffer of its exact size, so that a read past it is caught. Answers
// how many records the table took; the first refused one ends the feeding.
inline uint32_t add_framed_records(sCfgTable *table, const char *bytes, size_t size)
{
    uint32_t taken = 0, length = 0, err = 0;
    for (size_t pos = 0; size - pos >= sizeof length; pos += sizeof length + length, ++taken) {
        std::memcpy(&length, bytes + pos, sizeof length);
        if (length == 0 || length > size - pos - sizeof length)
            break;
        std::vector<char> record(bytes + pos + sizeof length, bytes + pos + sizeof length + length);
        if (!zel::cfg::add_record(table, record.data(), int32_t(length), &err))
            break;
    }
    return taken;
}
