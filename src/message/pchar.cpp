// Counted strings: copying, comparing and sorting.
#include <zel/types.h>

#include <strings.h>

#include <cstring>
#include <utility>

#include "message/sort.h"
#include "platform/detail_slot.h"
#include "platform/memory.h"

extern "C" {

int p_mem_copy(char *dst, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    if (!dst || !src || !src->data || src->len < 0) {
        *err = 2;
        return 0;
    }
    std::memmove(dst, src->data, size_t(src->len));
    *err = 0;
    return 1;
}

int pchar_replicate_mem(sPChar *dst, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    if (!dst || !src || (!src->data && src->len > 0)) {
        *err = 2;
        return 0;
    }
    char *copy = nullptr;
    if (!zel::mem_alloc(&copy, src->len, err))
        return 0;
    std::memcpy(copy, src->data, size_t(src->len));
    dst->data = copy;
    dst->len = src->len;
    *err = 0;
    return 1;
}

int pchar_destroy_mem(sPChar *s, int *err)
{
    err = zel::detail_slot(err);
    if (!s || !s->data) {
        *err = 2;
        return 0;
    }
    if (!zel::mem_free(&s->data, err)) {
        *err = -1;
        return 0;
    }
    s->len = 0;
    *err = 0;
    return 1;
}

int pchar_compare(sPChar *a, sPChar *b, int nocase, int *err)
{
    err = zel::detail_slot(err);
    if (!a || !b) {
        *err = 2;
        return 0;
    }
    if (a->len != b->len)
        return 0;
    if (a->len <= 0)
        return 1;
    if (!a->data || !b->data) {
        *err = 2;
        return 0;
    }
    if (nocase)
        return strncasecmp(a->data, b->data, size_t(a->len)) == 0;
    return std::memcmp(a->data, b->data, size_t(a->len)) == 0;
}

int pchar_compare_match(sPChar *a, sPChar *b, int *err)
{
    err = zel::detail_slot(err);
    if (!a || !b || !a->data || !b->data || a->len < 1 || b->len < 1) {
        *err = 2;
        return 0;
    }
    // strcmp over NUL-terminated copies of both operands, without copying:
    // past its length an operand reads as its terminator.
    *err = 1;
    for (int32_t i = 0;; ++i) {
        unsigned char ca = i < a->len ? static_cast<unsigned char>(a->data[i]) : 0;
        unsigned char cb = i < b->len ? static_cast<unsigned char>(b->data[i]) : 0;
        if (ca != cb)
            return ca < cb ? -1 : 1;
        if (ca == 0)
            return 0;
    }
}

int p_quicksort_pchars(sPChar *array, int count, int *err)
{
    err = zel::detail_slot(err);
    int ignored;
    auto compare = [&ignored](sPChar &x, sPChar &y) { return pchar_compare_match(&x, &y, &ignored); };
    if (array && count > 1)
        zel::quicksort(array, count, compare);
    *err = 0;
    return 1;
}

} // extern "C"
