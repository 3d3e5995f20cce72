// The hash functions the hash table can be opened with. Bytes count as signed
// characters and all arithmetic wraps at 2^32. Pure; any thread.
#pragma once

#include <cstdint>

namespace zel::hash {

using Function = uint32_t (*)(const char *key, int32_t len);

uint32_t ejb(const char *key, int32_t len);    // "hash_ejb"
uint32_t phong(const char *key, int32_t len);  // "hash_phong", "hash_sdbm"
uint32_t sdbm(const char *key, int32_t len);   // selected by no name
uint32_t torek(const char *key, int32_t len);  // "hashr_torek"

// The function a name selects: the name is compared over its own length with
// each known name in turn, so a prefix (or the empty name) selects the first
// name it begins. Null when nothing matches.
Function by_name(const char *name, int32_t len);

} // namespace zel::hash
