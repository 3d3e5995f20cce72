// Vector: a growable array of fixed-size elements stored by value, with one
// iteration cursor and usage meters. Not locked: one thread at a time.
#include <zel/containers.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>

#include "platform/detail_slot.h"
#include "platform/memory.h"

using zel::mem_alloc;
using zel::mem_free;
using zel::mem_resize;

namespace {

enum Detail { kOk = 1, kEmpty = 2, kNoRoom = 3, kInvalid = 4, kNullHandle = 7, kAlreadyOpen = 9 };

constexpr int32_t kDefaultCapacity = 4;
// The meters charge the control block at this fixed size, whatever its layout.
constexpr uint64_t kBlockMemory = 64;

struct Vector {
    void *user;
    int32_t elem_size;
    int32_t step; // growth is linear: memory stays predictable in long-lived vectors
    int32_t count;
    uint32_t adds, deletes, reserved, grows, clears;
    char *array;
    int32_t capacity;
    int32_t cursor; // -1 when not iterating
};

int fail(int *err, int detail)
{
    *err = detail;
    return 0;
}

int succeed(int *err)
{
    *err = kOk;
    return 1;
}

// The vector behind a handle when every output in `required` is given;
// otherwise null with detail 7 (no vector) or 4 (an output missing).
Vector *vector_of(void *vec, int *err, std::initializer_list<const void *> required = {})
{
    auto *v = static_cast<Vector *>(vec);
    if (!v) {
        fail(err, kNullHandle);
        return nullptr;
    }
    for (const void *output : required) {
        if (!output) {
            fail(err, kInvalid);
            return nullptr;
        }
    }
    return v;
}

// True when 0 <= index <= last.
bool within(int index, int last) { return index >= 0 && index <= last; }

// Whether an array of `elements` fits the allocator's int-sized requests.
bool array_fits(int64_t elements, int32_t elem_size) { return elements * elem_size <= INT32_MAX; }

size_t bytes(const Vector *v, int64_t elements) { return size_t(elements) * size_t(v->elem_size); }

char *element(const Vector *v, int index) { return v->array + bytes(v, index); }

// Byte offset of `p` in the used part of the array, or -1 when it lies outside.
int64_t offset_in_array(const Vector *v, const void *p)
{
    auto start = reinterpret_cast<uintptr_t>(v->array), at = reinterpret_cast<uintptr_t>(p);
    return at >= start && at - start < bytes(v, v->count) ? int64_t(at - start) : -1;
}

// Adds one growth step of zeroed elements; on failure the vector is unchanged.
bool grow(Vector *v)
{
    int64_t capacity = int64_t(v->capacity) + v->step;
    if (capacity > INT32_MAX || !array_fits(capacity, v->elem_size))
        return false;
    char *array = v->array;
    int ignored;
    if (!mem_resize(&array, int(bytes(v, capacity)), &ignored))
        return false;
    std::memset(array + bytes(v, v->capacity), 0, bytes(v, v->step));
    v->array = array;
    v->capacity = int32_t(capacity);
    v->grows++;
    return true;
}

// The one insertion path. The element may be a copy source inside the array
// itself (an address from zel_vec_get), so it is followed by its offset
// across the move of a growth and the shift of the insertion.
int insert(Vector *v, const void *elem, int index, int *err)
{
    int64_t own = offset_in_array(v, elem);
    if (v->count == v->capacity && !grow(v))
        return fail(err, kNoRoom);
    char *slot = element(v, index);
    std::memmove(slot + v->elem_size, slot, bytes(v, v->count - index));
    if (own >= 0)
        elem = v->array + own + (own >= int64_t(bytes(v, index)) ? v->elem_size : 0);
    std::memmove(slot, elem, size_t(v->elem_size));
    v->count++;
    v->adds++;
    return succeed(err);
}

// Removes elements from..to inclusive (already checked) and closes the gap.
int remove_range(Vector *v, int from, int to, int *err)
{
    std::memmove(element(v, from), element(v, to + 1), bytes(v, v->count - to - 1));
    v->count -= to - from + 1;
    v->deletes += uint32_t(to - from + 1);
    return succeed(err);
}

// Hands out element `index`, or fails with `detail` when it does not exist.
int hand_out(const Vector *v, void **out, int index, int detail, int *err)
{
    if (!within(index, v->count - 1))
        return fail(err, detail);
    *out = element(v, index);
    return succeed(err);
}

} // namespace

