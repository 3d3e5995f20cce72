// Trace lines: what was sent and received, and when the connection changed.
#include "transport/trace_file.h"

#include <zel/message.h>

#include <cstring>
#include <ctime>

#include "api/alert.h"

namespace zel {

namespace {

constexpr int scratch_size = 4096;

std::string printf_string(const char *format, auto... args)
{
    int n = std::snprintf(nullptr, 0, format, args...);
    std::string out(size_t(n > 0 ? n : 0), '\0');
    std::snprintf(out.data(), out.size() + 1, format, args...);
    return out;
}

int length_of(std::string_view text)
{
    return int(text.size());
}

} // namespace

TraceFile::TraceFile()
{
    int err = 0;
    if (!zel_open_scratch(&body_, scratch_size, &err) || !zel_open_scratch(&admin_, scratch_size, &err))
        alert("ScratchCb open failed");
    if (!zel_ctor_vartocb(&parsed_, &err))
        alert("Vartocb ctor failed");
}

TraceFile::~TraceFile()
{
    close();
    int err = 0;
    zel_close_scratch(&body_, &err);
    zel_close_scratch(&admin_, &err);
    zel_dtor_vartocb(&parsed_, &err);
}

void TraceFile::open(const std::string &path)
{
    std::lock_guard<std::mutex> guard(lock_);
    if (file_)
        std::fclose(file_);
    file_ = std::fopen(path.c_str(), "w+");
}

void TraceFile::close()
{
    std::lock_guard<std::mutex> guard(lock_);
    if (file_)
        std::fclose(file_);
    file_ = nullptr;
}

bool TraceFile::is_open() const
{
    std::lock_guard<std::mutex> guard(lock_);
    return file_ != nullptr;
}

// Day, month, year, hour, minute, second and millisecond of the local time.
std::string TraceFile::time_stamp(char direction)
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    return printf_string("%c %u-%u-%u %u:%u:%u:%u", direction, unsigned(local.tm_mday), unsigned(local.tm_mon + 1),
                         unsigned(local.tm_year + 1900), unsigned(local.tm_hour), unsigned(local.tm_min),
                         unsigned(local.tm_sec), unsigned(now.tv_nsec / 1000000));
}

bool TraceFile::admin_text(const char *body, int32_t len)
{
    int err = 0;
    if (!body_ || !admin_ || !parsed_ || (body_->alloc < len && !pset_buffer_size(body_, len + scratch_size, &err))) {
        alert("Add to scratchCb is failed");
        return false;
    }
    std::memcpy(body_->data, body, size_t(len));
    body_->len = len;
    admin_->len = 0;
    if (!zel_parse_first_msg(parsed_, nullptr, body_, &err))
        alert("zel_parse_msg failed");
    else if (!varto_to_admin(parsed_, admin_, &err))
        alert("varto_to_admin failed");
    return true;
}

void TraceFile::write_group(char direction, const std::string &head)
{
    std::lock_guard<std::mutex> guard(lock_);
    if (!file_)
        return;
    std::fprintf(file_, "%s\n%c %.*s\n%c\n", head.c_str(), direction, int(admin_->len), admin_->data, direction);
    std::fflush(file_);
}

// The group of a message that went through an exchange.
void TraceFile::exchange_group(char direction, std::string_view exchange, std::string_view key, const char *body,
                               int32_t len)
{
    if (!is_open() || !admin_text(body, len))
        return;
    write_group(direction, printf_string("%s | %.*s | %d | %.*s ", time_stamp(direction).c_str(),
                                         length_of(exchange), exchange.data(), len, length_of(key), key.data()));
}

void TraceFile::sent_message(std::string_view exchange, std::string_view routing_key, const char *body, int32_t len)
{
    exchange_group('>', exchange, routing_key, body, len);
}

void TraceFile::received_message(std::string_view exchange, std::string_view routing_key, const char *body,
                                 int32_t len)
{
    exchange_group('<', exchange, routing_key, body, len);
}

void TraceFile::received_data(std::string_view label, const char *body, int32_t len)
{
    if (!is_open() || !admin_text(body, len))
        return;
    write_group('<', printf_string("%s| %d | %.*s ", time_stamp('<').c_str(), len, length_of(label), label.data()));
}

void TraceFile::sent_request(std::string_view exchange, int kind, std::string_view binding_key)
{
    std::lock_guard<std::mutex> guard(lock_);
    if (!file_)
        return;
    std::fprintf(file_, "%s | %.*s | %d | %.*s \n> %.*s\n>\n", time_stamp('>').c_str(), length_of(exchange),
                 exchange.data(), kind, length_of(binding_key), binding_key.data(), length_of(binding_key),
                 binding_key.data());
    std::fflush(file_);
}

void TraceFile::status(std::string_view text, std::string_view detail)
{
    std::lock_guard<std::mutex> guard(lock_);
    if (!file_)
        return;
    std::fprintf(file_, "%s | %.*s \n< %.*s\n<\n", time_stamp('<').c_str(), length_of(text), text.data(),
                 length_of(detail), detail.data());
    std::fflush(file_);
}

} // namespace zel
