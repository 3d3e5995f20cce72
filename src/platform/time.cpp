// Wall-clock time: reading the clock, time handles, broken-down local time and
// the fixed-width text layouts that log lines and file names are built from.
#include <zel/platform.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

enum class Clock { none, local, utc };

struct Layout {
    Clock clock;
    int width;
};

// Indexed by format code; codes start at 1.
constexpr Layout layouts[] = {
    {Clock::none, 0},
    {Clock::local, 8},  // SYS_TIME_MMDDYY_DASH
    {Clock::local, 8},  // SYS_TIME_YYYYMMDD
    {Clock::local, 6},  // SYS_TIME_MMDDYY
    {Clock::local, 24}, // SYS_TIME_LOCALE
    {Clock::local, 8},  // SYS_TIME_HH_MM_SS
    {Clock::utc, 6},    // SYS_TIME_UTC_HHMMSS
    {Clock::local, 6},  // SYS_TIME_HHMMSS
    {Clock::none, 6},   // SYS_TIME_MICROS
    {Clock::none, 10},  // SYS_TIME_SECONDS
    {Clock::local, 10}, // SYS_TIME_WDAY_MON_DD
    {Clock::local, 10}, // SYS_TIME_YYYY_MM_DD
    {Clock::utc, 8},    // SYS_TIME_UTC_YYYYMMDD
    {Clock::utc, 24},   // SYS_TIME_UTC_FULL
};
constexpr uint32_t last_code = SYS_TIME_UTC_FULL;
static_assert(std::size(layouts) == last_code + 1);

// The names asctime prints, whatever the locale.
constexpr const char *weekday_names[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char *month_names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                       "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Room for "%c" (at most 100 characters) and every fixed layout.
constexpr size_t text_capacity = 101;

bool read_clock(sTimeRecord *t)
{
    timespec now{};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0)
        return false;
    t->sec = static_cast<uint32_t>(now.tv_sec);
    // Millisecond resolution, as every stored time stamp has always had.
    t->usec = static_cast<uint32_t>(now.tv_nsec / 1000000) * 1000;
    return true;
}

bool to_broken_down(uint32_t sec, Clock clock, tm *out)
{
    const time_t seconds = sec;
    switch (clock) {
    case Clock::local:
        return localtime_r(&seconds, out) != nullptr;
    case Clock::utc:
        return gmtime_r(&seconds, out) != nullptr;
    case Clock::none:
        break;
    }
    return true;
}

// Writes layout `code` of `t`, whose seconds are broken down on the layout's
// clock as `bt`, into `text`; answers the text's length.
size_t format_layout(uint32_t code, const sTimeRecord &t, const tm &bt, char *text, size_t capacity)
{
    const int year = bt.tm_year + 1900;
    const int month = bt.tm_mon + 1;
    int written = 0;
    switch (code) {
    case SYS_TIME_MMDDYY_DASH:
        written = std::snprintf(text, capacity, "%02d-%02d-%02d", month, bt.tm_mday, year % 100);
        break;
    case SYS_TIME_YYYYMMDD:
    case SYS_TIME_UTC_YYYYMMDD:
        written = std::snprintf(text, capacity, "%04d%02d%02d", year, month, bt.tm_mday);
        break;
    case SYS_TIME_MMDDYY:
        written = std::snprintf(text, capacity, "%02d%02d%02d", month, bt.tm_mday, year % 100);
        break;
    case SYS_TIME_LOCALE:
        // strftime answers 0 for a text that does not fit: it then reads as empty.
        return std::strftime(text, capacity, "%c", &bt);
    case SYS_TIME_HH_MM_SS:
        written = std::snprintf(text, capacity, "%02d:%02d:%02d", bt.tm_hour, bt.tm_min, bt.tm_sec);
        break;
    case SYS_TIME_UTC_HHMMSS:
    case SYS_TIME_HHMMSS:
        written = std::snprintf(text, capacity, "%02d%02d%02d", bt.tm_hour, bt.tm_min, bt.tm_sec);
        break;
    case SYS_TIME_MICROS:
        written = std::snprintf(text, capacity, "%06" PRIu32, t.usec);
        break;
    case SYS_TIME_SECONDS:
        written = std::snprintf(text, capacity, "%010" PRIu32, t.sec);
        break;
    case SYS_TIME_WDAY_MON_DD:
        written = std::snprintf(text, capacity, "%s %s %02d", weekday_names[bt.tm_wday],
                                month_names[bt.tm_mon], bt.tm_mday);
        break;
    case SYS_TIME_YYYY_MM_DD:
        written = std::snprintf(text, capacity, "%04d-%02d-%02d", year, month, bt.tm_mday);
        break;
    case SYS_TIME_UTC_FULL:
        written = std::snprintf(text, capacity, "%s %s %02d %02d:%02d:%02d %04d",
                                weekday_names[bt.tm_wday], month_names[bt.tm_mon], bt.tm_mday,
                                bt.tm_hour, bt.tm_min, bt.tm_sec, year);
        break;
    }
    return written < 0 ? 0 : std::min(static_cast<size_t>(written), capacity - 1);
}

