// The hash table's hash functions.
#include "containers/hash_functions.h"

#include <cstring>

namespace zel::hash {

namespace {

int32_t byte_at(const char *key, int32_t i)
{
    return static_cast<signed char>(key[i]);
}

// h = h * multiplier + c over every byte; the compiler unrolls it.
template <uint32_t multiplier>
uint32_t multiply_add(const char *key, int32_t len)
{
    uint32_t h = 0;
    for (int32_t i = 0; i < len; ++i)
        h = h * multiplier + uint32_t(byte_at(key, i));
    return h;
}

struct Named {
    const char *name;
    Function function;
};

// Searched in this order; "hash_sdbm" has always selected the same function
// as "hash_phong".
constexpr Named names[] = {
    {"hash_ejb", ejb},
    {"hash_phong", phong},
    {"hash_sdbm", phong},
    {"hashr_torek", torek},
};

} // namespace

uint32_t ejb(const char *key, int32_t len)
{
    uint32_t h = 0;
    for (int32_t i = 0; i < len; ++i)
        h = (h * 37) ^ uint32_t(byte_at(key, i) - 32);
    return h % 1048583;
}

uint32_t phong(const char *key, int32_t len)
{
    uint32_t h = 0;
    for (int32_t i = 0; i < len; ++i)
        h = h * 1673936089u + 2621031229u + uint32_t(byte_at(key, i));
    return h;
}

uint32_t sdbm(const char *key, int32_t len)
{
    return multiply_add<65599>(key, len);
}

uint32_t torek(const char *key, int32_t len)
{
    return multiply_add<33>(key, len);
}

Function by_name(const char *name, int32_t len)
{
    if (len < 0 || (len > 0 && !name))
        return nullptr;
    for (const Named &known : names)
        if (std::strncmp(known.name, name ? name : "", size_t(len)) == 0)
            return known.function;
    return nullptr;
}

} // namespace zel::hash
