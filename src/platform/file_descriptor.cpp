// File descriptors: a file opened for one access mode and read or written as
// text lines, length-prefixed records or whole contents, with meters. Any
// thread, one at a time per descriptor; nothing here locks.
#include <zel/descriptors.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "platform/detail_slot.h"
#include "platform/record_buffers.h"
#include "platform/result.h"

using zel::ensure_capacity;
using zel::load_record_length;
using zel::max_record_length;
using zel::record_prefix_size;
using zel::sys_fail;
using zel::sys_succeed;

namespace {

constexpr int read_ahead_size = 4096;
constexpr int32_t max_path_length = 1023;
// Longest text line delivered; the line reader never holds more than this.
constexpr int32_t max_line_length = (1 << 20) - 1;

// The end of the file: nothing delivered, and nothing wrong.
uint64_t at_end(uint32_t *err)
{
    *err = 0;
    return 0;
}

bool is_valid_request(const sFdOpenRequest &req)
{
    return req.access >= SYS_FD_READ && req.access <= SYS_FD_READ_WRITE && req.format >= SYS_FD_TEXT &&
           req.format <= SYS_FD_WHOLE && req.path.len >= 0 && req.path.len <= max_path_length &&
           (req.path.data || req.path.len == 0);
}

int open_flags(uint32_t access)
{
    switch (access) {
    case SYS_FD_READ:
        return O_RDONLY;
    case SYS_FD_WRITE:
        return O_WRONLY | O_CREAT | O_TRUNC;
    case SYS_FD_APPEND:
        return O_WRONLY | O_CREAT | O_APPEND;
    default:
        return O_RDWR | O_CREAT;
    }
}

// Releases whatever part of `fd` was made, then the record itself. Answers
// the detail of the failure, if any: 9 for a buffer, 1 for the OS handle.
uint32_t release_descriptor(sFileDescriptor *fd)
{
    uint32_t detail = 0;
    int buffer_err;
    if (fd->path.data && !pchar_destroy_mem(&fd->path, &buffer_err))
        detail = 9;
    if (!punset_buffer_size(&fd->read_ahead, &buffer_err))
        detail = 9;
    // Once made, the text stream owns the OS handle: closing it closes both.
    const int closed = fd->text ? std::fclose(fd->text) : fd->os_fd >= 0 ? close(fd->os_fd) : 0;
    if (closed != 0 && detail == 0)
        detail = 1;
    void *block = fd;
    uint32_t ignored;
    sys_mem_free(0, &block, &ignored);
    return detail;
}

struct DescriptorRelease {
    void operator()(sFileDescriptor *fd) const { release_descriptor(fd); }
};
using OwnedDescriptor = std::unique_ptr<sFileDescriptor, DescriptorRelease>;

OwnedDescriptor new_descriptor()
{
    void *block = nullptr;
    uint32_t ignored;
    if (!sys_mem_alloc(0, &block, nullptr, sizeof(sFileDescriptor), &ignored))
        return nullptr;
    auto *fd = static_cast<sFileDescriptor *>(block);
    fd->os_fd = -1;
    return OwnedDescriptor(fd);
}

bool reads_text_lines(const sFileDescriptor &fd)
{
    return fd.access == SYS_FD_READ && fd.format == SYS_FD_TEXT;
}

// Gives the descriptor its read-ahead buffer, its path copy and, for a
// read-only text file, its text stream.
bool attach_buffers(sFileDescriptor *fd, sPChar *path)
{
    int err;
    if (!pset_buffer_size(&fd->read_ahead, read_ahead_size, &err) || !pchar_replicate_mem(&fd->path, path, &err))
        return false;
    if (!reads_text_lines(*fd))
        return true;
    fd->text = fdopen(fd->os_fd, "r");
    return fd->text != nullptr;
}

// Reads up to `size` bytes, first from what the read-ahead buffer holds, then
// from the file until it ends; counts one read call and its bytes. Answers
// the bytes read, or -1 when the system refused.
int64_t read_counted(sFileDescriptor *fd, char *dst, uint32_t size)
{
    scratchcb &ahead = fd->read_ahead;
    const uint32_t held = std::min(size, uint32_t(ahead.len));
    if (held > 0)
        std::memcpy(dst, ahead.data, held);
    std::memmove(ahead.data, ahead.data + held, size_t(ahead.len) - held);
    ahead.len -= int32_t(held);
    uint32_t got = held;
    while (got < size) {
        const ssize_t n = read(fd->os_fd, dst + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += uint32_t(n);
    }
    ++fd->read_calls;
    fd->bytes_read += got;
    return got;
}

uint64_t read_length_prefixed(sFileDescriptor *fd, scratchcb *dst, uint32_t *err)
{
    char prefix[record_prefix_size];
    const int64_t got = read_counted(fd, prefix, record_prefix_size);
    if (got == 0)
        return at_end(err);
    if (got != record_prefix_size)
        return sys_fail(err, 1);
    const uint32_t length = load_record_length(prefix);
    if (length > max_record_length)
        return sys_fail(err, 5);
    if (!ensure_capacity(dst, length))
        return sys_fail(err, 9);
    if (read_counted(fd, dst->data, length) != length)
        return sys_fail(err, 1);
    ++fd->records_read;
    dst->len = int32_t(length);
    *err = 0;
    return length;
}

// Consumes the rest of a line through its newline.
void skip_line(FILE *text)
{
    int c;
    while ((c = getc(text)) != EOF && c != '\n') {
    }
}

// Consumes the blanks after a line's newline, so that the next line's
// indentation is never delivered; a further newline stays, so that an empty
// line still reads as the end.
void skip_blanks(FILE *text)
{
    int c;
    while ((c = getc(text)) != EOF && c != '\n' && std::isspace(c)) {
    }
    if (c != EOF)
        ungetc(c, text);
}

// A line that cannot be held is skipped whole, so that the next read
// delivers the line after it.
uint64_t refuse_line(FILE *text, scratchcb *dst, uint32_t *err)
{
    skip_line(text);
    skip_blanks(text);
    dst->len = 0;
    return sys_fail(err, 9);
}

uint64_t read_line(sFileDescriptor *fd, scratchcb *dst, uint32_t *err)
{
    if (!fd->text)
        return sys_fail(err, 5);
    ++fd->read_calls;
    int c;
    while ((c = getc(fd->text)) != EOF && c != '\n') {
        // Room for this byte and the terminator.
        if (dst->len == max_line_length || !ensure_capacity(dst, int64_t(dst->len) + 2))
            return refuse_line(fd->text, dst, err);
        dst->data[dst->len++] = char(c);
    }
    if (std::ferror(fd->text)) {
        dst->len = 0;
        return sys_fail(err, 1);
    }
    if (dst->len == 0) {
        // An empty line is the end for this and every later read.
        if (c == '\n')
            ungetc(c, fd->text);
        return at_end(err);
    }
    dst->data[dst->len] = '\0';
    skip_blanks(fd->text);
    ++fd->records_read;
    fd->bytes_read += uint32_t(dst->len);
    *err = 0;
    return uint64_t(dst->len);
}

uint64_t read_to_end(sFileDescriptor *fd, scratchcb *dst, uint32_t *err)
{
    for (;;) {
        if (!ensure_capacity(dst, int64_t(dst->len) + 1))
            return sys_fail(err, 9);
        const ssize_t n = read(fd->os_fd, dst->data + dst->len, size_t(dst->alloc - dst->len));
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return sys_fail(err, 1);
        ++fd->read_calls;
        fd->bytes_read += uint32_t(n);
        if (n == 0)
            break;
        dst->len += int32_t(n);
    }
    if (dst->len > 0)
        ++fd->records_read;
    *err = 0;
    return uint64_t(dst->len);
}

// A record is only ever taken out of the read-ahead buffer whole, so the
// buffer must be able to hold the pending record: grows it to that size.
uint32_t make_room_for_pending_record(scratchcb *ahead)
{
    if (ahead->len < int32_t(record_prefix_size))
        return 0;
    const uint32_t length = load_record_length(ahead->data);
    if (length > max_record_length)
        return 5;
    return ensure_capacity(ahead, int64_t(record_prefix_size) + length) ? 0 : 9;
}

// Moves every whole record of the read-ahead buffer, without its length, to
// the end of `dst`, and what remains to the buffer's start. False when `dst`
// could not grow (the records not moved stay for the next call).
bool move_whole_records(sFileDescriptor *fd, scratchcb *dst, bool *delivered)
{
    scratchcb &ahead = fd->read_ahead;
    int32_t taken = 0;
    bool grown = true;
    while (ahead.len - taken >= int32_t(record_prefix_size)) {
        const uint32_t length = load_record_length(ahead.data + taken);
        if (length > uint32_t(ahead.len - taken) - record_prefix_size)
            break;
        if (!(grown = ensure_capacity(dst, int64_t(dst->len) + length)))
            break;
        if (length > 0)
            std::memcpy(dst->data + dst->len, ahead.data + taken + record_prefix_size, length);
        dst->len += int32_t(length);
        taken += int32_t(record_prefix_size + length);
        ++fd->records_read;
        *delivered = *delivered || length > 0;
    }
    std::memmove(ahead.data, ahead.data + taken, size_t(ahead.len - taken));
    ahead.len -= taken;
    return grown;
}

// Writes all of `bytes` and counts one write call and its bytes. Answers the
// bytes written, 0 when the system would not write them all.
size_t write_counted(sFileDescriptor *fd, const char *bytes, size_t size)
{
    size_t written = 0;
    while (written < size) {
        const ssize_t n = write(fd->os_fd, bytes + written, size - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return 0;
        written += size_t(n);
    }
    ++fd->write_calls;
    fd->bytes_written += uint32_t(written);
    return written;
}

} // namespace

extern "C" {

uint64_t sys_fd_open(sFileDescriptor **handle, sFdOpenRequest *req, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !req)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    if (!is_valid_request(*req))
        return sys_fail(err, 5);
    char path[max_path_length + 1] = {};
    if (req->path.len > 0)
        std::memcpy(path, req->path.data, size_t(req->path.len));
    OwnedDescriptor fd = new_descriptor();
    if (!fd)
        return sys_fail(err, 9);
    fd->access = req->access;
    fd->format = req->format;
    fd->os_fd = open(path, open_flags(req->access) | O_CLOEXEC, 0600);
    if (fd->os_fd < 0)
        return sys_fail(err, 1);
    if (!attach_buffers(fd.get(), &req->path))
        return sys_fail(err, 9);
    *handle = fd.release();
    return sys_succeed(err);
}

uint64_t sys_fd_read(sFileDescriptor *fd, uint64_t, scratchcb *dst, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!fd || !dst)
        return sys_fail(err, 2);
    dst->len = 0;
    switch (fd->format) {
    case SYS_FD_RECORDS:
        return read_length_prefixed(fd, dst, err);
    case SYS_FD_TEXT:
        return read_line(fd, dst, err);
    default:
        return read_to_end(fd, dst, err);
    }
}

uint64_t sys_fd_read_buffer(sFileDescriptor *fd, uint64_t, scratchcb *dst, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!fd || !dst)
        return sys_fail(err, 2);
    if (fd->format != SYS_FD_RECORDS)
        return sys_fail(err, 5);
    scratchcb &ahead = fd->read_ahead;
    if (const uint32_t detail = make_room_for_pending_record(&ahead))
        return sys_fail(err, detail);
    ssize_t n;
    do
        n = read(fd->os_fd, ahead.data + ahead.len, size_t(ahead.alloc - ahead.len));
    while (n < 0 && errno == EINTR);
    if (n < 0)
        return sys_fail(err, 1);
    ++fd->read_calls;
    fd->bytes_read += uint32_t(n);
    if (n == 0)
        return sys_fail(err, 4);
    ahead.len += int32_t(n);
    bool delivered = false;
    if (!move_whole_records(fd, dst, &delivered))
        return sys_fail(err, 9);
    *err = 0;
    return delivered ? 1 : 0;
}

