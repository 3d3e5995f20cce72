// Numbers in decimal text, and raw 2- and 4-byte numbers in byte buffers.
#include <zel/types.h>

#include <cstdlib>
#include <cstring>

#include "platform/detail_slot.h"

namespace {

// The longest number text accepted: it must fit the 128-byte work area with
// its terminator.
constexpr int32_t max_number_text = 127;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Copies a decimal text ("-" or a digit first, digits after; dots too when
// `allow_dot`) into `work` with a terminator.
bool number_text(char (&work)[max_number_text + 1], const sPChar *src, bool allow_dot)
{
    if (!src || !src->data || src->len <= 0 || src->len > max_number_text)
        return false;
    if (!is_digit(src->data[0]) && src->data[0] != '-')
        return false;
    for (int32_t i = 1; i < src->len; ++i) {
        char c = src->data[i];
        if (!is_digit(c) && !(allow_dot && c == '.'))
            return false;
    }
    std::memcpy(work, src->data, size_t(src->len));
    work[src->len] = '\0';
    return true;
}

template <typename T, typename Convert>
int convert_number(T *out, sPChar *src, int *err, bool allow_dot, Convert convert)
{
    char work[max_number_text + 1];
    if (!out || !number_text(work, src, allow_dot)) {
        *err = 2;
        return 0;
    }
    *out = convert(work);
    *err = 0;
    return 1;
}

} // namespace

extern "C" {

int pchars_to_int(int *out, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    return convert_number(out, src, err, false, [](const char *s) { return std::atoi(s); });
}

int pchars_to_long(long *out, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    return convert_number(out, src, err, false, [](const char *s) { return std::atol(s); });
}

int pchars_to_short(short *out, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    return convert_number(out, src, err, false,
                          [](const char *s) { return static_cast<short>(std::atoi(s) & 0xFFFF); });
}

int pchars_to_double(double *out, sPChar *src, int *err)
{
    err = zel::detail_slot(err);
    return convert_number(out, src, err, true, [](const char *s) { return std::atof(s); });
}

int isstrnum(const char *s)
{
    if (!s)
        return 0;
    for (; *s; ++s)
        if (!is_digit(*s))
            return 0;
    return 1;
}

int pput_two_byte_num(unsigned short value, char *base, int *offset, int *err)
{
    err = zel::detail_slot(err);
    std::memcpy(base + *offset, &value, 2);
    *offset += 2;
    *err = 0;
    return 1;
}

int pput_four_byte_num(unsigned int value, char *base, int *offset, int *err)
{
    err = zel::detail_slot(err);
    std::memcpy(base + *offset, &value, 4);
    *offset += 4;
    *err = 0;
    return 1;
}

int pget_two_byte_num(unsigned short *out, char *base, int *offset, int *err)
{
    err = zel::detail_slot(err);
    std::memcpy(out, base + *offset, 2);
    *offset += 2;
    *err = 0;
    return 1;
}

int pget_four_byte_num(unsigned int *out, char *base, int *offset, int *err)
{
    err = zel::detail_slot(err);
    std::memcpy(out, base + *offset, 4);
    *offset += 4;
    *err = 0;
    return 1;
}

} // extern "C"
