// Chained hash table of counted-string keys, doubling at load factor 1, with
// a list of occupied buckets that keeps iteration of a sparse table cheap.
// Single-threaded: callers use a table from one thread or under their lock.
#include <zel/containers.h>
#include <zel/platform.h>

#include <strings.h>

#include <climits>
#include <cstring>

#include "containers/hash_functions.h"
#include "platform/detail_slot.h"

namespace {

struct Entry {
    void *value;
    uint32_t hash;
    char *key;
    int32_t len;
    Entry *next;
};

struct Table {
    uint64_t items;
    uint32_t *occupied;        // indexes of occupied buckets, in order of occupation
    uint32_t occupied_count;
    bool occupied_enabled;     // dropped once about a third of the buckets are in use
    uint64_t buckets;          // a power of two
    uint64_t mask;
    Entry **bucket;
    void *mem_context;
    zel::hash::Function function;
    sZELHashMeters meters;
    // Iteration: a position in the occupied list (or a bucket index when the
    // list is dropped), the entry last handed out, and the change count it
    // started from.
    uint64_t iter_position;
    Entry *iter_entry;
    uint64_t iter_changes;
    uint64_t changes;
};

constexpr uint64_t default_buckets = 16;
// Bucket arrays are sized in bytes by a signed 32-bit count.
constexpr uint64_t max_buckets = uint64_t(INT32_MAX) / sizeof(Entry *) + 1;

template <typename T>
bool allocate(void *context, T **block, uint64_t bytes, int *err)
{
    uint32_t detail = 0;
    void *p = nullptr;
    if (bytes > INT32_MAX) {
        *err = 1;
        return false;
    }
    bool ok = sys_mem_alloc(uint64_t(uintptr_t(context)), &p, nullptr, int32_t(bytes), &detail);
    *err = int(detail);
    *block = static_cast<T *>(p);
    return ok;
}

template <typename T>
void release(void *context, T **block)
{
    uint32_t detail = 0;
    void *p = *block;
    if (p)
        sys_mem_free(uint64_t(uintptr_t(context)), &p, &detail);
    *block = nullptr;
}

bool valid_key(const sPChar *key)
{
    return key && key->data && key->len > 0;
}

uint64_t occupied_capacity(uint64_t buckets)
{
    return buckets / 3;
}

// Whether the occupied list may hold `count` more entries than it does: it is
// kept only while it stays comfortably short of a third of the buckets.
bool occupied_has_room(const Table *t, uint64_t used)
{
    return int64_t(occupied_capacity(t->buckets)) - int64_t(used) > 2;
}

void drop_occupied_list(Table *t)
{
    release(t->mem_context, &t->occupied);
    t->occupied_count = 0;
    t->occupied_enabled = false;
}

// Records a bucket that has just become occupied.
void note_occupied(Table *t, uint64_t b)
{
    if (t->occupied_enabled) {
        int err;
        if (occupied_has_room(t, t->occupied_count) &&
            (t->occupied || allocate(t->mem_context, &t->occupied, occupied_capacity(t->buckets) * sizeof(uint32_t), &err)))
            t->occupied[t->occupied_count++] = uint32_t(b);
        else
            drop_occupied_list(t);
    }
    if (t->meters.occupied_buckets == 0 || b < t->meters.lowest_bucket)
        t->meters.lowest_bucket = uint32_t(b);
    ++t->meters.occupied_buckets;
    --t->meters.free_buckets;
}

void note_emptied(Table *t, uint64_t b)
{
    if (t->occupied_enabled) {
        for (uint32_t i = 0; i < t->occupied_count; ++i) {
            if (t->occupied[i] == b) {
                std::memmove(t->occupied + i, t->occupied + i + 1, (t->occupied_count - i - 1) * sizeof(uint32_t));
                --t->occupied_count;
                break;
            }
        }
    }
    --t->meters.occupied_buckets;
    ++t->meters.free_buckets;
    if (b == t->meters.lowest_bucket) {
        uint64_t next = b;
        while (next < t->buckets && !t->bucket[next])
            ++next;
        t->meters.lowest_bucket = next < t->buckets ? uint32_t(next) : 0;
    }
}

Entry **find_exact(Table *t, const sPChar *key, uint32_t hash)
{
    Entry **link = &t->bucket[hash & t->mask];
    for (; *link; link = &(*link)->next)
        if ((*link)->hash == hash && (*link)->len == key->len && std::memcmp((*link)->key, key->data, size_t(key->len)) == 0)
            return link;
    return nullptr;
}

// Equal lengths, and bytes equal ignoring ASCII case up to a NUL.
bool same_ignoring_case(const Entry *e, const sPChar *key)
{
    return e->len == key->len && (std::memcmp(e->key, key->data, size_t(key->len)) == 0 ||
                                  strncasecmp(e->key, key->data, size_t(key->len)) == 0);
}

void reset_occupied_state(Table *t)
{
    t->occupied_count = 0;
    t->occupied_enabled = occupied_has_room(t, 0);
    t->meters.occupied_buckets = 0;
    t->meters.free_buckets = uint32_t(t->buckets);
    t->meters.lowest_bucket = 0;
}

bool double_table(Table *t, int *err)
{
    uint64_t grown = t->buckets * 2;
    Entry **fresh = nullptr;
    if (grown > max_buckets || !allocate(t->mem_context, &fresh, grown * sizeof(Entry *), err)) {
        *err = 1;
        return false;
    }
    Entry **old = t->bucket;
    uint64_t old_count = t->buckets;
    drop_occupied_list(t);
    t->bucket = fresh;
    t->buckets = grown;
    t->mask = grown - 1;
    reset_occupied_state(t);
    t->occupied_enabled = occupied_has_room(t, t->items);
    for (uint64_t b = 0; b < old_count; ++b) {
        for (Entry *e = old[b]; e;) {
            Entry *next = e->next;
            uint64_t nb = e->hash & t->mask;
            if (!fresh[nb])
                note_occupied(t, nb);
            e->next = fresh[nb];
            fresh[nb] = e;
            e = next;
        }
    }
    release(t->mem_context, &old);
    ++t->meters.doublings;
    return true;
}

void free_entries(Table *t)
{
    for (uint64_t b = 0; b < t->buckets; ++b) {
        for (Entry *e = t->bucket[b]; e;) {
            Entry *next = e->next;
            release(t->mem_context, &e);
            e = next;
        }
        t->bucket[b] = nullptr;
    }
    t->items = 0;
}

Table *table_of(void *h, int *err)
{
    if (!h)
        *err = 1;
    return static_cast<Table *>(h);
}

// The table behind `h` when `key` is usable too; otherwise null with detail 1
// (no table) or 3 (no key bytes).
Table *keyed_table(void *h, const sPChar *key, int *err)
{
    Table *t = table_of(h, err);
    if (t && !valid_key(key)) {
        *err = 3;
        return nullptr;
    }
    return t;
}

void hand_out(const Entry *e, sPChar *key_out, void **value_out)
{
    if (key_out)
        *key_out = sPChar{e->key, e->len};
    if (value_out)
        *value_out = e->value;
}

// The bucket at an iteration position, or `buckets` past the end.
uint64_t bucket_at(const Table *t, uint64_t position)
{
    if (t->occupied_enabled)
        return position < t->occupied_count ? t->occupied[position] : t->buckets;
    return position;
}

// Moves the iteration to the first entry at or after `position`.
int iterate_from(Table *t, uint64_t position, sPChar *key_out, void **value_out, int *err)
{
    for (uint64_t b; (b = bucket_at(t, position)) < t->buckets; ++position) {
        if (t->bucket[b]) {
            t->iter_position = position;
            t->iter_entry = t->bucket[b];
            hand_out(t->iter_entry, key_out, value_out);
            *err = 0;
            return 1;
        }
    }
    t->iter_entry = nullptr;
    *err = 4;
    return 0;
}

} // namespace

