// The event functions: placeholders that keep their call shapes and their
// answers for callers written against them, and do nothing else.
#include <zel/descriptors.h>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr uint32_t first_event_kind = 101;
constexpr uint32_t last_event_kind = 102;

// The answer of the placeholders that always answer 0: detail 2 when a
// required argument is null, else 0.
uint64_t answer_zero(bool arguments_present, uint32_t *err)
{
    *err = arguments_present ? 0 : 2;
    return 0;
}

} // namespace

extern "C" {

uint64_t sys_event_open(void **, const uint32_t *request, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!request)
        return sys_fail(err, 2);
    if (request[0] < first_event_kind || request[0] > last_event_kind)
        return sys_fail(err, 5);
    return sys_succeed(err);
}

uint64_t sys_event_close(void *event, uint32_t *err)
{
    err = zel::detail_slot(err);
    return answer_zero(event != nullptr, err);
}

uint64_t sys_event_delete(void *a, void *b, uint32_t *err)
{
    err = zel::detail_slot(err);
    return answer_zero(a && b, err);
}

uint64_t sys_event_insert(void *a, void *b, uint32_t *err)
{
    err = zel::detail_slot(err);
    return answer_zero(a && b, err);
}

uint64_t sys_event_get_current(void **out, void *current, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!out)
        return sys_fail(err, 2);
    *out = current;
    return current ? sys_succeed(err) : sys_fail(err, 2);
}

uint64_t sys_event_get_first(void *, void *, void *c, uint32_t *err)
{
    err = zel::detail_slot(err);
    return answer_zero(c != nullptr, err);
}

uint64_t sys_event_get_next(void *, void *, void *c, uint32_t *err)
{
    err = zel::detail_slot(err);
    return answer_zero(c != nullptr, err);
}

} // extern "C"
