// Lines of format and ini text: finding the next meaningful line, splitting it
// into key and value, and trimming both. Pure; any thread.
#include <zel/config.h>

#include <cstring>

#include "config/text_lists.h"
#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

bool is_whitespace(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

bool is_trimmed(char c)
{
    return c == ' ' || c == '\t' || c == '\'';
}

bool is_line_break(char c)
{
    return c == '\n' || c == '\r';
}

int32_t skip_whitespace(const char *text, int32_t at, int32_t end)
{
    while (at < end && is_whitespace(text[at]))
        ++at;
    return at;
}

// Both comment forms run to the end of their line: the slash-asterisk form
// never opens a block.
bool starts_comment(const char *text, int32_t at, int32_t end)
{
    return at + 1 < end && text[at] == '/' && (text[at + 1] == '/' || text[at + 1] == '*');
}

int32_t end_of_line(const char *text, int32_t at, int32_t end)
{
    while (at < end && !is_line_break(text[at]))
        ++at;
    return at;
}

int32_t end_of_content(const char *text, int32_t at, int32_t end)
{
    while (at < end && !is_line_break(text[at]) && !starts_comment(text, at, end))
        ++at;
    return at;
}

// Stores a copy of a terminated text, or (null, 0) for an empty one.
bool store_text(sPChar *out, char *text, uint32_t *err)
{
    *out = sPChar{nullptr, 0};
    sPChar found{text, int32_t(std::strlen(text))};
    if (found.len == 0)
        return true;
    int detail = 0;
    bool copied = pchar_replicate_mem(out, &found, &detail);
    *err = uint32_t(detail);
    return copied;
}

} // namespace

extern "C" {

uint64_t get_single_fmt_ini_msg(scratchcb *text, sPChar *line, int32_t *pos)
{
    if (!text || !text->data || !line || !pos || *pos < 0 || *pos >= text->len)
        return 0;
    const char *bytes = text->data;
    const int32_t end = text->len;
    int32_t start = skip_whitespace(bytes, *pos, end);
    // Only one comment line goes per call: a second one right after it reads
    // as an empty line, and an empty line ends the loaders' reading.
    if (starts_comment(bytes, start, end))
        start = skip_whitespace(bytes, end_of_line(bytes, start, end), end);
    const int32_t stop = end_of_content(bytes, start, end);
    int32_t length = stop - start;
    while (length > 0 && bytes[start + length - 1] == ' ')
        --length;
    *pos = starts_comment(bytes, stop, end) ? end_of_line(bytes, stop, end) : stop;
    *line = sPChar{text->data + start, length};
    return length != 0;
}

uint64_t load_delim_msg_to_hndl(sCfgItem *item, sPChar *line, const char *delimiter, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!item || !line || !delimiter || line->len < 0 || (line->len > 0 && !line->data) || line->len > CFG_MAX_LINE)
        return sys_fail(err, 5);
    *item = sCfgItem{};
    char work[CFG_MAX_LINE + 1];
    if (line->len > 0)
        std::memcpy(work, line->data, size_t(line->len));
    work[line->len] = '\0';

    char *rest = nullptr;
    char *key = strtok_r(work, delimiter, &rest);
    if (!key)
        return sys_succeed(err);
    // The value is found by the key's untrimmed length counted from the start
    // of the line, not from the key: after leading delimiters it starts inside
    // the key's own text. This is the loader's long-standing rule, kept.
    const size_t key_length = std::strlen(key);
    zel_trim_str_spaces(key);
    if (!store_text(&item->key, key, err))
        return 0;
    if (key_length + 1 < size_t(line->len)) {
        char *value = work + key_length + 1;
        zel_trim_str_spaces(value);
        if (!store_text(&item->value, value, err)) {
            zel::cfg::release_text(&item->key);
            return 0;
        }
    }
    return sys_succeed(err);
}

void zel_trim_str_spaces(char *text)
{
    if (!text)
        return;
    size_t length = std::strlen(text);
    while (length > 0 && is_trimmed(text[length - 1]))
        --length;
    text[length] = '\0';
    size_t start = 0;
    while (start < length && is_trimmed(text[start]))
        ++start;
    std::memmove(text, text + start, length - start + 1);
}

} // extern "C"
