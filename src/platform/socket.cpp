// Sockets that carry whole records, for the logger and the address-book
// client: a TCP client frames each record with its length (4 bytes, native
// order), a UDP client sends each record as one datagram. Any thread, one at
// a time per descriptor; nothing here locks.
#include <zel/descriptors.h>

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <utility>

#include "platform/detail_slot.h"
#include "platform/record_buffers.h"
#include "platform/record_socket.h"
#include "platform/result.h"

using zel::ensure_capacity;
using zel::load_record_length;
using zel::max_record_length;
using zel::record_prefix_size;
using zel::sys_fail;
using zel::sys_succeed;

namespace {

// The longest connect time-out that poll's milliseconds can express.
constexpr uint32_t longest_timeout_s = INT32_MAX / 1000;

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept
    {
        close_now();
        fd_ = std::exchange(other.fd_, -1);
        return *this;
    }
    ~UniqueFd() { close_now(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

    // False when the system reported an error; the descriptor is gone either way.
    bool close_now()
    {
        if (fd_ < 0)
            return true;
        const int closed = ::close(std::exchange(fd_, -1));
        return closed == 0;
    }

private:
    int fd_ = -1;
};

struct RecordSocket {
    UniqueFd fd;              // closed while the connection is dropped
    uint32_t kind = 0;
    uint32_t attempts = 1;
    int timeout_ms = -1;      // per connect to one address; -1: as long as the system allows
    bool blocking = true;
    sPChar reconnect_address{}; // owned copy
    scratchcb inbox{};        // TCP: the record being received, length prefix first

    ~RecordSocket()
    {
        int ignored;
        if (reconnect_address.data)
            pchar_destroy_mem(&reconnect_address, &ignored);
        punset_buffer_size(&inbox, &ignored);
    }
};

struct Endpoint {
    char host[NI_MAXHOST];
    char port[NI_MAXSERV];
};

bool is_decimal(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Splits "host:port" at its last ':', so that "::1:80" and "[::1]:80" name an
// IPv6 host too. False when a part is missing or too long, or the port is not
// a decimal number.
bool split_address(const sPChar &address, Endpoint *out)
{
    if (!address.data || address.len <= 0)
        return false;
    const std::string_view text(address.data, size_t(address.len));
    const size_t colon = text.rfind(':');
    if (colon == std::string_view::npos)
        return false;
    std::string_view host = text.substr(0, colon);
    const std::string_view port = text.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host.empty() || host.size() >= sizeof out->host || port.empty() || port.size() >= sizeof out->port ||
        !is_decimal(port))
        return false;
    *std::copy(host.begin(), host.end(), out->host) = '\0';
    *std::copy(port.begin(), port.end(), out->port) = '\0';
    return true;
}

struct AddressListFree {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListFree>;

// Null when the address is malformed or names no known host.
AddressList resolve(const sPChar &address, uint32_t kind)
{
    Endpoint endpoint;
    if (!split_address(address, &endpoint))
        return nullptr;
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = kind == SYS_SD_TCP ? SOCK_STREAM : SOCK_DGRAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *list = nullptr;
    if (getaddrinfo(endpoint.host, endpoint.port, &hints, &list) != 0)
        return nullptr;
    return AddressList(list);
}

bool connected_in_time(int fd, int timeout_ms)
{
    pollfd writable{fd, POLLOUT, 0};
    int ready;
    do
        ready = poll(&writable, 1, timeout_ms);
    while (ready < 0 && errno == EINTR);
    int error = 0;
    socklen_t size = sizeof error;
    return ready == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0;
}

// One attempt at one address, which may take `timeout_ms`. Answers the
// connected socket in blocking mode (a non-blocking read asks per call), or
// an empty one.
UniqueFd connect_once(const addrinfo &address, int timeout_ms)
{
    UniqueFd fd(socket(address.ai_family, address.ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, address.ai_protocol));
    if (!fd)
        return fd;
    const bool connected = connect(fd.get(), address.ai_addr, address.ai_addrlen) == 0 ||
                           (errno == EINPROGRESS && connected_in_time(fd.get(), timeout_ms));
    const int flags = fcntl(fd.get(), F_GETFL);
    if (!connected || flags < 0 || fcntl(fd.get(), F_SETFL, flags & ~O_NONBLOCK) != 0)
        return UniqueFd();
    return fd;
}

// Tries every address the name resolves to, `attempts` rounds in a row.
// Answers the detail: 0, 32 or 33.
uint32_t connect_socket(RecordSocket *sd, const sPChar &address)
{
    const AddressList list = resolve(address, sd->kind);
    if (!list)
        return 32;
    for (uint32_t attempt = 0; attempt < sd->attempts; ++attempt)
        for (const addrinfo *candidate = list.get(); candidate; candidate = candidate->ai_next)
            if (UniqueFd fd = connect_once(*candidate, sd->timeout_ms)) {
                sd->fd = std::move(fd);
                return 0;
            }
    return 33;
}

void drop_connection(RecordSocket *sd)
{
    sd->fd.close_now();
    sd->inbox.len = 0;
}

// The detail of a send or receive that the system refused.
uint32_t detail_of(int error)
{
    if (error == EAGAIN || error == EWOULDBLOCK)
        return 4;
    if (error == EPIPE || error == ECONNRESET || error == ENOTCONN)
        return 31;
    if (error == ECONNREFUSED)
        return 33;
    if (error == EMSGSIZE)
        return 5;
    return 1;
}

// Receives until the inbox holds `wanted` bytes. Without blocking, what has
// arrived stays in the inbox for the next read, and the answer is 4.
uint32_t fill_inbox(RecordSocket *sd, uint32_t wanted)
{
    scratchcb &inbox = sd->inbox;
    if (!ensure_capacity(&inbox, wanted))
        return 9;
    while (uint32_t(inbox.len) < wanted) {
        const ssize_t n = recv(sd->fd.get(), inbox.data + inbox.len, wanted - uint32_t(inbox.len),
                               sd->blocking ? 0 : MSG_DONTWAIT);
        if (n == 0)
            return 31;
        if (n > 0)
            inbox.len += int32_t(n);
        else if (errno != EINTR)
            return detail_of(errno);
    }
    return 0;
}

uint32_t receive_framed_record(RecordSocket *sd, scratchcb *dst)
{
    if (const uint32_t detail = fill_inbox(sd, record_prefix_size))
        return detail;
    const uint32_t length = load_record_length(sd->inbox.data);
    // The stream cannot be trusted past a length like this: nothing after it
    // can be found again.
    if (length > max_record_length) {
        drop_connection(sd);
        return 5;
    }
    if (const uint32_t detail = fill_inbox(sd, record_prefix_size + length))
        return detail;
    if (!ensure_capacity(dst, length))
        return 9;
    if (length > 0)
        std::memcpy(dst->data, sd->inbox.data + record_prefix_size, length);
    dst->len = int32_t(length);
    sd->inbox.len = 0;
    return 0;
}

uint32_t receive_datagram(RecordSocket *sd, scratchcb *dst)
{
    const int wait = sd->blocking ? 0 : MSG_DONTWAIT;
    ssize_t size;
    // MSG_TRUNC makes a peek answer the datagram's whole size.
    do
        size = recv(sd->fd.get(), nullptr, 0, MSG_PEEK | MSG_TRUNC | wait);
    while (size < 0 && errno == EINTR);
    if (size < 0)
        return detail_of(errno);
    if (!ensure_capacity(dst, size))
        return 9;
    ssize_t got;
    do
        got = recv(sd->fd.get(), dst->data, size_t(size), wait);
    while (got < 0 && errno == EINTR);
    if (got < 0)
        return detail_of(errno);
    dst->len = int32_t(got);
    return 0;
}

// Moves the pieces of `message` past `sent` bytes; pieces sent whole, and
// empty ones, drop out.
void skip_sent(msghdr *message, size_t sent)
{
    while (message->msg_iovlen > 0 && sent >= message->msg_iov->iov_len) {
        sent -= message->msg_iov->iov_len;
        ++message->msg_iov;
        --message->msg_iovlen;
    }
    if (message->msg_iovlen > 0) {
        message->msg_iov->iov_base = static_cast<char *>(message->msg_iov->iov_base) + sent;
        message->msg_iov->iov_len -= sent;
    }
}

// Length and bytes leave in one call where the system takes them, so that a
// small record never waits for an acknowledgement between its two parts.
uint32_t send_framed_record(int fd, const scratchcb &src)
{
    uint32_t length = uint32_t(src.len);
    iovec pieces[] = {{&length, sizeof length}, {src.data, size_t(src.len)}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    while (message.msg_iovlen > 0) {
        const ssize_t n = sendmsg(fd, &message, MSG_NOSIGNAL);
        if (n < 0 && errno != EINTR)
            return detail_of(errno);
        skip_sent(&message, n < 0 ? 0 : size_t(n));
    }
    return 0;
}

uint32_t send_datagram(int fd, const scratchcb &src)
{
    ssize_t n;
    do
        n = send(fd, src.data, size_t(src.len), MSG_NOSIGNAL);
    while (n < 0 && errno == EINTR);
    return n < 0 ? detail_of(errno) : 0;
}

} // namespace

extern "C" {

uint64_t sys_sd_open(void **handle, sSdOpenRequest *req, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !req)
        return sys_fail(err, 2);
    if (*handle)
        return sys_fail(err, 3);
    if (req->kind != SYS_SD_TCP && req->kind != SYS_SD_UDP)
        return sys_fail(err, 5);
    std::unique_ptr<RecordSocket> sd(new (std::nothrow) RecordSocket);
    if (!sd)
        return sys_fail(err, 9);
    sd->kind = req->kind;
    sd->attempts = std::max(req->attempts, 1u);
    sd->timeout_ms = req->timeout_s ? int(std::min(req->timeout_s, longest_timeout_s) * 1000) : -1;
    sd->blocking = req->blocking != 0;
    if (const uint32_t detail = connect_socket(sd.get(), req->address))
        return sys_fail(err, detail);
    sPChar *later = req->reconnect_address.len > 0 ? &req->reconnect_address : &req->address;
    int copy_err;
    if (!pchar_replicate_mem(&sd->reconnect_address, later, &copy_err))
        return sys_fail(err, 9);
    *handle = sd.release();
    return sys_succeed(err);
}

uint64_t sys_sd_read(void *handle, uint64_t, scratchcb *dst, uint32_t *err)
{
    err = zel::detail_slot(err);
    auto *sd = static_cast<RecordSocket *>(handle);
    if (!sd || !dst)
        return sys_fail(err, 2);
    dst->len = 0;
    if (!sd->fd)
        return sys_fail(err, 31);
    const uint32_t detail = sd->kind == SYS_SD_TCP ? receive_framed_record(sd, dst) : receive_datagram(sd, dst);
    return detail ? sys_fail(err, detail) : sys_succeed(err);
}

uint64_t sys_sd_write(void *handle, uint64_t, scratchcb *src, uint32_t *err)
{
    err = zel::detail_slot(err);
    auto *sd = static_cast<RecordSocket *>(handle);
    if (!sd || !src || (src->len > 0 && !src->data))
        return sys_fail(err, 2);
    if (src->len < 0 || uint32_t(src->len) > max_record_length)
        return sys_fail(err, 5);
    if (!sd->fd)
        return sys_fail(err, 31);
    if (sd->kind == SYS_SD_UDP) {
        const uint32_t detail = send_datagram(sd->fd.get(), *src);
        return detail ? sys_fail(err, detail) : sys_succeed(err);
    }
    const uint32_t detail = send_framed_record(sd->fd.get(), *src);
    if (detail == 0)
        return sys_succeed(err);
    // Part of a record may have left: the peer could no longer find where
    // the next one starts.
    drop_connection(sd);
    return sys_fail(err, detail);
}

uint64_t sys_sd_close(void **handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    if (!handle || !*handle)
        return sys_fail(err, 2);
    std::unique_ptr<RecordSocket> sd(static_cast<RecordSocket *>(*handle));
    *handle = nullptr;
    return sd->fd.close_now() ? sys_succeed(err) : sys_fail(err, 1);
}

uint64_t sys_sd_reconnt(void *handle, uint32_t *err)
{
    err = zel::detail_slot(err);
    auto *sd = static_cast<RecordSocket *>(handle);
    if (!sd)
        return sys_fail(err, 2);
    drop_connection(sd);
    const uint32_t detail = connect_socket(sd, sd->reconnect_address);
    return detail ? sys_fail(err, detail) : sys_succeed(err);
}

} // extern "C"

bool zel::sd_bound_read_wait(void *handle, int ms)
{
    auto *sd = static_cast<RecordSocket *>(handle);
    if (!sd || sd->fd.get() < 0)
        return false;
    timeval wait{ms / 1000, (ms % 1000) * 1000};
    return setsockopt(sd->fd.get(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait) == 0;
}
