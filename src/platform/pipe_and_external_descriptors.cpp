// Pipe descriptors, which forward reads and writes to the transfer routine of
// the layer that made them, and external descriptors, which hold a bare OS
// descriptor number that someone else opened.
#include <zel/descriptors.h>

#include <unistd.h>

#include "platform/detail_slot.h"
#include "platform/result.h"
#include "platform/sys_block.h"

using zel::SysBlock;
using zel::sys_block_new;
using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr uint32_t kind_without_buffer = 6;
constexpr uint32_t direction_read = 1;
constexpr uint32_t direction_write = 2;

uint64_t transfer(sPipeDescriptor *pd, uint32_t direction, uint64_t a, uint64_t b, uint32_t *err)
{
    if (!pd || !pd->transfer)
        return sys_fail(err, 2);
    if (pd->direction != direction)
        return sys_fail(err, 5);
    return pd->transfer(pd, a, b, err) ? sys_succeed(err) : 0;
}

} // namespace

extern "C" {

uint64_t sys_pd_read(sPipeDescriptor *pd, uint64_t a, uint64_t b, uint32_t *err)
{
    err = zel::detail_slot(err);
    return transfer(pd, direction_read, a, b, err);
}

uint64_t sys_pd_write(sPipeDescriptor *pd, uint64_t a, uint64_t b, uint32_t *err)
{
    err = zel::detail_slot(err);
    return transfer(pd, direction_write, a, b, err);
}

uint64_t sys_pd_get_fd(sPipeDescriptor *pd, uint32_t *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!pd || !out)
        return sys_fail(err, 2);
    *out = uint32_t(pd->os_fd);
    return sys_succeed(err);
}

uint64_t sys_pd_get_type(sPipeDescriptor *pd, uint32_t *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!pd || !out)
        return sys_fail(err, 2);
    *out = pd->direction;
    return sys_succeed(err);
}

uint64_t sys_pd_close(sPipeDescriptor **pd, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!pd || !*pd)
        return sys_fail(err, 2);
    SysBlock<sPipeDescriptor> record(*pd);
    *pd = nullptr;
    int ignored;
    if (record->kind != kind_without_buffer)
        punset_buffer_size(&record->buffer, &ignored);
    return close(record->os_fd) == 0 ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_extd_open(int32_t **handle, int32_t *os_fd, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !os_fd)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    if (*os_fd < 0)
        return sys_fail(err, 5);
    SysBlock<int32_t> number = sys_block_new<int32_t>();
    if (!number)
        return sys_fail(err, 9);
    *number = *os_fd;
    *handle = number.release();
    return sys_succeed(err);
}

uint64_t sys_extd_close(int32_t **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    zel::SysBlockFree{}(*handle);
    *handle = nullptr;
    return sys_succeed(err);
}

} // extern "C"