uint64_t sys_fd_write(sFileDescriptor *fd, uint64_t, scratchcb *src, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!fd || !src)
        return sys_fail(err, 2);
    if (src->len < 0 || (src->len == 0 && fd->format == SYS_FD_WHOLE))
        return sys_fail(err, 5);
    // Refused before anything is written: a zero length in a record file
    // would read back as its end.
    if (src->len == 0 || !src->data)
        return sys_fail(err, 2);
    const uint32_t length = uint32_t(src->len);
    if (fd->format == SYS_FD_RECORDS) {
        if (length > max_record_length)
            return sys_fail(err, 5);
        if (!write_counted(fd, reinterpret_cast<const char *>(&length), sizeof length))
            return sys_fail(err, 2);
    }
    size_t last = write_counted(fd, src->data, length);
    if (!last)
        return sys_fail(err, 2);
    ++fd->records_written;
    if (fd->format == SYS_FD_TEXT && !(last = write_counted(fd, "\n", 1)))
        return sys_fail(err, 2);
    *err = 0;
    return last;
}

uint64_t sys_fd_close(sFileDescriptor **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    const uint32_t detail = release_descriptor(*handle);
    *handle = nullptr;
    return detail ? sys_fail(err, detail) : sys_succeed(err);
}

} // extern "C"