// Makes `s` hold at least `needed` bytes; false when it cannot.
bool make_room(scratchcb *s, int64_t needed)
{
    int detail = 0;
    if (needed > s->alloc && (needed > INT32_MAX || !pset_buffer_size(s, static_cast<int>(needed), &detail)))
        return false;
    return s->data != nullptr;
}

// Writes `text` as exactly `width` bytes at `s->len` (space-filled when
// shorter, cut when longer), terminates it and advances `s->len` by `width`.
// The caller has made room for width + 1 bytes.
void append_padded(scratchcb *s, const char *text, size_t length, int width)
{
    char *at = s->data + s->len;
    const size_t kept = std::min(length, static_cast<size_t>(width));
    std::memcpy(at, text, kept);
    std::memset(at + kept, ' ', static_cast<size_t>(width) - kept);
    at[width] = '\0';
    s->len += width;
}

} // namespace

extern "C" {

uint64_t sys_get_time_of_day(sTimeRecord *t, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!t)
        return sys_fail(err, 5);
    return read_clock(t) ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_time_get(sTimeRecord *t, uint32_t *sec, uint32_t *usec, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!t || !sec || !usec)
        return sys_fail(err, 5);
    *sec = t->sec;
    *usec = t->usec;
    return sys_succeed(err);
}

uint64_t sys_time_set(sTimeRecord *t, int32_t sec, int32_t usec, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!t || sec < 0 || usec < 0)
        return sys_fail(err, 5);
    t->sec = static_cast<uint32_t>(sec);
    t->usec = static_cast<uint32_t>(usec);
    return sys_succeed(err);
}

uint64_t sys_open_time_hndl(sTimeRecord **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    void *record = nullptr;
    if (!sys_mem_alloc(0, &record, nullptr, sizeof(sTimeRecord), err))
        return 0;
    *handle = static_cast<sTimeRecord *>(record);
    return sys_succeed(err);
}

uint64_t sys_close_time_hndl(sTimeRecord **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    void *record = *handle;
    if (!sys_mem_free(0, &record, err))
        return 0;
    *handle = nullptr;
    return sys_succeed(err);
}

uint64_t sys_record_time(sTimeRecord *handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    return read_clock(handle) ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_get_local_time(sTimeRecord *t, struct tm **out, uint32_t *err)
{
    err = zel::detail_slot(err);
    // Callers get a pointer, not a copy, so the result must outlive the call;
    // like the system's own shared result it is overwritten by the next
    // conversion, but only by one on the same thread.
    thread_local tm local_time;
    if (!t || !out)
        return sys_fail(err, 5);
    if (!to_broken_down(t->sec, Clock::local, &local_time))
        return sys_fail(err, 1);
    *out = &local_time;
    return sys_succeed(err);
}

uint64_t sys_time_format(sTimeRecord *t, scratchcb *s, uint32_t code, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!t || !s)
        return sys_fail(err, 2);
    if (code < 1 || code > last_code || s->len < 0)
        return sys_fail(err, 5);
    const Layout &layout = layouts[code];
    tm broken_down{};
    if (!to_broken_down(t->sec, layout.clock, &broken_down))
        return sys_fail(err, 1);
    char text[text_capacity];
    const size_t length = format_layout(code, *t, broken_down, text, sizeof text);
    if (!make_room(s, int64_t{s->len} + layout.width + 1))
        return sys_fail(err, 9);
    append_padded(s, text, length, layout.width);
    return sys_succeed(err);
}

} // extern "C"