int zel_vec_open(void **handle, sZELVecParams *p, int *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return fail(err, kNullHandle);
    if (*handle)
        return fail(err, kAlreadyOpen);
    if (!p || p->initial < 0 || p->elem_size <= 0)
        return fail(err, kInvalid);
    int32_t capacity = p->initial ? p->initial : kDefaultCapacity;
    if (!array_fits(capacity, p->elem_size))
        return fail(err, kInvalid);
    Vector *v = nullptr;
    int ignored;
    if (!mem_alloc(&v, sizeof(Vector), &ignored))
        return fail(err, kNoRoom);
    if (!mem_alloc(&v->array, capacity * p->elem_size, &ignored)) {
        mem_free(&v, &ignored);
        return fail(err, kNoRoom);
    }
    v->user = p->user;
    v->elem_size = p->elem_size;
    v->step = v->capacity = capacity;
    v->cursor = -1;
    *handle = v;
    return succeed(err);
}

int zel_vec_close(void **handle, int *err)
{
    err = zel::detail_slot(err);
    Vector *v = handle ? static_cast<Vector *>(*handle) : nullptr;
    if (!v)
        return fail(err, kNullHandle);
    int ignored;
    mem_free(&v->array, &ignored);
    mem_free(&v, &ignored);
    *handle = nullptr;
    return succeed(err);
}

int zel_vec_add(void *vec, void *elem, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {elem});
    if (!v)
        return 0;
    return insert(v, elem, v->count, err);
}

int zel_vec_add_at(void *vec, void *elem, int index, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    if (!elem || !within(index, v->count))
        return fail(err, kInvalid);
    return insert(v, elem, index, err);
}

int zel_vec_add_get(void *vec, void *elem, void **where, int *index, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {elem, where, index});
    if (!v)
        return 0;
    if (!insert(v, elem, v->count, err))
        return 0;
    *index = v->count - 1;
    *where = element(v, *index);
    return 1;
}

int zel_vec_del(void *vec, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    if (v->count == 0)
        return fail(err, kInvalid);
    return remove_range(v, v->count - 1, v->count - 1, err);
}

int zel_vec_del_at(void *vec, int index, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    if (!within(index, v->count - 1))
        return fail(err, kInvalid);
    return remove_range(v, index, index, err);
}

int zel_vec_del_first(void *vec, int *err)
{
    err = zel::detail_slot(err);
    return zel_vec_del_at(vec, 0, err);
}

int zel_vec_del_seq(void *vec, int from, int to, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    if (!within(from, to) || !within(to, v->count - 1))
        return fail(err, kInvalid);
    return remove_range(v, from, to, err);
}

int zel_vec_clear(void *vec, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    v->count = 0;
    v->clears++;
    return succeed(err);
}

int zel_vec_get(void *vec, void **out, int index, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    return hand_out(v, out, index, kInvalid, err);
}

int zel_vec_first(void *vec, void **out, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    v->cursor = v->count ? 0 : -1;
    return hand_out(v, out, 0, kEmpty, err);
}

int zel_vec_next(void *vec, void **out, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    if (v->cursor < 0)
        return fail(err, kEmpty);
    v->cursor = v->cursor + 1 < v->count ? v->cursor + 1 : -1;
    return hand_out(v, out, v->cursor, kInvalid, err);
}

int zel_vec_last(void *vec, void **out, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    return hand_out(v, out, v->count - 1, kEmpty, err);
}

int zel_vec_get_index(void *vec, void *elem, int *index, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {elem, index});
    if (!v)
        return 0;
    auto distance = int64_t(reinterpret_cast<uintptr_t>(elem) - reinterpret_cast<uintptr_t>(v->array));
    int64_t found = distance / v->elem_size;
    if (distance % v->elem_size != 0 || found < INT32_MIN || found > INT32_MAX)
        return fail(err, kInvalid);
    *index = int(found);
    return succeed(err);
}

int zel_vec_get_array(void *vec, void **array, int *count, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {array, count});
    if (!v)
        return 0;
    *array = v->array;
    *count = v->count;
    return succeed(err);
}

int zel_vec_get_count(void *vec, int *count, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {count});
    if (!v)
        return 0;
    *count = v->count;
    return succeed(err);
}

int zel_vec_get_info(void *vec, sZELVecInfocb *out, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    *out = {v->user, v->elem_size, v->step, v->count, v->adds};
    return succeed(err);
}

int zel_vec_get_meters(void *vec, sZELVecMeterscb *out, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err, {out});
    if (!v)
        return 0;
    *out = {v->adds, v->deletes, v->reserved, v->grows, v->clears, bytes(v, v->capacity) + kBlockMemory};
    return succeed(err);
}

int zel_vec_reset_meters(void *vec, int *err)
{
    err = zel::detail_slot(err);
    auto *v = vector_of(vec, err);
    if (!v)
        return 0;
    v->adds = v->deletes = v->reserved = v->grows = v->clears = 0;
    return succeed(err);
}
