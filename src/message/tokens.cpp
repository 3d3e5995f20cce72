// Splitting admin text into tokens, in place.
#include <cstring>

#include <zel/message.h>

namespace {

bool is_blank(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Collapses the quoted token that starts at `first` (just past its opening
// quote) in place: each doubled quote becomes one, the bytes this frees turn
// into blanks, and the closing quote into a NUL. Returns the length of the
// token's text. Without a closing quote the token runs to the end.
int32_t unquote(char *s, int64_t first, int64_t len)
{
    int64_t r = first, w = first;
    while (r < len) {
        if (s[r] != '\'') {
            s[w++] = s[r++];
        } else if (r + 1 < len && s[r + 1] == '\'') {
            s[w++] = '\'';
            r += 2;
        } else {
            break;
        }
    }
    int64_t text_len = w - first;
    if (r < len) {
        s[w++] = '\0';
        ++r;
    }
    std::memset(s + w, ' ', size_t(r - w));
    return int32_t(strnlen(s + first, size_t(text_len)));
}

} // namespace

extern "C" int zel_get_data_triplets(sPChar *tokens, int *ntokens, sPChar *text)
{
    if (!text || !text->data || text->len <= 0) {
        if (ntokens)
            *ntokens = 0;
        return 0;
    }
    char *s = text->data;
    int64_t len = text->len;
    int64_t p = 0;
    int n = 0;
    while (p < len) {
        while (p < len && is_blank(s[p]))
            ++p;
        if (p >= len)
            break;
        int64_t start = p;
        int32_t token_len;
        if (s[p] == '\'') {
            start = p + 1;
            token_len = unquote(s, start, len);
        } else {
            int64_t q = p;
            while (q < len && !is_blank(s[q]))
                ++q;
            token_len = int32_t(q - p);
        }
        tokens[n++] = sPChar{s + start, token_len};
        p = start + token_len + 1;
        if (p < len && s[p] == '\0')
            ++p;
    }
    *ntokens = n;
    return 1;
}
