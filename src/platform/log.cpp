// Logging: time-stamped text lines and tagged records, written to a file or
// sent to a remote logger through the descriptor layer.
#include <zel/descriptors.h>
#include <zel/log.h>
#include <zel/message.h>
#include <zel/platform.h>

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "platform/detail_slot.h"
#include "platform/result.h"

using zel::sys_fail;
using zel::sys_succeed;

namespace {

enum class LogType : uint32_t { none = 0, file = 1, text_file = 2, mnm_file = 3, net = 4 };

struct NamedLogType {
    std::string_view name;
    LogType type;
};

constexpr NamedLogType log_types[] = {
    {"log_file", LogType::file},
    {"log_text_file", LogType::text_file},
    {"log_mnm_file", LogType::mnm_file},
    {"log_net", LogType::net},
};

// The record buffer starts at the line buffer's size and grows with the record.
constexpr int record_initial_size = SYS_LOG_LINE_MAX;

// The logger's socket: a UDP client (one record per datagram), 2 connect
// attempts of at most 2 seconds each, blocking.
constexpr uint32_t logger_attempts = 2;
constexpr uint32_t logger_timeout_s = 2;
constexpr uint32_t logger_blocking = 1;

// The log file is reopened empty, never appended to; the two further request
// values are carried by the file layer uninterpreted.
constexpr uint32_t log_file_extra1 = 0;
constexpr uint32_t log_file_extra2 = 1;

// The platform layer's shared environment buffer holds values shorter than
// this, so a copy of one always fits.
constexpr size_t env_value_capacity = 400;

// One environment value, copied out of the shared buffer at once because the
// next read overwrites it.
class EnvValue {
public:
    explicit EnvValue(const char *name)
    {
        sPChar value{};
        uint32_t detail = 0;
        if (sys_fetch_env_variable(&value, name, &detail) && value.len > 0) {
            length_ = std::min(static_cast<size_t>(value.len), sizeof text_);
            std::memcpy(text_, value.data, length_);
        }
    }
    std::string_view view() const { return {text_, length_}; }
    sPChar pchar() { return {text_, static_cast<int32_t>(length_)}; }

private:
    char text_[env_value_capacity] = {};
    size_t length_ = 0;
};

bool is_continuation_byte(char c)
{
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// Bytes of the UTF-8 character a lead byte starts; 1 for ASCII and for bytes
// that start no character.
size_t character_length(char lead)
{
    const auto byte = static_cast<unsigned char>(lead);
    if (byte >= 0xF0)
        return 4;
    if (byte >= 0xE0)
        return 3;
    if (byte >= 0xC0)
        return 2;
    return 1;
}

// The longest prefix of `text`, at most `room` bytes, that does not end inside
// a multi-byte character. Only bytes before `room` are looked at, so it also
// serves text that a formatter has already cut.
size_t fitting_length(const char *text, size_t length, size_t room)
{
    if (length <= room)
        return length;
    size_t start = room;
    while (start > 0 && room - start < 4 && is_continuation_byte(text[start - 1]))
        --start;
    if (start == 0)
        return room;
    const size_t lead = start - 1;
    return lead + character_length(text[lead]) > room ? lead : room;
}

// Appends as much of `text` as the line has room for, in whole characters.
void append_within_line(scratchcb *line, std::string_view text)
{
    const size_t room = SYS_LOG_LINE_MAX - static_cast<size_t>(line->len);
    const size_t kept = fitting_length(text.data(), text.size(), room);
    std::memcpy(line->data + line->len, text.data(), kept);
    line->len += static_cast<int32_t>(kept);
}

LogType log_type_named(std::string_view value)
{
    for (const NamedLogType &known : log_types)
        if (known.name == value)
            return known.type;
    return LogType::none;
}

} // namespace

// Private to this file; applications see only the pointer. Everything below
// that takes a handle runs on the thread currently using it; nothing locks.
struct sLogHandle {
    LogType type;
    sTimeRecord *clock;          // the time of the line being written
    sFileDescriptor *file;       // file, text_file, mnm_file
    void *socket;                // net
    sPChar line_prefix;          // " host user name : ", the same for every line
    scratchcb line;              // never grown past SYS_LOG_LINE_MAX
    scratchcb record;
    vartocb *message;            // builds into `record`
};

namespace {

// Makes the buffers, the record builder and the clock; false with detail 1
// when memory runs out.
bool make_workspace(sLogHandle *log, uint32_t *err)
{
    int detail = 0;
    if (pset_buffer_size(&log->line, SYS_LOG_LINE_MAX, &detail) &&
        pset_buffer_size(&log->record, record_initial_size, &detail) &&
        zel_ctor_vartocb(&log->message, &detail) && sys_open_time_hndl(&log->clock, err))
        return true;
    *err = 1;
    return false;
}

// Everything of a text line between its time field and its message. USER is
// read before HOSTNAME; both are copied before the next read.
bool make_line_prefix(sLogHandle *log, const sPChar &name, uint32_t *err)
{
    const EnvValue user("USER");
    const EnvValue host("HOSTNAME");
    const std::string_view parts[] = {" ", host.view(), " ", user.view(), " ",
                                      {name.data, static_cast<size_t>(name.len)}, " : "};
    size_t total = 0;
    for (std::string_view part : parts)
        total += part.size();
    if (total > INT32_MAX)
        return sys_fail(err, 1);
    void *block = nullptr;
    if (!sys_mem_alloc(0, &block, nullptr, static_cast<int32_t>(total), err))
        return false;
    char *at = static_cast<char *>(block);
    for (std::string_view part : parts)
        at = std::copy(part.begin(), part.end(), at);
    log->line_prefix = {static_cast<char *>(block), static_cast<int32_t>(total)};
    return true;
}

// Whatever the file layer's reason, the caller learns one thing: the log file
// cannot be opened (detail 1).
bool open_log_file(sLogHandle *log, uint32_t *err)
{
    EnvValue path("PL_LOG_FILE");
    const uint32_t format = log->type == LogType::mnm_file ? SYS_FD_RECORDS : SYS_FD_TEXT;
    sFdOpenRequest request{path.pchar(), SYS_FD_WRITE, format, log_file_extra1, log_file_extra2};
    return sys_fd_open(&log->file, &request, err) || sys_fail(err, 1);
}

bool open_logger_socket(sLogHandle *log, uint32_t *err)
{
    EnvValue address("PL_LOGGER_ADDR");
    sSdOpenRequest request{address.pchar(), address.pchar(), SYS_SD_UDP,
                           logger_attempts, logger_timeout_s, logger_blocking};
    return sys_sd_open(&log->socket, &request, err);
}

bool open_destination(sLogHandle *log, uint32_t *err)
{
    return log->type == LogType::net ? open_logger_socket(log, err) : open_log_file(log, err);
}

// Closes and frees everything the handle holds, whatever was made of it.
// Answers the descriptor's close detail (0 when it closed cleanly).
uint32_t release(sLogHandle *log)
{
    uint32_t closed = 0;
    uint32_t ignored = 0;
    int ignored_int = 0;
    if (log->file)
        sys_fd_close(&log->file, &closed);
    if (log->socket)
        sys_sd_close(&log->socket, &closed);
    if (log->clock)
        sys_close_time_hndl(&log->clock, &ignored);
    if (log->message)
        zel_dtor_vartocb(&log->message, &ignored_int);
    if (void *prefix = log->line_prefix.data)
        sys_mem_free(0, &prefix, &ignored);
    punset_buffer_size(&log->line, &ignored_int);
    punset_buffer_size(&log->record, &ignored_int);
    void *block = log;
    sys_mem_free(0, &block, &ignored);
    return closed;
}

uint64_t write_line(sLogHandle *log, std::string_view message, uint32_t *err)
{
    scratchcb *line = &log->line;
    line->len = 0;
    if (!sys_record_time(log->clock, err) || !sys_time_format(log->clock, line, SYS_TIME_LOCALE, err))
        return 0;
    append_within_line(line, {log->line_prefix.data, static_cast<size_t>(log->line_prefix.len)});
    append_within_line(line, message);
    return sys_fd_write(log->file, 0, line, err) ? sys_succeed(err) : 0;
}

// Builds the record into the handle's record buffer; detail 15 when the
// builder refuses the start or a field.
bool build_record(sLogHandle *log, uint32_t count, const uint32_t *tags, sPChar *const *values, uint32_t *err)
{
    if (count > 0 && (!tags || !values))
        return sys_fail(err, 2);
    int detail = 0;
    log->record.len = 0;
    bool built = zel_start_msg(log->message, &log->record, &detail);
    for (uint32_t i = 0; built && i < count; ++i)
        built = zel_add_data(log->message, static_cast<int>(tags[i]), 1, values[i], &detail);
    return built || sys_fail(err, 15);
}

} // namespace

extern "C" {

uint64_t sys_log_open(sLogHandle **handle, sPChar *name, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 7);
    if (!name || name->len < 0 || (!name->data && name->len > 0))
        return sys_fail(err, 2);
    const LogType type = log_type_named(EnvValue("PL_LOG_TYPE").view());
    if (type == LogType::none)
        return sys_fail(err, 2);
    void *block = nullptr;
    if (!sys_mem_alloc(0, &block, nullptr, sizeof(sLogHandle), err))
        return 0;
    auto *log = static_cast<sLogHandle *>(block);
    log->type = type;
    if (!make_workspace(log, err) || !make_line_prefix(log, *name, err) || !open_destination(log, err)) {
        release(log);
        return 0;
    }
    *handle = log;
    return sys_succeed(err);
}

uint64_t sys_log(sLogHandle *log, uint32_t level, uint32_t *err, uint64_t, const char *format, ...)
{
    err = zel::detail_slot(err);
    if (!log || !format)
        return sys_fail(err, 2);
    char text[SYS_LOG_MESSAGE_MAX + 1];
    va_list args;
    va_start(args, format);
    const int formatted = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (formatted < 0)
        return sys_fail(err, 5);
    const size_t length = fitting_length(text, static_cast<size_t>(formatted), SYS_LOG_MESSAGE_MAX);
    // The record builder takes an empty value only as (null, 0).
    sPChar value{length ? text : nullptr, static_cast<int32_t>(length)};
    sPChar *values[] = {&value};
    uint32_t tags[] = {SYS_LOG_TEXT_TAG};
    switch (log->type) {
    case LogType::file:
        return write_line(log, {text, length}, err);
    case LogType::mnm_file:
        return sys_log_pm(log, level, 1, tags, values, err);
    case LogType::net:
        return sys_log_pm_net(log, level, 1, tags, values, err);
    case LogType::text_file:
    case LogType::none:
        break;
    }
    // A "log_text_file" log opens its file but takes no lines, as it always has.
    return sys_fail(err, 2);
}

uint64_t sys_log_pm(sLogHandle *log, uint32_t, uint32_t count, uint32_t *tags, sPChar **values, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!log || !log->file)
        return sys_fail(err, 2);
    if (!build_record(log, count, tags, values, err))
        return 0;
    return sys_fd_write(log->file, 0, &log->record, err) ? sys_succeed(err) : 0;
}

uint64_t sys_log_pm_net(sLogHandle *log, uint32_t, uint32_t count, uint32_t *tags, sPChar **values, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!log || !log->socket)
        return sys_fail(err, 2);
    if (!build_record(log, count, tags, values, err))
        return 0;
    return sys_sd_write(log->socket, 0, &log->record, err) ? sys_succeed(err) : 0;
}

uint64_t sys_log_close(sLogHandle **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    const uint32_t closed = release(*handle);
    *handle = nullptr;
    return closed == 0 ? sys_succeed(err) : sys_fail(err, closed);
}

} // extern "C"
