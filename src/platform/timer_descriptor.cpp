// Timer descriptors: an interval, an expiry counter and the time the timer
// was opened, kept for the code that emulates timers on top of them.
#include <zel/descriptors.h>

#include <cmath>
#include <cstring>

#include "platform/detail_slot.h"
#include "platform/result.h"
#include "platform/sys_block.h"

using zel::SysBlock;
using zel::sys_block_new;
using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr uint32_t timer_type = 3;
constexpr int64_t micros_per_second = 1000000;

bool is_timer(const sTimerDescriptor *td)
{
    return td && td->type == timer_type && td->record;
}

// Whole seconds and microseconds of the interval, rounded to the nearest
// microsecond: 0.3 s is 300000 us, not the 299999 that truncating the
// double would give.
void split_interval(double interval, sTimerRecord *record)
{
    const int64_t micros = std::llround(interval * double(micros_per_second));
    record->interval = interval;
    record->sec = uint32_t(micros / micros_per_second);
    record->usec = uint32_t(micros % micros_per_second);
}

} // namespace

extern "C" {

uint64_t sys_td_open(sTimerDescriptor **handle, double *interval, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    if (!interval || *interval == 0.0)
        return sys_fail(err, 2);
    // Negative, not a number, or more seconds than the record can hold.
    if (!(*interval > 0.0 && *interval < 4294967295.0))
        return sys_fail(err, 5);
    SysBlock<sTimerDescriptor> td = sys_block_new<sTimerDescriptor>();
    SysBlock<sTimerRecord> record = sys_block_new<sTimerRecord>();
    if (!td || !record)
        return sys_fail(err, 9);
    split_interval(*interval, record.get());
    if (!sys_get_time_of_day(&record->start, err))
        return 0;
    td->type = timer_type;
    td->record = record.release();
    *handle = td.release();
    return sys_succeed(err);
}

uint64_t sys_td_get_info(sTimerDescriptor *td, uint64_t *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_timer(td) || !out)
        return sys_fail(err, 2);
    std::memcpy(out, &td->record->interval, sizeof *out);
    return sys_succeed(err);
}

uint64_t sys_td_get_meters(sTimerDescriptor *td, sTimerMeters *out, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_timer(td) || !out)
        return sys_fail(err, 2);
    out->expiries = td->record->expiries;
    out->second = &td->record->second;
    out->start = &td->record->start;
    return sys_succeed(err);
}

uint64_t sys_td_set_meters(sTimerDescriptor *td, sTimerMeters *in, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_timer(td) || !in || !in->start)
        return sys_fail(err, 2);
    td->record->expiries = in->expiries;
    td->record->start = *in->start;
    return sys_succeed(err);
}

uint64_t sys_td_close(sTimerDescriptor *td, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!is_timer(td))
        return sys_fail(err, 2);
    zel::SysBlockFree free_block;
    free_block(td->record);
    free_block(td);
    return sys_succeed(err);
}

} // extern "C"