extern "C" {

int zel_hash_open(void **handle, sZELHashParams *p, int *err)
{
    err = zel::detail_slot(err);
    if (!handle) {
        *err = 3;
        return 0;
    }
    if (*handle) {
        *err = 5;
        return 0;
    }
    if (!p) {
        *err = 3;
        return 0;
    }
    zel::hash::Function function = zel::hash::by_name(p->hash_name.data, p->hash_name.len);
    if (!function) {
        *err = 3;
        return 0;
    }
    uint64_t buckets = default_buckets;
    if (p->size > 0)
        for (buckets = 2; buckets < uint64_t(p->size); buckets *= 2) {
        }
    Table *t = nullptr;
    if (buckets > max_buckets || !allocate(p->mem_context, &t, sizeof(Table), err)) {
        *err = 1;
        return 0;
    }
    t->mem_context = p->mem_context;
    t->function = function;
    t->buckets = buckets;
    t->mask = buckets - 1;
    if (!allocate(t->mem_context, &t->bucket, buckets * sizeof(Entry *), err)) {
        release(p->mem_context, &t);
        return 0;
    }
    reset_occupied_state(t);
    *handle = t;
    *err = 0;
    return 1;
}

int zel_hash_close(void **handle, int *err)
{
    err = zel::detail_slot(err);
    Table *t = table_of(handle ? *handle : nullptr, err);
    if (!t)
        return 0;
    free_entries(t);
    void *context = t->mem_context;
    release(context, &t->bucket);
    release(context, &t->occupied);
    release(context, &t);
    *handle = nullptr;
    *err = 0;
    return 1;
}

int zel_hash_clear(void *h, int *err)
{
    err = zel::detail_slot(err);
    Table *t = table_of(h, err);
    if (!t)
        return 0;
    free_entries(t);
    release(t->mem_context, &t->occupied);
    reset_occupied_state(t);
    t->meters.adds_since_clear = 0;
    ++t->changes;
    *err = 0;
    return 1;
}

int zel_hash_add(void *h, sPChar *key, void *value, int *err)
{
    err = zel::detail_slot(err);
    Table *t = keyed_table(h, key, err);
    if (!t)
        return 0;
    uint32_t hash = t->function(key->data, key->len);
    if (Entry **found = find_exact(t, key, hash)) {
        (*found)->value = value;
        ++t->meters.replaces;
        *err = 0;
        return 1;
    }
    if (t->items >= t->buckets && !double_table(t, err))
        return 0;
    Entry *e = nullptr;
    if (!allocate(t->mem_context, &e, sizeof(Entry), err))
        return 0;
    *e = Entry{value, hash, key->data, key->len, nullptr};
    uint64_t b = hash & t->mask;
    if (t->bucket[b])
        ++t->meters.collisions;
    else
        note_occupied(t, b);
    e->next = t->bucket[b];
    t->bucket[b] = e;
    ++t->items;
    ++t->meters.adds;
    ++t->meters.adds_since_clear;
    ++t->changes;
    *err = 0;
    return 1;
}

int zel_hash_delete(void *h, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Table *t = keyed_table(h, key, err);
    if (!t)
        return 0;
    uint32_t hash = t->function(key->data, key->len);
    Entry **link = find_exact(t, key, hash);
    if (!link) {
        *err = 4;
        return 0;
    }
    Entry *e = *link;
    *link = e->next;
    if (value_out)
        *value_out = e->value;
    release(t->mem_context, &e);
    --t->items;
    ++t->meters.deletes;
    ++t->changes;
    uint64_t b = hash & t->mask;
    if (!t->bucket[b])
        note_emptied(t, b);
    *err = 0;
    return 1;
}

int zel_hash_table_find(void *h, sPChar *key, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Table *t = keyed_table(h, key, err);
    if (!t)
        return 0;
    // The stored hash is not compared, so case-insensitive matches are found
    // only within the key's own bucket.
    for (Entry *e = t->bucket[t->function(key->data, key->len) & t->mask]; e; e = e->next) {
        if (same_ignoring_case(e, key)) {
            if (value_out)
                *value_out = e->value;
            *err = 0;
            return 1;
        }
    }
    *err = 4;
    return 0;
}

int zel_hash_first_item(void *h, sPChar *key_out, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Table *t = table_of(h, err);
    if (!t)
        return 0;
    t->iter_changes = t->changes;
    uint64_t start = t->occupied_enabled ? 0 : t->meters.lowest_bucket;
    return iterate_from(t, start, key_out, value_out, err);
}

int zel_hash_next_item(void *h, sPChar *key_out, void **value_out, int *err)
{
    err = zel::detail_slot(err);
    Table *t = table_of(h, err);
    if (!t)
        return 0;
    if (!t->iter_entry || t->iter_changes != t->changes) {
        t->iter_entry = nullptr;
        *err = 4;
        return 0;
    }
    if (Entry *next = t->iter_entry->next) {
        t->iter_entry = next;
        hand_out(next, key_out, value_out);
        *err = 0;
        return 1;
    }
    return iterate_from(t, t->iter_position + 1, key_out, value_out, err);
}

int zel_hash_meters(void *h, sZELHashMeters *out, int *err)
{
    err = zel::detail_slot(err);
    Table *t = table_of(h, err);
    if (!t)
        return 0;
    if (!out) {
        *err = 3;
        return 0;
    }
    *out = t->meters;
    *err = 0;
    return 1;
}

} // extern "C"
